// Path and string matching, offered to other programs (the library itself
// does not call them). Nothing is allocated; pointer results point into the
// argument or at a constant.
// The module's functions are declared in tevul.h.
#include "tevul.h"

#include <string.h>

extern "C" const char* fsutil_basename(const char* s) {
  if (s == nullptr || s[0] == '\0') return ".";
  const char* last = strrchr(s, '/');
  // A bare name deliberately has no base name here.
  return last == nullptr ? nullptr : last + 1;
}

extern "C" size_t fsutil_dentrylen(const char* s) {
  return s != nullptr ? strcspn(s, "/") : 0;
}

namespace {
// `path` after its first byte, which is its leading "/" and is not
// examined; an empty path has nothing after it.
const char* after_first(const char* path) {
  return path[0] == '\0' ? path : path + 1;
}
}  // namespace

// No component boundary is required after `name`.
extern "C" int fsutil_prefix_match(const char* path, const char* name,
                                   int exact) {
  if (path == nullptr || name == nullptr) return 0;
  const char* rest = after_first(path);
  if (exact) return strcmp(rest, name) == 0 ? 1 : 0;
  return strncmp(rest, name, strlen(name)) == 0 ? 1 : 0;
}

extern "C" int fsutil_prefix_match_len(const char* path, const char* name,
                                       size_t n) {
  if (path == nullptr || name == nullptr) return 0;
  return strncmp(after_first(path), name, n) == 0 ? 1 : 0;
}

extern "C" int fsutil_suffix_match(const char* s, const char* suffix) {
  if (s == nullptr || suffix == nullptr) return 0;
  const size_t ls = strlen(s);
  const size_t lx = strlen(suffix);
  if (ls < lx) return 0;
  return memcmp(s + ls - lx, suffix, lx) == 0 ? 1 : 0;
}

extern "C" int fsutil_infix_match(const char* haystack, const char* needle) {
  if (haystack == nullptr || needle == nullptr) return 0;
  return strstr(haystack, needle) != nullptr ? 1 : 0;
}

extern "C" int fsutil_string_replace(char* str, const char* from,
                                     const char* to) {
  if (str == nullptr || from == nullptr || to == nullptr) return 0;
  const size_t ls = strlen(str);
  const size_t lf = strlen(from);
  const size_t lt = strlen(to);
  // Done inside str's own storage, so the string may only shrink.
  if (lf < lt) return 0;
  size_t i = 0;
  size_t j = 0;
  // Through i == ls, so the terminator is copied too. Matches are found
  // left to right and never overlap; j never overtakes i.
  while (i <= ls) {
    if (lf > 0 && strncmp(str + i, from, lf) == 0) {
      memmove(str + j, to, lt);
      i += lf;
      j += lt;
    } else {
      str[j++] = str[i++];
    }
  }
  return 1;
}
