// Bad things from outside: files that are not what they should be, links
// that point nowhere, a mount table that lies, a full disk. Each gives a
// clear result and changes nothing else.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <dirent.h>
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
  int writer = -1;  // a live writer on the FIFO, with a line waiting
  for (const char* what : {"directory", "link loop", "FIFO", "FIFO with a writer", "/dev/null"}) {
    SCOPED_TRACE(what);
    ASSERT_TRUE(unlink(limits.c_str()) == 0 || rmdir(limits.c_str()) == 0);
    const std::string kind = what;
    ASSERT_EQ(kind == "directory"   ? mkdir(limits.c_str(), 0755)
              : kind == "link loop" ? symlink("limits.txt", limits.c_str())
              : kind == "/dev/null" ? symlink("/dev/null", limits.c_str())
                                    : mkfifo(limits.c_str(), 0644), 0);
    if (kind == "FIFO with a writer") {
      writer = open(limits.c_str(), O_RDWR | O_NONBLOCK);
      ASSERT_GE(writer, 0);
      ASSERT_EQ(write(writer, head.data(), head.size()), static_cast<ssize_t>(head.size()));
    }
    EXPECT_EQ(tevu_getmaxvaluelen(), 0);
    Bulk bulk(tevu_bulk_init());
    ASSERT_EQ(tevu_bulk_setpath(bulk.get(), "/mnt/a.txt"), 0);
    EXPECT_EQ(tevu_bulk_settag(bulk.get(), "k", "v"), -ENAMETOOLONG);
    EXPECT_EQ(tevu_bulk_settag_recursive(bulk.get(), "k", "v"), -ENAMETOOLONG);
  }
  EXPECT_EQ(RawDb(Sandbox::db_path("mnt")).value("SELECT count(*) FROM Meta"), "0");
  close(writer);

  ASSERT_EQ(mkfifo("/tmp/.tevu/tevu.ini", 0644), 0);
  writer = open("/tmp/.tevu/tevu.ini", O_RDWR | O_NONBLOCK);
  ASSERT_EQ(write(writer, "[x]\n", 4), 4);
  Bulk bulk(tevu_bulk_init());
  EXPECT_EQ(tevu_bulk_setpath(bulk.get(), "/tmp"), -1) << "on no volume";
  close(writer);
  alarm(0);
}

// A volume's database link that leads to no regular file (the null device,
// a FIFO with a live writer) is never opened: no call blocks, none creates
// a database in its place, and every one says the volume has none.
TEST_F(Faults, DatabaseLinksToNoRegularFileAreNotOpened) {
  alarm(30);
  ASSERT_TRUE(write_file("/mnt/a.txt", "a"));
  const std::string link = Sandbox::meta_backing() + "/mnt@@db";
  ASSERT_EQ(mkfifo("/tmp/fifo.db", 0644), 0);
  const int writer = open("/tmp/fifo.db", O_RDWR | O_NONBLOCK);
  ASSERT_GE(writer, 0);
  ASSERT_EQ(write(writer, "SQLite format 3", 15), 15);
  for (const char* target : {"/dev/null", "/tmp/fifo.db"}) {
    SCOPED_TRACE(target);
    ASSERT_EQ(unlink(link.c_str()), 0);
    ASSERT_EQ(symlink(target, link.c_str()), 0);
    EXPECT_EQ(metadb_tagdb_open(target), nullptr);
    Bulk bulk(tevu_bulk_init());
    EXPECT_EQ(tevu_bulk_setpath(bulk.get(), "/mnt/a.txt"), -1);
    EXPECT_EQ(tevu_file_tags("/mnt/a.txt", [](void*, const char*, const char*) { return 0; },
                             nullptr),
              ENOENT);
    EXPECT_EQ(tevu_move_checked("/mnt/a.txt", "/srv/a.txt"), EIO) << "no database to write";
  }
  close(writer);
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

// The descriptors the process holds.
int open_descriptors() {
  int n = 0;
  DIR* dir = opendir("/proc/self/fd");
  while (dir != nullptr && readdir(dir) != nullptr) ++n;
  if (dir != nullptr) closedir(dir);
  return n;
}

// A hundred rounds of every object that holds a descriptor (bulk contexts
// with their database and FIFO, handles, readers, watchers, the FIFO of
// the daemon) and of every call that opens files of its own (queries,
// checked moves, tag files, views, the repair) leave the process holding
// what it held before: nothing is left open, also by a call that failed.
TEST_F(Faults, NothingIsLeftOpenAfterAHundredRounds) {
  ASSERT_TRUE(write_file("/mnt/a.txt", "a"));
  ASSERT_TRUE(tevul_test::make_dirs(std::string(Sandbox::kBacking) + "/.tagfiles/mnt/a.txt"));
  // Once, so that what the library keeps for the whole process (the mount
  // point, SQLite's own state) is there before counting.
  tevu_tagged_files(nullptr, [](void*, const char*, size_t, const char* const*,
                                const char* const*) { return 0; }, nullptr);
  const int before = open_descriptors();
  for (int round = 0; round < 100; ++round) {
    Bulk bulk(tevu_bulk_init());
    ASSERT_EQ(tevu_bulk_setpath(bulk.get(), "/mnt/a.txt"), 0);
    ASSERT_EQ(tevu_bulk_settag(bulk.get(), "k", std::to_string(round).c_str()), 0);
    EXPECT_EQ(tevu_bulk_setpath(bulk.get(), "/tmp"), -1) << "a failed switch";
    bulk.reset();
    metadb_tagdb* db = metadb_tagdb_open(Sandbox::db_path("srv").c_str());
    metadb_tagdb_close(db);
    tevu_reader* reader = tevu_reader_open();
    tevu_reader_file_tags(reader, "/mnt/a.txt", [](void*, const char*, const char*) { return 0; },
                          nullptr);
    tevu_reader_close(reader);
    tevu_watch* watch = tevu_watch_open(nullptr, 0, 1000, nullptr, nullptr);
    ASSERT_NE(watch, nullptr);
    tevu_watch_close(watch);
    event_trigger_fini(event_trigger_init(tevu_mount_point()));
    tevu_file_tags("/mnt/a.txt", [](void*, const char*, const char*) { return 0; }, nullptr);
    std::size_t at = 0;
    tevu_find_where("k or not k", nullptr, [](void*, const char*) { return 0; }, nullptr, &at);
    tevu_tag_names(nullptr, [](void*, const char*, unsigned long) { return 0; }, nullptr);
    EXPECT_EQ(tevu_move_checked("/mnt/a.txt", "/mnt/a.txt"), 0);
    EXPECT_EQ(tevu_move_checked("/mnt/missing", "/srv/missing"), 0);
    char buf[16];
    tevu_settag("/mnt/a.txt", "t", "v");
    tevu_gettag("/mnt/a.txt", "t", buf, sizeof buf);
    tevu_deltag_glob("/mnt/a.txt", "*");
    tevu_view_set_cond("v/w", "k");
    tevu_view_delete("v");
    tevu_repair("/mnt", 1, nullptr, nullptr, nullptr);
  }
  EXPECT_EQ(open_descriptors(), before);
}

}  // namespace
