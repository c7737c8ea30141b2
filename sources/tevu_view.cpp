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
// of the failing system call. open_config() decides all but the last for
// every function of the family.
#include "tevul.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <utility>

#include "common.h"
#include "fsutil.h"
#include "tevu_volume.h"

namespace {

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

// Refuses: -1, with errno EINVAL.
int refuse() {
  errno = EINVAL;
  return kBadArgument;
}

// Opens <mount>/view/.config/`rel` (`rel` empty: the base itself) into
// *dir, the base opened beneath the mount and `rel` beneath the base, each
// component from the descriptor of the one before and every link resolved
// by the library (tevul::open_dir_beneath()): a link planted in the tree,
// or swapped in while the call runs, never puts a view's configuration
// elsewhere. With `make`, missing directories are made (mode 0: it never
// exceeds the existing bits, so no permission change follows). Returns 0,
// kBadArgument (errno EINVAL) for a path that a link leads out of the
// configuration tree, ENOENT without a mount, ENAMETOOLONG, or the errno
// of the open or mkdirat.
int open_config(const char* rel, bool make, tevul::unique_fd* dir) {
  const char* mount = tevu_find_mount();
  if (mount == nullptr) return ENOENT;
  tevul::unique_fd base;
  char base_path[tevul::kPathSize];
  char resolved[tevul::kPathSize];
  int rc = tevul::open_dir_beneath(-1, mount, "view/.config", make, 0, &base, base_path);
  if (rc == 0) {
    if (rel[0] == '\0') {
      *dir = std::move(base);
      return 0;
    }
    rc = tevul::open_dir_beneath(base.get(), base_path, rel, make, 0, dir, resolved);
  }
  return rc == EINVAL || rc == ELOOP ? refuse() : rc;
}

// Opens the view's configuration directory (made with `make`). Returns 0,
// kBadArgument for a name that is not valid_name() or a directory outside
// the configuration tree, or as open_config().
int open_config_dir(const char* name, bool make, tevul::unique_fd* dir) {
  if (!valid_name(name)) return refuse();
  if (std::strlen(name) >= tevul::kPathSize - sizeof "/view/.config/") return ENAMETOOLONG;
  return open_config(name, make, dir);
}

// Replaces `file` of the view with `text`, reached from the descriptor of
// the view's directory and never written through a link at its place.
// Returns 0, kBadArgument for a link there or a directory outside the
// configuration tree, or the errno of the failing open or write.
int write_config(const char* name, const char* file, const char* text) {
  tevul::unique_fd dir;
  if (const int rc = open_config_dir(name, false, &dir)) return rc;
  tevul::unique_fd fd(
      openat(dir.get(), file, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0666));
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
  tevul::unique_fd dir;
  const int rc = open_config_dir(name, true, &dir);
  if (rc == 0 || rc == kBadArgument || rc == ENAMETOOLONG) return rc;
  if (tevu_find_mount() == nullptr) return ENOENT;
  // A directory that could not be made: -1 with errno, as mkdir() says it
  // (ENOTDIR when a file stands where a directory of the path must be).
  errno = rc;
  return -1;
}

extern "C" char* tevu_view_get_path(const char* name, char* buf, size_t size) {
  if (buf == nullptr) return nullptr;
  tevul::unique_fd dir;
  if (open_config_dir(name, false, &dir) != 0) return nullptr;
  tevul::format_cut(buf, size, kContentsDir, tevu_find_mount(), name);
  return buf;
}

extern "C" int tevu_view_delete(const char* name) {
  if (!valid_name(name)) return refuse();
  if (tevu_find_mount() == nullptr) return ENOENT;
  if (std::strlen(name) >= tevul::kPathSize - sizeof "/view/.config/") return ENAMETOOLONG;
  // The view's parent directory is opened; the view itself is removed from
  // it: a link at the view's place goes as a link, its target stays.
  char parent[tevul::kPathSize];
  std::memcpy(parent, name, std::strlen(name) + 1);
  char* slash = std::strrchr(parent, '/');
  const char* last = name;
  if (slash != nullptr) {
    *slash = '\0';
    last = name + (slash - parent) + 1;
  } else {
    parent[0] = '\0';
  }
  tevul::unique_fd dir;
  if (const int rc = open_config(parent, false, &dir)) return rc;
  struct stat st;
  if (fstatat(dir.get(), last, &st, AT_SYMLINK_NOFOLLOW) != 0) return errno;
  if (S_ISLNK(st.st_mode)) return unlinkat(dir.get(), last, 0) == 0 ? 0 : errno;
  const int rc = tevul::empty_tree_at(dir.get(), last);
  if (rc != 0) return rc;
  return unlinkat(dir.get(), last, AT_REMOVEDIR);
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
