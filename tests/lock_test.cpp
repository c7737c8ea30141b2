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
#include "lock_holder.h"
#include "tevul.h"

using tevul_test::LockHolder;
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

class Locks : public ::testing::Test {
 protected:
  void SetUp() override {
    file_ = dir_ / "vol@@db";
    ASSERT_EQ(tevul_test::create_tag_db(file_), "");
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
