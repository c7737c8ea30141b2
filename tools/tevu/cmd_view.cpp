// `tevu view` (the views' configuration) and `tevu limits`.
#include <errno.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "cli.h"
#include "tevul.h"

namespace tevu_cli {

namespace {

// Turns a view function's result into the exit status, reporting failures.
int view_status(int rc, const std::string& action, const std::string& name) {
  if (rc == 0) return kExitOk;
  if (rc == ENOENT && !tag_fs_mounted()) return report_not_mounted();
  const std::string reason =
      rc == ENOENT ? "no such view" : errno_reason(rc > 0 ? rc : EINVAL);
  report({"view", action, name}, reason);
  return kExitFailed;
}

}  // namespace

int cmd_view(int argc, char** argv) {
  bool nul = false;
  const int status = parse_null_option(argc, argv, &nul);
  if (status >= 0) return status;
  const int operands = argc - optind;
  if (operands < 2) return usage_error(argv[0], "expected ACTION NAME");
  const std::string action = argv[optind];
  const char* name = argv[optind + 1];
  const char* arg = operands > 2 ? argv[optind + 2] : nullptr;
  if (name[0] == '\0') return usage_error(argv[0], "empty view name");
  const bool takes_arg = action == "cond" || action == "group" || action == "events";
  if (operands != (takes_arg ? 3 : 2)) {
    return usage_error(argv[0], "wrong number of arguments for '" + action + "'");
  }

  if (action == "create") return view_status(tevu_view_create(name), action, name);
  if (action == "delete") return view_status(tevu_view_delete(name), action, name);
  if (action == "cond" || action == "group") {
    if (arg[0] == '\0') return usage_error(argv[0], "empty " + action);
    const int rc = action == "cond" ? tevu_view_set_cond(name, arg)
                                    : tevu_view_set_group(name, arg);
    return view_status(rc, action, name);
  }
  if (action == "events") {
    const std::string state = arg;
    if (state != "on" && state != "off") {
      return usage_error(argv[0], "events are 'on' or 'off'");
    }
    return view_status(state == "on" ? tevu_view_enable_events(name)
                                     : tevu_view_disable_events(name),
                       action, name);
  }
  if (action == "path") {
    char path[4096];
    if (tevu_view_get_path(name, path, sizeof path) == nullptr) {
      return view_status(ENOENT, action, name);
    }
    emit(path, nul);
    return kExitOk;
  }
  return usage_error(argv[0], "unknown action '" + action + "'");
}

int cmd_limits(int argc, char** argv) {
  const int status = parse_options(argc, argv, "", {},
                                   [](int, const char*) { return true; });
  if (status >= 0) return status;
  if (optind != argc) return usage_error(argv[0], "no arguments expected");
  if (!tag_fs_mounted()) return report_not_mounted();
  const int name_max = tevu_getmaxnamelen();
  const int value_max = tevu_getmaxvaluelen();
  std::printf("TAG_NAME_MAX=%d\nTAG_VALUE_MAX=%d\n", name_max, value_max);
  if (name_max == 0 || value_max == 0) {
    report({"limits"}, "the tag file system publishes no usable limits file");
    return kExitFailed;
  }
  return kExitOk;
}

}  // namespace tevu_cli
