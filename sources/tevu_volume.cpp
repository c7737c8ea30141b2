// Mount and volume discovery. See tevu_volume.h.
#include "tevu_volume.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <mntent.h>
#include <pthread.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstdio>
#include <cstdlib>

#include "common.h"

using tevul::format_cut;

namespace {

constexpr char kMountTable[] = "/etc/mtab";
constexpr char kRuntimeFile[] = "/tmp/.tevu/tevu.ini";
// Key up to the first "=", which may span lines; value to the end of line.
// Trailing white space, blank lines and the next line's leading blanks are
// skipped before the next key.
constexpr char kLimitsScan[] = "%4095[^=]=%4095[^\n]\n";
// Three ":"-separated fields; only the second (the volume root) is used.
constexpr char kRuntimeScan[] = "%255[^:\n]:%4096[^:\n]:%4096[^\n]\n";

// The most a limits or runtime file may hold; a larger one counts as absent
// (a runaway file costs one bounded read, not seconds per call).
constexpr std::size_t kSmallFileMax = 64 * 1024;

// True when `dir` is a directory that can be reached.
bool reachable_dir(const char* dir) {
  struct stat st;
  return stat(dir, &st) == 0 && S_ISDIR(st.st_mode);
}

// The content of one of the daemon's small text files, as a stream.
struct small_file {
  tevul::c_ptr<char> data;
  tevul::file_ptr stream;
};

// Opens `name` for scanning, or gives no stream when the file counts as
// absent: it does not exist, is not a regular file (a FIFO or device put in
// its place is never read, and the open does not wait for a writer), is
// empty, or holds more than kSmallFileMax bytes. The whole content is read
// at once, so nothing of the file stays open.
small_file open_small_file(const char* name) {
  small_file file;
  const int fd = open(name, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) return file;
  struct stat st;
  std::size_t len = 0;
  if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) {
    // One byte more than allowed tells a file that is too large, also where
    // the file system (the daemon's) reports no size.
    file.data.reset(static_cast<char*>(std::malloc(kSmallFileMax + 1)));
    while (file.data && len <= kSmallFileMax) {
      const ssize_t got = read(fd, file.data.get() + len, kSmallFileMax + 1 - len);
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) break;
      len += static_cast<std::size_t>(got);
    }
  }
  close(fd);
  if (!file.data || len == 0 || len > kSmallFileMax) return small_file();
  file.stream.reset(fmemopen(file.data.get(), len, "r"));
  return file;
}

// Process-wide caches: filled once, never reset or freed. Threads that get
// to an empty one together fill it one after the other, under g_cache_lock;
// a filled one is read without the lock.
pthread_mutex_t g_cache_lock = PTHREAD_MUTEX_INITIALIZER;
std::atomic<const char*> g_mount_point{nullptr};
tevul::meta_dir_cache g_meta_dir;

// Reads the target of link `link` into `vol->db_path`. A target that does
// not fit with its terminator counts as unreadable.
bool read_db_link(tevu_volume* vol, const char* link) {
  char target[sizeof vol->db_path];
  const ssize_t len = readlink(link, target, sizeof target);
  if (len < 0 || static_cast<std::size_t>(len) >= sizeof target) return false;
  memcpy(vol->db_path, target, static_cast<std::size_t>(len));
  vol->db_path[len] = '\0';
  return true;
}

}  // namespace

const char* tevu_find_mount() {
  if (const char* known = g_mount_point.load(std::memory_order_acquire)) return known;
  const tevul::mutex_hold hold(&g_cache_lock);
  if (const char* known = g_mount_point.load(std::memory_order_relaxed)) return known;
  tevul::mnt_ptr table(setmntent(kMountTable, "r"));
  if (!table) return nullptr;
  // getmntent() would share one entry among all threads.
  mntent entry;
  char line[2 * tevul::kLongPathSize];
  while (getmntent_r(table.get(), &entry, line, sizeof line) != nullptr) {
    // Both prefix tests are exactly 4 bytes: "fuse.tevu" and "tevu-x" match.
    if (strncmp(entry.mnt_type, "fuse", 4) != 0) continue;
    if (strncmp(entry.mnt_fsname, "tevu", 4) != 0) continue;
    // Kept for the process's life.
    g_mount_point.store(strdup(entry.mnt_dir), std::memory_order_release);
    break;
  }
  return g_mount_point.load(std::memory_order_relaxed);
}

void tevul::fill_meta_dir(meta_dir_cache* cache, const char* mount) {
  if (cache->filled.load(std::memory_order_acquire)) return;
  const mutex_hold hold(&g_cache_lock);
  if (cache->filled.load(std::memory_order_relaxed)) return;
  tevul::format_cut(cache->path, sizeof cache->path, "%s/meta", mount);
  cache->filled.store(true, std::memory_order_release);
}

extern "C" const char* tevu_mount_point(void) { return tevu_find_mount(); }

int32_t tevu_get_limit(const char* key) {
  const char* mount = tevu_find_mount();
  if (mount == nullptr) return 0;
  char file_name[tevul::kPathSize];
  tevul::format_cut(file_name, sizeof file_name, "%s/%s/%s/%s", mount, "meta",
                ".info", "limits.txt");
  const small_file file = open_small_file(file_name);
  if (!file.stream) return 0;
  return tevul::scan_limit(file.stream.get(), key);
}

int32_t tevul::scan_limit(FILE* file, const char* key) {
  char name[4096];
  char value[4096];
  for (;;) {
    if (std::fscanf(file, kLimitsScan, name, value) != 2) return 0;
    if (strcmp(name, key) != 0) continue;
    // The first line with the key decides, even when it is unusable.
    char* end = nullptr;
    const long number = std::strtol(value, &end, 10);
    if (*end != '\0') return 0;
    // Out-of-range values are clamped, as a 32-bit long would clamp them.
    if (number > INT32_MAX) return INT32_MAX;
    if (number < INT32_MIN) return INT32_MIN;
    return static_cast<int32_t>(number);
  }
}

extern "C" int tevu_getmaxnamelen(void) { return tevu_get_limit("TAG_NAME_MAX"); }

extern "C" int tevu_getmaxvaluelen(void) {
  return tevu_get_limit("TAG_VALUE_MAX");
}

int tevu_read_ini(char* dst) {
  const small_file file = open_small_file(kRuntimeFile);
  if (!file.stream) return 0;
  return tevul::scan_ini(file.stream.get(), dst);
}

int tevul::scan_ini(FILE* file, char* dst) {
  char first[256] = "";
  char root[4097] = "";
  char third[4097] = "";
  // Only end of input counts as "no line": a line matching just its first
  // field still counts as read, with an empty root.
  if (std::fscanf(file, kRuntimeScan, first, root, third) == EOF) return 0;
  tevul::format_cut(dst, tevul::kPathSize, "%s", root);
  return 1;
}

int tevul::find_volume_link(const char* meta_dir, int meta_fd, const char* path,
                            char* name) {
  const std::size_t n = strcspn(path + 1, "/");
  char link[kPathSize];
  if (n == 0 || n > NAME_MAX ||
      !format_whole(link, sizeof link, "%s/%.*s", meta_dir, static_cast<int>(n),
                    path + 1)) {
    return reachable_dir(meta_dir) ? 0 : -1;
  }
  struct stat st;
  int rc = -1;
  if (meta_fd >= 0) {
    rc = fstatat(meta_fd, link + strlen(meta_dir) + 1, &st, AT_SYMLINK_NOFOLLOW);
    // The held directory answers "no such entry" for itself.
    if (rc != 0 && (errno == ENOENT || errno == ENOTDIR)) return 0;
  }
  if (rc != 0 && lstat(link, &st) != 0) {
    // No such entry: no volume, unless the meta directory itself is gone,
    // which a read of the directory would have told.
    if (errno == ENOENT || errno == ENOTDIR) return reachable_dir(meta_dir) ? 0 : -1;
    return -1;
  }
  if (!S_ISLNK(st.st_mode)) return 0;
  memcpy(name, path + 1, n);
  name[n] = '\0';
  return 1;
}

bool tevul::each_volume(const char* meta_dir,
                        int (*visit)(void* user, const char* name,
                                     const char* db_file),
                        void* user) {
  dir_ptr dir(opendir(meta_dir));
  if (!dir) return false;
  while (const dirent* entry = readdir(dir.get())) {
    if (entry->d_type != DT_LNK) continue;
    char db_file[kLongPathSize];
    format_cut(db_file, sizeof db_file, "%s/%s@@db", meta_dir, entry->d_name);
    if (visit(user, entry->d_name, db_file) != 0) break;
  }
  return true;
}

const char* tevul::volume_relative(const tevu_volume* vol, const char* path) {
  const int32_t n = vol->prefix_len;
  if (n <= 0) return path;
  for (int32_t i = 0; i < n - 1; ++i) {
    if (path[i] == '\0') return "";
  }
  return path[n - 1] == '\0' ? "" : path + n;
}

bool tevul::root_matches(const char* root, const char* path) {
  const std::size_t len = strlen(root);
  if (len == 0) return false;
  if (strncmp(path + 1, root + 1, len - 1) != 0) return false;
  return path[len] == '\0' || path[len] == '/';
}

int tevu_locate_volume(tevu_volume* vol, const char* path) {
  if (tevul::is_empty(path)) return 0;
  const char* mount = tevu_find_mount();
  if (mount == nullptr) return 0;
  tevul::fill_meta_dir(&g_meta_dir, mount);
  if (path[0] != '/') return 0;
  return tevu_match_volume(vol, path);
}

bool tevul::runtime_root_holds(const char* path, char* root) {
  struct stat st;
  return stat(kRuntimeFile, &st) == 0 && tevu_read_ini(root) == 1 &&
         root_matches(root, path);
}

int tevu_match_volume(tevu_volume* vol, const char* path) {
  char name[256];
  const int found = tevul::find_volume_link(g_meta_dir.path, -1, path, name);
  if (found < 0) return 0;  // no meta directory: no fallback either
  char link[tevul::kPathSize];
  if (found == 1) {
    vol->prefix_len = tevul::format_cut(vol->prefix, sizeof vol->prefix, "/%s/", name);
    tevul::format_cut(link, sizeof link, "%s/%s@@db", g_meta_dir.path, name);
    // Only the first matching link is tried; a missing database link falls
    // back to the runtime file, with prefix already written.
    if (read_db_link(vol, link)) return 1;
  }

  char root[tevul::kPathSize];
  if (!tevul::runtime_root_holds(path, root)) return 0;
  vol->prefix_len = tevul::format_cut(vol->prefix, sizeof vol->prefix, "%s/", root);
  // The root begins with "/", so no slash is added after the meta directory.
  tevul::format_cut(link, sizeof link, "%s%s@@db", g_meta_dir.path, root);
  return read_db_link(vol, link) ? 1 : 0;
}

int tevul::open_dir_beneath(int base_fd, const char* base, const char* rel,
                            bool make_missing, unsigned mode, unique_fd* dir,
                            char* resolved) {
  constexpr int kMaxLinks = 40;
  const std::size_t base_len = strlen(base);
  array<int> fds;  // the directories walked, base first; each owned here
  text path;      // their path
  text todo;      // what is left to walk
  struct closer {
    array<int>* fds;
    ~closer() {
      for (std::size_t i = 0; i < fds->size(); ++i) close((*fds)[i]);
    }
  } close_all{&fds};
  const int top = base_fd >= 0 ? fcntl(base_fd, F_DUPFD_CLOEXEC, 0)
                               : open(base, O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (top < 0) return errno;
  if (!fds.push(top)) {
    close(top);
    return ENOMEM;
  }
  path.append(base);
  todo.append(rel);
  int links = 0;
  std::size_t at = 0;
  while (at < todo.size()) {
    if (!path.ok() || !todo.ok()) return ENOMEM;
    const char* rest = todo.c_str() + at;
    const char* slash = strchr(rest, '/');
    const std::size_t len = slash != nullptr ? static_cast<std::size_t>(slash - rest) : strlen(rest);
    at += len + (slash != nullptr ? 1 : 0);
    char name[NAME_MAX + 1];
    if (len > NAME_MAX) return ENAMETOOLONG;
    memcpy(name, rest, len);
    name[len] = '\0';
    if (len == 0 || strcmp(name, ".") == 0) continue;
    if (strcmp(name, "..") == 0) {
      if (fds.size() == 1) return EINVAL;  // above `base`
      close(fds[fds.size() - 1]);
      fds.truncate(fds.size() - 1);
      path.truncate(static_cast<std::size_t>(strrchr(path.c_str(), '/') - path.c_str()));
      continue;
    }
    const int here = fds[fds.size() - 1];
    int fd = openat(here, name, O_PATH | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0 && errno == ENOENT && make_missing) {
      if (mkdirat(here, name, mode) != 0 && errno != EEXIST) return errno;
      fd = openat(here, name, O_PATH | O_NOFOLLOW | O_CLOEXEC);
    }
    if (fd < 0) return errno;
    unique_fd entry(fd);
    struct stat st;
    if (fstat(fd, &st) != 0) return errno;
    if (S_ISLNK(st.st_mode)) {
      if (++links > kMaxLinks) return ELOOP;
      char target[PATH_MAX];
      const ssize_t n = readlinkat(fd, "", target, sizeof target - 1);
      if (n < 0) return errno;
      target[n] = '\0';
      // The link's target, then what was left after it.
      text next;
      const char* inner = target;
      if (target[0] == '/') {
        // Absolute: only a place below `base`, walked again from it.
        if (strncmp(target, base, base_len) != 0 ||
            (target[base_len] != '/' && target[base_len] != '\0')) {
          return EINVAL;
        }
        inner = target + base_len;
        while (fds.size() > 1) {
          close(fds[fds.size() - 1]);
          fds.truncate(fds.size() - 1);
        }
        path.truncate(base_len);
      }
      next.append(inner).push('/').append(todo.c_str() + at);
      if (!next.ok()) return ENOMEM;
      todo.clear();
      todo.append(next.c_str());
      at = 0;
      continue;
    }
    if (!S_ISDIR(st.st_mode)) return ENOTDIR;
    if (!fds.push(fd)) return ENOMEM;
    entry.release();
    path.push('/').append(name);
  }
  if (!path.ok()) return ENOMEM;
  if (path.size() >= kPathSize) return ENAMETOOLONG;
  memcpy(resolved, path.c_str(), path.size() + 1);
  // The last directory, opened for reading (listing and *at() calls alike).
  const int last = openat(fds[fds.size() - 1], ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (last < 0) return errno;
  dir->reset(last);
  return 0;
}
