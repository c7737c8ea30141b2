// File tests and directories on real trees.
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <string>

#include "test_support.h"
#include "sandbox.h"
#include "tevul.h"

using tevul_test::TempDir;

namespace {

mode_t mode_of(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
}

class FsUtil : public ::testing::Test {
 protected:
  void SetUp() override { umask(022); }  // each test is a process of its own
  TempDir dir_;
};

TEST_F(FsUtil, MkdirCreatesParentsAndRaisesModeNumerically) {
  const std::string deep = dir_ / "a//b/c";
  EXPECT_EQ(fsutil_mkdir(deep.c_str(), 0700, 1), 0);
  EXPECT_EQ(mode_of(deep), 0700u);
  EXPECT_EQ(mode_of(dir_ / "a/b"), 0700u & ~022u) << "parents keep mkdir's mode";
  const std::string d = dir_ / "m";
  ASSERT_EQ(mkdir(d.c_str(), 0755), 0);
  EXPECT_EQ(fsutil_mkdir(d.c_str(), 0700, 0), 0);
  EXPECT_EQ(mode_of(d), 0755u) << "0700 is below 0755: left alone";
  ASSERT_EQ(chmod(d.c_str(), 0700), 0);
  EXPECT_EQ(fsutil_mkdir(d.c_str(), 0750, 0), 0);
  EXPECT_EQ(mode_of(d), 0750u);
  ASSERT_EQ(chmod(d.c_str(), 02700), 0);
  EXPECT_EQ(fsutil_mkdir(d.c_str(), 0777, 0), 0);
  EXPECT_EQ(mode_of(d), 02700u) << "02700 is above 0777 as a number";

  EXPECT_EQ(fsutil_mkdir((dir_ / "x/y").c_str(), 0755, 0), -1);
  EXPECT_EQ(fsutil_mkdir((dir_ / "t/").c_str(), 0755, 1), -1)
      << "the walk makes it, then mkdir of the same path fails";
  std::string path = dir_.path() + "/";
  path += std::string(4097 - path.size(), 'n');
  EXPECT_EQ(fsutil_mkdir(path.c_str(), 0755, 1), ENAMETOOLONG);
  EXPECT_EQ(fsutil_mkdir(path.c_str(), 0755, 0), -1) << "no length test without recursion";
  EXPECT_EQ(fsutil_mkdir_forfile("bare-name", 0755, 1), 1);
  EXPECT_EQ(fsutil_mkdir_forfile((dir_ / "p/q/file.txt").c_str(), 0755, 1), 0);
  EXPECT_EQ(fsutil_isdir((dir_ / "p/q").c_str()), 1);
  EXPECT_EQ(fsutil_mkdir_forfile("/file", 0755, 1), -1) << "the empty directory part";
}

// Links inside the tree are removed, never followed: what they point at
// survives.
TEST_F(FsUtil, RmdirRemovesTreesWithoutFollowingLinks) {
  TempDir outside;
  tevul_test::write_file(outside / "keep.txt", "precious");
  const std::string tree = dir_ / "tree";
  ASSERT_EQ(fsutil_mkdir((tree + "/a/b").c_str(), 0755, 1), 0);
  tevul_test::write_file(tree + "/a/b/f", "x");
  tevul_test::write_file(tree + "/top", "x");
  ASSERT_EQ(symlink(outside.path().c_str(), (tree + "/a/to-dir").c_str()), 0);
  ASSERT_EQ(symlink((outside / "keep.txt").c_str(), (tree + "/to-file").c_str()), 0);
  // The file tests follow links; an "active directory" is anything that exists.
  const std::string to_file = tree + "/to-file", to_dir = tree + "/a/to-dir";
  EXPECT_EQ(fsutil_isfile(to_file.c_str()) + fsutil_isdir(to_dir.c_str()), 2);
  EXPECT_EQ(fsutil_isfile(to_dir.c_str()) + fsutil_isdir(to_file.c_str()), 0);
  EXPECT_EQ(fsutil_isactivedir((tree + "/top").c_str()), 1);

  errno = 0;
  EXPECT_EQ(fsutil_rmdir(tree.c_str(), 0), -1);
  EXPECT_EQ(errno, ENOTEMPTY);
  EXPECT_EQ(fsutil_rmdir(tree.c_str(), 1), 0);
  EXPECT_EQ(fsutil_isactivedir(tree.c_str()), 0);
  EXPECT_EQ(fsutil_isfile((outside / "keep.txt").c_str()), 1);
  EXPECT_EQ(fsutil_rmdir((dir_ / "missing").c_str(), 1), ENOENT);
  EXPECT_EQ(fsutil_rmdir((dir_ / "missing").c_str(), 0), -1);
}

// A tree deeper than a path can name (3,000 levels, 6,000 bytes of path) is
// removed whole, on a router's 128 KiB thread stack, and a link to a
// directory whose name a cut path would have ended in stays untouched.
TEST_F(FsUtil, RmdirRemovesTreesDeeperThanAPath) {
  TempDir outside;
  tevul_test::write_file(outside / "keep.txt", "precious");
  const std::string tree = dir_ / "deep";
  ASSERT_EQ(mkdir(tree.c_str(), 0755), 0);
  int fd = open(tree.c_str(), O_RDONLY | O_DIRECTORY);
  for (int level = 0; level < 3000 && fd >= 0; ++level) {
    ASSERT_EQ(mkdirat(fd, "d", 0755), 0);
    if (level % 100 == 0) {
      ASSERT_EQ(symlinkat(outside.path().c_str(), fd, "l"), 0);
    }
    const int next = openat(fd, "d", O_RDONLY | O_DIRECTORY);
    close(fd);
    fd = next;
  }
  ASSERT_GE(fd, 0);
  close(fd);
  int rc = -2;
  tevul_test::on_small_stack([&] { rc = fsutil_rmdir(tree.c_str(), 1); });
  EXPECT_EQ(rc, 0);
  EXPECT_EQ(access(tree.c_str(), F_OK), -1);
  EXPECT_EQ(tevul_test::read_file(outside / "keep.txt"), "precious");
}

// A directory of the tree swapped for a link to a victim, and back, while
// the tree is removed: whenever the swap falls, the victim's files stay.
TEST_F(FsUtil, RmdirNeverFollowsADirectorySwappedForALink) {
  TempDir outside;
  tevul_test::write_file(outside / "keep.txt", "precious");
  const std::string tree = dir_ / "tree", place = tree + "/sub", link = dir_ / "link";
  std::atomic<bool> stop{false};
  std::thread swapper([&] {
    while (!stop) {
      syscall(SYS_renameat2, AT_FDCWD, place.c_str(), AT_FDCWD, link.c_str(), 2);
    }
  });
  for (int round = 0; round < 1000; ++round) {
    struct stat st;
    if (lstat(link.c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) {
      fsutil_rmdir(link.c_str(), 1);
      unlink(link.c_str());
      symlink(outside.path().c_str(), link.c_str());
    }
    fsutil_mkdir((place + "/deeper").c_str(), 0755, 1);
    tevul_test::write_file(place + "/deeper/f", "x");
    fsutil_rmdir(tree.c_str(), 1);
  }
  stop = true;
  swapper.join();
  EXPECT_EQ(tevul_test::read_file(outside / "keep.txt"), "precious");
}

// The daemon's stat templates set mode, owner and times, nothing else.
TEST(StatTemplates, FillOnlyTheirFields) {
  fsutil_setdeftime(1700000000);
  // The record with 64-bit offsets: glibc's struct stat64, musl's only one.
#if defined(__GLIBC__)
  struct stat64 st;
#else
  struct stat st;
#endif
  auto* record = reinterpret_cast<struct stat64*>(&st);
  std::memset(&st, 0x5a, sizeof st);
  const auto before = st;
  fsutil_stat_setdir(record, 0, 1);
  EXPECT_EQ(st.st_mode, 040775u);
  EXPECT_TRUE(st.st_nlink == before.st_nlink && st.st_size == before.st_size) << "the caller's";
  EXPECT_TRUE(st.st_uid == getuid() && st.st_mtime == 1700000000);
  fsutil_stat_setreg(record, 1, 0);
  EXPECT_TRUE(st.st_mode == 0100444u && st.st_nlink == 1u && st.st_size == 0 && st.st_uid == 0u);
  fsutil_stat_setsymlink(record, 0, 0);
  EXPECT_EQ(st.st_mode, 0120555u);
}

}  // namespace
