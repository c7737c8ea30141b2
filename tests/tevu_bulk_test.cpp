// Bulk contexts in the real setting: volumes, FUSE mount, FIFO, databases.
#include <errno.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "db_support.h"
#include "lock_holder.h"
#include "sandbox_test.h"
#include "tevul.h"

using tevul_test::Bulk;
using tevul_test::RawDb;
using tevul_test::Sandbox;

namespace {

class BulkTest : public tevul_test::SandboxTest {
 protected:
  // Creates a file (and its directories) on a volume; returns its path.
  static std::string file(const std::string& path) {
    tevul_test::make_dirs(path.substr(0, path.rfind('/')));
    EXPECT_TRUE(tevul_test::write_file(path, "content"));
    return path;
  }
  static std::string get(tevu_bulk_ctx* ctx, const char* name) {
    char buf[256];
    return tevu_bulk_gettag(ctx, name, buf, sizeof buf) == 0 ? buf : "(unset)";
  }
  static std::vector<std::vector<std::string>> rows(const std::string& volume,
                                                    const std::string& sql) {
    RawDb db(Sandbox::db_path(volume));
    return db.rows(sql);
  }
};

// Files alternate between two volumes; some are only visited. Every row,
// its Data and every wake-up of the daemon is checked.
TEST_F(BulkTest, RunOverTwoVolumesMatchesTheDatabases) {
  struct Expected {
    std::string volume, rel, data;
  };
  std::vector<Expected> expected;
  Bulk bulk(tevu_bulk_init());
  ASSERT_NE(bulk, nullptr);
  bool previous_changed = false;
  int changed = 0;
  for (int i = 0; i < 40; ++i) {
    const std::string volume = i % 3 == 2 ? "srv" : "mnt";
    const std::string rel = "dir" + std::to_string(i % 4) + "/file" +
                            std::to_string(i) + ".txt";
    const std::string path = file("/" + volume + "/" + rel);
    ASSERT_EQ(tevu_bulk_setpath(bulk.get(), path.c_str()), 0) << path;
    // Setting the path committed the previous file: one byte if it changed.
    EXPECT_EQ(sandbox_.drain_fifo(), previous_changed ? 1 : 0) << path;

    previous_changed = i % 5 != 4;
    if (!previous_changed) {
      EXPECT_EQ(get(bulk.get(), "n"), "(unset)");
      continue;
    }
    ++changed;
    const std::string n = std::to_string(i);
    const std::string kind = i % 2 ? "odd|one" : "even";
    const std::string where = volume + "/dir";
    ASSERT_EQ(tevu_bulk_settag(bulk.get(), "n", n.c_str()), 0);
    ASSERT_EQ(tevu_bulk_settag(bulk.get(), "kind", kind.c_str()), 0);
    ASSERT_EQ(tevu_bulk_settag(bulk.get(), "where", where.c_str()), 0);
    ASSERT_EQ(tevu_bulk_settag(bulk.get(), "tmp", "x"), 0);
    ASSERT_EQ(tevu_bulk_deltag(bulk.get(), "tmp"), 0);
    EXPECT_EQ(get(bulk.get(), "kind"), kind);
    expected.push_back({volume, rel,
                        "n=" + n + "|kind=" + (i % 2 ? "odd\\|one" : "even") +
                            "|where=" + volume + "\\dir"});
  }
  bulk.reset();
  EXPECT_EQ(sandbox_.drain_fifo(), previous_changed ? 1 : 0);

  std::map<std::string, std::vector<std::vector<std::string>>> want;
  for (const auto& e : expected) want[e.volume].push_back({e.rel, e.data});
  for (const char* volume : {"mnt", "srv"}) {
    SCOPED_TRACE(volume);
    EXPECT_EQ(rows(volume, "SELECT Path, Data FROM Meta ORDER BY ROWID"),
              want[volume]);
    EXPECT_EQ(rows(volume, "SELECT count(*) FROM Meta WHERE \".tmp\" IS NOT NULL"),
              (std::vector<std::vector<std::string>>{{"0"}}));
  }
  EXPECT_EQ(changed, static_cast<int>(expected.size()));
}

TEST_F(BulkTest, SetpathAcceptsExistingPathsOnTaggedVolumesOnly) {
  Bulk bulk(tevu_bulk_init());
  ASSERT_NE(bulk, nullptr);
  EXPECT_EQ(tevu_bulk_settag(bulk.get(), "t", "v"), -1) << "no current file";
  EXPECT_EQ(tevu_bulk_commit(bulk.get()), -1);
  EXPECT_EQ(tevu_bulk_setpath(bulk.get(), "/mnt/missing"), -1);
  EXPECT_EQ(tevu_bulk_setpath(bulk.get(), ""), -1);
  EXPECT_EQ(tevu_bulk_setpath(nullptr, "/mnt"), -1);
  tevul_test::write_file("/tmp/outside", "x");
  EXPECT_EQ(tevu_bulk_setpath(bulk.get(), "/tmp/outside"), -1);

  // Relative paths and symbolic links are made canonical first.
  file("/srv/sub/real.txt");
  ASSERT_EQ(symlink("/srv/sub/real.txt", "/mnt/alias"), 0);
  ASSERT_EQ(tevu_bulk_setpath(bulk.get(), "/mnt/alias"), 0);
  ASSERT_EQ(tevu_bulk_settag(bulk.get(), "t", "via link"), 0);
  ASSERT_EQ(chdir("/srv/sub"), 0);
  file("/srv/sub/rel.txt");
  ASSERT_EQ(tevu_bulk_setpath(bulk.get(), "rel.txt"), 0);
  ASSERT_EQ(tevu_bulk_settag(bulk.get(), "t", "relative"), 0);
  bulk.reset();
  EXPECT_EQ(rows("srv", "SELECT Path, \".t\" FROM Meta ORDER BY Path"),
            (std::vector<std::vector<std::string>>{{"sub/real.txt", "via link"},
                                                   {"sub/rel.txt", "relative"}}));
  EXPECT_TRUE(rows("mnt", "SELECT * FROM Meta").empty());

  // The context keeps a path of at most 4094 bytes; one byte more would be
  // cut, to the name of the other file here, and is refused instead.
  std::string deep = "/srv";
  while (deep.size() + 201 < 4094) deep += "/" + std::string(200, 'd');
  const std::string longest = file(deep + "/" + std::string(4094 - deep.size() - 1, 'f'));
  const std::string cut_to_longest = file(longest + "f");
  bulk.reset(tevu_bulk_init());
  EXPECT_EQ(tevu_bulk_setpath(bulk.get(), cut_to_longest.c_str()), -1);
  ASSERT_EQ(tevu_bulk_setpath(bulk.get(), longest.c_str()), 0);
  EXPECT_EQ(tevu_bulk_settag(bulk.get(), "t", "longest"), 0);
  bulk.reset();
  EXPECT_EQ(rows("srv", "SELECT count(*) FROM Meta WHERE \".t\"='longest' AND Path='" +
                            longest.substr(5) + "'"),
            (std::vector<std::vector<std::string>>{{"1"}}));
}

TEST_F(BulkTest, LengthLimitsAreUnsignedAndReadOncePerContext) {
  const std::string path = file("/mnt/f");
  Sandbox::write_limits("TAG_NAME_MAX=8\nTAG_VALUE_MAX=4\n");
  Bulk bulk(tevu_bulk_init());
  ASSERT_EQ(tevu_bulk_setpath(bulk.get(), path.c_str()), 0);
  EXPECT_EQ(tevu_bulk_settag(bulk.get(), "1234567", "123"), 0);
  EXPECT_EQ(tevu_bulk_settag(bulk.get(), "12345678", "1"), -ENAMETOOLONG);
  EXPECT_EQ(tevu_bulk_settag(bulk.get(), "12345678", "12345"), -ENAMETOOLONG)
      << "the name is checked first";
  EXPECT_EQ(tevu_bulk_settag(bulk.get(), "v", "1234"), -EFBIG);
  EXPECT_EQ(tevu_bulk_settag(bulk.get(), "v", nullptr), 0);
  EXPECT_EQ(tevu_bulk_settag_recursive(bulk.get(), "12345678", "1"), -ENAMETOOLONG);
  EXPECT_EQ(tevu_bulk_settag_recursive(bulk.get(), "v", "1234"), -EFBIG);
  EXPECT_EQ(tevu_bulk_settag(bulk.get(), "", "1"), -1);
  EXPECT_EQ(tevu_bulk_settag_recursive(bulk.get(), "", "1"), EIO)
      << "an empty name passes on to the database";
  // Gettag and deltag know no limits.
  char buf[16];
  EXPECT_EQ(tevu_bulk_gettag(bulk.get(), "1234567", buf, sizeof buf), 0);
  EXPECT_STREQ(buf, "123");
  EXPECT_EQ(tevu_bulk_deltag(bulk.get(), "123456789"), 0);

  Sandbox::write_limits("TAG_NAME_MAX=100\n");  // not seen by this context
  EXPECT_EQ(tevu_bulk_settag(bulk.get(), "12345678", "1"), -ENAMETOOLONG);
  bulk.reset();

  // No value limit: every value is too long, a NULL value is not.
  bulk.reset(tevu_bulk_init());
  ASSERT_EQ(tevu_bulk_setpath(bulk.get(), path.c_str()), 0);
  EXPECT_EQ(tevu_bulk_settag(bulk.get(), "v", ""), -EFBIG);
  EXPECT_EQ(tevu_bulk_settag(bulk.get(), "v", nullptr), 0);
  bulk.reset();

  // No limits file: every name is too long. A negative limit accepts all.
  Sandbox::remove_limits();
  bulk.reset(tevu_bulk_init());
  ASSERT_EQ(tevu_bulk_setpath(bulk.get(), path.c_str()), 0);
  EXPECT_EQ(tevu_bulk_settag(bulk.get(), "v", "1"), -ENAMETOOLONG);
  bulk.reset();
  Sandbox::write_limits("TAG_NAME_MAX=-1\nTAG_VALUE_MAX=-1\n");
  bulk.reset(tevu_bulk_init());
  ASSERT_EQ(tevu_bulk_setpath(bulk.get(), path.c_str()), 0);
  EXPECT_EQ(tevu_bulk_settag(bulk.get(), std::string(50, 'n').c_str(),
                             std::string(100, 'v').c_str()),
            0);
}

TEST_F(BulkTest, VolumeRootTagsTheWholeVolume) {
  for (const char* p : {"/mnt/a", "/mnt/d/b", "/mnt/d/e/c"}) {
    Bulk bulk(tevu_bulk_init());
    ASSERT_EQ(tevu_bulk_setpath(bulk.get(), file(p).c_str()), 0);
    ASSERT_EQ(tevu_bulk_settag(bulk.get(), "t", "1"), 0);
  }
  Bulk bulk(tevu_bulk_init());
  ASSERT_EQ(tevu_bulk_setpath(bulk.get(), "/mnt"), 0);
  EXPECT_EQ(tevu_bulk_settag_recursive(bulk.get(), "all", "yes"), 0);
  // The root's own relative path is the empty string on a fresh context.
  EXPECT_EQ(tevu_bulk_settag(bulk.get(), "t", "2"), 1);
  bulk.reset();
  EXPECT_EQ(rows("mnt", "SELECT Path, Data FROM Meta ORDER BY Path"),
            (std::vector<std::vector<std::string>>{{"a", "t=1|all=yes"},
                                                   {"d/b", "t=1|all=yes"},
                                                   {"d/e/c", "t=1|all=yes"}}));
}

TEST_F(BulkTest, CommitAndRollbackWakeTheDaemonOnlyAfterChanges) {
  const std::string path = file("/mnt/f");
  Bulk bulk(tevu_bulk_init());
  ASSERT_EQ(tevu_bulk_setpath(bulk.get(), path.c_str()), 0);
  EXPECT_EQ(tevu_bulk_commit(bulk.get()), 0);
  EXPECT_EQ(sandbox_.drain_fifo(), 0);

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
  EXPECT_EQ(rows("mnt", "SELECT \".t\", Data FROM Meta"),
            (std::vector<std::vector<std::string>>{{"kept", "t=kept"}}));

  // A context that did nothing signals nothing.
  bulk.reset(tevu_bulk_init());
  bulk.reset();
  EXPECT_EQ(sandbox_.drain_fifo(), 0);
  tevu_bulk_fini(nullptr);
}

class BulkSwitchTest : public BulkTest {
 protected:
  std::vector<std::string> volumes() const override {
    return {"mnt", "srv", "opt"};
  }
};

// A switch to a volume that passes the pre-check but has no usable database
// commits the previous file and leaves the context without a database.
TEST_F(BulkSwitchTest, FailedSwitchLeavesNoDatabaseBehind) {
  const std::string good = file("/mnt/f");
  const std::string bad = file("/opt/x");
  ASSERT_EQ(unlink((Sandbox::meta_backing() + "/opt@@db").c_str()), 0);

  Bulk bulk(tevu_bulk_init());
  ASSERT_EQ(tevu_bulk_setpath(bulk.get(), good.c_str()), 0);
  ASSERT_EQ(tevu_bulk_settag(bulk.get(), "t", "1"), 0);
  EXPECT_EQ(tevu_bulk_setpath(bulk.get(), bad.c_str()), -1);
  EXPECT_EQ(sandbox_.drain_fifo(), 1) << "the previous file was committed";
  EXPECT_EQ(rows("mnt", "SELECT Data FROM Meta"),
            (std::vector<std::vector<std::string>>{{"t=1"}}));
  char buf[8];
  EXPECT_EQ(tevu_bulk_settag(bulk.get(), "t", "2"), -1);
  EXPECT_EQ(tevu_bulk_gettag(bulk.get(), "t", buf, sizeof buf), -1);
  EXPECT_EQ(tevu_bulk_commit(bulk.get()), -1);
  EXPECT_EQ(tevu_bulk_rollback(bulk.get()), -1);
  // The context recovers with the next good path.
  ASSERT_EQ(tevu_bulk_setpath(bulk.get(), good.c_str()), 0);
  EXPECT_EQ(tevu_bulk_gettag(bulk.get(), "t", buf, sizeof buf), 0);

  // A database link to a missing file: the open fails, nothing is open.
  ASSERT_EQ(symlink("/opt/missing.db", (Sandbox::meta_backing() + "/opt@@db").c_str()), 0);
  EXPECT_EQ(tevu_bulk_setpath(bulk.get(), bad.c_str()), -1);
  EXPECT_EQ(tevu_bulk_settag(bulk.get(), "t", "3"), -1);
}

TEST_F(BulkTest, WithoutTheFifoTaggingStillWorks) {
  ASSERT_EQ(unlink(Sandbox::fifo_path().c_str()), 0);
  const std::string path = file("/srv/f");
  Bulk bulk(tevu_bulk_init());
  ASSERT_NE(bulk, nullptr);
  ASSERT_EQ(tevu_bulk_setpath(bulk.get(), path.c_str()), 0);
  ASSERT_EQ(tevu_bulk_settag(bulk.get(), "t", "1"), 0);
  bulk.reset();
  EXPECT_EQ(rows("srv", "SELECT Data FROM Meta"),
            (std::vector<std::vector<std::string>>{{"t=1"}}));
}

TEST_F(BulkTest, WithoutTheTagFileSystemThereIsNoContext) {
  sandbox_.unmount_tag_fs();
  EXPECT_EQ(tevu_bulk_init(), nullptr);
}

// Another process takes the volume's database again and again while a bulk
// run proceeds: the run waits each time, and nothing is lost.
TEST_F(BulkTest, AnotherProcessHoldingTheDatabaseIsWaitedOut) {
  tevul_test::LockHolder other(Sandbox::db_path("mnt"));
  std::vector<std::string> paths;
  for (int i = 0; i < 150; ++i) paths.push_back(file("/mnt/f" + std::to_string(i)));

  const auto start = std::chrono::steady_clock::now();
  Bulk bulk(tevu_bulk_init());
  for (int i = 0; i < 150; ++i) {
    if (i % 50 == 25) {
      // The context keeps its transaction between files; commit so that
      // the other process can take the database now.
      ASSERT_EQ(tevu_bulk_commit(bulk.get()), 0);
      other.hold(300);
    }
    ASSERT_EQ(tevu_bulk_setpath(bulk.get(), paths[i].c_str()), 0);
    ASSERT_EQ(tevu_bulk_settag(bulk.get(), "n", std::to_string(i).c_str()), 0);
    if (i % 50 == 26) other.wait_committed();
  }
  bulk.reset();
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(600));
  EXPECT_EQ(sandbox_.drain_fifo(), 150);
  RawDb db(Sandbox::db_path("mnt"));
  EXPECT_EQ(db.value("SELECT count(*) FROM Meta WHERE Data='n='||substr(Path,2)"), "150");
  EXPECT_EQ(db.value("SELECT count(*) FROM Meta WHERE Path LIKE 'other-process-%'"), "3");
}

}  // namespace
