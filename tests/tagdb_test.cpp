// The tag database through its public functions: opening, tag columns,
// per-path tag operations, subtree tagging, transactions, and the limits of
// the statement buffers.
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>

#include "db_support.h"
#include "tevul.h"

using tevul_test::RawDb;
using tevul_test::TempDir;

namespace {

class TagDb : public tevul_test::TagDbTest {
 protected:
  std::string get(const char* path, const char* tag) {
    char buf[512];
    return metadb_tagdb_gettag(db_.get(), path, tag, buf, sizeof buf) == 0
               ? std::string(buf)
               : std::string("(unset)");
  }

};

TEST(TagDbOpen, AcceptsOnlyRegularFilesFollowingLinks) {
  TempDir dir;
  const std::string file = dir / "db";
  ASSERT_EQ(tevul_test::create_tag_db(file), "");
  ASSERT_EQ(mkdir((dir / "subdir").c_str(), 0755), 0);
  ASSERT_EQ(symlink(file.c_str(), (dir / "link@@db").c_str()), 0);

  EXPECT_EQ(metadb_tagdb_open(nullptr), nullptr);
  EXPECT_EQ(metadb_tagdb_open(""), nullptr);
  EXPECT_EQ(metadb_tagdb_open((dir / "missing").c_str()), nullptr);
  EXPECT_EQ(metadb_tagdb_open((dir / "subdir").c_str()), nullptr);
  EXPECT_EQ(access((dir / "missing").c_str(), F_OK), -1) << "nothing created";

  tevul_test::TagDbHandle via_link(metadb_tagdb_open((dir / "link@@db").c_str()));
  ASSERT_NE(via_link, nullptr);
  EXPECT_EQ(metadb_tagdb_settag(via_link.get(), "a", "t", "v"), 0);
  metadb_tagdb_close(nullptr);  // harmless
}

TEST_F(TagDb, FirstSettagAddsColumnAndIndexOnce) {
  ASSERT_EQ(metadb_tagdb_settag(db_.get(), "music/a.mp3", "album", "X"), 0);
  ASSERT_EQ(metadb_tagdb_settag(db_.get(), "music/b.mp3", "album", "Y"), 0);

  RawDb raw(file_);
  EXPECT_EQ(raw.columns(), (std::vector<std::string>{"Path", "Data", ".album"}));
  EXPECT_EQ(raw.value("SELECT count(*) FROM sqlite_master WHERE type='index' "
                      "AND name='Cidx_album' AND tbl_name='Meta'"),
            "1");
  EXPECT_NE(raw.value("SELECT sql FROM sqlite_master WHERE name='Meta'")
                .find("\".album\" TEXT COLLATE NOCASE"),
            std::string::npos);
  EXPECT_EQ(raw.value("SELECT count(*) FROM Meta WHERE \".album\"='x'"), "1")
      << "tag columns compare without case";
}

TEST_F(TagDb, SettagStoresValuesAndLeavesDataToTheCaller) {
  ASSERT_EQ(metadb_tagdb_settag(db_.get(), "a", "t", "a\\b\\c"), 0);
  ASSERT_EQ(metadb_tagdb_settag(db_.get(), "b", "t", nullptr), 0);
  ASSERT_EQ(metadb_tagdb_settag(db_.get(), "c", "t", "it's"), 0);
  EXPECT_EQ(get("a", "t"), "abc") << "backslashes are dropped";
  EXPECT_EQ(get("b", "t"), "") << "a NULL value stores the empty text";
  EXPECT_EQ(get("c", "t"), "it's");

  RawDb raw(file_);
  EXPECT_EQ(raw.value("SELECT Data FROM Meta WHERE Path='a'"), "NULL");
  EXPECT_EQ(raw.value("SELECT count(*) FROM Meta"), "3");

  // Overwriting keeps one row per path.
  ASSERT_EQ(metadb_tagdb_settag(db_.get(), "a", "t", "new"), 0);
  EXPECT_EQ(get("a", "t"), "new");
  EXPECT_EQ(raw.value("SELECT count(*) FROM Meta WHERE Path='a'"), "1");
}

TEST_F(TagDb, BadArgumentsAreRefusedWithoutTouchingTheDatabase) {
  RawDb raw(file_);
  const std::string before = raw.snapshot();
  char buf[8];
  EXPECT_EQ(metadb_tagdb_settag(nullptr, "a", "t", "v"), 1);
  EXPECT_EQ(metadb_tagdb_settag(db_.get(), "", "t", "v"), 1);
  EXPECT_EQ(metadb_tagdb_settag(db_.get(), "a", "", "v"), 1);
  EXPECT_EQ(metadb_tagdb_settag(db_.get(), nullptr, "t", "v"), 1);
  EXPECT_EQ(metadb_tagdb_gettag(db_.get(), "a", "t", nullptr, 8), -1);
  EXPECT_EQ(metadb_tagdb_gettag(db_.get(), "a", "t", buf, 0), -1);
  EXPECT_EQ(metadb_tagdb_gettag(nullptr, "a", "t", buf, 8), -1);
  EXPECT_EQ(metadb_tagdb_deltag(db_.get(), "a", nullptr), 1);
  EXPECT_EQ(metadb_tagdb_deltag(nullptr, "a", "t"), 1);
  EXPECT_EQ(metadb_tagdb_settag_recursive(nullptr, "", "t", "v"), 1);
  EXPECT_EQ(metadb_tagdb_settag_recursive(db_.get(), "", "", "v"), EIO);
  EXPECT_EQ(metadb_tagdb_settag_recursive(db_.get(), "", nullptr, "v"), EIO);
  EXPECT_EQ(metadb_tagdb_sync(nullptr, "a"), -1);
  EXPECT_EQ(metadb_tagdb_sync_all(nullptr), -1);
  EXPECT_EQ(metadb_tagdb_transaction_start(nullptr), -1);
  EXPECT_EQ(metadb_tagdb_transaction_commit(nullptr), -1);
  EXPECT_EQ(metadb_tagdb_transaction_rollback(nullptr), -1);
  EXPECT_EQ(raw.snapshot(), before);
}

TEST_F(TagDb, GettagNeedsRoomForTheTerminator) {
  ASSERT_EQ(metadb_tagdb_settag(db_.get(), "p", "t", "12345"), 0);
  char buf[8];
  std::memset(buf, '#', sizeof buf);
  EXPECT_EQ(metadb_tagdb_gettag(db_.get(), "p", "t", buf, 5), -1);
  EXPECT_EQ(std::string(buf, 8), "########") << "buffer left untouched";
  EXPECT_EQ(metadb_tagdb_gettag(db_.get(), "p", "t", buf, 6), 0);
  EXPECT_STREQ(buf, "12345");
}

TEST_F(TagDb, GettagOfMissingThingsFails) {
  ASSERT_EQ(metadb_tagdb_settag(db_.get(), "p", "t", "v"), 0);
  ASSERT_EQ(metadb_tagdb_settag(db_.get(), "q", "other", "v"), 0);
  char buf[16];
  EXPECT_EQ(metadb_tagdb_gettag(db_.get(), "p", "nocolumn", buf, 16), -1);
  EXPECT_EQ(metadb_tagdb_gettag(db_.get(), "norow", "t", buf, 16), -1);
  EXPECT_EQ(metadb_tagdb_gettag(db_.get(), "q", "t", buf, 16), -1) << "NULL";
}

TEST_F(TagDb, DeltagClearsOnlyTheTag) {
  ASSERT_EQ(metadb_tagdb_settag(db_.get(), "p", "t", "v"), 0);
  ASSERT_EQ(metadb_tagdb_settag(db_.get(), "p", "u", "w"), 0);
  EXPECT_EQ(metadb_tagdb_deltag(db_.get(), "p", "t"), 0);
  EXPECT_EQ(get("p", "t"), "(unset)");
  EXPECT_EQ(get("p", "u"), "w");
  EXPECT_EQ(metadb_tagdb_deltag(db_.get(), "p", "nevercolumn"), 0);
  EXPECT_EQ(metadb_tagdb_deltag(db_.get(), "norow", "t"), 0);
  RawDb raw(file_);
  EXPECT_EQ(raw.value("SELECT count(*) FROM Meta"), "1");
}

TEST_F(TagDb, SettagRecursiveTagsTheSubtreeAndRebuildsData) {
  for (const char* p : {"dir", "dir/x", "dir/x/y", "dir2", "dirz/a", "other"})
    ASSERT_EQ(metadb_tagdb_settag(db_.get(), p, "k", "old"), 0);
  ASSERT_EQ(metadb_tagdb_settag_recursive(db_.get(), "dir", "k", "n/ew"), 0);

  // Every row still without Data is encoded afterwards, changed or not.
  RawDb raw(file_);
  auto rows = raw.rows("SELECT Path, \".k\", Data FROM Meta ORDER BY Path");
  std::vector<std::vector<std::string>> want = {
      {"dir", "n/ew", "k=n\\ew"},    {"dir/x", "n/ew", "k=n\\ew"},
      {"dir/x/y", "n/ew", "k=n\\ew"}, {"dir2", "old", "k=old"},
      {"dirz/a", "old", "k=old"},     {"other", "old", "k=old"}};
  EXPECT_EQ(rows, want);
  EXPECT_EQ(raw.value("SELECT count(*) FROM Meta WHERE Path='dir/new'"), "0")
      << "no rows are created";

  // The empty path is the whole volume.
  ASSERT_EQ(metadb_tagdb_settag_recursive(db_.get(), "", "k2", nullptr), 0);
  EXPECT_EQ(raw.value("SELECT count(*) FROM Meta WHERE \".k2\"=''"), "6");
  EXPECT_EQ(raw.value("SELECT count(*) FROM Meta WHERE Data IS NULL"), "0");
  EXPECT_EQ(raw.value("SELECT Data FROM Meta WHERE Path='other'"), "k=old|k2=");
}

TEST_F(TagDb, SettagRecursivePathIsLiteral) {
  for (const char* p : {"a*", "a*/x", "ab/y", "b/z"})
    ASSERT_EQ(metadb_tagdb_settag(db_.get(), p, "k", "0"), 0);
  ASSERT_EQ(metadb_tagdb_settag_recursive(db_.get(), "a*", "k", "1"), 0);
  RawDb raw(file_);
  EXPECT_EQ(raw.rows("SELECT Path FROM Meta WHERE \".k\"='1' ORDER BY Path"),
            (std::vector<std::vector<std::string>>{{"a*"}, {"a*/x"}}));
}

TEST_F(TagDb, LongTagNamesFollowTheStatementBuffers) {
  const std::string no_index(57, 'n');  // column fits, index statement not
  EXPECT_EQ(metadb_tagdb_settag(db_.get(), "p", no_index.c_str(), "v"), EIO);
  EXPECT_EQ(metadb_tagdb_settag(db_.get(), "p", no_index.c_str(), "v"), 0)
      << "the column exists now";
  EXPECT_EQ(get("p", no_index.c_str()), "v");

  const std::string indexed(56, 'i');
  EXPECT_EQ(metadb_tagdb_settag(db_.get(), "p", indexed.c_str(), "v"), 0);

  const std::string no_column(103, 'c');
  EXPECT_EQ(metadb_tagdb_settag(db_.get(), "p", no_column.c_str(), "v"), EIO);
  EXPECT_EQ(metadb_tagdb_settag(db_.get(), "p", no_column.c_str(), "v"), EIO);

  RawDb raw(file_);
  EXPECT_EQ(raw.columns(), (std::vector<std::string>{"Path", "Data",
                                                     "." + no_index,
                                                     "." + indexed}));
  EXPECT_EQ(raw.value("SELECT group_concat(name) FROM sqlite_master WHERE "
                      "type='index' AND name LIKE 'Cidx_%'"),
            "Cidx_" + indexed);
}

// A settag statement that its buffer would cut is never run: a cut just
// before " WHERE" would otherwise set the tag on every row, and a cut inside
// the row number would set it on another row.
TEST_F(TagDb, OverlongSettagStatementsChangeNothingElse) {
  ASSERT_EQ(metadb_tagdb_settag(db_.get(), "victim", "t", "keep"), 0);
  for (int i = 0; i < 20; ++i)
    ASSERT_EQ(metadb_tagdb_settag(db_.get(), ("f" + std::to_string(i)).c_str(),
                                  "t", "keep"),
              0);
  RawDb raw(file_);
  // Fixed text 51 + tag 1 + row number 2: a value of 174 bytes is the
  // longest that fits the 228 characters. A value longer than the whole
  // buffer (228, 300) is refused like any other that does not fit.
  for (const std::size_t len : {174, 175, 227, 228, 300}) {
    const std::string path = "new" + std::to_string(len);
    const std::string value(len, 'x');
    EXPECT_EQ(metadb_tagdb_settag(db_.get(), path.c_str(), "t", value.c_str()),
              len <= 174 ? 0 : 1)
        << len;
    EXPECT_EQ(raw.value("SELECT \".t\" FROM Meta WHERE Path='" + path + "'"),
              len <= 174 ? value : "NULL")
        << len << ": a refused value leaves the row without the tag";
    EXPECT_EQ(raw.value("SELECT count(*) FROM Meta WHERE \".t\"='keep'"), "21")
        << "value length " << len << " changed another row";
  }
}

// Tag names are put into SQL unescaped, so a name with a double quote could
// name other columns; such a name never reaches SQL.
TEST_F(TagDb, CraftedTagNamesChangeNoOtherColumnOrRow) {
  ASSERT_EQ(metadb_tagdb_settag(db_.get(), "p", "t", "v"), 0);
  ASSERT_EQ(metadb_tagdb_settag(db_.get(), "q", "t", "w"), 0);
  ASSERT_EQ(metadb_tagdb_sync_all(db_.get()), 0);
  RawDb raw(file_);
  raw.exec("UPDATE Meta SET Data='kept'");
  const std::string before = raw.snapshot();

  const char* crafted[] = {
      "t\"=NULL,\"Path",          // deltag would clear Path
      "x\"='',\"Data",            // settag would overwrite Data
      "y\" TEXT, \"z",            // would add a column of another name
      "t\"=NULL WHERE 1 OR \"",   // would widen the WHERE
      "\"",
  };
  char buf[32];
  for (const char* name : crafted) {
    SCOPED_TRACE(name);
    EXPECT_EQ(metadb_tagdb_settag(db_.get(), "p", name, "v"), EIO);
    EXPECT_EQ(metadb_tagdb_settag(db_.get(), "new", name, "v"), EIO);
    EXPECT_EQ(metadb_tagdb_gettag(db_.get(), "p", name, buf, sizeof buf), -1);
    EXPECT_EQ(metadb_tagdb_deltag(db_.get(), "p", name), 0);
    EXPECT_EQ(metadb_tagdb_settag_recursive(db_.get(), "", name, "v"), EIO);
    EXPECT_EQ(metadb_tagdb_settag_recursive(db_.get(), "p", name, "v"), EIO);
  }
  EXPECT_EQ(raw.snapshot(), before);
}

TEST_F(TagDb, QuotesAndPatternsInPathsAndValuesStayData) {
  const char* path = "it's/a 'quoted' path";
  ASSERT_EQ(metadb_tagdb_settag(db_.get(), path, "t", "x' OR '1'='1"), 0);
  ASSERT_EQ(metadb_tagdb_settag(db_.get(), "other", "t", "o"), 0);
  EXPECT_EQ(get(path, "t"), "x' OR '1'='1");
  EXPECT_EQ(get("other", "t"), "o");
  EXPECT_EQ(metadb_tagdb_deltag(db_.get(), "' OR '1'='1", "t"), 0);
  EXPECT_EQ(get("other", "t"), "o");
  EXPECT_EQ(get(path, "t"), "x' OR '1'='1");
}

TEST_F(TagDb, CommitAndRollbackFollowTheModifiedRule) {
  RawDb raw(file_, 0);
  // A handle that never wrote skips COMMIT: its transaction stays open and
  // keeps the write lock.
  ASSERT_EQ(metadb_tagdb_transaction_start(db_.get()), 0);
  EXPECT_EQ(metadb_tagdb_transaction_commit(db_.get()), 0);
  EXPECT_EQ(raw.try_exec("INSERT INTO Meta(Path) VALUES ('raw')"), SQLITE_BUSY);

  // Once written, commit is carried out.
  ASSERT_EQ(metadb_tagdb_settag(db_.get(), "a", "t", "1"), 0);
  EXPECT_EQ(metadb_tagdb_transaction_commit(db_.get()), 0);
  EXPECT_EQ(raw.value("SELECT \".t\" FROM Meta WHERE Path='a'"), "1");

  // Rollback drops the transaction's changes.
  ASSERT_EQ(metadb_tagdb_transaction_start(db_.get()), 0);
  ASSERT_EQ(metadb_tagdb_settag(db_.get(), "b", "t", "2"), 0);
  EXPECT_EQ(metadb_tagdb_transaction_rollback(db_.get()), 0);
  EXPECT_EQ(raw.value("SELECT count(*) FROM Meta WHERE Path='b'"), "0");

  // A start on a handle that has written rolls pending changes back first;
  // with no transaction open that ROLLBACK fails and start still succeeds.
  ASSERT_EQ(metadb_tagdb_transaction_start(db_.get()), 0);
  ASSERT_EQ(metadb_tagdb_settag(db_.get(), "c", "t", "3"), 0);
  ASSERT_EQ(metadb_tagdb_transaction_start(db_.get()), 0);
  ASSERT_EQ(metadb_tagdb_transaction_commit(db_.get()), 0);
  EXPECT_EQ(raw.value("SELECT count(*) FROM Meta WHERE Path='c'"), "0");
  EXPECT_EQ(metadb_tagdb_transaction_commit(db_.get()), 0)
      << "a COMMIT without a transaction still reports success";
}

// A tag's value update is compiled once and kept by the handle, for a few
// tags at a time: more tags than it keeps, schema changes by another
// connection and a close must all leave every value right and nothing open.
TEST_F(TagDb, KeptTagUpdatesStayRightAcrossManyTagsAndSchemaChanges) {
  constexpr int kTags = 12;  // more than the handle keeps
  const auto value = [](int round, int tag, int file) {
    return "v'" + std::to_string(round) + "\\" + std::to_string(tag) + "-" +
           std::to_string(file);
  };
  const auto stored = [](const std::string& v) {
    std::string s;
    for (char c : v) {
      if (c != '\\') s += c;
    }
    return s;
  };
  RawDb raw(file_);
  for (int round = 0; round < 3; ++round) {
    for (int file = 0; file < 3; ++file) {
      for (int tag = 0; tag < kTags; ++tag) {
        const std::string path = "f" + std::to_string(file);
        const std::string name = "t" + std::to_string((tag + file) % kTags);
        ASSERT_EQ(metadb_tagdb_settag(db_.get(), path.c_str(), name.c_str(),
                                      value(round, (tag + file) % kTags, file).c_str()),
                  0);
      }
    }
    if (round == 0) {
      // Another connection changes the schema under the kept statements.
      raw.exec("ALTER TABLE Meta ADD \".other\" TEXT COLLATE NOCASE;"
               "CREATE INDEX 'Cidx_other' ON Meta (\".other\");"
               "DROP INDEX 'Cidx_t1'");
    }
  }
  for (int file = 0; file < 3; ++file) {
    for (int tag = 0; tag < kTags; ++tag) {
      EXPECT_EQ(raw.value("SELECT \".t" + std::to_string(tag) +
                          "\" FROM Meta WHERE Path='f" + std::to_string(file) + "'"),
                stored(value(2, tag, file)))
          << "file " << file << " tag " << tag;
    }
  }
  EXPECT_EQ(raw.value("SELECT count(*) FROM Meta"), "3");
  EXPECT_EQ(raw.value("SELECT count(*) FROM Meta WHERE \".other\" IS NOT NULL"), "0");

  // Closing a handle frees everything it held: SQLite's own count of the
  // memory in use returns to where it was before the open.
  const std::string alone = dir_ / "alone@@db";
  ASSERT_EQ(tevul_test::create_tag_db(alone), "");
  metadb_tagdb_close(metadb_tagdb_open(alone.c_str()));  // first-use work
  const sqlite3_int64 before = sqlite3_memory_used();
  metadb_tagdb* handle = metadb_tagdb_open(alone.c_str());
  ASSERT_NE(handle, nullptr);
  for (int tag = 0; tag < kTags; ++tag) {
    ASSERT_EQ(metadb_tagdb_settag(handle, "x", ("t" + std::to_string(tag)).c_str(), "v"), 0);
  }
  metadb_tagdb_close(handle);
  EXPECT_EQ(sqlite3_memory_used(), before);
}

TEST_F(TagDb, CloseCommitsPendingWork) {
  ASSERT_EQ(metadb_tagdb_transaction_start(db_.get()), 0);
  ASSERT_EQ(metadb_tagdb_settag(db_.get(), "a", "t", "1"), 0);
  db_.reset();
  RawDb raw(file_);
  EXPECT_EQ(raw.value("SELECT \".t\" FROM Meta WHERE Path='a'"), "1");
}

}  // namespace
