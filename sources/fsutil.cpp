// File tests, stat templates and recursive mkdir and rmdir, shared with the
// daemon. Results mix conventions on purpose, as the daemon's callers expect:
// the system calls' -1 with errno, positive error numbers for what these
// functions find themselves, and truth values.
// The module's functions are declared in tevul.h.
#include "tevul.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stddef.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include "common.h"
#include "fsutil.h"

namespace {

// The default time of the stat templates; meant to be set once at start-up.
int32_t g_default_time = 0;

// Refuses a NULL path the way a system call would.
bool null_path(const char* path) {
  if (path != nullptr) return false;
  errno = EINVAL;
  return true;
}

// Copies `path` into `buf` of tevul::kLongPathSize bytes; false when it does not fit.
bool copy_path(char* buf, const char* path) {
  const std::size_t len = strlen(path);
  if (len >= tevul::kLongPathSize) return false;
  memcpy(buf, path, len + 1);
  return true;
}

// The templates fill the stat record with 64-bit offsets, which the header
// calls struct stat64 after glibc. This file is built with
// _FILE_OFFSET_BITS=64, so struct stat is that record: glibc lays both out
// the same, and musl has no other (its stat64 is at most a macro for stat).
#if defined(__GLIBC__)
static_assert(sizeof(struct stat) == sizeof(struct stat64) &&
                  offsetof(struct stat, st_mtim) == offsetof(struct stat64, st_mtim),
              "struct stat is the 64-bit record");
#endif

void fill_template(struct stat64* record, int clear, int writable,
                   mode_t writable_mode, mode_t read_only_mode, bool one_link) {
  if (record == nullptr) return;
  struct stat* st = reinterpret_cast<struct stat*>(record);
  if (clear) memset(st, 0, sizeof *st);
  st->st_mode = writable ? writable_mode : read_only_mode;
  if (one_link) st->st_nlink = 1;
  st->st_uid = writable ? getuid() : 0;
  st->st_gid = writable ? getgid() : 0;
  st->st_atime = g_default_time;
  st->st_mtime = g_default_time;
  st->st_ctime = g_default_time;
}

bool has_type(const char* path, mode_t type) {
  struct stat st;
  return !tevul::is_empty(path) && stat(path, &st) == 0 &&
         (st.st_mode & S_IFMT) == type;
}

}  // namespace

namespace tevul {

// One directory being emptied: its descriptor and where its name starts in
// the walk's arena.
struct emptying_dir {
  int fd;
  std::size_t name_at;
};

// Unlinks what the directory `fd` holds apart from directories; the first
// directory found is opened into `*sub` (-1 when there is none) with its
// name appended to `names` at `*name_at`. Returns 0, -1 with errno, ENOENT or ENOMEM.
int empty_files_of(int fd, int* sub, std::size_t* name_at, text* names) {
  *sub = -1;
  // A stream of its own for each pass: a stream holds a buffer of up to 32
  // KiB, and one is open at a time, however deep the tree.
  const int stream_fd = dup(fd);
  dir_ptr dir(stream_fd >= 0 ? fdopendir(stream_fd) : nullptr);
  if (!dir) {
    if (stream_fd >= 0) close(stream_fd);
    return ENOENT;
  }
  rewinddir(dir.get());
  while (const dirent* entry = readdir(dir.get())) {
    const char* child = entry->d_name;
    if (strcmp(child, ".") == 0 || strcmp(child, "..") == 0) continue;
    if (entry->d_type != DT_DIR) {
      // Links are removed, not followed; an entry of unknown type is unlinked.
      if (unlinkat(fd, child, 0) != 0) return -1;
      continue;
    }
    *sub = openat(fd, child, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (*sub < 0) return ENOENT;
    *name_at = names->size();
    names->append(child).push('\0');
    if (!names->ok()) {
      close(*sub);
      *sub = -1;
      return ENOMEM;
    }
    return 0;
  }
  return 0;
}

int empty_tree_at(int at, const char* name) {
  // Every step is taken from a descriptor held open, never by a path, and
  // no link is followed: a directory swapped for a link while the walk runs
  // is unlinked as a link, and nothing outside the tree is reached. Depth
  // costs a descriptor and the name per level on the heap, never stack.
  const int top = openat(at, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (top < 0) return ENOENT;  // whatever the cause, as callers expect
  array<emptying_dir> open_dirs;
  text names;
  if (!open_dirs.push({top, 0})) {
    close(top);
    return ENOMEM;
  }
  int rc = 0;
  while (!open_dirs.empty()) {
    const emptying_dir current = open_dirs[open_dirs.size() - 1];
    int sub = -1;
    std::size_t name_at = 0;
    if (rc == 0) rc = empty_files_of(current.fd, &sub, &name_at, &names);
    if (sub >= 0) {
      if (!open_dirs.push({sub, name_at})) {
        close(sub);
        rc = ENOMEM;
      }
      continue;
    }
    // Empty now (or giving up): the directory goes, then its name.
    close(current.fd);
    open_dirs.truncate(open_dirs.size() - 1);
    if (!open_dirs.empty() && rc == 0 &&
        unlinkat(open_dirs[open_dirs.size() - 1].fd, names.c_str() + current.name_at,
                 AT_REMOVEDIR) != 0) {
      rc = -1;
    }
    names.truncate(current.name_at);
  }
  return rc;
}

}  // namespace tevul

extern "C" void fsutil_setdeftime(int32_t t) { g_default_time = t; }

extern "C" int fsutil_isfile(const char* path) {
  return has_type(path, S_IFREG) ? 1 : 0;
}

extern "C" int fsutil_isdir(const char* path) {
  return has_type(path, S_IFDIR) ? 1 : 0;
}

extern "C" int fsutil_isactivedir(const char* path) {
  struct statfs info;
  return path != nullptr && statfs(path, &info) == 0 ? 1 : 0;
}

extern "C" void fsutil_stat_setreg(struct stat64* st, int clear, int writable) {
  fill_template(st, clear, writable, 0100664, 0100444, true);
}

extern "C" void fsutil_stat_setdir(struct stat64* st, int clear, int writable) {
  // A directory's link count is the caller's to keep.
  fill_template(st, clear, writable, 040775, 040555, false);
}

extern "C" void fsutil_stat_setsymlink(struct stat64* st, int clear,
                                       int writable) {
  fill_template(st, clear, writable, 0120775, 0120555, true);
}

extern "C" int fsutil_mkdir(const char* path, unsigned int mode, int recursive) {
  if (null_path(path)) return -1;
  if (!fsutil_isdir(path)) {
    if (recursive) {
      char copy[tevul::kLongPathSize];
      if (!copy_path(copy, path)) return ENAMETOOLONG;
      // From the second byte on, so that a leading "/" yields no empty
      // component; after each "/" the search goes on from the second byte
      // after it, so a doubled "/" yields none either.
      char* from = copy[0] != '\0' ? copy + 1 : copy;
      for (char* slash; (slash = strchr(from, '/')) != nullptr;) {
        *slash = '\0';
        if (!fsutil_isdir(copy) && mkdir(copy, mode) != 0) return -1;
        *slash = '/';
        if (slash[1] == '\0') break;
        from = slash + 2;
      }
    }
    if (mkdir(path, mode) != 0) return -1;
  }
  struct stat st;
  if (stat(path, &st) != 0) return -1;
  // A plain numeric comparison, not a test of bits: 0755 asked for 0700
  // stays 0755, 0700 asked for 0750 becomes 0750.
  if ((st.st_mode & ~static_cast<mode_t>(S_IFMT)) < mode) return chmod(path, mode);
  return 0;
}

extern "C" int fsutil_mkdir_forfile(const char* path, unsigned int mode,
                                    int recursive) {
  if (null_path(path)) return -1;
  char copy[tevul::kLongPathSize];
  if (!copy_path(copy, path)) return ENAMETOOLONG;
  char* last = strrchr(copy, '/');
  if (last == nullptr) return 1;
  *last = '\0';
  return fsutil_mkdir(copy, mode, recursive);
}

extern "C" int fsutil_rmdir(const char* path, int recursive) {
  if (null_path(path)) return -1;
  if (!recursive) return rmdir(path);
  const int rc = tevul::empty_tree_at(AT_FDCWD, path);
  return rc != 0 ? rc : rmdir(path);
}
