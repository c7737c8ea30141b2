// Lock contention, for real: another process holding the database file, and
// two connections of one process sharing SQLite's cache.
#include <errno.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <thread>

#include "db_support.h"
#include "tevul.h"

using tevul_test::RawDb;
using tevul_test::TempDir;
using Clock = std::chrono::steady_clock;

namespace {

using Handle = tevul_test::TagDbHandle;

long ms_since(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() -
                                                               start)
      .count();
}

// A separate process that, on request, holds a write transaction on a
// database file for a while, inserting one row meanwhile. It is forked before
// the test opens anything, so that it inherits no SQLite state.
class LockHolder {
 public:
  explicit LockHolder(const std::string& file) {
    int to_child[2], to_parent[2];
    EXPECT_EQ(pipe(to_child), 0);
    EXPECT_EQ(pipe(to_parent), 0);
    pid_ = fork();
    if (pid_ == 0) {
      close(to_child[1]);
      close(to_parent[0]);
      serve(file, to_child[0], to_parent[1]);
    }
    close(to_child[0]);
    close(to_parent[1]);
    out_ = to_child[1];
    in_ = to_parent[0];
  }
  ~LockHolder() {
    close(out_);  // end of input ends the child
    int status = 0;
    waitpid(pid_, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    close(in_);
  }
  // Returns once the other process holds the write lock for `ms`.
  void hold(int ms) {
    const unsigned char c = static_cast<unsigned char>(ms / 10);
    ASSERT_EQ(write(out_, &c, 1), 1);
    char reply = 0;
    ASSERT_EQ(read(in_, &reply, 1), 1);
    ASSERT_EQ(reply, 'y');
  }
  // Waits until the other process has committed.
  void wait_committed() {
    char reply = 0;
    ASSERT_EQ(read(in_, &reply, 1), 1);
    ASSERT_EQ(reply, 'c');
  }

 private:
  [[noreturn]] static void serve(const std::string& file, int in, int out) {
    unsigned char tenths;
    int round = 0;
    while (read(in, &tenths, 1) == 1) {
      sqlite3* db = nullptr;
      sqlite3_open_v2(file.c_str(), &db,
                      SQLITE_OPEN_READWRITE | SQLITE_OPEN_PRIVATECACHE, nullptr);
      const std::string sql = "BEGIN IMMEDIATE; INSERT INTO Meta(Path) VALUES "
                              "('other-process-" + std::to_string(round++) + "')";
      int rc = sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr);
      char c = rc == SQLITE_OK ? 'y' : 'n';
      if (write(out, &c, 1) != 1) _exit(3);
      usleep(tenths * 10000);
      rc = sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
      sqlite3_close(db);
      c = rc == SQLITE_OK ? 'c' : 'n';
      if (write(out, &c, 1) != 1) _exit(3);
    }
    _exit(0);
  }

  pid_t pid_ = -1;
  int out_ = -1;
  int in_ = -1;
};

class Locks : public ::testing::Test {
 protected:
  void SetUp() override {
    file_ = dir_ / "vol@@db";
    tevul_test::create_tag_database(file_);
  }
  TempDir dir_;
  std::string file_;
};

TEST_F(Locks, AnotherProcessHoldingTheFileIsWaitedOut) {
  LockHolder other(file_);
  Handle db(metadb_tagdb_open(file_.c_str()));
  ASSERT_NE(db, nullptr);

  // An autocommit write waits in the busy handler.
  other.hold(400);
  auto start = Clock::now();
  EXPECT_EQ(metadb_tagdb_settag(db.get(), "a", "t", "1"), 0);
  EXPECT_GE(ms_since(start), 300);
  other.wait_committed();

  // So does a transaction of several writes.
  other.hold(400);
  start = Clock::now();
  EXPECT_EQ(metadb_tagdb_transaction_start(db.get()), 0);
  EXPECT_EQ(metadb_tagdb_settag(db.get(), "b", "t", "2"), 0);
  EXPECT_EQ(metadb_tagdb_settag(db.get(), "b", "u", "3"), 0);
  EXPECT_EQ(metadb_tagdb_sync(db.get(), "b"), 0);
  EXPECT_EQ(metadb_tagdb_transaction_commit(db.get()), 0);
  EXPECT_GE(ms_since(start), 300);
  other.wait_committed();

  RawDb raw(file_);
  EXPECT_EQ(raw.value("SELECT count(*) FROM Meta"), "4") << "2 rows each";
  EXPECT_EQ(raw.value("SELECT Data FROM Meta WHERE Path='b'"), "t=2|u=3");
  EXPECT_EQ(raw.value("SELECT \".t\" FROM Meta WHERE Path='a'"), "1");
}

// Two handles on one file in one process share the cache: the second
// writer meets a table lock and waits for the first one's commit through the
// unlock notification.
TEST_F(Locks, SecondThreadWaitsForTheFirstOnesCommit) {
  Handle first(metadb_tagdb_open(file_.c_str()));
  Handle second(metadb_tagdb_open(file_.c_str()));
  ASSERT_NE(first, nullptr);
  ASSERT_NE(second, nullptr);

  std::promise<void> holding;
  std::thread writer([&] {
    metadb_tagdb_transaction_start(first.get());
    metadb_tagdb_settag(first.get(), "one", "t", "1");
    holding.set_value();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    metadb_tagdb_sync(first.get(), "one");
    metadb_tagdb_transaction_commit(first.get());
  });
  holding.get_future().wait();

  const auto start = Clock::now();
  int results[4];
  std::thread waiter([&] {
    results[0] = metadb_tagdb_transaction_start(second.get());
    results[1] = metadb_tagdb_settag(second.get(), "two", "t", "2");
    results[2] = metadb_tagdb_sync(second.get(), "two");
    results[3] = metadb_tagdb_transaction_commit(second.get());
  });
  waiter.join();
  writer.join();
  EXPECT_GE(ms_since(start), 200) << "the second writer did not wait";
  for (int r : results) EXPECT_EQ(r, 0);

  RawDb raw(file_);
  EXPECT_EQ(raw.rows("SELECT Path, Data FROM Meta ORDER BY Path"),
            (std::vector<std::vector<std::string>>{{"one", "t=1"},
                                                   {"two", "t=2"}}));
}

// When the lock in the way belongs to another handle of the same thread,
// nobody else could ever release it: the call fails at once instead.
TEST_F(Locks, ALockHeldByTheSameThreadFailsInsteadOfHanging) {
  Handle first(metadb_tagdb_open(file_.c_str()));
  Handle second(metadb_tagdb_open(file_.c_str()));

  // On a thread of its own only so that a hang fails the test instead of
  // blocking it.
  auto result = std::async(std::launch::async, [&] {
    metadb_tagdb_transaction_start(first.get());
    metadb_tagdb_settag(first.get(), "one", "t", "1");
    const int start = metadb_tagdb_transaction_start(second.get());
    const int set = metadb_tagdb_settag(second.get(), "two", "t", "2");
    return std::make_pair(start, set);
  });
  ASSERT_EQ(result.wait_for(std::chrono::seconds(20)), std::future_status::ready)
      << "waited for a lock of its own thread";
  const auto [start, set] = result.get();
  // The first handle's new column holds the schema lock, so not even BEGIN
  // can be prepared.
  EXPECT_EQ(start, EIO);
  EXPECT_EQ(set, 1);

  ASSERT_EQ(metadb_tagdb_transaction_commit(first.get()), 0);
  EXPECT_EQ(metadb_tagdb_settag(second.get(), "two", "t", "2"), 0);
}

}  // namespace
