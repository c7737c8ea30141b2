// The commands of `tevu` that keep tags in step with the files: deleted,
// moved and cleanup.
#include <errno.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include "cli.h"

namespace tevu_cli {

namespace {

// The tagged files below a place, as tevu_tagged_below() or
// tevu_tagged_files() hands them: counted, and printed for a dry run.
struct Tally {
  unsigned long files = 0, tags = 0;
  bool print = false, nul = false;
  // Paths whose rows an earlier operand already took (each terminated):
  // a dry run counts what the run will find, operand duplicates and all.
  const text* taken = nullptr;
};

// True when `path` is one of `paths` (each terminated) or lies below one.
bool at_or_below_any(const char* path, const text& paths) {
  for (std::size_t at = 0; at < paths.size();) {
    const char* p = paths.c_str() + at;
    const std::size_t n = strlen(p);
    at += n + 1;
    if (strncmp(path, p, n) == 0 && (path[n] == '\0' || path[n] == '/')) return true;
  }
  return false;
}

int tally_file(void* user, const char* path, size_t count, const char* const*,
               const char* const*) {
  Tally* t = static_cast<Tally*>(user);
  if (t->taken != nullptr && at_or_below_any(path, *t->taken)) return 0;
  ++t->files;
  t->tags += count;
  if (t->print) emit_field(path, t->nul);
  return 0;
}

// Counts (and with `print`, prints) the tagged files at and below the
// literal `path`; a path on no tagged volume has none. Returns 0 or reports
// and returns an errno.
int tally_below(const char* path, Tally* t) {
  const int rc = tevu_tagged_below(path, tally_file, t);
  if (rc == ENOENT && tevu_query_failure(0, nullptr, 0) == 0) return 0;
  if (rc != 0 && !report_unread_volumes()) report({path}, errno_reason(rc));
  return rc;
}

// True when `path` holds a character a shell pattern is made of.
bool looks_like_pattern(const char* path) { return strpbrk(path, "*?[") != nullptr; }

struct Options {
  bool dry_run = false, nul = false, before = false, force = false;
};

bool maint_option(void* user, int c, const char*) {
  Options* o = static_cast<Options*>(user);
  if (c == 'n') o->dry_run = true;
  if (c == '0') o->nul = true;
  if (c == 'b') o->before = true;
  if (c == 'f') o->force = true;
  return true;
}

}  // namespace

int cmd_deleted(int argc, char** argv) {
  Options o;
  static const option kOptions[] = {{"dry-run", no_argument, nullptr, 'n'},
                                    {"null", no_argument, nullptr, '0'},
                                    {nullptr, 0, nullptr, 0}};
  const int status = parse_options(argc, argv, "n0", kOptions, maint_option, &o);
  if (status >= 0) return status;
  if (optind >= argc) return usage_error(argv[0], "no path given");
  for (int i = optind; i < argc; ++i) {
    if (argv[i][0] == '\0') return usage_error(argv[0], "empty path");
  }
  if (!tag_fs_mounted()) return report_not_mounted();
  unsigned long files = 0, tags = 0, failures = 0;
  bool nothing = false;
  text taken;  // the paths whose rows are gone (or would be, in a dry run)
  for (int i = optind; i < argc; ++i) {
    const char* arg = argv[i];
    char path[PATH_MAX];
    if (const int rc = disk_path(arg, path)) {
      report({arg}, rc == EINVAL ? "not a path that names a file (make it canonical)"
                                 : errno_reason(rc));
      ++failures;
      continue;
    }
    if (exists(path)) {
      report({arg}, "still exists: its files would lose their tags (delete it first)");
      ++failures;
      continue;
    }
    Tally t;
    t.print = o.dry_run;
    t.nul = o.nul;
    t.taken = &taken;
    if (tally_below(path, &t) != 0) {
      ++failures;
      continue;
    }
    if (t.files == 0) {
      report({arg}, looks_like_pattern(arg)
                        ? "no tags here (a pattern is not expanded here: "
                          "'tevu cleanup DIR' finds the files that vanished)"
                        : "no tags here");
      nothing = true;
      continue;
    }
    if (!o.dry_run) {
      if (const int rc = tevu_delete_checked(path)) {
        reportf({arg}, "tags not removed: %s", errno_reason(rc));
        ++failures;
        continue;
      }
    }
    taken.append(path, strlen(path) + 1);
    files += t.files;
    tags += t.tags;
  }
  summary("deleted", files, tags, failures, o.dry_run);
  return failures > 0 ? kExitFailed : nothing ? kExitNotFound : kExitOk;
}

namespace {

bool is_dir(const char* path) {
  struct stat st;
  return stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

// Where `src` went (or goes, with `before`) when moved to `dst`, by mv's
// two forms: into the directory `dst` as its last component, or to `dst`
// itself. Returns false, after reporting, when the disk does not show
// that move (a source still there, a destination not there).
bool destination(const char* arg, const char* src, const char* dst, bool several,
                 bool before, char* target) {
  const char* slash = strrchr(src, '/');
  const char* name = slash != nullptr ? slash + 1 : src;
  char inside[PATH_MAX];
  const bool into = is_dir(dst) &&
                    tevul::format_whole(inside, sizeof inside, "%s/%s",
                                        strcmp(dst, "/") == 0 ? "" : dst, name) &&
                    (before || exists(inside));
  if (several && !into) {
    report({dst}, before ? "several sources need a directory to move into"
                         : "several sources: DST must be the directory that now holds them");
    return false;
  }
  tevul::format_cut(target, PATH_MAX, "%s", into ? inside : dst);
  if (before) {
    if (!exists(src)) {
      report({arg}, "does not exist (the move is to happen after this command)");
      return false;
    }
    if (exists(target)) {
      report({target}, "already exists: the move would replace it");
      return false;
    }
    return true;
  }
  if (exists(src)) {
    report({arg}, "still exists: call 'tevu moved' after the move (or give --before)");
    return false;
  }
  if (!exists(target)) {
    report({target}, "does not exist: the files are not there");
    return false;
  }
  return true;
}

}  // namespace

int cmd_moved(int argc, char** argv) {
  Options o;
  static const option kOptions[] = {{"dry-run", no_argument, nullptr, 'n'},
                                    {"before", no_argument, nullptr, 'b'},
                                    {"null", no_argument, nullptr, '0'},
                                    {nullptr, 0, nullptr, 0}};
  const int status = parse_options(argc, argv, "n0", kOptions, maint_option, &o);
  if (status >= 0) return status;
  if (argc - optind < 2) return usage_error(argv[0], "expected SRC... DST");
  for (int i = optind; i < argc; ++i) {
    if (argv[i][0] == '\0') return usage_error(argv[0], "empty path");
  }
  if (!tag_fs_mounted()) return report_not_mounted();
  char dst[PATH_MAX];
  if (const int rc = disk_path(argv[argc - 1], dst)) {
    report({argv[argc - 1]}, errno_reason(rc));
    return kExitFailed;
  }
  const bool several = argc - optind > 2;
  unsigned long files = 0, tags = 0, failures = 0;
  for (int i = optind; i < argc - 1; ++i) {
    const char* arg = argv[i];
    char src[PATH_MAX], target[PATH_MAX];
    if (const int rc = disk_path(arg, src)) {
      report({arg}, rc == EINVAL ? "not a path that names a file (make it canonical)"
                                 : errno_reason(rc));
      ++failures;
      continue;
    }
    if (!destination(arg, src, dst, several, o.before, target)) {
      ++failures;
      continue;
    }
    Tally t;
    t.print = o.dry_run;
    t.nul = o.nul;
    if (tally_below(src, &t) != 0) {
      ++failures;
      continue;
    }
    if (t.files > 0 && !o.dry_run) {
      // Every tag reaches the target, or the reason is said and every tag
      // is still at the source; running it again finishes the move.
      if (const int rc = tevu_move_checked(src, target)) {
        reportf({arg},
                "tags not moved: %s; every tag is still here, and some may stand at the "
                "destination too until 'tevu moved' runs again (the run copies these tags "
                "over the destination's once more)",
                errno_reason(rc));
        ++failures;
        continue;
      }
    }
    files += t.files;
    tags += t.tags;
  }
  // A move of untagged files, or one finished before, has nothing to do:
  // its count says so.
  summary("moved", files, tags, failures, o.dry_run);
  return failures > 0 ? kExitFailed : kExitOk;
}

namespace {

// The cleanup's filter has no user pointer, so what it needs lives here for
// the one cleanup a process runs.
struct CleanupState {
  char dir[PATH_MAX];  // canonical directory whose files are checked
  std::size_t dir_len;
  bool nul;
  unsigned long files;
  unsigned long rows;           // rows the filter has seen
  Progress* progress = nullptr;  // on a terminal
};
CleanupState g_cleanup;

// Read by the library before each row; set by SIGINT or SIGTERM. A plain
// int, as the library's interface takes it; writing it is one store.
int g_cancel = 0;

void on_cancel(int) { g_cancel = 1; }

bool is_below(const char* path) {
  if (strcmp(g_cleanup.dir, "/") == 0) return true;
  return strncmp(path, g_cleanup.dir, g_cleanup.dir_len) == 0 &&
         (path[g_cleanup.dir_len] == '\0' || path[g_cleanup.dir_len] == '/');
}

// A file gone: it, or a directory on its way, no longer exists. Any other
// failure to look at it (permissions, I/O) keeps its tags.
bool gone(const char* path) {
  struct stat st;
  return lstat(path, &st) != 0 && (errno == ENOENT || errno == ENOTDIR);
}

// Counts the tagged files of the whole volume and those gone.
struct Survey {
  unsigned long all = 0, missing = 0, below = 0, tags_below = 0;
  bool print = false, nul = false;
  Progress* progress = nullptr;  // the first survey's, on a terminal
};

int survey_file(void* user, const char* path, size_t count, const char* const*,
                const char* const*) {
  Survey* s = static_cast<Survey*>(user);
  ++s->all;
  if (s->progress != nullptr) s->progress->update(s->all, s->all);
  if (!gone(path)) return 0;
  ++s->missing;
  if (!is_below(path)) return 0;
  ++s->below;
  s->tags_below += count;
  if (s->print) emit_field(path, s->nul);
  return 0;
}

// Drops the row of a file below the directory that is gone, and prints it.
int vanished_filter(const char* path, int) {
  ++g_cleanup.rows;
  if (g_cleanup.progress != nullptr) g_cleanup.progress->update(g_cleanup.rows, g_cleanup.files);
  if (!is_below(path) || !gone(path)) return 0;
  emit_field(path, g_cleanup.nul);
  ++g_cleanup.files;
  return 1;
}

// The dry run's filter: prints and counts what vanished_filter() would
// drop, row for row (a row without tags included), and drops nothing.
int vanished_dry_filter(const char* path, int unused) {
  vanished_filter(path, unused);
  return 0;
}

}  // namespace

int cmd_cleanup(int argc, char** argv) {
  Options o;
  static const option kOptions[] = {{"dry-run", no_argument, nullptr, 'n'},
                                    {"null", no_argument, nullptr, '0'},
                                    {"force", no_argument, nullptr, 'f'},
                                    {nullptr, 0, nullptr, 0}};
  const int status = parse_options(argc, argv, "n0", kOptions, maint_option, &o);
  if (status >= 0) return status;
  if (argc - optind != 1) return usage_error(argv[0], "expected one DIR");
  const char* arg = argv[optind];
  if (arg[0] == '\0') return usage_error(argv[0], "empty DIR");
  if (!tag_fs_mounted()) return report_not_mounted();
  if (realpath(arg, g_cleanup.dir) == nullptr) {
    report({arg}, errno_reason(errno));
    return kExitFailed;
  }
  g_cleanup.dir_len = strlen(g_cleanup.dir);
  g_cleanup.nul = o.nul;
  // Every tagged file of the volume (a volume is a top-level directory) is
  // looked at: when all of them are gone, the disk is more likely not
  // mounted than emptied, and nothing is dropped without --force.
  char root[PATH_MAX];
  tevul::format_cut(root, sizeof root, "%.*s",
                    static_cast<int>(1 + strcspn(g_cleanup.dir + 1, "/")), g_cleanup.dir);
  // Both walks can run long on a large volume: on a terminal the first
  // shows the files looked at, the second the files dropped of all rows.
  const bool show = isatty(STDERR_FILENO) != 0;
  Survey s;
  s.nul = o.nul;
  int rc;
  {
    Progress looked("cleanup", show, 0);
    s.progress = &looked;
    rc = tevu_tagged_files(root, survey_file, &s);
    s.progress = nullptr;
  }
  Progress progress("cleanup", show, s.all);
  g_cleanup.progress = &progress;
  if (rc != 0) {
    if (!report_unread_volumes()) {
      report({arg}, rc == ENOENT ? "not on a tagged volume" : errno_reason(rc));
    }
    return kExitFailed;
  }
  if (s.all > 0 && s.missing == s.all && !o.force) {
    report({arg}, "every tagged file of the volume is missing (is its disk mounted?); "
                  "nothing removed ('--force' removes their tags)");
    return kExitFailed;
  }
  if (o.dry_run) {
    // The same walk as the run's, with a filter that drops nothing, so that
    // the dry run prints and counts exactly the rows the run drops.
    if (tevu_cleanup_attached(root, &g_cancel, vanished_dry_filter) == -1) {
      report({arg}, "the tag database could not be read");
      return kExitFailed;
    }
    summary("cleanup", g_cleanup.files, s.tags_below, 0, true);
    return kExitOk;
  }
  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_handler = on_cancel;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  rc = tevu_cleanup_attached(root, &g_cancel, vanished_filter);
  g_cleanup.progress = nullptr;
  progress.clear();
  // The daemon's cleanup does not tell a failed deletion: what it dropped
  // is checked by reading the tree again.
  Survey after;
  const int checked = tevu_tagged_files(root, survey_file, &after);
  unsigned long failures = 0;
  if (rc == -1 || checked != 0 || (after.below > 0 && !g_cancel)) {
    if (!report_unread_volumes()) {
      reportf({arg}, "%lu files' tags not removed", checked != 0 ? s.below : after.below);
    }
    failures = 1;
  }
  if (g_cancel) report({arg}, "interrupted; the files found until then are removed");
  summary("cleanup", g_cleanup.files - after.below, s.tags_below, failures, false);
  if (g_cancel) return kExitFailed;
  return failures == 0 ? kExitOk : kExitFailed;
}

}  // namespace tevu_cli
