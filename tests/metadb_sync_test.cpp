// The Data column: its exact encoding and when it is rebuilt.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "db_support.h"
#include "tevul.h"

using tevul_test::RawDb;
using tevul_test::TempDir;

namespace {

// The encoding as the daemon documents it, step by step.
std::string replace_all(std::string s, const std::string& from,
                        const std::string& to) {
  std::string out;
  std::size_t pos = 0;
  for (std::size_t hit; (hit = s.find(from, pos)) != std::string::npos;
       pos = hit + from.size()) {
    out += s.substr(pos, hit - pos) + to;
  }
  return out + s.substr(pos);
}

std::string reference_data(
    const std::vector<std::pair<std::string, std::string>>& tags) {
  std::string out;
  bool first = true;
  for (const auto& [name, value] : tags) {
    if (!first) out += "|";
    first = false;
    std::string n = replace_all(replace_all(name, "|", "\\|"), "=", "\\=");
    std::string v = replace_all(value, "|", "\\|");
    v = replace_all(v, "/", "\\");
    v = replace_all(v, "\n", "");
    out += n + "=" + v;
  }
  return out;
}

class DataColumn : public tevul_test::TagDbTest {
 protected:
  std::string data(const std::string& path) {
    RawDb raw(file_);
    return raw.value("SELECT Data FROM Meta WHERE Path='" + path + "'");
  }

};

TEST_F(DataColumn, WorkedExamples) {
  metadb_tagdb* db = db_.get();
  // 1: column order is the order in which tags were added.
  ASSERT_EQ(metadb_tagdb_settag(db, "music/a.mp3", "artist", "AC/DC"), 0);
  ASSERT_EQ(metadb_tagdb_settag(db, "music/b.mp3", "year", "1990"), 0);
  ASSERT_EQ(metadb_tagdb_settag(db, "music/a.mp3", "title", "Live | Loud"), 0);
  ASSERT_EQ(metadb_tagdb_sync(db, "music/a.mp3"), 0);
  EXPECT_EQ(data("music/a.mp3"), "artist=AC\\DC|title=Live \\| Loud");

  // 2: escaped name, line feed dropped, empty value kept.
  ASSERT_EQ(metadb_tagdb_settag(db, "two", "a=b|c", "x\ny"), 0);
  ASSERT_EQ(metadb_tagdb_settag(db, "two", "note", ""), 0);
  ASSERT_EQ(metadb_tagdb_sync(db, "two"), 0);
  EXPECT_EQ(data("two"), "a\\=b\\|c=xy|note=");

  // 3: no tags gives the empty text; a value ending in "/" joins as "\|".
  ASSERT_EQ(metadb_tagdb_settag(db, "empty", "artist", "x"), 0);
  ASSERT_EQ(metadb_tagdb_deltag(db, "empty", "artist"), 0);
  ASSERT_EQ(metadb_tagdb_sync(db, "empty"), 0);
  EXPECT_EQ(data("empty"), "");
  ASSERT_EQ(metadb_tagdb_settag(db, "home", "dir", "home/"), 0);
  ASSERT_EQ(metadb_tagdb_settag(db, "home", "k", "v"), 0);
  ASSERT_EQ(metadb_tagdb_sync(db, "home"), 0);
  EXPECT_EQ(data("home"), "dir=home\\|k=v");
}

TEST_F(DataColumn, OnlyTextTagColumnsAreEncoded) {
  ASSERT_EQ(metadb_tagdb_settag(db_.get(), "p", "s", "text"), 0);
  ASSERT_EQ(metadb_tagdb_settag(db_.get(), "p", "b", "0"), 0);
  {
    // Columns of other writers: without a type, a number stays a number.
    RawDb raw(file_);
    raw.exec("ALTER TABLE Meta ADD plain TEXT");
    raw.exec("ALTER TABLE Meta ADD \".n\"");
    raw.exec("ALTER TABLE Meta ADD \".r\"");
    raw.exec("UPDATE Meta SET \".n\"=42, \".r\"=0.5, \".b\"=x'00', plain='no'");
  }
  // The open handle re-reads the schema on its next statement.
  ASSERT_EQ(metadb_tagdb_sync(db_.get(), "p"), 0);
  EXPECT_EQ(data("p"), "s=text");
}

TEST_F(DataColumn, SyncDoesNothingOnAHandleThatNeverWrote) {
  {
    RawDb raw(file_);
    raw.exec("ALTER TABLE Meta ADD \".t\" TEXT");
    raw.exec("INSERT INTO Meta(Path, \".t\") VALUES ('a', 'v'), ('b', 'w')");
  }
  EXPECT_EQ(metadb_tagdb_sync(db_.get(), "a"), 0);
  EXPECT_EQ(metadb_tagdb_sync_all(db_.get()), 0);
  EXPECT_EQ(data("a"), "NULL");

  // Once it wrote, the rows without Data are encoded; missing paths are fine.
  ASSERT_EQ(metadb_tagdb_settag(db_.get(), "c", "t", "x"), 0);
  EXPECT_EQ(metadb_tagdb_sync(db_.get(), "missing"), 0);
  EXPECT_EQ(metadb_tagdb_sync(db_.get(), nullptr), 0);
  EXPECT_EQ(metadb_tagdb_sync_all(db_.get()), 0);
  EXPECT_EQ(data("a"), "t=v");
  EXPECT_EQ(data("b"), "t=w");
  EXPECT_EQ(data("c"), "t=x");
}

TEST_F(DataColumn, SyncAllStopsAtTheFirstRowThatCannotBeWritten) {
  for (const char* p : {"a", "b", "c"})
    ASSERT_EQ(metadb_tagdb_settag(db_.get(), p, "t", p), 0);
  {
    RawDb raw(file_);
    raw.exec("CREATE TRIGGER refuse BEFORE UPDATE OF Data ON Meta "
             "WHEN NEW.Path='b' BEGIN SELECT RAISE(ABORT, 'refused'); END");
  }
  EXPECT_EQ(metadb_tagdb_sync_all(db_.get()), -1);
  EXPECT_EQ(data("a"), "t=a");
  EXPECT_EQ(data("b"), "NULL");
  EXPECT_EQ(data("c"), "NULL");
  EXPECT_EQ(metadb_tagdb_sync(db_.get(), "b"), -1);
}

// Random tag lists with the characters the encoding escapes, compared with
// the reference above.
TEST_F(DataColumn, MatchesTheReferenceOnRandomTagLists) {
  std::mt19937 rng(20261121);
  const std::vector<std::string> name_parts = {"a", "b", "z", "|", "=", "/",
                                               "\n", "\xc3\xa9", "\xe6\x97\xa5",
                                               " ", "\\", "'"};
  const std::vector<std::string> value_parts = {
      "x", "Y", "|", "=", "/", "\n", "\\", "'", "\xc3\xa9", "\xf0\x9f\x8e\xb5",
      " ", "#ESCAPED#"};
  auto pick = [&](const std::vector<std::string>& parts, int max_len) {
    std::string s;
    const int n = std::uniform_int_distribution<int>(0, max_len)(rng);
    for (int i = 0; i < n; ++i)
      s += parts[std::uniform_int_distribution<std::size_t>(0, parts.size() - 1)(rng)];
    return s;
  };

  // Column order is table order: the order in which names were first used.
  std::vector<std::string> columns;
  std::map<std::string, std::map<std::string, std::string>> model;
  for (int round = 0; round < 400; ++round) {
    const std::string path = "p" + std::to_string(round % 60);
    const std::string name = "t" + std::to_string(round % 13) + pick(name_parts, 6);
    std::string value = pick(value_parts, 12);
    const bool known = std::find(columns.begin(), columns.end(), name) != columns.end();
    if (!known) {
      // Names that SQLite would fold into one column are kept apart.
      bool clash = false;
      for (const auto& c : columns) clash |= sqlite3_stricmp(c.c_str(), name.c_str()) == 0;
      if (clash) continue;
    }
    if (round % 7 == 3) {
      ASSERT_EQ(metadb_tagdb_deltag(db_.get(), path.c_str(), name.c_str()), 0);
      model[path].erase(name);
    } else {
      ASSERT_EQ(metadb_tagdb_settag(db_.get(), path.c_str(), name.c_str(),
                                    value.c_str()),
                0)
          << name << "=" << value;
      model[path][name] = replace_all(value, "\\", "");
      if (!known) columns.push_back(name);  // the first settag adds the column
    }
    ASSERT_EQ(metadb_tagdb_sync(db_.get(), path.c_str()), 0);
  }

  RawDb raw(file_);
  for (const auto& [path, tags] : model) {
    std::vector<std::pair<std::string, std::string>> ordered;
    for (const auto& c : columns)
      if (auto it = tags.find(c); it != tags.end()) ordered.emplace_back(c, it->second);
    SCOPED_TRACE(path);
    EXPECT_EQ(raw.value("SELECT Data FROM Meta WHERE Path='" + path + "'"),
              reference_data(ordered));
  }
}

}  // namespace
