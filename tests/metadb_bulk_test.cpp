// The SQLite access layer: the query runner's rules, the error numbers it
// maps results to, and lock contention for real (another process holding
// the file, two connections of one process sharing SQLite's cache).
#include <errno.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "test_support.h"
#include "metadb_bulk.h"
#include "metadb_tagdb.h"

using tevul_test::RawDb;
using tevul_test::TagDbTest;
using Clock = std::chrono::steady_clock;

namespace {

using Handle = tevul_test::TagDbHandle;
using Rows = std::vector<std::vector<std::string>>;

long ms_since(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

int collect(void* user, int, char** values, char**) {
  auto* seen = static_cast<std::vector<std::string>*>(user);
  seen->push_back(values[0] != nullptr ? values[0] : "NULL");
  return seen->size() == 2 ? 1 : 0;  // stops after two rows
}

using Runner = TagDbTest;

TEST_F(Runner, RunsTheFirstStatementAndStopsWhenTheCallbackSays) {
  RawDb raw(file_);
  raw.exec("INSERT INTO Meta(Path) VALUES ('a'), ('b'), ('c')");
  std::vector<std::string> seen;
  EXPECT_EQ(metadb_exec_query(raw.get(), "SELECT Path FROM Meta WHERE 0", collect, &seen), 0);
  EXPECT_EQ(metadb_exec_query(raw.get(), "SELECT Path FROM Meta ORDER BY Path", collect, &seen),
            SQLITE_ROW);
  EXPECT_EQ(seen, (std::vector<std::string>{"a", "b"}));
  // Without a user pointer no callback runs, and the statement still ends.
  EXPECT_EQ(metadb_exec_query(raw.get(), "UPDATE Meta SET Data='x' RETURNING Path", collect,
                              nullptr), 0);
  EXPECT_EQ(raw.value("SELECT count(*) FROM Meta WHERE Data='x'"), "3");
  EXPECT_EQ(metadb_exec_query(raw.get(), "SELECT 1; DELETE FROM Meta", nullptr, nullptr), 0);
  EXPECT_EQ(raw.value("SELECT count(*) FROM Meta"), "3") << "only the first statement runs";
  EXPECT_EQ(metadb_exec_query(raw.get(), "SELECT nonsense FROM", nullptr, nullptr), SQLITE_ERROR);
}

// A file lock that reaches the runner (no busy handler) is retried ten
// times, 50 ms apart, and then reported.
TEST_F(Runner, BusyIsRetriedTenTimesThenReported) {
  RawDb victim(file_, 0);
  victim.value("SELECT count(*) FROM Meta");  // the schema is read before the lock
  RawDb holder(file_);
  holder.exec("BEGIN EXCLUSIVE");
  const auto start = Clock::now();
  EXPECT_EQ(metadb_exec_query(victim.get(), "INSERT INTO Meta(Path) VALUES ('x')", nullptr,
                              nullptr), SQLITE_BUSY);
  EXPECT_GE(ms_since(start), 500);
  EXPECT_LT(ms_since(start), 3000);
  holder.exec("COMMIT");
}

// The error numbers of every SQLite result, as the daemon maps them; codes
// outside the table give EIO.
TEST(ErrnoTable, MapsEveryResultCode) {
  const std::vector<std::pair<int, int>> expected = {
      {SQLITE_OK, 0},          {SQLITE_ERROR, EIO},         {SQLITE_INTERNAL, EFAULT},
      {SQLITE_PERM, EPERM},    {SQLITE_ABORT, EINTR},       {SQLITE_BUSY, EBUSY},
      {SQLITE_LOCKED, EDEADLK}, {SQLITE_NOMEM, ENOMEM},     {SQLITE_READONLY, EROFS},
      {SQLITE_INTERRUPT, EINTR}, {SQLITE_IOERR, EIO},       {SQLITE_CORRUPT, EFAULT},
      {SQLITE_NOTFOUND, ENOENT}, {SQLITE_FULL, ENOSPC},     {SQLITE_CANTOPEN, EACCES},
      {SQLITE_PROTOCOL, EPIPE}, {SQLITE_EMPTY, ENOENT},     {SQLITE_SCHEMA, EBADF},
      {SQLITE_TOOBIG, EFBIG},  {SQLITE_CONSTRAINT, ESPIPE}, {SQLITE_MISMATCH, ENODEV},
      {SQLITE_MISUSE, EPIPE},  {SQLITE_NOLFS, ENOTTY},      {SQLITE_AUTH, EACCES},
      {SQLITE_FORMAT, EBADF},  {SQLITE_RANGE, EINVAL},      {SQLITE_NOTADB, EBADF},
      {27, EIO},               {-1, EIO}};
  for (const auto& [code, number] : expected) EXPECT_EQ(tevul::sqlite_errno(code), number) << code;
}

using Locks = TagDbTest;

// Another process holds the write lock for 400 ms: a transaction of this
// one waits it out.
TEST_F(Locks, AnotherProcessHoldingTheFileIsWaitedOut) {
  db_.reset();  // the other process inherits no open connection
  int locked[2];
  ASSERT_EQ(pipe(locked), 0);
  const pid_t other = fork();
  if (other == 0) {
    RawDb raw(file_);
    raw.exec("BEGIN IMMEDIATE; INSERT INTO Meta(Path) VALUES ('other')");
    if (write(locked[1], "l", 1) != 1) _exit(1);
    usleep(400000);
    raw.exec("DELETE FROM Meta WHERE Path='other'; COMMIT");
    _exit(0);
  }
  char byte;
  ASSERT_EQ(read(locked[0], &byte, 1), 1);
  const auto start = Clock::now();
  Handle db(metadb_tagdb_open(file_.c_str()));
  EXPECT_EQ(metadb_tagdb_transaction_start(db.get()), 0);
  EXPECT_EQ(metadb_tagdb_settag(db.get(), "b", "t", "2"), 0);
  EXPECT_EQ(metadb_tagdb_sync(db.get(), "b"), 0);
  EXPECT_EQ(metadb_tagdb_transaction_commit(db.get()), 0);
  EXPECT_GE(ms_since(start), 300);
  EXPECT_EQ(tevul_test::exit_status(other), 0);
  EXPECT_EQ(RawDb(file_).rows("SELECT Path, Data FROM Meta"), (Rows{{"b", "t=2"}}));
}

// Two handles of one process share the cache: the second writer meets a
// table lock and waits for the first one's commit through the unlock
// notification.
TEST_F(Locks, SecondThreadWaitsForTheFirstOnesCommit) {
  Handle second(metadb_tagdb_open(file_.c_str()));
  std::promise<void> holding;
  std::thread writer([&] {
    metadb_tagdb_transaction_start(db_.get());
    metadb_tagdb_settag(db_.get(), "one", "t", "1");
    holding.set_value();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    metadb_tagdb_sync(db_.get(), "one");
    metadb_tagdb_transaction_commit(db_.get());
  });
  holding.get_future().wait();
  const auto start = Clock::now();
  int results[4];
  std::thread([&] {
    results[0] = metadb_tagdb_transaction_start(second.get());
    results[1] = metadb_tagdb_settag(second.get(), "two", "t", "2");
    results[2] = metadb_tagdb_sync(second.get(), "two");
    results[3] = metadb_tagdb_transaction_commit(second.get());
  }).join();
  writer.join();
  EXPECT_GE(ms_since(start), 200) << "the second writer did not wait";
  for (int r : results) EXPECT_EQ(r, 0);
  EXPECT_EQ(RawDb(file_).rows("SELECT Path, Data FROM Meta ORDER BY Path"),
            (Rows{{"one", "t=1"}, {"two", "t=2"}}));
}

// When the lock in the way belongs to another handle of the same thread,
// nobody else could ever release it: the call fails instead of waiting.
TEST_F(Locks, ALockHeldByTheSameThreadFailsInsteadOfHanging) {
  Handle second(metadb_tagdb_open(file_.c_str()));
  auto result = std::async(std::launch::async, [&] {  // a hang fails the test
    metadb_tagdb_transaction_start(db_.get());
    metadb_tagdb_settag(db_.get(), "one", "t", "1");
    const int start = metadb_tagdb_transaction_start(second.get());
    return std::make_pair(start, metadb_tagdb_settag(second.get(), "two", "t", "2"));
  });
  ASSERT_EQ(result.wait_for(std::chrono::seconds(20)), std::future_status::ready);
  const auto [start, set] = result.get();
  // The first handle's new column holds the schema lock: not even BEGIN can
  // be prepared.
  EXPECT_EQ(start, EIO);
  EXPECT_EQ(set, 1);
  ASSERT_EQ(metadb_tagdb_transaction_commit(db_.get()), 0);
  EXPECT_EQ(metadb_tagdb_settag(second.get(), "two", "t", "2"), 0);
}

}  // namespace
