// Fuzzes the condition language's parser: any bytes as a condition. A
// parse must neither crash nor read past the text; a fault must lie inside
// the text (or at its end); a parsed tree must be well formed: every
// operand made before the node that uses it, the root last, every name a
// non-empty text without a double quote.
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tevu_cond.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string source(reinterpret_cast<const char*>(data), size);
  tevul::condition c;
  std::size_t offset = SIZE_MAX;
  const int rc = c.parse(source.c_str(), &offset);
  const std::size_t length = strlen(source.c_str());
  if (rc != 0) {
    if (rc != EINVAL || offset > length) abort();
    return 0;
  }
  if (c.size() == 0) abort();
  for (std::size_t i = 0; i < c.size(); ++i) {
    const tevul::condition::node& n = c[i];
    switch (n.what) {
      case tevul::condition::kOr:
      case tevul::condition::kAnd:
        if (n.right < 0 || static_cast<std::size_t>(n.right) >= i) abort();
        [[fallthrough]];
      case tevul::condition::kNot:
        if (n.left < 0 || static_cast<std::size_t>(n.left) >= i) abort();
        break;
      case tevul::condition::kCompare:
        // A number equals itself, however long, and compares both ways
        // alike with the names' text taken as a number too.
        if (tevul::is_number(c.value(n))) {
          if (tevul::compare_numbers(c.value(n), c.value(n)) != 0) abort();
          if (tevul::is_number(c.name(n)) &&
              tevul::compare_numbers(c.value(n), c.name(n)) !=
                  -tevul::compare_numbers(c.name(n), c.value(n))) {
            abort();
          }
        }
        [[fallthrough]];
      case tevul::condition::kHas:
        if (c.name(n)[0] == '\0' || strchr(c.name(n), '"') != nullptr) abort();
        break;
    }
  }
  return 0;
}
