// `tevu view` (the views' configuration) and `tevu limits`.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "cli.h"

namespace tevu_cli {

namespace {

// Turns a view function's result into the exit status, reporting failures:
// -1 is a refusal or a failed system call, whose errno says which.
int view_status(int rc, int error, const char* action, const char* name) {
  if (rc == 0) return kExitOk;
  if (rc == ENOENT && !tag_fs_mounted()) return report_not_mounted();
  const char* reason = rc == ENOENT ? "no such view" : errno_reason(rc > 0 ? rc : error);
  report({"view", action, name}, reason);
  return kExitFailed;
}

// The view's configuration file `file` as it stands, or "" when there is
// none; never read through a link.
bool read_config(const char* dir, const char* file, text* out) {
  char path[PATH_MAX];
  if (!tevul::format_whole(path, sizeof path, "%s/%s", dir, file)) return false;
  tevul::unique_fd fd(open(path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
  if (!fd.valid()) return false;
  char buf[4096];
  for (ssize_t n; (n = read(fd.get(), buf, sizeof buf)) > 0;) out->append(buf, static_cast<std::size_t>(n));
  return true;
}

// Lists the views below `dir` (the configuration tree; `name` their name so
// far): a directory that holds a configuration file, or nothing else, is
// a view. Links are not followed.
void list_views(const char* dir, text& name, bool nul) {
  tevul::dir_ptr d(opendir(dir));
  if (!d) return;
  bool config = false, subdirs = false;
  text arena;
  array<std::size_t> offsets;
  while (const dirent* entry = readdir(d.get())) {
    if (entry->d_name[0] == '.') continue;
    struct stat st;
    if (fstatat(dirfd(d.get()), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
    if (S_ISDIR(st.st_mode)) {
      subdirs = true;
      offsets.push(arena.size());
      arena.append(entry->d_name).push('\0');
    } else if (S_ISREG(st.st_mode)) {
      config = true;
    }
  }
  if (!name.empty() && (config || !subdirs)) emit_field(name.c_str(), nul);
  array<const char*> names;
  for (std::size_t i = 0; i < offsets.size(); ++i) names.push(arena.c_str() + offsets[i]);
  names.sort([](const void* a, const void* b) {
    return strcmp(*static_cast<const char* const*>(a), *static_cast<const char* const*>(b));
  });
  const std::size_t base = name.size();
  for (std::size_t i = 0; i < names.size(); ++i) {
    name.truncate(base);
    if (base > 0) name.push('/');
    name.append(names[i]);
    char child[PATH_MAX];
    if (tevul::format_whole(child, sizeof child, "%s/%s", dir, names[i])) {
      list_views(child, name, nul);
    }
  }
  name.truncate(base);
}

}  // namespace

int cmd_view(int argc, char** argv) {
  bool nul = false;
  tevu_cli::flag flags[] = {{'0', &nul}, {0, nullptr}};
  static const option kOptions[] = {{"null", no_argument, nullptr, '0'},
                                    {nullptr, 0, nullptr, 0}};
  const int status = parse_options(argc, argv, "0", kOptions, set_flag, flags);
  if (status >= 0) return status;
  const int operands = argc - optind;
  if (operands < 1) return usage_error(argv[0], "expected ACTION NAME");
  const char* action = argv[optind];
  if (strcmp(action, "list") == 0) {
    if (operands != 1) return usage_error(argv[0], "'list' takes no NAME");
    const char* mount = tevu_mount_point();
    if (mount == nullptr) return report_not_mounted();
    char config[PATH_MAX];
    tevul::format_cut(config, sizeof config, "%s/view/.config", mount);
    text name;
    list_views(config, name, nul);
    return kExitOk;
  }
  if (operands < 2) return usage_error(argv[0], "expected ACTION NAME");
  const char* name = argv[optind + 1];
  const char* arg = operands > 2 ? argv[optind + 2] : nullptr;
  if (name[0] == '\0') return usage_error(argv[0], "empty view name");
  const bool takes_arg = strcmp(action, "cond") == 0 || strcmp(action, "group") == 0 ||
                         strcmp(action, "events") == 0;
  if (operands != (takes_arg ? 3 : 2)) {
    return usage_error(argv[0], "wrong number of arguments for '%s'", action);
  }
  int rc = -2;
  if (strcmp(action, "create") == 0) rc = tevu_view_create(name);
  if (strcmp(action, "delete") == 0) rc = tevu_view_delete(name);
  if (strcmp(action, "cond") == 0 || strcmp(action, "group") == 0) {
    if (arg[0] == '\0') return usage_error(argv[0], "empty %s", action);
    rc = action[0] == 'c' ? tevu_view_set_cond(name, arg) : tevu_view_set_group(name, arg);
  }
  if (strcmp(action, "events") == 0) {
    if (strcmp(arg, "on") != 0 && strcmp(arg, "off") != 0) {
      return usage_error(argv[0], "events are 'on' or 'off'");
    }
    rc = arg[1] == 'n' ? tevu_view_enable_events(name) : tevu_view_disable_events(name);
  }
  if (rc != -2) return view_status(rc, errno, action, name);
  if (strcmp(action, "path") != 0 && strcmp(action, "show") != 0) {
    return usage_error(argv[0], "unknown action '%s'", action);
  }
  char path[PATH_MAX];
  if (tevu_view_get_path(name, path, sizeof path) == nullptr) {
    return view_status(ENOENT, ENOENT, action, name);
  }
  if (action[0] == 'p') {
    emit_field(path, nul);
    return kExitOk;
  }
  // show: the configuration files as they stand, read-only.
  char config[PATH_MAX];
  tevul::format_cut(config, sizeof config, "%s/view/.config/%s", tevu_mount_point(), name);
  static const char* const kFiles[][2] = {
      {"cond", "cond.ini"}, {"group", "group.ini"}, {"events", "events.ini"}};
  for (const auto& file : kFiles) {
    text value;
    if (!read_config(config, file[1], &value)) continue;
    text record;
    record.append(file[0]).push('=');
    if (file[0][0] == 'e') {
      record.append(strcmp(value.c_str(), "1") == 0 ? "on" : "off");
    } else {
      record.append(value.c_str(), value.size());
    }
    emit(record, false);
  }
  return kExitOk;
}

int cmd_limits(int argc, char** argv) {
  static const option kOptions[] = {{nullptr, 0, nullptr, 0}};
  tevu_cli::flag none[] = {{0, nullptr}};
  const int status = parse_options(argc, argv, "", kOptions, set_flag, none);
  if (status >= 0) return status;
  if (optind != argc) return usage_error(argv[0], "no arguments expected");
  if (!tag_fs_mounted()) return report_not_mounted();
  const int name_max = tevu_getmaxnamelen();
  const int value_max = tevu_getmaxvaluelen();
  printf("TAG_NAME_MAX=%d\nTAG_VALUE_MAX=%d\n", name_max, value_max);
  if (name_max == 0 || value_max == 0) {
    report({"limits"}, "the tag file system publishes no usable limits file");
    return kExitFailed;
  }
  return kExitOk;
}

}  // namespace tevu_cli
