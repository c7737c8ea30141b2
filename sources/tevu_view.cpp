// Views: the configuration of each view V is a directory of small files
// under <mount>/view/.config/V/ that the daemon reads (cond.ini, group.ini,
// events.ini); the daemon shows the view's files under <mount>/view/V. The
// library writes the files whole and never reads them back. The view name is
// used as it stands, so a name with slashes addresses nested directories.
// The module's functions are declared in tevul.h.
//
// The family's results: 0, kBadArgument (-1) for a bad name or text, or for
// a view whose configuration a planted link would put outside
// <mount>/view/.config, ENOENT without a mount, ENAMETOOLONG, or the errno
// of the failing system call. config_path() and inside_config() decide all
// but the last for every function of the family.
#include "tevul.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "common.h"
#include "tevu_volume.h"

namespace {

constexpr char kConfigBase[] = "%s/view/.config";
constexpr char kConfigDir[] = "%s/view/.config/%s";
constexpr char kConfigFile[] = "%s/view/.config/%s/%s";
constexpr char kContentsDir[] = "%s/view/%s";

// Bad arguments are -1 here, unlike the tag-file functions' 2: views have
// always reported them so. errno says EINVAL then, as a refused system call
// would, so that a caller can tell a refusal from a failed call's -1.
constexpr int kBadArgument = -1;

// True when `name` may name a view: one or more "/"-separated components,
// none of them empty, "." or "..", so that the view's directories stay
// below <mount>/view/.config (deleting "../../meta" would take the volume
// links with it, deleting "/" every view). "a/b" names a nested view.
bool valid_name(const char* name) {
  if (tevul::is_empty(name)) return false;
  for (const char* part = name;;) {
    const std::size_t len = std::strcspn(part, "/");
    if (len == 0 || (len == 1 && part[0] == '.') ||
        (len == 2 && part[0] == '.' && part[1] == '.')) {
      return false;
    }
    if (part[len] == '\0') return true;
    part += len + 1;
  }
}

// Formats the view's configuration directory, or the file `file` in it,
// into `out` of tevul::kPathSize bytes. Returns 0, kBadArgument for a name
// that is not valid_name(), ENOENT without a mount, or ENAMETOOLONG when the
// path would be cut (a cut name could end in a ".." it did not have).
// Refuses: -1, with errno EINVAL.
int refuse() {
  errno = EINVAL;
  return kBadArgument;
}

int config_path(const char* name, const char* file, char* out) {
  if (!valid_name(name)) return refuse();
  const char* mount = tevu_find_mount();
  if (mount == nullptr) return ENOENT;
  const bool whole =
      file != nullptr
          ? tevul::format_whole(out, tevul::kPathSize, kConfigFile, mount, name, file)
          : tevul::format_whole(out, tevul::kPathSize, kConfigDir, mount, name);
  return whole ? 0 : ENAMETOOLONG;
}

// Whether the configuration directory `dir` of a view, as far as it exists,
// lies inside <mount>/view/.config, itself inside the mount: the deepest
// existing one of `dir` and its parents, every link followed, must be the
// base or below it. Returns 0, kBadArgument when a link leads elsewhere, or
// the errno of a path that cannot be resolved.
int inside_config(const char* dir) {
  const char* mount = tevu_find_mount();
  char base[tevul::kPathSize];
  char resolved[tevul::kPathSize];
  if (!tevul::format_whole(base, sizeof base, kConfigBase, mount)) return ENAMETOOLONG;
  if (const int rc = tevul::resolve_below(base, mount, resolved)) {
    return rc == EINVAL ? refuse() : rc;
  }
  char real_base[tevul::kPathSize];
  std::memcpy(real_base, resolved, sizeof real_base);
  char existing[tevul::kPathSize];
  std::memcpy(existing, dir, tevul::kPathSize);
  for (;;) {
    struct stat st;
    if (lstat(existing, &st) == 0) break;
    // A file where a directory of the path should be: the path does not
    // exist, and making it fails later as any directory that cannot be made.
    if (errno != ENOENT && errno != ENOTDIR) return errno;
    char* slash = std::strrchr(existing, '/');
    if (slash == nullptr || slash == existing) return ENOENT;
    *slash = '\0';
  }
  if (realpath(existing, resolved) == nullptr) return errno;
  const std::size_t n = std::strlen(real_base);
  const bool inside = std::strncmp(resolved, real_base, n) == 0 &&
                      (resolved[n] == '\0' || resolved[n] == '/');
  return inside ? 0 : refuse();
}

// The view's configuration directory in `out`, checked to lie inside
// <mount>/view/.config. Returns 0 or the family's result.
int checked_config_dir(const char* name, char* out) {
  if (const int rc = config_path(name, nullptr, out)) return rc;
  return inside_config(out);
}

// Replaces `file` of the view with `text`. The file is never written
// through a link at its place. Returns 0, kBadArgument for a link there or a
// directory outside the configuration tree, or the errno of the failing
// open or write.
int write_config(const char* name, const char* file, const char* text) {
  char dir[tevul::kPathSize];
  char path[tevul::kPathSize];
  if (const int rc = checked_config_dir(name, dir)) return rc;
  if (const int rc = config_path(name, file, path)) return rc;
  struct stat st;
  if (lstat(path, &st) == 0 && S_ISLNK(st.st_mode)) return refuse();
  tevul::unique_fd fd(
      open(path, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0666));
  if (!fd.valid()) return errno == ELOOP ? refuse() : errno;
  tevul::file_ptr out(fdopen(fd.get(), "w"));
  if (!out) return errno;
  fd.release();
  return std::fprintf(out.get(), "%s", text) < 0 ? errno : 0;
}

int set_string(const char* name, const char* file, const char* text) {
  if (!valid_name(name) || tevul::is_empty(text)) return refuse();
  if (tevu_find_mount() == nullptr) return ENOENT;
  if (const int rc = tevu_view_create(name)) return rc;
  return write_config(name, file, text);
}

int set_events(const char* name, const char* on_off) {
  // Does not create the view: ENOENT when it was never created.
  return write_config(name, "events.ini", on_off);
}

}  // namespace

extern "C" int tevu_view_create(const char* name) {
  char path[tevul::kPathSize];
  if (const int rc = config_path(name, nullptr, path)) return rc;
  // Where nothing of the configuration tree exists yet, nothing can lead
  // outside it.
  if (const int rc = inside_config(path)) {
    if (rc != ENOENT) return rc;
  }
  // Mode 0 is deliberate: it never exceeds the existing bits, so no
  // permission change follows.
  const int rc = fsutil_mkdir(path, 0, 1);
  if (rc == -1) {
    // The result is fsutil_mkdir()'s; errno says why when a file stands
    // where a directory of the path must be.
    const int saved = errno;
    struct stat st;
    if (stat(path, &st) == 0 || errno != ENOTDIR) errno = saved;
  }
  return rc;
}

extern "C" char* tevu_view_get_path(const char* name, char* buf, size_t size) {
  if (buf == nullptr) return nullptr;
  char config[tevul::kPathSize];
  if (checked_config_dir(name, config) != 0 || !fsutil_isdir(config)) {
    return nullptr;
  }
  tevul::format_cut(buf, size, kContentsDir, tevu_find_mount(), name);
  return buf;
}

extern "C" int tevu_view_delete(const char* name) {
  char path[tevul::kPathSize];
  if (const int rc = config_path(name, nullptr, path)) return rc;
  // A link at the view's place goes as a link; its target stays.
  struct stat st;
  if (lstat(path, &st) == 0 && S_ISLNK(st.st_mode)) {
    char parent[tevul::kPathSize];
    std::memcpy(parent, path, sizeof parent);
    *std::strrchr(parent, '/') = '\0';
    if (const int rc = inside_config(parent)) return rc;
    return unlink(path) == 0 ? 0 : errno;
  }
  if (const int rc = inside_config(path)) return rc == ENOENT ? ENOENT : rc;
  return fsutil_rmdir(path, 1);
}

extern "C" int tevu_view_set_cond(const char* name, const char* cond) {
  return set_string(name, "cond.ini", cond);
}

extern "C" int tevu_view_set_group(const char* name, const char* group) {
  return set_string(name, "group.ini", group);
}

extern "C" int tevu_view_enable_events(const char* name) {
  return set_events(name, "1");
}

extern "C" int tevu_view_disable_events(const char* name) {
  return set_events(name, "0");
}
