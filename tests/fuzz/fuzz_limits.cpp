// Fuzzes the limits-file scan: any bytes as the file, for both keys. The
// scan must neither crash nor read outside its buffers, and a file holding
// only a valid line for the key must give its value.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tevu_volume.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;  // fmemopen() needs at least one byte
  for (const char* key : {"TAG_NAME_MAX", "TAG_VALUE_MAX"}) {
    FILE* file = fmemopen(const_cast<uint8_t*>(data), size, "r");
    if (file == nullptr) return 0;
    tevul::scan_limit(file, key);
    fclose(file);
  }
  // The same bytes as a number behind the key: only plain decimal text that
  // strtol() takes whole is a limit.
  const std::string number(reinterpret_cast<const char*>(data), size);
  if (number.find_first_of(std::string("\n\0=", 3)) != std::string::npos ||
      number.size() > 4000) {
    return 0;
  }
  const std::string line = "TAG_NAME_MAX=" + number + "\n";
  FILE* file = fmemopen(const_cast<char*>(line.data()), line.size(), "r");
  if (file == nullptr) return 0;
  const int32_t got = tevul::scan_limit(file, "TAG_NAME_MAX");
  fclose(file);
  // The scan skips nothing inside the value, so blanks before the digits
  // are read by strtol() as it reads them.
  char* end = nullptr;
  const long want = std::strtol(number.c_str(), &end, 10);
  const bool whole = !number.empty() && *end == '\0' &&
                     number.find_first_not_of(" \t\v\f\r") != std::string::npos;
  if (whole && want >= INT32_MIN && want <= INT32_MAX && got != want) abort();
  if (!whole && got != 0) abort();
  return 0;
}
