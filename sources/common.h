// Small internal helpers shared by every module.
#ifndef TEVUL_COMMON_H
#define TEVUL_COMMON_H

#include <cstdlib>
#include <memory>
#include <new>

namespace tevul {

// True for a NULL or empty C string.
inline bool is_empty(const char* s) { return s == nullptr || s[0] == '\0'; }

// Allocates a T, or gives NULL when memory is short: no exception leaves the
// library.
template <typename T>
std::unique_ptr<T> make_nothrow() {
  try {
    return std::make_unique<T>();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

// Releases memory that came from malloc() or calloc().
struct free_deleter {
  void operator()(void* p) const { std::free(p); }
};

}  // namespace tevul

#endif  // TEVUL_COMMON_H
