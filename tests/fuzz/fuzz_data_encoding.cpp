// Fuzzes the Data encoding against the lookup's reader. The input is a list
// of names and values separated by NUL bytes. Every list must encode and
// read back without fault; a list whose names and values use none of the
// characters the two directions treat differently must read back as its
// "name=value" lines exactly.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "metadb_sync.h"
#include "metadb_tagsfile.h"

namespace {

bool plain(const std::string& s, const char* avoid) {
  return s.find_first_of(avoid) == std::string::npos &&
         s.find("#ESCAPED") == std::string::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<std::string> fields(1);
  for (size_t i = 0; i < size; ++i) {
    if (data[i] == '\0') {
      fields.emplace_back();
    } else {
      fields.back() += static_cast<char>(data[i]);
    }
  }

  tevul::text list;
  std::string expected;
  bool first = true;
  bool round_trips = true;
  for (size_t i = 0; i + 1 < fields.size(); i += 2) {
    const std::string& name = fields[i];
    const std::string& value = fields[i + 1];
    if (name.empty()) continue;  // every tag column has a name
    tevul::data_append(list, first, name.c_str(), value.c_str());
    first = false;
    expected += name + "=" + value + "\n";
    // A name keeps "=" as "\=" and a value's "/" comes back as "\"; line
    // feeds and backslashes change the lines; "#ESCAPED#" is the reader's
    // own marker, and text ending in "#ESCAPED" before an escaped bar forms
    // it too. The daemon's format keeps these ambiguities.
    round_trips &= plain(name, "=\n\\") && plain(value, "/\n\\");
  }
  tevul::tagsfile_lines(list);
  if (!list.ok()) abort();
  const std::string lines(list.c_str(), list.size());
  if (lines.empty() || lines.back() != '\n') abort();
  if (round_trips && lines != (expected.empty() ? "\n" : expected)) abort();
  return 0;
}
