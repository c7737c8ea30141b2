// Bad things from outside: files that are not what they should be, links
// that point nowhere, a mount table that lies, a full disk. Each gives a
// clear result and changes nothing else.
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include "db_support.h"
#include "sandbox_test.h"
#include "tevul.h"

using tevul_test::Bulk;
using tevul_test::RawDb;
using tevul_test::Sandbox;
using tevul_test::make_dirs;
using tevul_test::write_file;

namespace {

bool exists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

class Faults : public tevul_test::SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    if (IsSkipped()) return;
    ASSERT_TRUE(write_file("/mnt/a.txt", "a"));
    ASSERT_TRUE(write_file("/srv/b.txt", "b"));
  }
  // Tags /srv/b.txt, the file on the healthy volume.
  static void tag_healthy_file(tevu_bulk_ctx* bulk) {
    ASSERT_EQ(tevu_bulk_setpath(bulk, "/srv/b.txt"), 0);
    ASSERT_EQ(tevu_bulk_settag(bulk, "k", "v"), 0);
  }
};

TEST_F(Faults, DatabaseFileThatIsNotADatabase) {
  const std::string garbage(3000, 'x');
  ASSERT_TRUE(write_file(Sandbox::db_path("mnt"), garbage));
  Bulk bulk(tevu_bulk_init());
  ASSERT_NE(bulk, nullptr);
  // The file opens (SQLite reads lazily); every statement then fails.
  ASSERT_EQ(tevu_bulk_setpath(bulk.get(), "/mnt/a.txt"), 0);
  EXPECT_NE(tevu_bulk_settag(bulk.get(), "k", "v"), 0);
  char buf[16];
  EXPECT_EQ(tevu_bulk_gettag(bulk.get(), "k", buf, sizeof buf), -1);
  EXPECT_EQ(tevu_bulk_deltag(bulk.get(), "k"), 0)
      << "a tag whose column cannot be seen counts as removed";
  // The other volume is not disturbed by the broken one.
  tag_healthy_file(bulk.get());
  bulk.reset();
  EXPECT_EQ(tevul_test::read_file(Sandbox::db_path("mnt")), garbage);

  EXPECT_EQ(tevu_delete("/mnt/a.txt"), -1);
  EXPECT_EQ(tevu_move("/mnt/a.txt", "/mnt/c.txt"), 1);
  int cancel = 0;
  EXPECT_EQ(tevu_cleanup_attached("/mnt", &cancel, nullptr), EIO);
  EXPECT_EQ(tevu_metadata_for_tagvalue("k", "v", buf, sizeof buf), 0)
      << "the lookup skips the broken volume and finds the healthy one";
  EXPECT_EQ(tevul_test::read_file(Sandbox::db_path("mnt")), garbage);
  EXPECT_EQ(RawDb(Sandbox::db_path("srv")).value("SELECT Data FROM Meta"), "k=v");
}

TEST_F(Faults, DatabaseLinkThatPointsNowhere) {
  const std::string link = Sandbox::meta_backing() + "/mnt@@db";
  ASSERT_EQ(unlink(link.c_str()), 0);
  ASSERT_EQ(symlink("/mnt/gone/.tags.db", link.c_str()), 0);
  Bulk bulk(tevu_bulk_init());
  ASSERT_NE(bulk, nullptr);
  EXPECT_EQ(tevu_bulk_setpath(bulk.get(), "/mnt/a.txt"), -1);
  EXPECT_EQ(tevu_bulk_settag(bulk.get(), "k", "v"), -1);
  tag_healthy_file(bulk.get());
  EXPECT_EQ(tevu_bulk_setpath(bulk.get(), "/mnt/a.txt"), -1)
      << "a failed switch away from a working volume";
  EXPECT_EQ(tevu_bulk_settag(bulk.get(), "k", "v"), -1);
  bulk.reset();
  EXPECT_EQ(tevu_delete("/mnt/a.txt"), -1);
  EXPECT_EQ(tevu_move("/srv/b.txt", "/mnt/b.txt"), 0)
      << "a destination without a database: the tags are dropped";
  int cancel = 0;
  EXPECT_EQ(tevu_cleanup_attached("/mnt", &cancel, nullptr), EIO);
  EXPECT_FALSE(exists("/mnt/gone")) << "nothing is created where the link points";
  EXPECT_EQ(RawDb(Sandbox::db_path("mnt")).value("SELECT count(*) FROM Meta"), "0");
}

// The daemon's small files are read only as regular files of at most
// 64 KiB: a FIFO in their place would block every call, a huge file would
// cost seconds per call. Anything else counts as no file, at once, and
// unknown limits refuse every name.
TEST_F(Faults, DaemonFilesThatAreNotSmallRegularFilesCountAsAbsent) {
  alarm(30);  // a blocked read ends the test instead of hanging it
  const std::string limits = Sandbox::meta_backing() + "/.info/limits.txt";
  const std::string head = "TAG_NAME_MAX=64\nTAG_VALUE_MAX=160\n#";
  ASSERT_TRUE(write_file(limits, head + std::string(64 * 1024 - head.size() - 1, 'p') + "\n"));
  EXPECT_EQ(tevu_getmaxnamelen(), 64) << "exactly 64 KiB is read";
  ASSERT_TRUE(write_file(limits, head + std::string(64 * 1024 - head.size(), 'p') + "\n"));
  EXPECT_EQ(tevu_getmaxnamelen(), 0) << "one byte more is not";
  for (const char* what : {"directory", "link loop", "FIFO"}) {
    SCOPED_TRACE(what);
    ASSERT_TRUE(unlink(limits.c_str()) == 0 || rmdir(limits.c_str()) == 0);
    ASSERT_EQ(what[0] == 'd'   ? mkdir(limits.c_str(), 0755)
              : what[0] == 'l' ? symlink("limits.txt", limits.c_str())
                               : mkfifo(limits.c_str(), 0644), 0);
    EXPECT_EQ(tevu_getmaxvaluelen(), 0);
    Bulk bulk(tevu_bulk_init());
    ASSERT_EQ(tevu_bulk_setpath(bulk.get(), "/mnt/a.txt"), 0);
    EXPECT_EQ(tevu_bulk_settag(bulk.get(), "k", "v"), -ENAMETOOLONG);
    EXPECT_EQ(tevu_bulk_settag_recursive(bulk.get(), "k", "v"), -ENAMETOOLONG);
  }
  EXPECT_EQ(RawDb(Sandbox::db_path("mnt")).value("SELECT count(*) FROM Meta"), "0");

  ASSERT_EQ(mkfifo("/tmp/.tevu/tevu.ini", 0644), 0);
  Bulk bulk(tevu_bulk_init());
  EXPECT_EQ(tevu_bulk_setpath(bulk.get(), "/tmp"), -1) << "on no volume";
  alarm(0);
}

TEST_F(Faults, MountTableEntryWhoseMountPointVanished) {
  // A static mount table that still lists the tag file system at a
  // directory that no longer exists.
  ASSERT_EQ(Sandbox::replace_mtab("tevu /tmp/vanished fuse.tevu rw 0 0\n"), "");
  EXPECT_EQ(tevu_getmaxnamelen(), 0);
  Bulk bulk(tevu_bulk_init());
  ASSERT_NE(bulk, nullptr) << "the mount point is known, though gone";
  EXPECT_EQ(tevu_bulk_setpath(bulk.get(), "/mnt/a.txt"), -1);
  bulk.reset();
  char buf[64];
  EXPECT_EQ(tevu_settag("/mnt/a.txt", "k", "v"), ENOENT);
  EXPECT_EQ(tevu_gettag("/mnt/a.txt", "k", buf, sizeof buf), ENOENT);
  EXPECT_EQ(tevu_deltag("/mnt/a.txt", "k"), ENOENT);
  EXPECT_EQ(tevu_metadata_for_tagvalue("k", "v", buf, sizeof buf), ENOENT);
  EXPECT_EQ(tevu_delete("/mnt/a.txt"), -1);
  EXPECT_EQ(tevu_move("/mnt/a.txt", "/mnt/b.txt"), -1);
  EXPECT_EQ(tevu_view_get_path("v", buf, sizeof buf), nullptr);
  EXPECT_FALSE(exists("/tmp/vanished"));
  EXPECT_EQ(RawDb(Sandbox::db_path("mnt")).value("SELECT count(*) FROM Meta"), "0");
}

// The volume is a small tmpfs that is full when a file is being tagged.
TEST_F(Faults, FullDiskDuringATransaction) {
  Sandbox::write_limits("TAG_NAME_MAX=64\nTAG_VALUE_MAX=1000000\n");
  ASSERT_EQ(mount("tmpfs", "/mnt", "tmpfs", MS_REMOUNT, "size=512k"), 0);
  Bulk bulk(tevu_bulk_init());
  ASSERT_NE(bulk, nullptr);
  ASSERT_EQ(tevu_bulk_setpath(bulk.get(), "/mnt/a.txt"), 0);
  ASSERT_EQ(tevu_bulk_settag(bulk.get(), "k", "committed"), 0);
  ASSERT_EQ(tevu_bulk_settag(bulk.get(), "big", ""), 0);
  ASSERT_EQ(tevu_bulk_commit(bulk.get()), 0);

  // Fill the volume up to its last block: less than any journal needs.
  struct statvfs vfs;
  ASSERT_EQ(statvfs("/mnt", &vfs), 0);
  const std::size_t free_bytes = vfs.f_bavail * vfs.f_frsize;
  ASSERT_GT(free_bytes, 8192u);
  ASSERT_TRUE(write_file("/mnt/filler", std::string(free_bytes - 4096, 'f')));
  const std::string before = RawDb(Sandbox::db_path("mnt")).snapshot();

  ASSERT_EQ(tevu_bulk_setpath(bulk.get(), "/mnt/a.txt"), 0);
  EXPECT_EQ(tevu_bulk_settag(bulk.get(), "big", std::string(200000, 'v').c_str()), 1)
      << "the failed statement is reported";
  EXPECT_EQ(tevu_bulk_rollback(bulk.get()), 0);
  bulk.reset();
  {
    RawDb db(Sandbox::db_path("mnt"));
    EXPECT_EQ(db.value("PRAGMA integrity_check"), "ok");
    EXPECT_EQ(db.snapshot(), before) << "nothing changed";
  }

  // With room again, the next run proceeds.
  ASSERT_EQ(unlink("/mnt/filler"), 0);
  Bulk again(tevu_bulk_init());
  ASSERT_EQ(tevu_bulk_setpath(again.get(), "/mnt/a.txt"), 0);
  EXPECT_EQ(tevu_bulk_settag(again.get(), "big", "small"), 0);
  again.reset();
  EXPECT_EQ(RawDb(Sandbox::db_path("mnt")).value("SELECT Data FROM Meta"),
            "k=committed|big=small");
}

// When the disk under a volume's database fills, statements may still pass
// while the COMMIT is refused: the daemon's interface reports success, the
// context reports the loss, and only the files before it are stored.
TEST_F(Faults, FullDiskAtCommitIsReportedByTheContext) {
  ASSERT_EQ(mount("tmpfs", "/mnt", "tmpfs", MS_REMOUNT, "size=256k"), 0);
  Bulk bulk(tevu_bulk_init());
  const std::string value(150, 'v');
  int lost = -1;
  for (int i = 0; i < 5000 && lost < 0; ++i) {
    const std::string file = "/mnt/f" + std::to_string(i);
    ASSERT_TRUE(write_file(file, ""));
    ASSERT_EQ(tevu_bulk_setpath(bulk.get(), file.c_str()), 0);
    if (tevu_bulk_settag(bulk.get(), "k", value.c_str()) != 0) break;
    ASSERT_EQ(tevu_bulk_commit(bulk.get()), 0) << "reported as success";
    if (tevu_bulk_error(bulk.get()) != 0) lost = i;
  }
  ASSERT_GT(lost, 0) << "the disk filled at a COMMIT";
  EXPECT_EQ(tevu_bulk_error(bulk.get()), ENOSPC);
  ASSERT_EQ(tevu_bulk_setpath(bulk.get(), "/mnt/f0"), 0);
  EXPECT_EQ(tevu_bulk_error(bulk.get()), ENOSPC) << "kept until fini";
  EXPECT_EQ(tevu_bulk_error(nullptr), -1);
  bulk.reset();
  RawDb db(Sandbox::db_path("mnt"));
  EXPECT_EQ(db.value("PRAGMA integrity_check"), "ok");
  EXPECT_EQ(db.value("SELECT count(*) FROM Meta"), std::to_string(lost));
}

}  // namespace
