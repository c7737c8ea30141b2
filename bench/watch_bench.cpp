// The watcher's benchmark, in the sandbox of the tests (root, mergerfs):
//   renames   a shell script renames 10,000 tagged files one `mv` at a
//             time; how long after the script's last rename the last row
//             stands at its new path (target: every one followed, <= 1 s);
//   tree      a directory of 10,000 tagged files renamed; how long until its
//             rows follow, against tevu_move_checked() of that tree alone
//             (target: <= the checked move + 100 ms);
//   start     `tevu watch` over 20,000 directories: time to its "watching"
//             line, its peak RSS, and the kernel's memory for the watches
//             (target: <= 2 s, <= 4 MB);
//   idle      its wake-ups over 60 s with nothing happening, counted by
//             the kernel's context switches, then over another 60 s by
//             strace (target: none).
// Prints one Markdown table row per measure.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sqlite3.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "sandbox.h"
#include "tevul.h"

using tevul_test::Sandbox;
using Clock = std::chrono::steady_clock;

namespace {

double ms_since(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// Tags `count` files <dir>/f<i> with distinct modification times, then
// records their fingerprints.
void tag_files(const std::string& dir, int count) {
  tevul_test::make_dirs(dir);
  tevu_bulk_ctx* bulk = tevu_bulk_init();
  for (int i = 0; i < count; ++i) {
    const std::string file = dir + "/f" + std::to_string(i);
    const int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const struct timespec times[2] = {{1500000000 + i, 0}, {1500000000 + i, 0}};
    futimens(fd, times);
    close(fd);
    tevu_bulk_setpath(bulk, file.c_str());
    tevu_bulk_settag(bulk, "n", std::to_string(i).c_str());
  }
  tevu_bulk_fini(bulk);
  tevu_repair(nullptr, 0, nullptr, nullptr, nullptr);
}

long count_rows(const std::string& like) {
  sqlite3* db = nullptr;
  sqlite3_open_v2(Sandbox::db_path(like.substr(1, like.find('/', 1) - 1)).c_str(), &db,
                  SQLITE_OPEN_READONLY, nullptr);
  sqlite3_busy_timeout(db, 5000);
  sqlite3_stmt* stmt = nullptr;
  sqlite3_prepare_v2(db, "SELECT count(*) FROM Meta WHERE Path GLOB ?", -1, &stmt, nullptr);
  const std::string rel = like.substr(like.find('/', 1) + 1);
  sqlite3_bind_text(stmt, 1, rel.c_str(), -1, SQLITE_TRANSIENT);
  long n = sqlite3_step(stmt) == SQLITE_ROW ? sqlite3_column_int64(stmt, 0) : -1;
  sqlite3_finalize(stmt);
  sqlite3_close(db);
  return n;
}

// `tevu watch` in a child; returns once it says it watches.
struct Watcher {
  pid_t pid = -1;
  double started_ms = 0;
  // Its standard error goes to kLog, read until it says it watches.
  static constexpr const char* kLog = "/tmp/watch_bench.log";
  explicit Watcher(const char* dir = nullptr) {
    unlink(kLog);
    const auto t0 = Clock::now();
    pid = fork();
    if (pid == 0) {
      const int log = open(kLog, O_WRONLY | O_CREAT | O_TRUNC, 0644);
      dup2(log, 2);
      if (dir != nullptr) {
        execl(TEVU_TOOL, TEVU_TOOL, "watch", dir, static_cast<char*>(nullptr));
      } else {
        execl(TEVU_TOOL, TEVU_TOOL, "watch", static_cast<char*>(nullptr));
      }
      _exit(127);
    }
    while (said().find("watching") == std::string::npos && ms_since(t0) < 60000) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    started_ms = ms_since(t0);
  }
  std::string said() const {
    std::ifstream in(kLog);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
  }
  ~Watcher() {
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
  }
  long status_kb(const char* key) const {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(in, line)) {
      if (line.rfind(key, 0) == 0) return std::atol(line.c_str() + strlen(key) + 1);
    }
    return -1;
  }
};

bool wait_for(const std::string& like, long rows, int seconds) {
  const auto end = Clock::now() + std::chrono::seconds(seconds);
  while (count_rows(like) != rows) {
    if (Clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

// The kernel's unreclaimable slab memory (watches, their marks and the
// inodes they pin), bytes; compared before and after the watches.
long watch_slab_bytes() {
  std::ifstream in("/proc/meminfo");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind("SUnreclaim:", 0) == 0) return std::atol(line.c_str() + 11) * 1024;
  }
  return -1;
}

}  // namespace

int main(int argc, char** argv) {
  const int idle_seconds = argc > 1 ? std::atoi(argv[1]) : 60;
  Sandbox sandbox;
  const std::string why = sandbox.start({"mnt", "srv"});
  if (!why.empty()) {
    std::fprintf(stderr, "watch_bench: %s\n", why.c_str());
    return 1;
  }
  std::printf("| measure | result | target |\n|---|---|---|\n");

  {  // 10,000 renames by a script (argument 2: another count).
    const int kFiles = argc > 2 ? std::atoi(argv[2]) : 10000;
    tag_files("/mnt/r", kFiles);
    Watcher watcher;
    const auto t0 = Clock::now();
    const std::string script = "cd /mnt/r && i=0; while [ $i -lt " + std::to_string(kFiles) +
                               " ]; do mv f$i g$i; i=$((i+1)); done";
    std::system(script.c_str());
    const double seconds = ms_since(t0);
    const auto t1 = Clock::now();
    const bool all = wait_for("/mnt/r/g*", kFiles, 60);
    if (!all) {
      std::printf("(%ld of %d followed; the watcher said:\n%s)\n", count_rows("/mnt/r/g*"), kFiles,
                  watcher.said().substr(0, 2000).c_str());
    }
    std::printf("| %d renames by a script (%.1f s of `mv`) | %s, the last %.0f ms after the "
                "script's end | every one, <= 1000 ms |\n",
                kFiles, seconds / 1000, all ? "all followed" : "NOT all followed", ms_since(t1));
  }
  {  // A tree of 10,000 tagged files renamed.
    constexpr int kFiles = 10000;
    tag_files("/mnt/t/a", kFiles);
    double followed;
    {
      Watcher watcher;
      const auto t0 = Clock::now();
      rename("/mnt/t/a", "/mnt/t/b");
      wait_for("/mnt/t/b/*", kFiles, 120);
      followed = ms_since(t0);
    }
    rename("/mnt/t/b", "/mnt/t/a");
    const auto t0 = Clock::now();
    tevu_move_checked("/mnt/t/b", "/mnt/t/a");
    const double checked = ms_since(t0);
    std::printf("| a directory of 10,000 tagged files renamed | followed in %.0f ms; the checked "
                "move alone %.0f ms | <= checked move + 100 ms |\n",
                followed, checked);
  }
  {  // The base: the same start-up before /srv holds any directory.
    Watcher watcher;
    std::printf("| start-up over the volumes alone (20,000 tagged files, a few directories) | %.0f "
                "ms; peak RSS %ld KiB (anonymous %ld KiB) | (the base) |\n",
                watcher.started_ms, watcher.status_kb("VmHWM:"), watcher.status_kb("RssAnon:"));
  }
  {  // Start-up over 20,000 directories; then idle.
    for (int i = 0; i < 200; ++i) {
      for (int j = 0; j < 100; ++j) {
        tevul_test::make_dirs("/srv/s/d" + std::to_string(i) + "/e" + std::to_string(j));
      }
    }
    const long slab_before = watch_slab_bytes();
    Watcher watcher;
    const long slab_after = watch_slab_bytes();
    std::printf("| start-up over 20,000 directories (and those of /mnt) | %.0f ms; peak RSS %ld "
                "KiB (anonymous %ld KiB); kernel: %ld KiB more unreclaimable slab | <= 2000 ms, <= 4 MB |\n",
                watcher.started_ms, watcher.status_kb("VmHWM:"), watcher.status_kb("RssAnon:"),
                slab_before >= 0 ? (slab_after - slab_before) / 1024 : -1);
    const long switches_before =
        watcher.status_kb("voluntary_ctxt_switches:") + watcher.status_kb("nonvoluntary_ctxt_switches:");
    std::this_thread::sleep_for(std::chrono::seconds(idle_seconds));
    const long switches =
        watcher.status_kb("voluntary_ctxt_switches:") + watcher.status_kb("nonvoluntary_ctxt_switches:") -
        switches_before;
    const std::string trace = "/tmp/watch_bench.strace";
    const std::string command = "timeout -s INT " + std::to_string(idle_seconds) +
                                " strace -c -o " + trace + " -p " + std::to_string(watcher.pid) +
                                " >/dev/null 2>&1";
    std::system(command.c_str());
    std::ifstream in(trace);
    std::string line, total = "0";
    while (std::getline(in, line)) {
      if (line.find("total") != std::string::npos) {
        std::istringstream fields(line);
        std::string a, b, c, calls;
        fields >> a >> b >> c >> calls;
        total = calls;
      }
    }
    std::printf("| idle for %d s, twice | %ld context switches (the kernel's count); then %s "
                "system calls (strace) | no wake-up |\n",
                idle_seconds, switches, total.c_str());
  }
  return 0;
}
