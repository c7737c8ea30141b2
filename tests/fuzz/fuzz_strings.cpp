// Fuzzes the string utilities with any string, pattern and replacement (the
// input split at its first two NUL bytes), each in a buffer of its exact
// size, so that a read past a terminator is caught. A replacement never
// lengthens the string. The unit tests pin the results at their edges.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "tevul.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string parts[3];
  for (size_t i = 0, part = 0; i < size && part < 3; ++i) {
    if (data[i] == '\0') {
      ++part;
    } else {
      parts[part] += static_cast<char>(data[i]);
    }
  }
  std::vector<char> s(parts[0].c_str(), parts[0].c_str() + parts[0].size() + 1);
  const std::vector<char> p(parts[1].c_str(), parts[1].c_str() + parts[1].size() + 1);
  fsutil_infix_match(s.data(), p.data());
  fsutil_suffix_match(s.data(), p.data());
  fsutil_prefix_match(s.data(), p.data(), 0);
  fsutil_prefix_match(s.data(), p.data(), 1);
  fsutil_prefix_match_len(s.data(), p.data(), parts[2].size());
  fsutil_dentrylen(s.data());
  fsutil_basename(s.data());
  if (fsutil_string_replace(s.data(), p.data(), parts[2].c_str()) == 1 &&
      std::strlen(s.data()) > parts[0].size()) {
    abort();
  }
  return 0;
}
