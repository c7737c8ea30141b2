// Bulk contexts in the real setting: volumes, FUSE mount, FIFO, databases.
#include <errno.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <map>
#include <thread>
#include <string>
#include <vector>

#include "test_support.h"

using tevul_test::Bulk;
using tevul_test::Rows;
using tevul_test::Sandbox;
using tevul_test::rows;

namespace {

class BulkTest : public tevul_test::SandboxTest {
 protected:
  std::vector<std::string> volumes() const override { return {"mnt", "srv", "opt"}; }
  // Creates a file (and its directories); returns its path.
  static std::string file(const std::string& path) {
    EXPECT_TRUE(tevul_test::write_file(path, "content"));
    return path;
  }
  static std::string get(tevu_bulk_ctx* ctx, const char* name) {
    char buf[256];
    return tevu_bulk_gettag(ctx, name, buf, sizeof buf) == 0 ? buf : "(unset)";
  }
};

// Files alternate between volumes; some are only visited. Every row, its Data and every wake-up of the daemon is checked.
TEST_F(BulkTest, RunOverSeveralVolumesMatchesTheDatabases) {
  std::map<std::string, Rows> want;
  Bulk bulk(tevu_bulk_init());
  bool previous_changed = false;
  for (int i = 0; i < 30; ++i) {
    const std::string volume = i % 3 == 2 ? "srv" : "mnt";
    const std::string rel = "dir" + std::to_string(i % 4) + "/f" + std::to_string(i);
    ASSERT_EQ(tevu_bulk_setpath(bulk.get(), file("/" + volume + "/" + rel).c_str()), 0);
    // Setting the path committed the previous file: one byte if it changed.
    EXPECT_EQ(sandbox_.drain_fifo(), previous_changed ? 1 : 0) << rel;
    previous_changed = i % 5 != 4;
    if (!previous_changed) {
      EXPECT_EQ(get(bulk.get(), "n"), "(unset)");
      continue;
    }
    const std::string n = std::to_string(i), kind = i % 2 ? "odd|one" : "even";
    ASSERT_EQ(tevu_bulk_settag(bulk.get(), "n", n.c_str()), 0);
    ASSERT_EQ(tevu_bulk_settag(bulk.get(), "kind", kind.c_str()), 0);
    ASSERT_EQ(tevu_bulk_settag(bulk.get(), "tmp", "x"), 0);
    ASSERT_EQ(tevu_bulk_deltag(bulk.get(), "tmp"), 0);
    EXPECT_EQ(get(bulk.get(), "kind"), kind);
    want[volume].push_back({rel, "n=" + n + "|kind=" + (i % 2 ? "odd\\|one" : "even")});
  }
  bulk.reset();
  EXPECT_EQ(sandbox_.drain_fifo(), previous_changed ? 1 : 0);
  for (const char* volume : {"mnt", "srv"}) {
    EXPECT_EQ(rows(volume, "SELECT Path, Data FROM Meta ORDER BY ROWID"), want[volume]) << volume;
  }
}

TEST_F(BulkTest, SetpathAcceptsExistingPathsOnTaggedVolumesOnly) {
  Bulk bulk(tevu_bulk_init());
  EXPECT_EQ(tevu_bulk_settag(bulk.get(), "t", "v"), -1) << "no current file";
  EXPECT_EQ(tevu_bulk_commit(bulk.get()), -1);
  tevul_test::write_file("/tmp/outside", "x");
  for (const char* bad : {"/mnt/missing", "", "/tmp/outside"}) {
    EXPECT_EQ(tevu_bulk_setpath(bulk.get(), bad), -1) << bad;
  }
  EXPECT_EQ(tevu_bulk_setpath(nullptr, "/mnt"), -1);
  // Relative paths and symbolic links are made canonical first.
  file("/srv/sub/real.txt");
  ASSERT_EQ(symlink("/srv/sub/real.txt", "/mnt/alias"), 0);
  ASSERT_EQ(tevu_bulk_setpath(bulk.get(), "/mnt/alias"), 0);
  ASSERT_EQ(tevu_bulk_settag(bulk.get(), "t", "via link"), 0);
  ASSERT_EQ(chdir("/srv/sub"), 0);
  file("/srv/sub/rel.txt");
  ASSERT_EQ(tevu_bulk_setpath(bulk.get(), "rel.txt"), 0);
  ASSERT_EQ(tevu_bulk_settag(bulk.get(), "t", "relative"), 0);
  // The context keeps a path of at most 4094 bytes; one byte more would be
  // cut, to the name of the other file here, and is refused instead.
  std::string deep = "/srv";
  while (deep.size() + 201 < 4094) deep += "/" + std::string(200, 'd');
  const std::string longest = file(deep + "/" + std::string(4094 - deep.size() - 1, 'f'));
  EXPECT_EQ(tevu_bulk_setpath(bulk.get(), file(longest + "f").c_str()), -1);
  ASSERT_EQ(tevu_bulk_setpath(bulk.get(), longest.c_str()), 0);
  EXPECT_EQ(tevu_bulk_settag(bulk.get(), "t", "longest"), 0);
  bulk.reset();
  EXPECT_EQ(rows("srv", "SELECT Path, \".t\" FROM Meta ORDER BY ROWID"),
            (Rows{{"sub/real.txt", "via link"}, {"sub/rel.txt", "relative"},
                  {longest.substr(5), "longest"}}));
  EXPECT_TRUE(rows("mnt", "SELECT * FROM Meta").empty());
}

TEST_F(BulkTest, LengthLimitsAreUnsignedAndReadOncePerContext) {
  const std::string path = file("/mnt/f");
  const auto context = [&path] {
    Bulk bulk(tevu_bulk_init());
    EXPECT_EQ(tevu_bulk_setpath(bulk.get(), path.c_str()), 0);
    return bulk;
  };
  Sandbox::write_limits("TAG_NAME_MAX=8\nTAG_VALUE_MAX=4\n");
  Bulk bulk = context();
  EXPECT_EQ(tevu_bulk_settag(bulk.get(), "1234567", "123"), 0);
  EXPECT_EQ(tevu_bulk_settag(bulk.get(), "12345678", "12345"), -ENAMETOOLONG) << "name first";
  EXPECT_EQ(tevu_bulk_settag(bulk.get(), "v", "1234"), -EFBIG);
  EXPECT_EQ(tevu_bulk_settag(bulk.get(), "v", nullptr), 0);
  EXPECT_EQ(tevu_bulk_settag_recursive(bulk.get(), "12345678", "1"), -ENAMETOOLONG);
  EXPECT_EQ(tevu_bulk_settag_recursive(bulk.get(), "v", "1234"), -EFBIG);
  EXPECT_EQ(get(bulk.get(), "1234567"), "123") << "reads know no limit";
  Sandbox::write_limits("TAG_NAME_MAX=100\n");  // not seen by this context
  EXPECT_EQ(tevu_bulk_settag(bulk.get(), "12345678", "1"), -ENAMETOOLONG);
  bulk = context();  // no value limit: every value is too long, NULL is not
  EXPECT_EQ(tevu_bulk_settag(bulk.get(), "v", ""), -EFBIG);
  EXPECT_EQ(tevu_bulk_settag(bulk.get(), "v", nullptr), 0);
  Sandbox::write_limits("TAG_NAME_MAX=-1\nTAG_VALUE_MAX=-1\n");
  bulk = context();
  EXPECT_EQ(tevu_bulk_settag(bulk.get(), std::string(50, 'n').c_str(),
                             std::string(100, 'v').c_str()), 0) << "negative: all accepted";
}

// A volume root stands for its whole volume in recursive tagging, whatever
// path the context held before.
TEST_F(BulkTest, VolumeRootTagsTheWholeVolume) {
  Bulk bulk(tevu_bulk_init());
  for (const char* p : {"/mnt/a", "/mnt/d/b", "/mnt/d/e/long-name-c"}) {
    ASSERT_EQ(tevu_bulk_setpath(bulk.get(), file(p).c_str()), 0);
    ASSERT_EQ(tevu_bulk_settag(bulk.get(), "t", "1"), 0);
  }
  ASSERT_EQ(tevu_bulk_setpath(bulk.get(), "/mnt"), 0);
  EXPECT_EQ(tevu_bulk_settag_recursive(bulk.get(), "all", "yes"), 0);
  bulk.reset();
  EXPECT_EQ(rows("mnt", "SELECT Path, Data FROM Meta ORDER BY Path"),
            (Rows{{"a", "t=1|all=yes"}, {"d/b", "t=1|all=yes"},
                  {"d/e/long-name-c", "t=1|all=yes"}}));
}

TEST_F(BulkTest, OnlyChangesWakeTheDaemon) {
  const std::string path = file("/mnt/f");
  Bulk bulk(tevu_bulk_init());
  ASSERT_EQ(tevu_bulk_setpath(bulk.get(), path.c_str()), 0);
  EXPECT_EQ(tevu_bulk_settag(bulk.get(), "bad\"name", "v"), EIO);
  EXPECT_EQ(tevu_bulk_commit(bulk.get()), 0);
  EXPECT_EQ(sandbox_.drain_fifo(), 0) << "a failed change is no change";
  ASSERT_EQ(tevu_bulk_settag(bulk.get(), "t", "kept"), 0);
  EXPECT_EQ(tevu_bulk_commit(bulk.get()), 0);
  EXPECT_EQ(sandbox_.drain_fifo(), 1);
  EXPECT_EQ(tevu_bulk_commit(bulk.get()), 0);
  EXPECT_EQ(sandbox_.drain_fifo(), 0) << "nothing changed since";
  ASSERT_EQ(tevu_bulk_setpath(bulk.get(), path.c_str()), 0);
  ASSERT_EQ(tevu_bulk_settag(bulk.get(), "t", "dropped"), 0);
  EXPECT_EQ(tevu_bulk_rollback(bulk.get()), 0);
  bulk.reset();
  EXPECT_EQ(sandbox_.drain_fifo(), 0);
  EXPECT_EQ(rows("mnt", "SELECT \".t\", Data FROM Meta"), (Rows{{"kept", "t=kept"}}));
  tevu_bulk_fini(nullptr);
}

// A switch to a volume that passes the pre-check but has no usable database
// commits the previous file and leaves the context without a database.
TEST_F(BulkTest, FailedSwitchLeavesNoDatabaseBehind) {
  const std::string good = file("/mnt/f"), bad = file("/opt/x");
  ASSERT_EQ(unlink((Sandbox::meta_backing() + "/opt@@db").c_str()), 0);
  Bulk bulk(tevu_bulk_init());
  ASSERT_EQ(tevu_bulk_setpath(bulk.get(), good.c_str()), 0);
  ASSERT_EQ(tevu_bulk_settag(bulk.get(), "t", "1"), 0);
  EXPECT_EQ(tevu_bulk_setpath(bulk.get(), bad.c_str()), -1);
  EXPECT_EQ(sandbox_.drain_fifo(), 1) << "the previous file was committed";
  EXPECT_EQ(rows("mnt", "SELECT Data FROM Meta"), (Rows{{"t=1"}}));
  EXPECT_EQ(tevu_bulk_settag(bulk.get(), "t", "2"), -1);
  EXPECT_EQ(get(bulk.get(), "t"), "(unset)");
  EXPECT_EQ(tevu_bulk_rollback(bulk.get()), -1);
  ASSERT_EQ(tevu_bulk_setpath(bulk.get(), good.c_str()), 0) << "recovers";
  EXPECT_EQ(get(bulk.get(), "t"), "1");
  ASSERT_EQ(symlink("/opt/missing.db", (Sandbox::meta_backing() + "/opt@@db").c_str()), 0);
  EXPECT_EQ(tevu_bulk_setpath(bulk.get(), bad.c_str()), -1) << "a link to nothing";
  EXPECT_EQ(tevu_bulk_settag(bulk.get(), "t", "3"), -1);
  EXPECT_EQ(access("/opt/missing.db", F_OK), -1) << "nothing created where it points";
}

// The runtime file's root is matched without its first byte, deliberately:
// a root "Xopt" serves /opt, and the context's own checks keep that rule.
TEST_F(BulkTest, RuntimeRootMatchesWithoutItsFirstByte) {
  const std::string path = file("/opt/a");
  ASSERT_EQ(unlink((Sandbox::meta_backing() + "/opt").c_str()), 0);
  ASSERT_EQ(symlink(Sandbox::db_path("opt").c_str(),
                    (std::string(Sandbox::kBacking) + "/metaXopt@@db").c_str()), 0);
  Sandbox::write_ini("x:Xopt:y\n");
  Bulk bulk(tevu_bulk_init());
  ASSERT_EQ(tevu_bulk_setpath(bulk.get(), path.c_str()), 0);
  ASSERT_EQ(tevu_bulk_settag(bulk.get(), "t", "1"), 0);
  bulk.reset();
  EXPECT_EQ(rows("opt", "SELECT Path, Data FROM Meta"), (Rows{{"a", "t=1"}}));
}

// A context on the volume rooted at /srv/a (the runtime file's, since srv's
// database link is gone) keeps its database only for paths below "/srv/a/":
// "/srv/ab" begins with the root's name but lies on no volume.
TEST_F(BulkTest, ContextKeepsItsDatabaseOnlyBelowTheRoot) {
  const std::string inside = file("/srv/a/f"), sibling = file("/srv/ab/g");
  tevul_test::make_runtime_volume("/srv/a", "/opt/a.db");
  Bulk bulk(tevu_bulk_init());
  ASSERT_EQ(tevu_bulk_setpath(bulk.get(), inside.c_str()), 0);
  ASSERT_EQ(tevu_bulk_settag(bulk.get(), "t", "1"), 0);
  EXPECT_EQ(tevu_bulk_setpath(bulk.get(), sibling.c_str()), -1);
  EXPECT_EQ(tevu_bulk_settag(bulk.get(), "t", "2"), -1);
  bulk.reset();
  EXPECT_EQ(tevul_test::RawDb("/opt/a.db").rows("SELECT Path, Data FROM Meta"), (Rows{{"f", "t=1"}}));
}

TEST_F(BulkTest, WithoutTheMountThereIsNoContext) {
  sandbox_.unmount_tag_fs();  // before the process looks the mount up
  EXPECT_EQ(tevu_bulk_init(), nullptr);
}

// A context handed to another thread in the middle of its transaction
// takes its locks along: that thread's own query says EDEADLK at once
// instead of waiting for itself for ever, and the first thread's query
// waits for the commit instead of giving up.
TEST_F(BulkTest, ALocksOwnerIsTheThreadThatUsesTheContext) {
  // A transaction too large for SQLite's page cache holds the database's
  // write lock, which readers wait for.
  tevul_test::RawDb(Sandbox::db_path("mnt"))
      .exec("WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i+1 FROM n WHERE i<19999) "
            "INSERT INTO Meta (Path) SELECT 'f'||i FROM n");
  const auto query = [] {
    return tevu_tagged_files(nullptr, [](void*, const char*, size_t, const char* const*,
                                         const char* const*) { return 0; },
                             nullptr);
  };
  tevu_bulk_ctx* ctx = tevu_bulk_init();  // this thread begins the transaction
  ASSERT_NE(ctx, nullptr);
  ASSERT_EQ(tevu_bulk_setpath(ctx, "/mnt"), 0);
  std::promise<int> own_query;
  std::thread other([&] {
    EXPECT_EQ(tevu_bulk_settag_recursive(ctx, "big", std::string(150, 'b').c_str()), 0);
    own_query.set_value(query());
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    tevu_bulk_commit(ctx);
  });
  auto result = own_query.get_future();
  ASSERT_EQ(result.wait_for(std::chrono::seconds(20)), std::future_status::ready)
      << "the thread that holds the context's locks waited for itself";
  EXPECT_EQ(result.get(), EDEADLK);
  // The other thread owns the locks now: this thread's query waits for its
  // commit instead of giving up.
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(query(), 0);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300))
      << "gave up at once on a lock that another thread releases";
  other.join();
  tevu_bulk_fini(ctx);
  EXPECT_EQ(rows("mnt", "SELECT count(*) FROM Meta WHERE \".big\" IS NOT NULL"),
            (Rows{{"20000"}}));
}

}  // namespace
