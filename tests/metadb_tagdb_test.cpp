// The tag database: opening, tag columns, per-path tag operations, subtree
// tagging, transactions, and the limits of the statement buffers.
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "test_support.h"
#include "metadb_bulk.h"
#include "metadb_tagdb.h"

using tevul_test::RawDb;

namespace {

using Rows = std::vector<std::vector<std::string>>;

class TagDb : public tevul_test::TagDbTest {
 protected:
  std::string get(const char* path, const char* tag) {
    char buf[512];
    return metadb_tagdb_gettag(db_.get(), path, tag, buf, sizeof buf) == 0 ? buf : "(unset)";
  }
  int set(const std::string& path, const std::string& tag, const char* value) {
    return metadb_tagdb_settag(db_.get(), path.c_str(), tag.c_str(), value);
  }
};

TEST_F(TagDb, OpensOnlyRegularFilesFollowingLinks) {
  ASSERT_EQ(mkdir((dir_ / "subdir").c_str(), 0755), 0);
  ASSERT_EQ(symlink(file_.c_str(), (dir_ / "link@@db").c_str()), 0);
  EXPECT_EQ(metadb_tagdb_open((dir_ / "missing").c_str()), nullptr);
  EXPECT_EQ(metadb_tagdb_open((dir_ / "subdir").c_str()), nullptr);
  EXPECT_EQ(access((dir_ / "missing").c_str(), F_OK), -1) << "nothing created";
  tevul_test::TagDbHandle via_link(metadb_tagdb_open((dir_ / "link@@db").c_str()));
  EXPECT_EQ(metadb_tagdb_settag(via_link.get(), "a", "t", "v"), 0);
}

// A tag's column and index are made on its first use; their statements
// must fit 147 bytes, which the index of a 57-byte name does not.
TEST_F(TagDb, ColumnsAndIndexesFollowTheStatementBuffers) {
  ASSERT_EQ(set("a", "album", "X"), 0);
  ASSERT_EQ(set("b", "album", "Y"), 0);
  const std::string indexed(56, 'i'), no_index(57, 'n'), no_column(103, 'c');
  EXPECT_EQ(set("p", indexed, "v"), 0);
  EXPECT_EQ(set("p", no_index, "v"), EIO);
  EXPECT_EQ(set("p", no_index, "v"), 0) << "the column exists now";
  EXPECT_EQ(get("p", no_index.c_str()), "v");
  EXPECT_EQ(set("p", no_column, "v"), EIO);
  RawDb raw(file_);
  EXPECT_EQ(raw.columns(), (std::vector<std::string>{"Path", "Data", ".album", "." + indexed,
                                                     "." + no_index}));
  EXPECT_EQ(raw.value("SELECT group_concat(name) FROM sqlite_master WHERE type='index' AND "
                      "name LIKE 'Cidx_%'"), "Cidx_album,Cidx_" + indexed);
  // The existence test cuts names at 254 bytes, as the format always did.
  raw.exec("ALTER TABLE Meta ADD \"." + std::string(253, 'n') + "\" TEXT");
  db_.reset();  // a new handle, not sharing the old cache, reads the new schema
  db_.reset(metadb_tagdb_open(file_.c_str()));
  EXPECT_EQ(metadb_column_exists(db_.get(), std::string(300, 'n').c_str()), 1);
  EXPECT_EQ(metadb_column_exists(db_.get(), std::string(252, 'n').c_str()), 0);
}

TEST_F(TagDb, ValuesAreStoredReadAndRemovedPerPath) {
  ASSERT_EQ(set("a", "t", "a\\b\\c"), 0);
  ASSERT_EQ(set("b", "t", nullptr), 0);
  ASSERT_EQ(set("it's/a 'quoted' path", "t", "x' OR '1'='1"), 0);
  ASSERT_EQ(set("a", "u", "w"), 0);
  EXPECT_EQ(get("a", "t"), "abc") << "backslashes are dropped";
  EXPECT_EQ(get("b", "t"), "") << "a NULL value stores the empty text";
  EXPECT_EQ(get("it's/a 'quoted' path", "t"), "x' OR '1'='1");
  EXPECT_EQ(metadb_tagdb_deltag(db_.get(), "' OR '1'='1", "t"), 0);
  EXPECT_EQ(get("b", "t"), "") << "a quote in a path stays data";
  EXPECT_EQ(metadb_tagdb_deltag(db_.get(), "a", "t"), 0);
  EXPECT_EQ(get("a", "t"), "(unset)");
  EXPECT_EQ(get("a", "u"), "w");
  EXPECT_EQ(metadb_tagdb_deltag(db_.get(), "a", "nevercolumn"), 0);
  EXPECT_EQ(metadb_tagdb_deltag(db_.get(), std::string(4200, 'p').c_str(), "u"), 1)
      << "a statement its buffer would cut fails for a tag with a column";
  EXPECT_EQ(get("a", "nevercolumn"), "(unset)");
  EXPECT_EQ(get("norow", "u"), "(unset)");
  RawDb raw(file_);
  EXPECT_EQ(raw.value("SELECT count(*) FROM Meta"), "3") << "one row a path";
  EXPECT_EQ(raw.value("SELECT Data FROM Meta WHERE Path='a'"), "NULL") << "left to sync";

  char buf[8];
  std::memset(buf, '#', sizeof buf);
  ASSERT_EQ(set("p", "t", "12345"), 0);
  EXPECT_EQ(metadb_tagdb_gettag(db_.get(), "p", "t", buf, 5), -1);
  EXPECT_EQ(std::string(buf, 8), "########") << "too small: untouched";
  EXPECT_EQ(metadb_tagdb_gettag(db_.get(), "p", "t", buf, 6), 0);
  EXPECT_STREQ(buf, "12345");
}

// The subtree of a path is the path and what lies below it, literally; the
// empty path is the whole volume. Every row without Data is encoded after.
TEST_F(TagDb, SettagRecursiveTagsTheLiteralSubtreeAndRebuildsData) {
  for (const char* p : {"d*", "d*/x", "d*/x/y", "d*2", "dz/a"}) ASSERT_EQ(set(p, "k", "old"), 0);
  ASSERT_EQ(metadb_tagdb_settag_recursive(db_.get(), "d*", "k", "n/ew"), 0);
  RawDb raw(file_);
  EXPECT_EQ(raw.rows("SELECT Path, \".k\", Data FROM Meta ORDER BY Path"),
            (Rows{{"d*", "n/ew", "k=n\\ew"}, {"d*/x", "n/ew", "k=n\\ew"},
                  {"d*/x/y", "n/ew", "k=n\\ew"}, {"d*2", "old", "k=old"}, {"dz/a", "old", "k=old"}}));
  ASSERT_EQ(metadb_tagdb_settag_recursive(db_.get(), "", "k2", nullptr), 0);
  EXPECT_EQ(raw.value("SELECT count(*) FROM Meta WHERE \".k2\"='' AND Data LIKE '%|k2='"), "5");
}

// A settag statement that its 229-byte buffer would cut is never run: cut
// before " WHERE" it would set the tag on every row, cut inside the row
// number on another row.
TEST_F(TagDb, OverlongSettagStatementsChangeNothingElse) {
  for (int i = 0; i < 21; ++i) ASSERT_EQ(set("f" + std::to_string(i), "t", "keep"), 0);
  RawDb raw(file_);
  // Fixed text 51 + tag 1 + row number 2: 174 bytes of value is the most
  // that fits; one longer than the whole buffer is refused the same way.
  for (const std::size_t len : {174, 175, 228, 300}) {
    const std::string path = "new" + std::to_string(len), value(len, 'x');
    EXPECT_EQ(set(path, "t", value.c_str()), len <= 174 ? 0 : 1) << len;
    EXPECT_EQ(raw.value("SELECT \".t\" FROM Meta WHERE Path='" + path + "'"),
              len <= 174 ? value : "NULL") << len;
    EXPECT_EQ(raw.value("SELECT count(*) FROM Meta WHERE \".t\"='keep'"), "21") << len;
  }
}

// Tag names go into SQL unescaped, so a name with a double quote could name
// other columns: such a name never reaches SQL. Bad arguments are refused
// as well, and nothing changes.
TEST_F(TagDb, CraftedTagNamesAndBadArgumentsChangeNothing) {
  ASSERT_EQ(set("p", "t", "v"), 0);
  RawDb(file_).exec("UPDATE Meta SET Data='kept'");
  const std::string before = tevul_test::read_file(file_);
  char buf[32];
  for (const char* name : {"t\"=NULL,\"Path", "x\"='',\"Data", "y\" TEXT, \"z",
                           "t\"=NULL WHERE 1 OR \"", "\""}) {
    SCOPED_TRACE(name);
    EXPECT_EQ(set("p", name, "v"), EIO);
    EXPECT_EQ(metadb_tagdb_gettag(db_.get(), "p", name, buf, sizeof buf), -1);
    EXPECT_EQ(metadb_tagdb_deltag(db_.get(), "p", name), 0);
    EXPECT_EQ(metadb_tagdb_settag_recursive(db_.get(), "", name, "v"), EIO);
  }
  EXPECT_EQ(metadb_tagdb_settag(nullptr, "a", "t", "v"), 1);
  EXPECT_EQ(metadb_tagdb_settag(db_.get(), "", "t", "v"), 1);
  EXPECT_EQ(metadb_tagdb_gettag(db_.get(), "a", "t", buf, 0), -1);
  EXPECT_EQ(metadb_tagdb_settag_recursive(db_.get(), "", "", "v"), EIO);
  EXPECT_EQ(metadb_tagdb_sync(nullptr, "a"), -1);
  EXPECT_EQ(metadb_tagdb_transaction_start(nullptr), -1);
  EXPECT_EQ(tevul_test::read_file(file_), before);
}

TEST_F(TagDb, CommitAndRollbackFollowTheModifiedRule) {
  RawDb raw(file_, 0);
  // A handle that never wrote skips COMMIT: the transaction stays open.
  ASSERT_EQ(metadb_tagdb_transaction_start(db_.get()), 0);
  EXPECT_EQ(metadb_tagdb_transaction_commit(db_.get()), 0);
  EXPECT_EQ(sqlite3_exec(raw.get(), "INSERT INTO Meta(Path) VALUES ('raw')", nullptr, nullptr,
                         nullptr), SQLITE_BUSY);
  ASSERT_EQ(set("a", "t", "1"), 0);
  EXPECT_EQ(metadb_tagdb_transaction_commit(db_.get()), 0);
  EXPECT_EQ(raw.value("SELECT \".t\" FROM Meta WHERE Path='a'"), "1");
  ASSERT_EQ(metadb_tagdb_transaction_start(db_.get()), 0);
  ASSERT_EQ(set("b", "t", "2"), 0);
  EXPECT_EQ(metadb_tagdb_transaction_rollback(db_.get()), 0);
  // A start on a handle that has written rolls pending changes back first.
  ASSERT_EQ(metadb_tagdb_transaction_start(db_.get()), 0);
  ASSERT_EQ(set("c", "t", "3"), 0);
  ASSERT_EQ(metadb_tagdb_transaction_start(db_.get()), 0);
  ASSERT_EQ(metadb_tagdb_transaction_commit(db_.get()), 0);
  EXPECT_EQ(raw.value("SELECT count(*) FROM Meta WHERE Path IN ('b', 'c')"), "0");
  EXPECT_EQ(metadb_tagdb_transaction_commit(db_.get()), 0)
      << "a COMMIT without a transaction still reports success";
  // Closing commits what is pending.
  ASSERT_EQ(metadb_tagdb_transaction_start(db_.get()), 0);
  ASSERT_EQ(set("d", "t", "4"), 0);
  db_.reset();
  EXPECT_EQ(raw.value("SELECT \".t\" FROM Meta WHERE Path='d'"), "4");
}

// A tag's value update is compiled once and kept by the handle, a few tags
// at a time: more tags than it keeps, a schema change by another connection
// and a close must leave every value right and nothing held.
TEST_F(TagDb, KeptTagUpdatesStayRightAcrossManyTagsAndSchemaChanges) {
  constexpr int kTags = 12;
  RawDb raw(file_);
  for (int round = 0; round < 3; ++round) {
    for (int tag = 0; tag < 2 * kTags; ++tag) {
      const std::string name = "t" + std::to_string(tag % kTags);
      const std::string path = tag < kTags ? "f" : "g";
      ASSERT_EQ(set(path, name, (path + name + "'\\" + std::to_string(round)).c_str()), 0);
    }
    if (round == 0) {
      raw.exec("ALTER TABLE Meta ADD \".other\" TEXT COLLATE NOCASE;"
               "CREATE INDEX 'Cidx_other' ON Meta (\".other\"); DROP INDEX 'Cidx_t1'");
    }
  }
  for (int tag = 0; tag < kTags; ++tag) {
    const std::string name = "t" + std::to_string(tag);
    EXPECT_EQ(raw.value("SELECT group_concat(Path) FROM Meta WHERE \"." + name + "\"=Path||'" +
                        name + "''2'"), "f,g") << name;
  }
}

// A tag database written on one byte order reads back, byte for byte, as
// one written on any other. tests/data holds databases written on x86_64
// and under qemu-mips (big-endian), each by this test run on that target
// with TEVUL_WRITE_SAMPLE=tests/data/tags-ARCH.db.
TEST_F(TagDb, DatabasesReadTheSameOnEveryByteOrder) {
  // Every kind of text the Data list encodes differently, multi-byte UTF-8,
  // and a backslash the database strips.
  const std::vector<std::pair<const char*, tevul_test::Tags>> sample = {
      {"music/Bjørk/Jóga.flac",
       {{"artist", "Björk"}, {"year", "1997"}, {"genre", "Electronic"}}},
      {"music/東京/夜.mp3", {{"artist", "東京事変"}, {"title", "閃光少女"}, {"year", "0042"}}},
      {"docs/a|b.txt", {{"note", "a|b/c\\d"}, {"empty", ""}, {"lines", "one\ntwo"}}},
      {"photos/[2019] Trip/x.jpg",
       {{"rating", "5"}, {"who", "ann|bo"}, {"long", std::string(159, 'v')}}}};
  ASSERT_EQ(metadb_tagdb_transaction_start(db_.get()), 0);
  for (const auto& [path, tags] : sample) {
    for (const auto& [name, value] : tags) ASSERT_EQ(set(path, name, value.c_str()), 0);
    ASSERT_EQ(metadb_tagdb_sync(db_.get(), path), 0);
  }
  ASSERT_EQ(metadb_tagdb_transaction_commit(db_.get()), 0);
  db_.reset();
  if (const char* out = getenv("TEVUL_WRITE_SAMPLE")) {
    ASSERT_TRUE(tevul_test::write_file(out, tevul_test::read_file(file_)));
  }
  // Every row's Data, and each file's tags as the library reads them.
  const auto dump = [&sample](const std::string& file) {
    Rows out = RawDb(file).rows("SELECT Path, Data FROM Meta ORDER BY ROWID");
    tevul_test::TagDbHandle db(metadb_tagdb_open(file.c_str()));
    for (const auto& [path, tags] : sample) {
      for (const auto& tag : tags) {
        char value[512] = "(unread)";
        metadb_tagdb_gettag(db.get(), path, tag.first.c_str(), value, sizeof value);
        out.push_back({path, tag.first, value});
      }
    }
    return out;
  };
  const Rows here = dump(file_);
  for (const std::string arch : {"x86_64", "mips"}) {
    // Read from a copy: a read may leave a journal beside the file.
    const std::string copy = dir_ / arch;
    ASSERT_TRUE(tevul_test::write_file(
        copy, tevul_test::read_file(TEVUL_TEST_DATA "/tags-" + arch + ".db")));
    EXPECT_EQ(dump(copy), here) << arch;
  }
}

}  // namespace
