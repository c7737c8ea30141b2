// The commands of `tevu` that keep tags in step with the files: deleted,
// moved and cleanup.
#include <errno.h>
#include <limits.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <cstring>
#include <string>
#include <vector>

#include "cli.h"
#include "tevul.h"

namespace tevu_cli {

namespace {

// The cleanup's filter has no user pointer, so what it needs lives here for
// the one cleanup a process runs.
struct CleanupState {
  std::string dir;       // canonical directory whose files are checked
  bool dry_run = false;
  std::vector<std::string> gone;
};
CleanupState g_cleanup;

// Read by the library before each row; set by SIGINT or SIGTERM. A plain
// int, as the library's interface takes it; writing it is one store.
int g_cancel = 0;

void on_cancel(int) { g_cancel = 1; }

bool is_below(const std::string& path, const std::string& dir) {
  if (dir == "/") return true;
  return path.compare(0, dir.size(), dir) == 0 &&
         (path.size() == dir.size() || path[dir.size()] == '/');
}

// Reports a file as gone when it, or a directory on its way, no longer
// exists. Any other failure to look at it (permissions, I/O) keeps its tags.
int vanished_filter(const char* path, int) {
  if (!is_below(path, g_cleanup.dir)) return 0;
  struct stat st;
  if (lstat(path, &st) == 0 || (errno != ENOENT && errno != ENOTDIR)) return 0;
  g_cleanup.gone.push_back(path);
  return g_cleanup.dry_run ? 0 : 1;
}

}  // namespace

int cmd_deleted(int argc, char** argv) {
  const int status = parse_options(argc, argv, "", {},
                                   [](int, const char*) { return true; });
  if (status >= 0) return status;
  if (optind >= argc) return usage_error(argv[0], "no path given");
  if (!tag_fs_mounted()) return report_not_mounted();
  bool failed = false;
  for (int i = optind; i < argc; ++i) {
    const std::string path = absolute_path(argv[i]);
    if (tevu_delete(path.c_str()) != 0) {
      report({argv[i]}, "file is not on a tagged volume");
      failed = true;
    }
  }
  return failed ? kExitFailed : kExitOk;
}

int cmd_moved(int argc, char** argv) {
  const int status = parse_options(argc, argv, "", {},
                                   [](int, const char*) { return true; });
  if (status >= 0) return status;
  if (argc - optind != 2) return usage_error(argv[0], "expected SRC DST");
  if (!tag_fs_mounted()) return report_not_mounted();
  const std::string src = absolute_path(argv[optind]);
  const std::string dst = absolute_path(argv[optind + 1]);
  // Every tag reaches DST, or the tool says why and every tag is still at
  // SRC; running it again finishes an interrupted move.
  const int rc = tevu_move_checked(src.c_str(), dst.c_str());
  if (rc == 0) return kExitOk;
  report({argv[optind]}, rc == ENOENT ? "file is not on a tagged volume"
                                      : "tags not moved: " + errno_reason(rc));
  return kExitFailed;
}

int cmd_cleanup(int argc, char** argv) {
  bool nul = false;
  const int status = parse_options(
      argc, argv, "n0",
      {{"dry-run", no_argument, nullptr, 'n'},
       {"null", no_argument, nullptr, '0'}},
      [&](int c, const char*) {
        (c == 'n' ? g_cleanup.dry_run : nul) = true;
        return true;
      });
  if (status >= 0) return status;
  if (argc - optind != 1) return usage_error(argv[0], "expected one DIR");
  const char* arg = argv[optind];
  if (!tag_fs_mounted()) return report_not_mounted();
  char canonical[PATH_MAX];
  if (realpath(arg, canonical) == nullptr) {
    report({arg}, errno_reason(errno));
    return kExitFailed;
  }
  g_cleanup.dir = canonical;
  // The library checks every row of the volume's database against the
  // directory it is given, so it is given the volume's root (a volume is
  // always a top-level directory); the filter looks only below `dir`.
  const std::size_t second_slash = g_cleanup.dir.find('/', 1);
  const std::string root = g_cleanup.dir.substr(0, second_slash);

  catch_interrupts(on_cancel);

  const int rc = tevu_cleanup_attached(root.c_str(), &g_cancel, vanished_filter);
  if (rc == -1) {
    report({arg}, "file is not on a tagged volume");
    return kExitFailed;
  }
  // Rows found before an interrupt are removed too.
  for (const std::string& path : g_cleanup.gone) emit(path, nul);
  if (g_cancel) {
    report({arg}, "interrupted");
    return kExitFailed;
  }
  if (rc != 0) {
    report({arg}, "tag database could not be read: " + errno_reason(rc));
    return kExitFailed;
  }
  return kExitOk;
}

}  // namespace tevu_cli
