// `tevu watch` (tags follow every move and deletion while it runs) and
// `tevu repair` (tags find the files moved while nothing watched).
#include <errno.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "cli.h"

namespace tevu_cli {

namespace {

// Prints a path as the records of the tool escape it.
void print_path(const char* path, text* out) {
  out->clear();
  escape_field(path, false, out);
}

// ---------------------------------------------------------------------------
// repair

struct RepairOptions {
  bool dry_run = false;
  bool nul = false;
};

bool repair_option(void* user, int c, const char*) {
  RepairOptions* o = static_cast<RepairOptions*>(user);
  if (c == 'n') o->dry_run = true;
  if (c == '0') o->nul = true;
  return true;
}

// What a repair has found so far, for its progress line on a terminal,
// and how it prints the moves.
struct RepairProgress {
  Progress* line;
  unsigned long found;
  bool nul;
};

int repair_found(void* user, int kind, const char* from, const char* to,
                 unsigned long candidates, int error) {
  RepairProgress* progress = static_cast<RepairProgress*>(user);
  ++progress->found;
  progress->line->update(progress->found, progress->found);
  text a, b;
  print_path(from, &a);
  switch (kind) {
    case TEVU_REPAIR_MOVED:
      append_field(from, false, progress->nul, &b);
      b.push('\t');
      append_field(to, false, progress->nul, &b);
      emit(b, progress->nul);
      break;
    case TEVU_REPAIR_AMBIGUOUS:
      reportf({"repair", a.c_str()}, "%lu files match; left alone", candidates);
      break;
    case TEVU_REPAIR_UNMATCHED:
      report({"repair", a.c_str()}, "no file matches (or none was ever fingerprinted); left alone");
      break;
    default:
      if (to != nullptr) {
        print_path(to, &b);
        reportf({"repair", a.c_str()}, "tags not moved to %s: %s; every tag stays", b.c_str(),
                errno_reason(error));
      } else {
        report({"repair", a.c_str()}, errno_reason(error));
      }
      break;
  }
  return 0;
}

// The closing count line of a repair.
void repair_summary(const tevu_repair_counts& c, bool dry_run) {
  if (g_progress != nullptr) g_progress->clear();
  text line;
  counted(&line, c.moved, "file", "files");
  line.appendf(" %s, %lu ambiguous, %lu not found, ", dry_run ? "would move" : "moved",
               c.ambiguous, c.unmatched);
  counted(&line, c.failed, "failure", "failures");
  fprintf(stderr, "tevu: repair: %s%s\n", line.c_str(),
          dry_run ? " (dry run: nothing changed)" : "");
}

// ---------------------------------------------------------------------------
// watch

volatile sig_atomic_t g_stop = 0;
volatile sig_atomic_t g_repair = 0;

void on_stop(int) { g_stop = 1; }
void on_hangup(int) { g_repair = 1; }

struct WatchOptions {
  bool verbose = false;
  double grace = 5.0;
  bool bad_grace = false;
};

bool watch_option(void* user, int c, const char* arg) {
  WatchOptions* o = static_cast<WatchOptions*>(user);
  if (c == 'v') {
    o->verbose = true;
  } else if (c == 'g') {
    char* end = nullptr;
    const double seconds = strtod(arg, &end);
    if (end == arg || *end != '\0' || !(seconds > 0) || seconds > 86400) {
      usage_error("tevu watch", "--grace takes seconds above 0 and at most 86400: '%s'", arg);
      o->bad_grace = true;
      return false;
    }
    o->grace = seconds;
  }
  return true;
}

// The limit that keeps directories unwatched, as the kernel has it.
long watch_limit() {
  FILE* f = fopen("/proc/sys/fs/inotify/max_user_watches", "re");
  if (f == nullptr) return -1;
  long limit = -1;
  if (fscanf(f, "%ld", &limit) != 1) limit = -1;
  fclose(f);
  return limit;
}

void watch_report(void* user, int event, const char* from, const char* to, int error,
                  unsigned long count) {
  const WatchOptions& o = *static_cast<const WatchOptions*>(user);
  text a, b;
  if (from != nullptr) print_path(from, &a);
  if (to != nullptr) print_path(to, &b);
  switch (event) {
    case TEVU_WATCH_MOVED:
      if (o.verbose) printf("moved\t%s\t%s\n", a.c_str(), b.c_str());
      break;
    case TEVU_WATCH_DELETED:
      if (o.verbose) printf("deleted\t%s\n", a.c_str());
      break;
    case TEVU_WATCH_AMBIGUOUS:
      if (o.verbose) printf("ambiguous\t%s\t%lu\n", a.c_str(), count);
      break;
    case TEVU_WATCH_UNMATCHED:
      if (o.verbose) printf("unmatched\t%s\n", a.c_str());
      break;
    case TEVU_WATCH_FAILED:
      if (to != nullptr) {
        reportf({"watch", a.c_str()},
                "tags not moved to %s: %s; every tag stays here until a repair", b.c_str(),
                errno_reason(error));
      } else {
        reportf({"watch", a.c_str()}, "%s; the tags stay", errno_reason(error));
      }
      break;
    case TEVU_WATCH_VOLUME_ADDED:
      report({"watch", a.c_str()}, "volume taken up");
      break;
    case TEVU_WATCH_VOLUME_REMOVED:
      report({"watch", a.c_str()}, "volume released (its tags stay)");
      break;
    case TEVU_WATCH_OVERFLOW:
      report({"watch"}, "the kernel's event queue overflowed: watching anew and repairing");
      break;
    case TEVU_WATCH_UNWATCHED: {
      if (count == 0) {
        report({"watch"}, "every directory is watched again");
        break;
      }
      const long limit = watch_limit();
      reportf({"watch"},
              "%lu directories cannot be watched (fs.inotify.max_user_watches is %ld): moves in "
              "them are found by a repair every 15 minutes; raise the limit, e.g. "
              "'sysctl -w fs.inotify.max_user_watches=%ld'",
              count, limit, limit > 0 ? 2 * limit + static_cast<long>(count) : 524288L);
      break;
    }
    default:
      break;
  }
  fflush(stdout);
}

int64_t monotonic_ms() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

}  // namespace

int cmd_repair(int argc, char** argv) {
  RepairOptions o;
  static const option kOptions[] = {{"dry-run", no_argument, nullptr, 'n'},
                                    {"null", no_argument, nullptr, '0'},
                                    {nullptr, 0, nullptr, 0}};
  const int status = parse_options(argc, argv, "n0", kOptions, repair_option, &o);
  if (status >= 0) return status;
  if (!tag_fs_mounted()) return report_not_mounted();
  tevu_repair_counts total = {};
  unsigned long unread = 0;
  // Moving the tags of many files can run long: on a terminal a progress
  // line counts the files found.
  Progress line("repair", isatty(STDERR_FILENO) != 0, 0);
  RepairProgress progress{&line, 0, o.nul};
  const int operands = argc - optind;
  for (int i = 0; i < (operands > 0 ? operands : 1); ++i) {
    const char* dir = operands > 0 ? argv[optind + i] : nullptr;
    if (dir != nullptr && dir[0] == '\0') return usage_error(argv[0], "empty DIR");
    tevu_repair_counts c = {};
    const int rc = tevu_repair(dir, o.dry_run, repair_found, &progress, &c);
    total.moved += c.moved;
    total.ambiguous += c.ambiguous;
    total.unmatched += c.unmatched;
    total.failed += c.failed;
    total.in_place += c.in_place;
    if (rc != 0 && c.failed == 0) {
      ++unread;
      if (!report_unread_volumes()) {
        report({"repair", dir}, rc == ENOENT ? "not on a tagged volume" : errno_reason(rc));
      }
    }
  }
  fflush(stdout);
  total.failed += unread;
  repair_summary(total, o.dry_run);
  if (total.failed > 0) return kExitFailed;
  return total.ambiguous + total.unmatched > 0 ? kExitNotFound : kExitOk;
}

int cmd_watch(int argc, char** argv) {
  WatchOptions o;
  static const option kOptions[] = {{"verbose", no_argument, nullptr, 'v'},
                                    {"grace", required_argument, nullptr, 'g'},
                                    {nullptr, 0, nullptr, 0}};
  const int status = parse_options(argc, argv, "v", kOptions, watch_option, &o);
  if (status >= 0) return status;
  if (!tag_fs_mounted()) return report_not_mounted();
  for (int i = optind; i < argc; ++i) {
    if (argv[i][0] == '\0') return usage_error(argv[0], "empty DIR");
  }
  setvbuf(stdout, nullptr, _IOLBF, 0);

  // The signals are taken only while the loop waits (ppoll), so that none
  // falls between a look at the flags and the wait.
  sigset_t blocked, waiting;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGTERM);
  sigaddset(&blocked, SIGINT);
  sigaddset(&blocked, SIGHUP);
  sigprocmask(SIG_BLOCK, &blocked, &waiting);
  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_handler = on_stop;
  sigaction(SIGTERM, &action, nullptr);
  sigaction(SIGINT, &action, nullptr);
  action.sa_handler = on_hangup;
  sigaction(SIGHUP, &action, nullptr);
  // A log reader that went away (a closed pipe) must not end the watcher:
  // its writes fail instead.
  signal(SIGPIPE, SIG_IGN);

  const unsigned grace_ms = static_cast<unsigned>(o.grace * 1000 + 0.5);
  tevu_watch* watch = tevu_watch_open(const_cast<const char* const*>(argv + optind),
                                      static_cast<size_t>(argc - optind), grace_ms,
                                      watch_report, &o);
  if (watch == nullptr) {
    const int error = errno;
    report({"watch"}, error == ENOENT ? "a directory is not on a tagged volume, or missing"
                                      : errno_reason(error));
    return error == ENOENT || error == ENOTDIR ? kExitUsage : kExitFailed;
  }
  // The first call runs the start's repair; then the watcher follows.
  int timeout = 0;
  tevu_watch_process(watch, &timeout);
  unsigned long dirs = 0, volumes = 0, unwatched = 0;
  tevu_watch_counts(watch, &dirs, &volumes, &unwatched);
  text line;
  line.appendf("tevu: watch: watching ");
  counted(&line, dirs, "directory", "directories");
  line.append(" on ");
  counted(&line, volumes, "volume", "volumes");
  if (unwatched > 0) line.appendf(" (%lu directories unwatched)", unwatched);
  fprintf(stderr, "%s\n", line.c_str());

  const int fd = tevu_watch_fd(watch);
  while (!g_stop) {
    if (g_repair) {
      g_repair = 0;
      tevu_watch_repair(watch);
      timeout = 0;
    }
    pollfd p = {fd, POLLIN, 0};
    struct timespec ts;
    struct timespec* wait = nullptr;
    if (timeout >= 0) {
      ts.tv_sec = timeout / 1000;
      ts.tv_nsec = static_cast<long>(timeout % 1000) * 1000000L;
      wait = &ts;
    }
    ppoll(&p, 1, wait, &waiting);
    if (g_stop) break;
    if (g_repair) continue;
    tevu_watch_process(watch, &timeout);
  }
  // Pending work is finished: the events queued are followed and the
  // deletions still in their grace period decided when it ends.
  const int64_t give_up = monotonic_ms() + grace_ms + 2000;
  do {
    tevu_watch_process(watch, &timeout);
    if (timeout < 0) break;
    pollfd p = {fd, POLLIN, 0};
    poll(&p, 1, timeout);
  } while (monotonic_ms() < give_up);
  tevu_watch_close(watch);
  fprintf(stderr, "tevu: watch: stopped\n");
  return kExitOk;
}

}  // namespace tevu_cli
