// Internal operations of the access layer whose behaviour the rest of the
// library builds on: the query runner's callback and retry rules.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "db_support.h"
#include "metadb_bulk.h"
#include "metadb_tagdb.h"

using tevul_test::RawDb;
using tevul_test::TempDir;

namespace {

struct Collected {
  std::vector<std::string> values;
  int stop_after = -1;
};

int collect(void* user, int count, char** values, char** names) {
  auto* c = static_cast<Collected*>(user);
  EXPECT_EQ(values[count], nullptr) << "values end with a NULL entry";
  EXPECT_NE(names[0], nullptr);
  c->values.push_back(values[0] ? values[0] : "NULL");
  return static_cast<int>(c->values.size()) == c->stop_after ? 1 : 0;
}

class QueryRunner : public ::testing::Test {
 protected:
  void SetUp() override {
    file_ = dir_ / "db";
    ASSERT_EQ(tevul_test::create_tag_db(file_), "");
    raw_ = std::make_unique<RawDb>(file_);
    raw_->exec("INSERT INTO Meta(Path) VALUES ('a'), ('b'), ('c')");
  }
  TempDir dir_;
  std::string file_;
  std::unique_ptr<RawDb> raw_;
};

TEST_F(QueryRunner, CallbackRules) {
  sqlite3* db = raw_->get();
  Collected c;
  EXPECT_EQ(metadb_exec_query(db, "SELECT Path FROM Meta WHERE 0", collect, &c), 0);
  EXPECT_EQ(metadb_exec_query(db, "UPDATE Meta SET Data='x' WHERE 0", collect, &c), 0);
  EXPECT_TRUE(c.values.empty());

  EXPECT_EQ(metadb_exec_query(db, "SELECT Path FROM Meta ORDER BY Path", collect, &c), 0);
  EXPECT_EQ(c.values, (std::vector<std::string>{"a", "b", "c"}));

  c = Collected{{}, 1};
  EXPECT_EQ(metadb_exec_query(db, "SELECT Path FROM Meta", collect, &c), SQLITE_ROW);
  EXPECT_EQ(c.values.size(), 1u);

  // Without a user pointer the callback is never called, and the statement
  // still runs to its end.
  EXPECT_EQ(metadb_exec_query(db, "UPDATE Meta SET Data='seen' RETURNING Path",
                              collect, nullptr),
            0);
  EXPECT_EQ(raw_->value("SELECT count(*) FROM Meta WHERE Data='seen'"), "3");

  // Only the first statement of a text runs.
  EXPECT_EQ(metadb_exec_query(db, "SELECT 1; DELETE FROM Meta", nullptr, nullptr), 0);
  EXPECT_EQ(raw_->value("SELECT count(*) FROM Meta"), "3");

  EXPECT_EQ(metadb_exec_query(db, "SELECT nonsense FROM", nullptr, nullptr), SQLITE_ERROR);
}

// A file lock that reaches the runner (no busy handler) is retried ten
// times, 50 ms apart, and then reported.
TEST_F(QueryRunner, BusyIsRetriedTenTimesThenReported) {
  RawDb victim(file_, 0);
  victim.value("SELECT count(*) FROM Meta");  // schema read before the lock
  RawDb holder(file_);
  holder.exec("BEGIN EXCLUSIVE");
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(metadb_exec_query(victim.get(), "INSERT INTO Meta(Path) VALUES ('x')",
                              nullptr, nullptr),
            SQLITE_BUSY);
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                      std::chrono::steady_clock::now() - start)
                      .count();
  EXPECT_GE(ms, 450);
  EXPECT_LT(ms, 3000);
  holder.exec("COMMIT");
}

TEST(ErrnoTable, MapsByUnsignedIndex) {
#if defined(__mips__)
  // The numbers of the 32-bit MIPS target.
  EXPECT_EQ(metadb_errno(SQLITE_LOCKED), 45);
  EXPECT_EQ(metadb_errno(SQLITE_TOOBIG), 27);
  EXPECT_EQ(metadb_errno(SQLITE_FULL), 28);
  EXPECT_EQ(metadb_errno(SQLITE_CONSTRAINT), 29);
#endif
  EXPECT_EQ(metadb_errno(SQLITE_LOCKED), EDEADLK);
  EXPECT_EQ(metadb_errno(SQLITE_OK), 0);
  EXPECT_EQ(metadb_errno(SQLITE_CONSTRAINT), ESPIPE);
  EXPECT_EQ(metadb_errno(SQLITE_MISMATCH), ENODEV);
  EXPECT_EQ(metadb_errno(SQLITE_NOTADB), EBADF);
  EXPECT_EQ(metadb_errno(27), EIO);
  EXPECT_EQ(metadb_errno(-1), EIO);
}

TEST(ColumnExists, TestsTheNameCutAt254Bytes) {
  TempDir dir;
  const std::string file = dir / "db";
  ASSERT_EQ(tevul_test::create_tag_db(file), "");
  {
    RawDb raw(file);
    raw.exec("ALTER TABLE Meta ADD \"." + std::string(253, 'n') + "\" TEXT");
  }
  metadb_tagdb* db = metadb_tagdb_open(file.c_str());
  ASSERT_NE(db, nullptr);
  EXPECT_EQ(metadb_column_exists(db, std::string(300, 'n').c_str()), 1);
  EXPECT_EQ(metadb_column_exists(db, std::string(252, 'n').c_str()), 0);
  EXPECT_EQ(metadb_column_exists(db, ""), -1);
  EXPECT_EQ(metadb_column_exists(nullptr, "x"), 0);
  metadb_tagdb_close(db);
}

}  // namespace
