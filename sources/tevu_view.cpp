// Views. See tevu_view.h.
//
// The family's results: 0, kBadArgument (-1) for a bad name or text, ENOENT
// without a mount, ENAMETOOLONG, or the errno of the failing system call.
// config_path() decides all but the last for every function of the family.
#include "tevu_view.h"

#include <errno.h>

#include <cstdio>
#include <cstring>

#include "common.h"
#include "tevu_volume.h"

namespace {

constexpr char kConfigDir[] = "%s/view/.config/%s";
constexpr char kConfigFile[] = "%s/view/.config/%s/%s";
constexpr char kContentsDir[] = "%s/view/%s";

// Bad arguments are -1 here, unlike the tag-file functions' 2: views have
// always reported them so.
constexpr int kBadArgument = -1;

// True when `name` may name a view: not empty, and no "/"-separated
// component of it is "." or "..", so that the view's directories stay below
// <mount>/view/.config (deleting "../../meta" would take the volume links
// with it). "a/b" names a nested view.
bool valid_name(const char* name) {
  if (tevul::is_empty(name)) return false;
  for (const char* part = name;;) {
    const std::size_t len = std::strcspn(part, "/");
    if ((len == 1 && part[0] == '.') ||
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
int config_path(const char* name, const char* file, char* out) {
  if (!valid_name(name)) return kBadArgument;
  const char* mount = tevu_find_mount();
  if (mount == nullptr) return ENOENT;
  const int len = file != nullptr
                      ? std::snprintf(out, tevul::kPathSize, kConfigFile, mount,
                                      name, file)
                      : std::snprintf(out, tevul::kPathSize, kConfigDir, mount, name);
  if (len < 0 || static_cast<std::size_t>(len) >= tevul::kPathSize) {
    return ENAMETOOLONG;
  }
  return 0;
}

// Replaces `file` of the view with `text`. Returns 0 or the errno of the
// failing open or write.
int write_config(const char* name, const char* file, const char* text) {
  char path[tevul::kPathSize];
  if (const int rc = config_path(name, file, path)) return rc;
  tevul::file_ptr out(std::fopen(path, "w"));
  if (!out) return errno;
  return std::fprintf(out.get(), "%s", text) < 0 ? errno : 0;
}

int set_string(const char* name, const char* file, const char* text) {
  if (!valid_name(name) || tevul::is_empty(text)) return kBadArgument;
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
  // Mode 0 is deliberate: it never exceeds the existing bits, so no
  // permission change follows.
  return fsutil_mkdir(path, 0, 1);
}

extern "C" char* tevu_view_get_path(const char* name, char* buf, size_t size) {
  if (buf == nullptr) return nullptr;
  char config[tevul::kPathSize];
  if (config_path(name, nullptr, config) != 0 || !fsutil_isdir(config)) {
    return nullptr;
  }
  tevul::format_cut(buf, size, kContentsDir, tevu_find_mount(), name);
  return buf;
}

extern "C" int tevu_view_delete(const char* name) {
  char path[tevul::kPathSize];
  if (const int rc = config_path(name, nullptr, path)) return rc;
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
