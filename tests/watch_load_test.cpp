// The watcher as the router runs it: `tevu watch` in a process of its own,
// stopped while thousands of renames overflow the kernel's event queue, and
// killed again and again amid a stream of renames. Every tag must end at its
// file's final path.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "test_support.h"
#include "tevul.h"

using tevul_test::Rows;

#ifdef TEVU_TOOL
namespace {

using WatchLoad = tevul_test::SandboxTest;
using Clock = std::chrono::steady_clock;

// Under an emulator and the sanitizers everything is some ten times
// slower: fewer files there, and a watcher made with a smaller event queue.
bool emulated() { return std::string(TEVU_TOOL_EMULATOR).size() > 0; }
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
constexpr char kQueueLimit[] = "/proc/sys/fs/inotify/max_queued_events";

std::string name(const char* prefix, int i) { return std::string("/mnt/d/") + prefix + std::to_string(i); }

// Tags `count` files /mnt/d/f<i> in one bulk context, each with its own
// modification time (files of a real library differ so; the test's would
// share one tick of a coarse clock).
void tag_files(int count) {
  ASSERT_TRUE(tevul_test::make_dirs("/mnt/d"));
  tevul_test::Bulk bulk(tevu_bulk_init());
  ASSERT_NE(bulk, nullptr);
  for (int i = 0; i < count; ++i) {
    const std::string file = name("f", i);
    const int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(fd, 0);
    const struct timespec times[2] = {{1500000000 + i, 0}, {1500000000 + i, 0}};
    ASSERT_EQ(futimens(fd, times), 0);
    close(fd);
    ASSERT_EQ(tevu_bulk_setpath(bulk.get(), file.c_str()), 0);
    ASSERT_EQ(tevu_bulk_settag(bulk.get(), "n", std::to_string(i).c_str()), 0);
  }
}

// The number of rows whose path is `prefix` followed by their tag n.
long rows_at(const std::string& prefix) {
  const Rows r = tevul_test::rows(
      "mnt", "SELECT count(*) FROM Meta WHERE Path = '" + prefix + "' || \".n\"");
  return std::stol(r.at(0).at(0));
}

// A `tevu watch` child whose standard error is read until it says it
// watches everything.
struct Watcher {
  pid_t pid = -1;
  int err = -1;
  std::string said;

  void start() {
    int pipe_fds[2];
    ASSERT_EQ(pipe(pipe_fds), 0);
    pid = fork();
    if (pid == 0) {
      dup2(pipe_fds[1], 2);
      close(pipe_fds[0]);
      tevul_test::exec_tool({"watch", "--grace", "1"});
    }
    close(pipe_fds[1]);
    err = pipe_fds[0];
    const auto end = Clock::now() + std::chrono::seconds(60);
    while (said.find("tevu: watch: watching") == std::string::npos && Clock::now() < end) {
      char buf[512];
      const ssize_t n = read(err, buf, sizeof buf);
      if (n <= 0) break;
      said.append(buf, static_cast<std::size_t>(n));
    }
    ASSERT_NE(said.find("tevu: watch: watching"), std::string::npos) << said;
  }
  // Takes in what it said since (its standard error).
  void drain() {
    fcntl(err, F_SETFL, O_NONBLOCK);
    char buf[512];
    ssize_t n;
    while ((n = read(err, buf, sizeof buf)) > 0) said.append(buf, static_cast<std::size_t>(n));
  }
  // Ends it with `sig`; returns its exit status.
  int stop(int sig) {
    kill(pid, sig);
    const int status = tevul_test::exit_status(pid);
    close(err);
    pid = -1;
    return status;
  }
  ~Watcher() {
    if (pid > 0) stop(SIGKILL);
  }
};

bool eventually(const std::function<bool()>& done, int seconds) {
  const auto end = Clock::now() + std::chrono::seconds(seconds);
  while (!done()) {
    if (Clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  return true;
}

TEST_F(WatchLoad, AnOverflowIsMadeGoodByTheRepair) {
  const bool small = emulated() || kSanitized;
  const int files = small ? 2000 : 20000;
  tag_files(files);
  ASSERT_EQ(tevu_repair(nullptr, 0, nullptr, nullptr, nullptr), 0);  // the fingerprints
  Watcher watcher;
  // The queue's limit is taken when an inotify instance is made: lowered
  // only for the watcher's start (2000 renames queue 4000 events).
  const std::string limit = tevul_test::read_file(kQueueLimit);
  if (small) {
    ASSERT_TRUE(tevul_test::write_file(kQueueLimit, "1024"));
  }
  watcher.start();
  if (small) {
    ASSERT_TRUE(tevul_test::write_file(kQueueLimit, limit));
  }
  kill(watcher.pid, SIGSTOP);
  for (int i = 0; i < files; ++i) {
    ASSERT_EQ(rename(name("f", i).c_str(), name("g", i).c_str()), 0);
  }
  kill(watcher.pid, SIGCONT);
  EXPECT_TRUE(eventually([&] {
    watcher.drain();
    return watcher.said.find("overflowed") != std::string::npos;
  }, 200)) << watcher.said;
  EXPECT_TRUE(eventually([&] { return rows_at("d/g") == files; }, 200))
      << rows_at("d/g") << " of " << files << " followed";
  EXPECT_EQ(rows_at("d/f"), 0);
  EXPECT_EQ(watcher.stop(SIGTERM), 0);
}

// The kill loop: the watcher is killed at random amid renames and started
// again; what moved while none ran is found by the start's repair.
TEST_F(WatchLoad, KilledAmidRenamesAndRestartedLosesNothing) {
  const int files = 200, kills = emulated() ? 6 : 20;
  tag_files(files);
  ASSERT_EQ(tevu_repair(nullptr, 0, nullptr, nullptr, nullptr), 0);  // the fingerprints
  std::mt19937 random(11);
  std::vector<int> generation(files, 0);
  const auto path = [&](int i) { return name(("v" + std::to_string(generation[i]) + "_").c_str(), i); };
  for (int i = 0; i < files; ++i) {
    ASSERT_EQ(rename(name("f", i).c_str(), path(i).c_str()), 0);
  }
  for (int round = 0; round < kills; ++round) {
    Watcher watcher;
    watcher.start();
    const int renames = std::uniform_int_distribution<int>(20, 400)(random);
    for (int k = 0; k < renames; ++k) {
      const int i = std::uniform_int_distribution<int>(0, files - 1)(random);
      const std::string from = path(i);
      ++generation[i];
      ASSERT_EQ(rename(from.c_str(), path(i).c_str()), 0);
      if (k % 50 == 0) std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    watcher.stop(SIGKILL);
  }
  Watcher last;
  last.start();
  const auto all_final = [&] {
    for (int i = 0; i < files; ++i) {
      const Rows r = tevul_test::rows("mnt", "SELECT \".n\" FROM Meta WHERE Path='" +
                                                 path(i).substr(5) + "'");
      if (r != Rows{{std::to_string(i)}}) return false;
    }
    return true;
  };
  EXPECT_TRUE(eventually(all_final, 60)) << last.said;
  EXPECT_EQ(tevul_test::rows("mnt", "SELECT count(*) FROM Meta"), (Rows{{std::to_string(files)}}));
  EXPECT_EQ(last.stop(SIGTERM), 0);
}

}  // namespace
#endif  // TEVU_TOOL
