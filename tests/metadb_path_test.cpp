// Rows follow deleted, renamed and moved paths, and vanished files are
// cleaned up: on real database files through the exported functions.
#include <errno.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "test_support.h"
#include "tevul.h"

using tevul_test::RawDb;
using tevul_test::TagDbHandle;
using Rows = std::vector<std::vector<std::string>>;

namespace {

class PathMaintenance : public tevul_test::TagDbTest {
 protected:
  // Tags each path with t=<path>, in one committed transaction.
  void tag_all(metadb_tagdb* db, const std::vector<std::string>& paths) {
    ASSERT_EQ(metadb_tagdb_transaction_start(db), 0);
    for (const auto& p : paths) {
      ASSERT_EQ(metadb_tagdb_settag(db, p.c_str(), "t", p.c_str()), 0) << p;
      ASSERT_EQ(metadb_tagdb_sync(db, p.c_str()), 0);
    }
    ASSERT_EQ(metadb_tagdb_transaction_commit(db), 0);
  }
  Rows paths(const std::string& file) {
    RawDb raw(file);
    return raw.rows("SELECT Path FROM Meta ORDER BY Path");
  }
};

TEST_F(PathMaintenance, RenameMovesTheSubtreeWithItsTagsOrNothing) {
  tag_all(db_.get(), {"a/b", "a/b/c.jpg", "a/bc", "x"});
  EXPECT_EQ(metadb_tagdb_rename_path(db_.get(), "a/b", "x/y"), 0);
  RawDb raw(file_);
  EXPECT_EQ(raw.rows("SELECT Path, \".t\", Data FROM Meta WHERE Path LIKE 'x%' OR Path "
                     "LIKE 'a%' ORDER BY Path"),
            (Rows{{"a/bc", "a/bc", "t=a\\bc"}, {"x", "x", "t=x"}, {"x/y", "a/b", "t=a\\b"},
                  {"x/y/c.jpg", "a/b/c.jpg", "t=a\\b\\c.jpg"}}));
  const std::string before = tevul_test::read_file(file_);
  // Onto a path that has a row: refused whole by the table's UNIQUE.
  EXPECT_EQ(metadb_tagdb_rename_path(db_.get(), "x", "a/bc"), 1);
  EXPECT_EQ(metadb_tagdb_rename_path(db_.get(), "", "z"), 1);
  EXPECT_EQ(metadb_tagdb_rename_path(db_.get(), "a", ""), 1);
  EXPECT_EQ(tevul_test::read_file(file_), before);
}

class MoveBetweenVolumes : public PathMaintenance {
 protected:
  void SetUp() override {
    PathMaintenance::SetUp();
    dst_file_ = dir_ / "dst@@db";
    ASSERT_EQ(tevul_test::create_tag_db(dst_file_), "");
    dst_.reset(metadb_tagdb_open(dst_file_.c_str()));
    ASSERT_NE(dst_, nullptr);
  }
  std::string dst_file_;
  TagDbHandle dst_;
};

TEST_F(MoveBetweenVolumes, CopiesRowsWithTheirTagsRowByRow) {
  metadb_tagdb* src = db_.get();
  tag_all(src, {"music/a", "music/a/1.mp3", "music/a/2.mp3", "music/ab"});
  ASSERT_EQ(metadb_tagdb_settag(src, "music/a/1.mp3", "artist", "AC/DC"), 0);
  ASSERT_EQ(metadb_tagdb_deltag(src, "music/a/2.mp3", "t"), 0);
  // The source handle starts a transaction but has written nothing since.
  TagDbHandle mover(metadb_tagdb_open(file_.c_str()));
  ASSERT_EQ(metadb_tagdb_transaction_start(mover.get()), 0);
  ASSERT_EQ(metadb_tagdb_transaction_start(dst_.get()), 0);
  EXPECT_EQ(metadb_tagdb_move_path(mover.get(), "music/a", dst_.get(), "old/b"), 0);
  EXPECT_EQ(metadb_tagdb_transaction_commit(dst_.get()), 0);

  RawDb dst(dst_file_);
  EXPECT_EQ(dst.rows("SELECT Path, \".t\", \".artist\", Data FROM Meta ORDER BY Path"),
            (Rows{{"old/b", "music/a", "NULL", "NULL"},
                  {"old/b/1.mp3", "music/a/1.mp3", "AC/DC", "NULL"},
                  {"old/b/2.mp3", "NULL", "NULL", "NULL"}}))
      << "only tags that are set are copied; Data is left to be encoded";

  // The source's DELETE stands inside its transaction; the handle never
  // wrote, so closing it rolls the DELETE back and the rows stay.
  mover.reset();
  EXPECT_EQ(paths(file_),
            (Rows{{"music/a"}, {"music/a/1.mp3"}, {"music/a/2.mp3"}, {"music/ab"}}));
}

TEST_F(MoveBetweenVolumes, StopsAtADestinationRowThatCannotBeCreated) {
  tag_all(db_.get(), {"a", "a/1"});
  tag_all(dst_.get(), {"z"});
  // A fresh destination connection has inserted nothing, so an existing row
  // yields no row id.
  TagDbHandle fresh(metadb_tagdb_open(dst_file_.c_str()));
  EXPECT_EQ(metadb_tagdb_move_path(db_.get(), "a", fresh.get(), "z"), EIO);
  EXPECT_EQ(paths(file_), (Rows{{"a"}, {"a/1"}}));

  EXPECT_EQ(metadb_tagdb_move_path(db_.get(), "nothing", dst_.get(), "n"), 0);
  EXPECT_EQ(metadb_tagdb_move_path(db_.get(), "", dst_.get(), "n"), EIO);
  EXPECT_EQ(paths(dst_file_), (Rows{{"z"}}));
}

// The cleanup's filter sees root + "/" + stored path and decides alone.
std::vector<std::string> g_seen;
int* g_cancel = nullptr;  // set to 1 after g_cancel_after calls
std::size_t g_cancel_after = 0;

int drop_odd_names(const char* path, int unused) {
  EXPECT_EQ(unused, 0);
  g_seen.push_back(path);
  if (g_cancel && g_seen.size() == g_cancel_after) *g_cancel = 1;
  const std::string p(path);
  return (p.back() - '0') % 2;  // odd last digit: gone
}

class Cleanup : public PathMaintenance {
 protected:
  void SetUp() override {
    PathMaintenance::SetUp();
    std::vector<std::string> all;
    for (int i = 0; i < 20; ++i) all.push_back("photos/x" + std::to_string(i));
    tag_all(db_.get(), all);
    db_.reset();
  }
};

TEST_F(Cleanup, DeletesWhatTheFilterReportsGone) {
  // Rows of a page each, so that deletions free pages.
  RawDb(file_).exec("UPDATE Meta SET Data=hex(randomblob(2000))");
  int cancel = 0;
  EXPECT_EQ(metadb_tagdb_cleanup(file_.c_str(), "/mnt/disk1", &cancel, drop_odd_names), 0);
  EXPECT_EQ(g_seen.size(), 20u) << "once per row";
  EXPECT_EQ(g_seen.front(), "/mnt/disk1/photos/x0");
  RawDb raw(file_);
  EXPECT_EQ(raw.value("SELECT count(*) FROM Meta"), "10");
  EXPECT_EQ(raw.value("SELECT count(*) FROM Meta WHERE substr(Path,-1) IN ('1','3','5','7','9')"), "0");
  EXPECT_NE(raw.value("PRAGMA freelist_count"), "0") << "no VACUUM ran";
}

TEST_F(Cleanup, ACancelledScanDeletesWhatItCollected) {
  int cancel = 0;
  g_cancel = &cancel;
  g_cancel_after = 6;
  EXPECT_EQ(metadb_tagdb_cleanup(file_.c_str(), "/r", &cancel, drop_odd_names), EIO);
  EXPECT_EQ(g_seen.size(), 6u);
  RawDb raw(file_);
  EXPECT_EQ(raw.value("SELECT count(*) FROM Meta"), "17") << "x1, x3, x5 gone";

  EXPECT_EQ(metadb_tagdb_cleanup(file_.c_str(), "/r", &cancel, drop_odd_names), 1)
      << "already cancelled";
  cancel = 2;
  EXPECT_EQ(metadb_tagdb_cleanup(file_.c_str(), "/r", &cancel, drop_odd_names), 1);
  EXPECT_EQ(metadb_tagdb_cleanup(file_.c_str(), "/r", nullptr, nullptr), 0) << "no filter";
  EXPECT_EQ(RawDb(file_).value("SELECT count(*) FROM Meta"), "17");
  EXPECT_EQ(metadb_tagdb_cleanup((dir_ / "missing.db").c_str(), "/r", nullptr, nullptr), EIO);
}

}  // namespace
