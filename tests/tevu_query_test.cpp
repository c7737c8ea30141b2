// Read-only queries in the real setting: what they hand back, that they
// stop when asked, that they use the tag column's index, and that they read
// past a writer without writing anything or waking the daemon.
#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <string>
#include <vector>

#include "test_support.h"
#include "tevu_query.h"
#include "tevul.h"

using tevul_test::RawDb;
using tevul_test::Sandbox;
using tevul_test::tag_file;

namespace {

using Files = std::vector<std::string>;

class Query : public tevul_test::SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    if (IsSkipped()) return;
    tag_file("/mnt/a.jpg", {{"kind", "photo"}, {"odd", "x|y/z\nw"}});
    tag_file("/mnt/b.jpg", {{"kind", "PHOTO"}});
    tag_file("/mnt/c.txt", {{"kind", "text"}});
    tag_file("/srv/d.jpg", {{"kind", "photo"}});
    sandbox_.drain_fifo();
  }
  // Every file of a walk as "path name=value ...".
  static int tagged(const char* dir, Files* out) {
    return tevu_tagged_files(
        dir,
        [](void* user, const char* path, size_t count, const char* const* names,
           const char* const* values) {
          std::string line = path;
          for (size_t i = 0; i < count; ++i) line += std::string(" ") + names[i] + "=" + values[i];
          static_cast<Files*>(user)->push_back(line);
          return 0;
        },
        out);
  }
  static int find(const char* name, const char* value, Files* out) {
    return tevu_find_files(
        name, value,
        [](void* user, const char* path) {
          static_cast<Files*>(user)->push_back(path);
          return 0;
        },
        out);
  }
};

// The tool's search pins what is found; here, what the callback decides.
TEST_F(Query, FindFilesStopsWhenTheCallbackSays) {
  Files files;
  EXPECT_EQ(find("ki\"nd", nullptr, &files), EINVAL);
  int calls = 0;
  EXPECT_EQ(tevu_find_files("kind", nullptr,
                            [](void* user, const char*) {
                              return ++*static_cast<int*>(user) == 2 ? -1 : 0;
                            },
                            &calls),
            -1)
      << "any non-zero value, also a negative one";
  EXPECT_EQ(calls, 2);
}

TEST_F(Query, TaggedFilesOfATreeOrOfEveryVolume) {
  tag_file("/mnt/[d]/in", {{"k", "1"}});
  tag_file("/mnt/d/out", {{"k", "2"}});
  tag_file("/mnt/[d]x", {{"k", "3"}});
  tevu_bulk_ctx* bulk = tevu_bulk_init();
  ASSERT_EQ(tevu_bulk_setpath(bulk, "/mnt/c.txt"), 0);
  ASSERT_EQ(tevu_bulk_deltag(bulk, "kind"), 0);  // a row without tags
  tevu_bulk_fini(bulk);
  ASSERT_EQ(unlink("/mnt/[d]/in"), 0);  // vanished files are still listed

  Files files;
  EXPECT_EQ(tagged("/mnt/[d]", &files), 0);
  EXPECT_EQ(files, (Files{"/mnt/[d]/in k=1"})) << "literal, no sibling";
  files.clear();
  EXPECT_EQ(tagged(nullptr, &files), 0);
  std::sort(files.begin(), files.end());
  EXPECT_EQ(files, (Files{"/mnt/[d]/in k=1", "/mnt/[d]x k=3", "/mnt/a.jpg kind=photo odd=x|y/z\nw",
                          "/mnt/b.jpg kind=PHOTO", "/mnt/d/out k=2", "/srv/d.jpg kind=photo"}));
  files.clear();
  EXPECT_EQ(tagged("/mnt/b.jpg", &files), 0);
  EXPECT_EQ(files, (Files{"/mnt/b.jpg kind=PHOTO"}));
  EXPECT_EQ(tagged("/tmp", &files), ENOENT);
  EXPECT_EQ(tevu_tagged_files("/mnt",
                              [](void*, const char*, size_t, const char* const*,
                                 const char* const*) { return -3; },
                              nullptr),
            -3);
}

// More rows than one batch, while another connection holds the write lock:
// every file is found, nothing is written, the daemon is not woken.
TEST_F(Query, ReadsPastAWriterInBatchesAndWritesNothing) {
  const int n = 2 * tevul::kQueryBatch + 3;
  for (int i = 0; i < n; ++i) tag_file("/srv/many" + std::to_string(i), {{"batch", "yes"}});
  sandbox_.drain_fifo();

  RawDb writer(Sandbox::db_path("srv"));
  writer.exec("BEGIN IMMEDIATE");
  const std::string before = tevul_test::read_file(Sandbox::db_path("srv"));
  Files files;
  EXPECT_EQ(find("batch", "YES", &files), 0);
  EXPECT_EQ(files.size(), static_cast<std::size_t>(n));
  EXPECT_EQ(files.back(), "/srv/many" + std::to_string(n - 1));
  files.clear();
  EXPECT_EQ(tagged("/srv", &files), 0);
  EXPECT_EQ(files.size(), static_cast<std::size_t>(n + 1));
  writer.exec("COMMIT");
  EXPECT_EQ(tevul_test::read_file(Sandbox::db_path("srv")), before);
  EXPECT_EQ(sandbox_.drain_fifo(), 0);

  // The search by value is served by the tag column's index.
  char sql[306];
  ASSERT_TRUE(tevul::find_sql("batch", true, "rowid", sql, sizeof sql));
  const auto plan = writer.rows(std::string("EXPLAIN QUERY PLAN ") + sql);
  ASSERT_FALSE(plan.empty());
  EXPECT_NE(plan[0].back().find("USING INDEX Cidx_batch"), std::string::npos)
      << plan[0].back();
}

// What the calling thread's last query could not read, as "error volume"
// lines.
std::vector<std::string> failures() {
  std::vector<std::string> out;
  char volume[64];
  for (unsigned i = 0; int error = tevu_query_failure(i, volume, sizeof volume); ++i) {
    out.push_back(std::to_string(error) + " " + volume);
  }
  return out;
}

// A writer killed in the middle of its transaction leaves a hot journal:
// the queries roll it back, as the daemon would, and see the volume.
TEST_F(Query, HotJournalIsRolledBackNotHidden) {
  const pid_t writer = fork();
  if (writer == 0) {
    sqlite3* db = nullptr;
    sqlite3_open(Sandbox::db_path("mnt").c_str(), &db);
    // A small cache makes the transaction write into the database file
    // before its COMMIT, so that only the journal can undo it.
    sqlite3_exec(db, "PRAGMA cache_size=2; BEGIN IMMEDIATE; UPDATE Meta SET \".kind\"='lost';"
                 "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n WHERE i<3000) "
                 "INSERT INTO Meta(Path, Data) SELECT 'junk'||i, hex(randomblob(200)) FROM n;",
                 nullptr, nullptr, nullptr);
    raise(SIGKILL);
  }
  ASSERT_EQ(tevul_test::exit_status(writer), 128 + SIGKILL);
  ASSERT_EQ(access((Sandbox::db_path("mnt") + "-journal").c_str(), F_OK), 0);
  Files files;
  EXPECT_EQ(find("kind", "photo", &files), 0);
  std::sort(files.begin(), files.end());
  EXPECT_EQ(files, (Files{"/mnt/a.jpg", "/mnt/b.jpg", "/srv/d.jpg"}));
  EXPECT_EQ(tevul_test::rows("mnt", "SELECT count(*) FROM Meta"), (tevul_test::Rows{{"3"}}));
}

// A volume whose database is gone, empty or garbage is walked past, then
// reported with its errno and named; the other volume's files still come.
TEST_F(Query, UnreadableVolumesAreReportedAfterTheOthers) {
  const std::string db = Sandbox::db_path("mnt");
  const std::vector<std::pair<std::string, int>> damages = {
      {"empty", EIO}, {"garbage", EBADF}, {"deleted", ENOENT}};
  for (const auto& [damage, error] : damages) {
    SCOPED_TRACE(damage);
    if (damage == "deleted") {
      ASSERT_EQ(unlink(db.c_str()), 0);
    } else {
      ASSERT_TRUE(tevul_test::write_file(db, damage == "empty" ? "" : std::string(4096, 'g')));
    }
    Files files;
    EXPECT_EQ(find("kind", nullptr, &files), error);
    EXPECT_EQ(files, (Files{"/srv/d.jpg"}));
    EXPECT_EQ(failures(), (Files{std::to_string(error) + " /mnt"}));
    files.clear();
    EXPECT_EQ(tagged(nullptr, &files), error);
    EXPECT_EQ(files, (Files{"/srv/d.jpg kind=photo"}));
    EXPECT_EQ(tevu_file_tags("/mnt/a.jpg", [](void*, const char*, const char*) { return 0; },
                             nullptr),
              error);
    EXPECT_EQ(failures(), (Files{std::to_string(error) + " /mnt"}));
  }
  Files files;
  EXPECT_EQ(find("kind", "text", &files), ENOENT) << "a failure is kept per call";
  EXPECT_EQ(find("nothing", nullptr, &files), ENOENT);
}

// A table whose row id something else could be taken for (a column named
// rowid, oid or _rowid_, in any case, or no row id at all) is refused by
// the walks and the writes alike, never read by the wrong rows: a walk by
// a crafted "rowid" repeated or skipped rows, an update changed every row.
TEST_F(Query, TablesThatHideTheirRowIdAreRefused) {
  const std::string db = Sandbox::db_path("mnt");
  const std::vector<std::string> schemas = {
      "CREATE TABLE Meta(rowid INTEGER PRIMARY KEY DESC, Path TEXT UNIQUE, Data TEXT)",
      "CREATE TABLE Meta(Path TEXT UNIQUE, Data TEXT, ROWID INTEGER)",
      "CREATE TABLE Meta(Path TEXT UNIQUE, Data TEXT, Oid TEXT)",
      "CREATE TABLE Meta(Path TEXT, Data TEXT, _rowid_ INTEGER, PRIMARY KEY(_rowid_, Path))",
      "CREATE TABLE Meta(Path TEXT PRIMARY KEY, Data TEXT) WITHOUT ROWID",
  };
  for (const std::string& schema : schemas) {
    SCOPED_TRACE(schema);
    ASSERT_EQ(unlink(db.c_str()), 0);
    {
      RawDb raw(db);
      raw.exec(schema);
      raw.exec("ALTER TABLE Meta ADD COLUMN \".t\" TEXT");
      for (int i = 0; i < 300; ++i) {
        raw.exec("INSERT INTO Meta(Path, \".t\") VALUES('f" + std::to_string(i) + "', 'v')");
      }
      if (schema.find("ROWID INTEGER") != std::string::npos) raw.exec("UPDATE Meta SET ROWID=5");
    }
    ASSERT_TRUE(tevul_test::write_file("/mnt/f1", "x"));
    const std::string before = tevul_test::read_file(db);
    Files files;
    EXPECT_EQ(tagged("/mnt", &files), EIO);
    EXPECT_EQ(files, Files{});
    EXPECT_EQ(failures(), (Files{std::to_string(EIO) + " /mnt"}));
    files.clear();
    EXPECT_EQ(find("t", nullptr, &files), EIO);
    EXPECT_EQ(files, Files{});
    {
      tevul_test::Bulk bulk(tevu_bulk_init());
      ASSERT_EQ(tevu_bulk_setpath(bulk.get(), "/mnt/f1"), 0);
      EXPECT_NE(tevu_bulk_settag(bulk.get(), "t", "changed"), 0);
    }
    EXPECT_EQ(tevu_move_checked("/mnt/f1", "/srv/f1"), EIO);
    EXPECT_TRUE(tevul_test::read_file(db) == before) << "nothing written";
  }
}

// The tag file system unmounted in the middle of a walk: the volumes were
// listed first, and every one is still read.
TEST_F(Query, TagFileSystemGoneMidWalkLosesNoVolume) {
  Files files;
  const int rc = tevu_tagged_files(
      nullptr,
      [](void* user, const char* path, size_t, const char* const*, const char* const*) {
        auto* out = static_cast<Files*>(user);
        if (out->empty()) umount2(Sandbox::kMount, MNT_DETACH);
        out->push_back(path);
        return 0;
      },
      &files);
  EXPECT_EQ(rc, 0);
  EXPECT_EQ(files.size(), 4u);
}

// The calling thread's own bulk context holds the volume's lock (its
// transaction outgrew SQLite's cache): a query in the same thread could
// never get it, and says so at once.
TEST_F(Query, OwnThreadsLockFailsAtOnce) {
  RawDb raw(Sandbox::db_path("mnt"));
  raw.exec("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n WHERE i<20000) "
           "INSERT INTO Meta(Path, Data) SELECT 'd/f'||i, '' FROM n");
  Sandbox::write_limits("TAG_NAME_MAX=64\nTAG_VALUE_MAX=256\n");
  auto result = std::async(std::launch::async, [] {
    tevul_test::Bulk bulk(tevu_bulk_init());
    tevu_bulk_setpath(bulk.get(), "/mnt");
    const int set = tevu_bulk_settag_recursive(bulk.get(), "big", std::string(200, 'b').c_str());
    const int read = tevu_file_tags("/mnt/a.jpg", [](void*, const char*, const char*) { return 0; },
                                    nullptr);
    return std::make_pair(set, read);
  });
  ASSERT_EQ(result.wait_for(std::chrono::seconds(60)), std::future_status::ready);
  const auto [set, read] = result.get();
  EXPECT_EQ(set, 0);
  EXPECT_EQ(read, EDEADLK);
}

// A crafted table: a column named rowid (or all three names of the row id)
// and as many tag columns as SQLite allows. Every row comes once, or the
// volume fails.
TEST_F(Query, CraftedTablesDoNotSteerTheWalk) {
  const std::string db = Sandbox::db_path("srv");
  const auto craft = [&](const std::string& columns, const std::string& values) {
    ASSERT_EQ(unlink(db.c_str()), 0);
    RawDb raw(db);
    raw.exec("CREATE TABLE Meta(Path TEXT UNIQUE, Data TEXT" + columns + ", \".k\" TEXT)");
    raw.exec("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n WHERE i<300) "
             "INSERT INTO Meta SELECT 'f'||i, ''" + values + ", 'v' FROM n");
  };
  const auto srv_files = [] {
    Files files;
    const int rc = tagged(nullptr, &files);
    return std::make_pair(rc, static_cast<long>(std::count_if(
                                  files.begin(), files.end(), [](const std::string& f) {
                                    return f.rfind("/srv/f", 0) == 0;
                                  })));
  };
  // A column that hides the row id: refused (see TablesThatHideTheirRowIdAreRefused).
  craft(", rowid TEXT", ", 'x'||i");
  EXPECT_EQ(srv_files(), std::make_pair(EIO, 0L));
  craft(", rowid INTEGER, oid INTEGER, _rowid_ INTEGER", ", 5, 5, 5");
  EXPECT_EQ(srv_files(), std::make_pair(EIO, 0L));

  std::string wide, values;
  for (int i = 0; i < 1997; ++i) {
    wide += ", \".t" + std::to_string(i) + "\" TEXT";
    values += i == 1996 ? ", 'last'" : ", NULL";
  }
  craft(wide, values);
  EXPECT_EQ(srv_files(), std::make_pair(0, 300L));
  std::vector<std::string> tags;
  EXPECT_EQ(tevu_file_tags("/srv/d.jpg", [](void*, const char*, const char*) { return 0; },
                           nullptr), 0);
  ASSERT_TRUE(tevul_test::write_file("/srv/f7", ""));
  EXPECT_EQ(tevu_file_tags("/srv/f7",
                           [](void* user, const char* name, const char* value) {
                             static_cast<std::vector<std::string>*>(user)->push_back(
                                 std::string(name) + "=" + value);
                             return 0;
                           },
                           &tags),
            0);
  EXPECT_EQ(tags, (std::vector<std::string>{"t1996=last", "k=v"}));
}

// Tag names and values with their counts, merged over the volumes without
// regard to letter case, sorted; each count read through the tag's index.
TEST_F(Query, NamesAndValuesWithTheirCounts) {
  tag_file("/srv/e.jpg", {{"Kind", "Photo"}, {"Odd", "1"}, {"year", "2019"}});
  using Counts = std::vector<std::string>;
  const auto counted = [](int (*query)(const char*, const char*, tevu_count_cb, void*),
                          const char* name, const char* under) {
    Counts out;
    const int rc = query(name, under,
                         [](void* user, const char* text, unsigned long count) {
                           static_cast<Counts*>(user)->push_back(std::string(text) + " " +
                                                                 std::to_string(count));
                           return 0;
                         },
                         &out);
    if (rc != 0) out.push_back("!" + std::to_string(rc));
    return out;
  };
  const auto names = [&](const char*, const char* under) {
    return counted([](const char*, const char* u, tevu_count_cb cb, void* user) {
      return tevu_tag_names(u, cb, user);
    }, nullptr, under);
  };
  EXPECT_EQ(names(nullptr, nullptr), (Counts{"kind 5", "Odd 2", "year 1"}));
  EXPECT_EQ(names(nullptr, "/mnt/b.jpg"), (Counts{"kind 1"}));
  EXPECT_EQ(counted(tevu_tag_values, "kind", nullptr), (Counts{"PHOTO 4", "text 1"}))
      << "in the spelling that sorts first";
  EXPECT_EQ(counted(tevu_tag_values, "KIND", "/srv"), (Counts{"Photo 2"}));
  EXPECT_EQ(counted(tevu_tag_values, "nothing", nullptr), (Counts{}));
  EXPECT_EQ(counted(tevu_tag_values, "k\"", nullptr), (Counts{"!" + std::to_string(EINVAL)}));

  RawDb db(Sandbox::db_path("mnt"));
  for (bool values : {false, true}) {
    char sql[512];
    ASSERT_TRUE(tevul::count_sql("kind", values, false, sql, sizeof sql));
    const auto plan = db.rows(std::string("EXPLAIN QUERY PLAN ") + sql);
    ASSERT_FALSE(plan.empty());
    EXPECT_NE(plan[0].back().find("COVERING INDEX Cidx_kind"), std::string::npos)
        << plan[0].back();
  }
}

// Tags without an index (a crafted or an old table: some 2,000 of them made
// the counts read the table once per tag) are counted together, in one
// read of the table per 500 of them, and below a path too.
TEST_F(Query, TagsWithoutAnIndexAreCountedTogether) {
  tag_file("/srv/e.jpg", {{"kind", "photo"}});
  RawDb db(Sandbox::db_path("srv"));
  db.exec("BEGIN");
  for (int c = 0; c < 600; ++c) db.exec("ALTER TABLE Meta ADD \".c" + std::to_string(c) + "\" TEXT");
  for (int r = 0; r < 200; ++r) {
    const std::string path = (r % 2 ? "a/" : "b/") + std::to_string(r);
    db.exec("INSERT INTO Meta (Path, \".c" + std::to_string(r % 600) + "\", \".c599\") VALUES ('" +
            path + "', 'x', 'y')");
  }
  db.exec("COMMIT");
  std::vector<std::string> all, below;
  const auto collect = [](void* user, const char* text, unsigned long count) {
    static_cast<std::vector<std::string>*>(user)->push_back(std::string(text) + " " +
                                                           std::to_string(count));
    return 0;
  };
  ASSERT_EQ(tevu_tag_names("/srv", collect, &all), 0);
  ASSERT_EQ(tevu_tag_names("/srv/a", collect, &below), 0);
  EXPECT_EQ(all.size(), 202u) << "c0..c199, c599 and kind";
  EXPECT_NE(std::find(all.begin(), all.end(), "c599 200"), all.end());
  EXPECT_NE(std::find(all.begin(), all.end(), "c7 1"), all.end());
  EXPECT_EQ(std::count_if(all.begin(), all.end(),
                          [](const std::string& n) { return n.rfind("kind ", 0) == 0; }),
            1) << "the indexed tag beside them";
  EXPECT_EQ(below.size(), 101u) << "the odd rows' tags and c599";
  EXPECT_NE(std::find(below.begin(), below.end(), "c599 100"), below.end());
}

}  // namespace
