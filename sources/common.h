// Small internal helpers shared by every module.
#ifndef TEVUL_COMMON_H
#define TEVUL_COMMON_H

#include <dirent.h>
#include <mntent.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>

namespace tevul {

// The path buffers the daemon's formats fix, said once: 4096 bytes with the
// terminator for paths of files and databases, 4097 where the daemon's own
// buffers are one byte larger (the fsutil_ functions, the FIFO path, the
// cleanup's absolute paths, the lookup's meta directory). A longer result
// is cut by the formatting call, or refused where a cut would name another
// file.
constexpr std::size_t kPathSize = 4096;
constexpr std::size_t kLongPathSize = 4097;

// Checks an invariant of the library's own state, in the manner of
// SQLite's assert(): compiled in for debug builds and wherever
// TEVUL_CHECK_INVARIANTS is defined (the sanitizer and fuzz builds), out of
// release builds. A failure prints the expression, file, line and function
// and aborts. (The unlock-notify wait's own checks are different: they stay
// on in every build; see metadb_bulk.)
#if defined(TEVUL_CHECK_INVARIANTS) || !defined(NDEBUG)
#define TEVUL_INVARIANT(condition)                                             \
  ((condition) ? static_cast<void>(0)                                          \
               : ::tevul::invariant_failed(#condition, __FILE__, __LINE__,    \
                                           __func__))
#else
#define TEVUL_INVARIANT(condition) static_cast<void>(0)
#endif

[[noreturn]] inline void invariant_failed(const char* condition,
                                          const char* file, int line,
                                          const char* function) {
  std::fprintf(stderr, "%s:%d: %s: invariant failed: %s\n", file, line,
               function, condition);
  std::abort();
}

// The C boundary of an exported function: returns what `body` returns, or
// `on_no_memory` (the family's value for memory running short) when an
// allocation inside it fails, so that no exception leaves the library.
template <typename Result, typename Body>
Result c_boundary(Result on_no_memory, Body&& body) noexcept {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return on_no_memory;
  }
}

// True for a NULL or empty C string.
inline bool is_empty(const char* s) { return s == nullptr || s[0] == '\0'; }

// Formats into a fixed buffer of `size` bytes, cutting what does not fit:
// the daemon's paths live in fixed buffers, and a cut path simply names
// nothing. Returns what vsnprintf returns (the uncut length).
__attribute__((format(printf, 3, 4))) inline int format_cut(
    char* dst, std::size_t size, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int len = std::vsnprintf(dst, size, format, args);
  va_end(args);
  return len;
}

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

// A stream closed with fclose() when its owner goes away.
struct file_closer {
  void operator()(FILE* f) const { std::fclose(f); }
};
using file_ptr = std::unique_ptr<FILE, file_closer>;

// A mount table stream closed with endmntent().
struct mnt_closer {
  void operator()(FILE* f) const { endmntent(f); }
};
using mnt_ptr = std::unique_ptr<FILE, mnt_closer>;

// A directory stream closed with closedir().
struct dir_closer {
  void operator()(DIR* d) const { closedir(d); }
};
using dir_ptr = std::unique_ptr<DIR, dir_closer>;

}  // namespace tevul

#endif  // TEVUL_COMMON_H
