// Bad things from outside: files that are not what they should be, links
// that point nowhere, a mount table that lies, a full disk. Each gives a
// clear result and changes nothing else.
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "test_support.h"
#include "tevul.h"

using tevul_test::Bulk;
using tevul_test::RawDb;
using tevul_test::Sandbox;
using tevul_test::write_file;

namespace {

bool exists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

using Faults = tevul_test::SandboxTest;

TEST_F(Faults, DatabaseFileThatIsNotADatabase) {
  ASSERT_TRUE(write_file("/mnt/a.txt", "a") && write_file("/srv/b.txt", "b"));
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
  ASSERT_EQ(tevu_bulk_setpath(bulk.get(), "/srv/b.txt"), 0);
  ASSERT_EQ(tevu_bulk_settag(bulk.get(), "k", "v"), 0);
  bulk.reset();

  EXPECT_EQ(tevu_delete("/mnt/a.txt"), -1);
  EXPECT_EQ(tevu_move("/mnt/a.txt", "/mnt/c.txt"), 1);
  int cancel = 0;
  EXPECT_EQ(tevu_cleanup_attached("/mnt", &cancel, nullptr), EIO);
  EXPECT_EQ(tevu_metadata_for_tagvalue("k", "v", buf, sizeof buf), 0)
      << "the lookup skips the broken volume and finds the healthy one";
  EXPECT_EQ(tevul_test::read_file(Sandbox::db_path("mnt")), garbage);
  EXPECT_EQ(RawDb(Sandbox::db_path("srv")).value("SELECT Data FROM Meta"), "k=v");
}

// The daemon's small files are read only as regular files of at most
// 64 KiB: a FIFO in their place would block every call, a huge file would
// cost seconds per call. Anything else counts as no file, at once, and
// unknown limits refuse every name.
TEST_F(Faults, DaemonFilesThatAreNotSmallRegularFilesCountAsAbsent) {
  alarm(30);  // a blocked read ends the test instead of hanging it
  ASSERT_TRUE(write_file("/mnt/a.txt", "a"));
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
  ASSERT_TRUE(write_file("/mnt/a.txt", "a"));
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

}  // namespace
