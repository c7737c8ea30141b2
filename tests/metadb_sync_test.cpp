// The Data column: its exact encoding, and when it is rebuilt.
#include <gtest/gtest.h>

#include <string>

#include "test_support.h"

using tevul_test::RawDb;

namespace {

class DataColumn : public tevul_test::TagDbTest {
 protected:
  std::string data(const std::string& path) {
    return RawDb(file_).value("SELECT Data FROM Meta WHERE Path='" + path + "'");
  }
  void set(const char* path, const char* tag, const char* value) {
    ASSERT_EQ(metadb_tagdb_settag(db_.get(), path, tag, value), 0);
  }
};

// Tags in column order (the order of first use); "|" and "=" of a name and
// "|" of a value escaped, "/" written as a lone backslash, line feeds
// dropped; only text in tag columns counts.
TEST_F(DataColumn, EncodesEveryTagInColumnOrder) {
  set("a", "artist", "AC/DC");
  set("b", "year", "1990");
  set("a", "title", "Live | Loud");
  set("two", "a=b|c", "x\ny");
  set("two", "note", "");
  set("home", "dir", "home/");
  set("home", "k", "v");
  set("empty", "k", "v");
  ASSERT_EQ(metadb_tagdb_deltag(db_.get(), "empty", "k"), 0);
  // Columns of other writers; a number stays a number.
  RawDb(file_).exec("ALTER TABLE Meta ADD plain TEXT; ALTER TABLE Meta ADD \".n\";"
                    "UPDATE Meta SET \".n\"=42, plain='no'");
  for (const char* path : {"a", "two", "home", "empty"}) {
    ASSERT_EQ(metadb_tagdb_sync(db_.get(), path), 0) << path;
  }
  EXPECT_EQ(data("a"), "artist=AC\\DC|title=Live \\| Loud");
  EXPECT_EQ(data("two"), "a\\=b\\|c=xy|note=");
  EXPECT_EQ(data("home"), "dir=home\\|k=v") << "a value ending in / joins as \\|";
  EXPECT_EQ(data("empty"), "");
}

TEST_F(DataColumn, IsRebuiltOnlyByAHandleThatWrote) {
  RawDb(file_).exec("ALTER TABLE Meta ADD \".t\" TEXT;"
                    "INSERT INTO Meta(Path, \".t\") VALUES ('a', 'v'), ('b', 'w')");
  EXPECT_EQ(metadb_tagdb_sync(db_.get(), "a"), 0);
  EXPECT_EQ(metadb_tagdb_sync_all(db_.get()), 0);
  EXPECT_EQ(data("a"), "NULL");
  set("c", "t", "x");
  EXPECT_EQ(metadb_tagdb_sync(db_.get(), "missing"), 0);
  EXPECT_EQ(metadb_tagdb_sync(db_.get(), nullptr), 0);
  EXPECT_EQ(metadb_tagdb_sync_all(db_.get()), 0);
  EXPECT_EQ(data("a") + " " + data("b") + " " + data("c"), "t=v t=w t=x");
}

TEST_F(DataColumn, SyncAllStopsAtTheFirstRowThatCannotBeWritten) {
  for (const char* p : {"a", "b", "c"}) set(p, "t", p);
  RawDb(file_).exec("CREATE TRIGGER refuse BEFORE UPDATE OF Data ON Meta "
                    "WHEN NEW.Path='b' BEGIN SELECT RAISE(ABORT, 'refused'); END");
  EXPECT_EQ(metadb_tagdb_sync_all(db_.get()), -1);
  EXPECT_EQ(data("a") + " " + data("b") + " " + data("c"), "t=a NULL NULL");
  EXPECT_EQ(metadb_tagdb_sync(db_.get(), "b"), -1);
}

}  // namespace
