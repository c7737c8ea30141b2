// Load: several processes with several bulk contexts each on one volume
// while another process looks tags up. No tag that was committed may be
// lost, every Data must match its row, and no call may report a lock.
#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "test_support.h"
#include "tevul.h"

using tevul_test::Bulk;
using tevul_test::RawDb;
using tevul_test::Sandbox;
using tevul_test::exit_status;

namespace {

// Forks a process that runs `body` and exits with its result.
template <typename Body>
pid_t spawn(Body body) {
  const pid_t pid = fork();
  if (pid == 0) _exit(body());
  return pid;
}

using Load = tevul_test::SandboxTest;

// Four processes, two threads each with its own bulk context, tag
// overlapping ranges of files for several rounds; a fifth process looks tags
// up by value meanwhile.
TEST_F(Load, FourProcessesWithTwoContextsEachLoseNothing) {
  constexpr int kFiles = 48, kProcesses = 4, kContexts = 2, kRounds = 5, kSpan = 24;
  auto file_name = [](int i) { return "/mnt/load/f" + std::to_string(i); };
  for (int i = 0; i < kFiles; ++i) ASSERT_TRUE(tevul_test::write_file(file_name(i), ""));
  // The range of context c of process p: overlapping neighbours.
  auto first_file = [](int p, int c) { return (p * kContexts + c) * 6; };
  auto tag = [](int p, int c) { return "w" + std::to_string(p) + std::to_string(c); };
  auto value = [](int round, int i) { return "r" + std::to_string(round) + "i" + std::to_string(i); };

  std::vector<pid_t> workers;
  for (int p = 0; p < kProcesses; ++p) {
    workers.push_back(spawn([&, p] {
      std::atomic<int> failures{0};
      std::vector<std::thread> threads;
      for (int c = 0; c < kContexts; ++c) {
        threads.emplace_back([&, c] {
          Bulk bulk(tevu_bulk_init());
          failures += !bulk;
          for (int round = 0; bulk && round < kRounds; ++round) {
            for (int k = 0; k < kSpan; ++k) {
              const int i = (first_file(p, c) + k) % kFiles;
              const std::string path = file_name(i);
              if (tevu_bulk_setpath(bulk.get(), path.c_str()) != 0 ||
                  tevu_bulk_settag(bulk.get(), tag(p, c).c_str(),
                                   value(round, i).c_str()) != 0 ||
                  tevu_bulk_settag(bulk.get(), "last", tag(p, c).c_str()) != 0) {
                ++failures;
              }
            }
          }
        });
      }
      for (auto& t : threads) t.join();
      return std::min(failures.load(), 100);
    }));
  }
  // The looker runs until the workers are done.
  const pid_t looker = spawn([] {
    int bad = 0, calls = 0;
    char buf[512];
    for (; access("/tmp/workers-done", F_OK) != 0; ++calls) {
      const int rc = tevu_metadata_for_tagvalue("last", "w00", buf, sizeof buf);
      bad += rc != 0 && rc != ENOENT;
    }
    return bad > 0 ? 1 : calls > 0 ? 0 : 2;
  });
  for (pid_t pid : workers) EXPECT_EQ(exit_status(pid), 0) << "failed calls";
  ASSERT_TRUE(tevul_test::write_file("/tmp/workers-done", ""));
  EXPECT_EQ(exit_status(looker), 0) << "a lookup failed, or none ran";

  // Every context's tag of the last round is on every file of its range.
  RawDb db(Sandbox::db_path("mnt"));
  EXPECT_EQ(db.value("PRAGMA integrity_check"), "ok");
  for (int p = 0; p < kProcesses; ++p) {
    for (int c = 0; c < kContexts; ++c) {
      EXPECT_EQ(db.value("SELECT count(*) FROM Meta WHERE \"." + tag(p, c) + "\"='r" +
                         std::to_string(kRounds - 1) + "i'||substr(Path, 7)"),
                std::to_string(kSpan)) << tag(p, c);
    }
  }
  // Every row's Data is the encoding of its tag columns, in column order
  // (the values here need no escapes).
  const std::vector<std::string> columns = db.columns();  // Path, Data, tags
  for (const auto& row : db.rows("SELECT * FROM Meta")) {
    std::string data;
    for (std::size_t c = 2; c < columns.size(); ++c) {
      if (row[c] != "NULL") data += (data.empty() ? "" : "|") + columns[c].substr(1) + "=" + row[c];
    }
    EXPECT_EQ(row[1], data) << row[0];
  }
}

#ifdef TEVU_TOOL
// `tevu moved` across volumes, killed at random moments and run again,
// the two volumes taking turns as source and destination: after every kill
// each file's tags stand at the source or the destination (or both), and
// after the run that follows, only at the destination, with their tag
// lists rebuilt.
TEST_F(Load, MovedAcrossVolumesKilledAtRandomConverges) {
  constexpr int kFiles = 600, kKills = 50;
  const auto path = [](const std::string& volume, int i) {
    return "/" + volume + "/d/f" + std::to_string(i);
  };
  for (int i = 0; i < kFiles; ++i) {
    tevul_test::tag_file(path("mnt", i), {{"a", std::to_string(i)}, {"b", "x"}});
  }
  const auto tagged = [](const std::string& volume) {
    std::set<std::string> paths;
    for (const auto& row : tevul_test::rows(
             volume, "SELECT Path FROM Meta WHERE \".a\"=substr(Path, 4) AND \".b\"='x'")) {
      paths.insert(row[0]);
    }
    return paths;
  };
  const auto moved = [&](const std::string& from, const std::string& to) {
    const pid_t pid = fork();
    if (pid == 0) tevul_test::exec_tool({"moved", "/" + from + "/d", "/" + to + "/d"});
    return pid;
  };
  const auto seconds = [](auto start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  };
  // Kills land between the tool's start-up (timed on a move of nothing) and
  // the end of a whole move (timed on the first round); a kill that came
  // too late draws the end of the window in.
  auto start = std::chrono::steady_clock::now();
  const pid_t limits = fork();
  if (limits == 0) tevul_test::exec_tool({"limits"});
  ASSERT_EQ(tevul_test::exit_status(limits), 0);
  const double startup = seconds(start);
  std::mt19937 random(7);
  std::string from = "mnt", to = "srv";
  double window = 0;
  int landed = 0;
  for (int round = 0; landed < kKills && round < 10 * kKills; ++round) {
    // The files move on disk first, as a script does before it calls tevu.
    for (int i = 0; i < kFiles; ++i) {
      ASSERT_TRUE(tevul_test::write_file(path(to, i), ""));
      ASSERT_EQ(unlink(path(from, i).c_str()), 0);
    }
    ASSERT_EQ(rmdir(("/" + from + "/d").c_str()), 0);
    if (round > 0) {
      const pid_t pid = moved(from, to);
      const double low = std::min(0.8 * startup, 0.5 * window);
      const double delay = std::uniform_real_distribution<double>(low, window)(random);
      usleep(static_cast<useconds_t>(delay * 1e6));
      kill(pid, SIGKILL);
      if (tevul_test::exit_status(pid) == 128 + SIGKILL) {
        ++landed;
      } else {
        window = std::max(low, 0.9 * delay);
      }
      std::set<std::string> both = tagged(from);
      const std::set<std::string> at_dest = tagged(to);
      both.insert(at_dest.begin(), at_dest.end());
      ASSERT_EQ(both.size(), static_cast<std::size_t>(kFiles)) << "after kill " << landed;
    }
    start = std::chrono::steady_clock::now();
    ASSERT_EQ(tevul_test::exit_status(moved(from, to)), 0) << "round " << round;
    if (round == 0) window = 0.9 * seconds(start);
    ASSERT_EQ(tagged(from).size(), 0u) << "round " << round;
    ASSERT_EQ(tagged(to).size(), static_cast<std::size_t>(kFiles)) << "round " << round;
    ASSERT_EQ(tevul_test::rows(to, "SELECT count(*) FROM Meta WHERE Data IS NOT 'a='||substr(Path, 4)||'|b=x'"),
              (tevul_test::Rows{{"0"}}));
    std::swap(from, to);
  }
  EXPECT_GE(landed, kKills);
}
#endif

}  // namespace
