// Fuzzes the runtime-file scan: any bytes as the file. The root it hands
// back must be a terminated string of at most 4095 bytes holding no ":" and
// no line feed.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tevu_volume.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;  // fmemopen() needs at least one byte
  FILE* file = fmemopen(const_cast<uint8_t*>(data), size, "r");
  if (file == nullptr) return 0;
  char root[tevul::kPathSize];
  memset(root, 0x55, sizeof root);
  const int read = tevul::scan_ini(file, root);
  fclose(file);
  if (read != 0 && read != 1) abort();
  if (read == 1) {
    const void* end = memchr(root, '\0', sizeof root);
    if (end == nullptr) abort();
    if (strchr(root, ':') != nullptr || strchr(root, '\n') != nullptr) abort();
  }
  return 0;
}
