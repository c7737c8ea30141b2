// What every module of the library shares: the path sizes the daemon's
// formats fix, the invariant check, the one set of resource owners, the
// growable text buffer and the lock idiom.
//
// The library needs nothing at run time but the C library and SQLite: it is
// built without exceptions and RTTI, allocates only through malloc() and
// calloc() behind the owners below, and uses no guarded function-local
// statics. A failed allocation is a result (each family's own value), never
// a crash.
#ifndef TEVUL_COMMON_H
#define TEVUL_COMMON_H

#include <dirent.h>
#include <sys/stat.h>
#include <glob.h>
#include <mntent.h>
#include <pthread.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "tevul.h"

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

// Formats into a fixed buffer of `size` bytes; false, with nothing usable in
// `dst`, when the text would be cut.
__attribute__((format(printf, 3, 4))) inline bool format_whole(
    char* dst, std::size_t size, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int len = std::vsnprintf(dst, size, format, args);
  va_end(args);
  return len >= 0 && static_cast<std::size_t>(len) < size;
}

// ---------------------------------------------------------------------------
// Resource owners: every resource the library holds is released by one of
// these when its owner goes away.

// The deleter of an owner whose resource `release` frees (what `release`
// returns is of no use to an owner going away).
template <typename T, typename R, R (*release)(T*)>
struct released_by {
  void operator()(T* p) const { release(p); }
};

// Memory from malloc() or calloc().
template <typename T>
using c_ptr = std::unique_ptr<T, released_by<void, void, std::free>>;

// An object with a constructor, on the C heap: calloc() and placement new
// instead of operator new, the destructor and free() at the end.
template <typename T>
struct object_deleter {
  void operator()(T* p) const {
    p->~T();
    std::free(p);
  }
};
template <typename T>
using object_ptr = std::unique_ptr<T, object_deleter<T>>;

// A new zero-filled, constructed T, or none when memory is short.
template <typename T>
object_ptr<T> make_object() {
  void* memory = std::calloc(1, sizeof(T));
  if (memory == nullptr) return nullptr;
  return object_ptr<T>(new (memory) T());
}

// A stream closed with fclose().
using file_ptr = std::unique_ptr<FILE, released_by<FILE, int, std::fclose>>;
// A mount table stream closed with endmntent().
using mnt_ptr = std::unique_ptr<FILE, released_by<FILE, int, endmntent>>;
// The matches of a glob() that filled them, released with globfree().
using glob_ptr = std::unique_ptr<glob_t, released_by<glob_t, void, globfree>>;
// A directory stream closed with closedir().
using dir_ptr = std::unique_ptr<DIR, released_by<DIR, int, closedir>>;

// A file descriptor closed when its owner goes away; -1 holds none.
class unique_fd {
 public:
  unique_fd() = default;
  explicit unique_fd(int fd) : fd_(fd) {}
  ~unique_fd() { reset(); }
  unique_fd(unique_fd&& other) noexcept : fd_(other.release()) {}
  unique_fd& operator=(unique_fd&& other) noexcept {
    reset(other.release());
    return *this;
  }
  unique_fd(const unique_fd&) = delete;
  unique_fd& operator=(const unique_fd&) = delete;

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  int release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
  }
  void reset(int fd = -1) {
    if (fd_ >= 0) close(fd_);
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

// A prepared statement finalised when its owner goes away.
using stmt_ptr =
    std::unique_ptr<sqlite3_stmt, released_by<sqlite3_stmt, int, sqlite3_finalize>>;
// A connection closed when its owner goes away.
using db_ptr = std::unique_ptr<sqlite3, released_by<sqlite3, int, sqlite3_close>>;
// Memory from SQLite's allocator (sqlite3_mprintf(), sqlite3_malloc()).
using sqlite_text = std::unique_ptr<char, released_by<void, void, sqlite3_free>>;
// A tag database handle closed (and so committed, if it ever wrote) when
// its owner lets go.
using tagdb_ptr =
    std::unique_ptr<metadb_tagdb, released_by<metadb_tagdb, void, metadb_tagdb_close>>;
// A bulk context that commits, wakes the daemon if it changed anything and
// is freed when its owner lets go.
using bulk_ptr =
    std::unique_ptr<tevu_bulk_ctx, released_by<tevu_bulk_ctx, void, tevu_bulk_fini>>;

// A reader closed when its owner lets go.
using reader_ptr =
    std::unique_ptr<tevu_reader, released_by<tevu_reader, void, tevu_reader_close>>;

// The descriptor of the daemon's FIFO (event_trigger_init()'s result: a
// descriptor greater than 0, or 0 or -1 for none), closed with
// event_trigger_fini() when its owner goes away.
class trigger_fd {
 public:
  trigger_fd() = default;
  explicit trigger_fd(int fd) : fd_(fd) {}
  ~trigger_fd() { event_trigger_fini(fd_); }
  trigger_fd(const trigger_fd&) = delete;
  trigger_fd& operator=(const trigger_fd&) = delete;
  // Wakes the daemon (nothing when there is no FIFO).
  void wake() const { event_trigger(fd_); }
  void reset(int fd = 0) {
    event_trigger_fini(fd_);
    fd_ = fd;
  }

 private:
  int32_t fd_ = 0;
};

// Holds a pthread mutex for its scope: the one lock idiom of the library.
class mutex_hold {
 public:
  explicit mutex_hold(pthread_mutex_t* mutex) : mutex_(mutex) {
    pthread_mutex_lock(mutex_);
  }
  ~mutex_hold() { pthread_mutex_unlock(mutex_); }
  mutex_hold(const mutex_hold&) = delete;
  mutex_hold& operator=(const mutex_hold&) = delete;

 private:
  pthread_mutex_t* mutex_;
};

// ---------------------------------------------------------------------------
// A text that grows: bytes on the C heap, always terminated. A failed
// allocation makes the text fail for good: later appends do nothing, ok()
// is false and the caller reports memory running short. Embedded NUL bytes
// are kept (size() counts them).
class text {
 public:
  text() = default;
  ~text() { std::free(data_); }
  text(text&& other) noexcept
      : data_(other.data_), size_(other.size_), capacity_(other.capacity_),
        failed_(other.failed_) {
    other.data_ = nullptr;
    other.size_ = other.capacity_ = 0;
    other.failed_ = false;
  }
  text(const text&) = delete;
  text& operator=(const text&) = delete;

  bool ok() const { return !failed_; }
  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  const char* c_str() const { return data_ != nullptr ? data_ : ""; }
  char* data() { return data_; }

  // Makes room for `extra` more bytes (and the terminator).
  bool reserve(std::size_t extra);
  text& append(const char* bytes, std::size_t n);
  text& append(const char* s) { return append(s, std::strlen(s)); }
  text& push(char c) { return append(&c, 1); }
  // Appends printf-formatted text.
  __attribute__((format(printf, 2, 3))) text& appendf(const char* format, ...);
  // Keeps the first `n` bytes.
  void truncate(std::size_t n) {
    if (n < size_) {
      size_ = n;
      data_[n] = '\0';
    }
  }
  void clear() { truncate(0); }
  // Replaces every occurrence of `from` (not empty) by `to`.
  text& replace_all(const char* from, const char* to);

 private:
  char* data_ = nullptr;
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;
  bool failed_ = false;
};

// A growable array of plain values (no constructors run), on the C heap.
// push() gives false when memory is short and leaves the array as it was.
template <typename T>
class array {
 public:
  array() = default;
  ~array() { std::free(items_); }
  array(const array&) = delete;
  array& operator=(const array&) = delete;

  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  T* data() { return items_; }
  const T* data() const { return items_; }
  T& operator[](std::size_t i) { return items_[i]; }
  const T& operator[](std::size_t i) const { return items_[i]; }
  void clear() { size_ = 0; }
  // Keeps the first `n` items.
  void truncate(std::size_t n) {
    if (n < size_) size_ = n;
  }
  // Sorts the items with qsort()'s comparison.
  void sort(int (*compare)(const void*, const void*)) {
    if (size_ > 1) std::qsort(items_, size_, sizeof(T), compare);
  }
  // The item equal to `key` in a sorted array, or NULL.
  const T* find(const T& key, int (*compare)(const void*, const void*)) const {
    if (size_ == 0) return nullptr;
    return static_cast<const T*>(std::bsearch(&key, items_, size_, sizeof(T), compare));
  }
  bool push(const T& item) {
    if (size_ == capacity_) {
      const std::size_t grown = capacity_ == 0 ? 16 : 2 * capacity_;
      void* more = std::realloc(items_, grown * sizeof(T));
      if (more == nullptr) return false;
      items_ = static_cast<T*>(more);
      capacity_ = grown;
    }
    items_[size_++] = item;
    return true;
  }

 private:
  T* items_ = nullptr;
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;
};

// What a walk's visitor answers for an entry.
enum walk_answer { walk_skip = 0, walk_enter = 1, walk_stop = -1 };

// Visits everything below the directory `root` (not `root` itself): each
// entry with its lstat() record, parents before what they hold, each
// directory's entries in name order. A directory is entered when `visit`
// answers walk_enter; walk_stop ends the walk. No link is followed (each
// step is taken from the directory's descriptor with O_NOFOLLOW) and there
// is no recursion: depth costs one descriptor and the names of one
// directory per level, on the heap, never stack. `unreadable` (may be
// null) hears of a directory that could not be read, which is passed over.
// Returns 0, walk_stop's -1, or the errno of a root that cannot be read or
// of memory running short (ENOMEM).
int walk_below(const char* root, walk_answer (*visit)(void* user, const char* path,
                                                      const struct stat& st),
               void (*unreadable)(void* user, const char* path, int error), void* user);

}  // namespace tevul

#endif  // TEVUL_COMMON_H
