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

namespace {

// The name of the volume that holds absolute path `path` when the tag file
// system has a volume link of that name ("/N" or "/N/...": volumes are the
// top-level directories), or "" when it holds none.
std::string tagged_volume_of(const std::string& path) {
  const std::string name = path.substr(1, path.find('/', 1) - 1);
  const std::string mount = mount_point();
  struct stat st;
  if (name.empty() || mount.empty() ||
      lstat((mount + "/meta/" + name).c_str(), &st) != 0 ||
      !S_ISLNK(st.st_mode)) {
    return "";
  }
  return name;
}

// A file whose row a move copied, and a tag to store again.
struct Copied {
  std::string path;
  std::string name;
  std::string value;
};

// Rebuilds the tag lists (Data) of the rows that a move copied to `dst`:
// the copies have none until something rebuilds them, and until then
// lookups by value do not see them. Storing one of each file's tags again
// through a bulk context rebuilds the list and wakes the daemon. A value
// holding a backslash is never stored again (the database would strip
// it); a file with only such values keeps its list for the daemon.
// Returns false after reporting a file whose list could not be rebuilt.
bool rebuild_tag_lists(const std::string& dst) {
  std::vector<Copied> copies;
  const int rc = tevu_tagged_files(
      dst.c_str(),
      [](void* user, const char* path, size_t count, const char* const* names,
         const char* const* values) {
        for (size_t i = 0; i < count; ++i) {
          if (std::strchr(values[i], '\\') == nullptr) {
            static_cast<std::vector<Copied>*>(user)->push_back(
                {path, names[i], values[i]});
            break;
          }
        }
        return 0;
      },
      &copies);
  if (rc == ENOENT) return true;  // DST is gone again: no list to show
  if (rc != 0) {
    report({dst}, "tag lists not rebuilt: " + errno_reason(rc));
    return false;
  }
  bulk_ptr ctx = open_bulk();
  if (!ctx) return false;
  bool complete = true;
  for (const Copied& copy : copies) {
    if (tevu_bulk_setpath(ctx.get(), copy.path.c_str()) != 0) {
      continue;  // no file: no lookup can lead to it
    }
    const int set =
        tevu_bulk_settag(ctx.get(), copy.name.c_str(), copy.value.c_str());
    if (set != 0) {
      report({copy.path, copy.name}, "tag list not rebuilt: " + bulk_reason(set, copy.name));
      tevu_bulk_rollback(ctx.get());
      complete = false;
      continue;
    }
    if (!commit_file(ctx, {copy.path})) {
      complete = false;
      if (!ctx) return false;
    }
  }
  return complete;
}

}  // namespace

int cmd_moved(int argc, char** argv) {
  const int status = parse_options(argc, argv, "", {},
                                   [](int, const char*) { return true; });
  if (status >= 0) return status;
  if (argc - optind != 2) return usage_error(argv[0], "expected SRC DST");
  if (!tag_fs_mounted()) return report_not_mounted();
  const std::string src = absolute_path(argv[optind]);
  const std::string dst = absolute_path(argv[optind + 1]);
  const std::string from = tagged_volume_of(src);
  const std::string to = tagged_volume_of(dst);
  const int rc = tevu_move(src.c_str(), dst.c_str());
  if (rc != 0) {
    report({argv[optind]}, rc == -1 ? "file is not on a tagged volume"
                                    : "tag database update failed");
    return kExitFailed;
  }
  if (from.empty() || to.empty() || from == to) return kExitOk;
  // The library copies rows to another volume and leaves the source rows:
  // the tags would stand at both places, and lookups would find the old
  // path only. The copy is committed, so the source rows may go now.
  const bool rebuilt = rebuild_tag_lists(dst);
  if (tevu_delete(src.c_str()) != 0) {
    report({argv[optind]}, "tags copied, but not removed here");
    return kExitFailed;
  }
  return rebuilt ? kExitOk : kExitFailed;
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
