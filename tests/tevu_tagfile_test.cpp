// Single tags as files through the real FUSE mount.
#include <errno.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>
#include <string>

#include "test_support.h"
#include "tevul.h"

using tevul_test::Sandbox;

namespace {

class TagFiles : public tevul_test::SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    if (IsSkipped()) return;
    tevul_test::write_file("/mnt/photos/a.jpg", "jpeg");
    // What the daemon shows for a tagged file: a directory of tag files.
    ASSERT_TRUE(tevul_test::make_dirs(tag_dir()));
  }
  // Where the tag files of /mnt/photos/a.jpg land behind the mount.
  static std::string tag_dir() {
    return std::string(Sandbox::kBacking) + "/.tagfiles/mnt/photos/a.jpg";
  }
  static std::string backing(const std::string& tag) {
    const std::string file = tag_dir() + "/" + tag;
    return access(file.c_str(), F_OK) == 0 ? tevul_test::read_file(file) : "(none)";
  }
};

// Paths are made canonical first.
TEST_F(TagFiles, SetReadCutAndDelete) {
  ASSERT_EQ(symlink("/mnt/photos/a.jpg", "/mnt/alias"), 0);
  ASSERT_EQ(chdir("/mnt/photos"), 0);
  EXPECT_EQ(tevu_settag("/mnt/alias", "via", "link"), 0);
  EXPECT_EQ(tevu_settag("a.jpg", "rel", "ative"), 0);
  EXPECT_EQ(backing("via") + backing("rel"), "linkative");
  EXPECT_EQ(tevu_settag("/mnt/photos/missing.jpg", "t", "v"), ENOENT);
  EXPECT_EQ(tevu_settag("/mnt/photos/a.jpg", "rating", "0123456789"), 0);
  EXPECT_EQ(backing("rating"), "0123456789");
  char buf[32];
  EXPECT_EQ(tevu_gettag("/mnt/photos/a.jpg", "rating", buf, sizeof buf), 0);
  EXPECT_STREQ(buf, "0123456789");
  EXPECT_EQ(tevu_gettag("/mnt/photos/a.jpg", "rating", buf, 4), 0);
  EXPECT_STREQ(buf, "012");
  std::memset(buf, '#', sizeof buf);
  EXPECT_EQ(tevu_gettag("/mnt/photos/a.jpg", "rating", buf, 0), 0);
  EXPECT_EQ(buf[0], '#') << "size 0 reads nothing";

  EXPECT_EQ(tevu_settag("/mnt/photos/a.jpg", "empty", nullptr), 0);
  EXPECT_EQ(backing("empty"), "");
  EXPECT_EQ(tevu_settag("/mnt/photos/a.jpg", "", "v"), ENOENT);
  EXPECT_EQ(tevu_gettag("/mnt/photos/a.jpg", "empty", nullptr, 8), ENOENT);

  EXPECT_EQ(tevu_deltag("/mnt/photos/a.jpg", "rating"), 0);
  EXPECT_EQ(backing("rating"), "(none)");
  EXPECT_EQ(tevu_deltag("/mnt/photos/a.jpg", "rating"), ENOENT);
  EXPECT_EQ(tevu_gettag("/mnt/photos/a.jpg", "rating", buf, sizeof buf), ENOENT);
}

// A tag name that is a path, or the root directory as the file, would reach
// the daemon's own files behind the mount (a volume's database link, the
// limits file) or another file's tags: refused, and nothing changes.
TEST_F(TagFiles, NamesNeverLeaveTheTagDirectory) {
  ASSERT_EQ(tevu_settag("/mnt/photos/a.jpg", "keep", "1"), 0);
  const std::string before = tevul_test::tree_snapshot(Sandbox::kBacking) +
                             tevul_test::read_file(Sandbox::db_path("mnt"));
  char buf[16];
  EXPECT_EQ(tevu_settag("/", "mnt@@db", nullptr), EINVAL);
  EXPECT_EQ(tevu_settag("/", ".info/limits.txt", "TAG_NAME_MAX=999999\n"), EINVAL);
  EXPECT_EQ(tevu_settag("/mnt/photos/a.jpg", "../b.jpg/owned", "x"), EINVAL);
  EXPECT_EQ(tevu_settag("/mnt/photos/a.jpg", "..", "x"), EINVAL);
  EXPECT_EQ(tevu_settag("/mnt/photos/a.jpg", ".", "x"), EINVAL);
  EXPECT_EQ(tevu_gettag("/", "mnt@@db", buf, sizeof buf), EINVAL);
  EXPECT_EQ(tevu_deltag("/mnt/photos/a.jpg", "../../../../../.info/limits.txt"),
            EINVAL);
  EXPECT_EQ(tevu_deltag("/", "mnt"), EINVAL);
  EXPECT_EQ(tevu_deltag_glob("/", "*"), EINVAL);
  EXPECT_EQ(tevu_deltag_glob("/mnt/photos/a.jpg", "../*"), EINVAL);
  EXPECT_EQ(tevu_deltag_glob("/mnt/photos/a.jpg", ".."), EINVAL);
  EXPECT_EQ(tevul_test::tree_snapshot(Sandbox::kBacking) +
                tevul_test::read_file(Sandbox::db_path("mnt")),
            before);
}

// A link planted in the daemon's tree, as a file's tag directory or at a
// tag file's place, never leads a read, write or removal outside the mount.
TEST_F(TagFiles, PlantedLinksLeadNowhere) {
  ASSERT_TRUE(tevul_test::write_file("/tmp/victim/x", "secret"));
  ASSERT_TRUE(tevul_test::write_file("/mnt/g", "file"));
  ASSERT_EQ(symlink("/tmp/victim", (std::string(Sandbox::kBacking) + "/.tagfiles/mnt/g").c_str()),
            0);
  ASSERT_EQ(symlink("/tmp/victim/x", (tag_dir() + "/evil").c_str()), 0);
  const std::string before = tevul_test::tree_snapshot("/tmp/victim");
  char buf[16] = "";
  EXPECT_EQ(tevu_gettag("/mnt/g", "x", buf, sizeof buf), EINVAL);
  EXPECT_STREQ(buf, "");
  EXPECT_EQ(tevu_settag("/mnt/g", "x", "owned"), EINVAL);
  EXPECT_EQ(tevu_deltag("/mnt/g", "x"), EINVAL);
  EXPECT_EQ(tevu_deltag_glob("/mnt/g", "*"), EINVAL);
  EXPECT_EQ(tevu_settag("/mnt/photos/a.jpg", "evil", "owned"), ELOOP);
  EXPECT_EQ(tevu_gettag("/mnt/photos/a.jpg", "evil", buf, sizeof buf), ELOOP);
  EXPECT_EQ(tevul_test::tree_snapshot("/tmp/victim"), before);
}

// Wildcards in the file's own path match themselves: the glob over the tags
// of "[a].jpg" never reaches the tags of "a.jpg", nor that of "b?.jpg" the
// tags of "bc.jpg".
TEST_F(TagFiles, GlobPatternIsOnlyTheTagName) {
  tevul_test::write_file("/mnt/photos/[a].jpg", "jpeg");
  ASSERT_TRUE(tevul_test::make_dirs(std::string(Sandbox::kBacking) +
                                    "/.tagfiles/mnt/photos/[a].jpg"));
  ASSERT_EQ(tevu_settag("/mnt/photos/a.jpg", "rating", "v"), 0);
  ASSERT_EQ(tevu_settag("/mnt/photos/[a].jpg", "rating", "w"), 0);
  EXPECT_EQ(tevu_deltag_glob("/mnt/photos/[a].jpg", "*"), 0);
  EXPECT_EQ(backing("rating"), "v");
  for (const char* name : {"/mnt/photos/b?.jpg", "/mnt/photos/bc.jpg"}) {
    tevul_test::write_file(name, "jpeg");
    ASSERT_TRUE(tevul_test::make_dirs(std::string(Sandbox::kBacking) + "/.tagfiles" + name));
    ASSERT_EQ(tevu_settag(name, "rating", "x"), 0);
  }
  EXPECT_EQ(tevu_deltag_glob("/mnt/photos/b?.jpg", "*"), 0);
  char kept[8];
  EXPECT_EQ(tevu_gettag("/mnt/photos/bc.jpg", "rating", kept, sizeof kept), 0);
  const int rc = tevu_deltag_glob("/mnt/photos/a.jpg", "nothing*");
  EXPECT_NE(rc, 0);
  EXPECT_EQ(rc, errno) << "no match: errno as it stands, not glob's code";
  char buf[8];
  EXPECT_EQ(tevu_gettag("/mnt/photos/[a].jpg", "rating", buf, sizeof buf), ENOENT);
}

// Directories of the daemon's tree swapped for links to a victim directory,
// and back, as fast as the kernel allows (renameat2 RENAME_EXCHANGE), while
// the tag-file and view functions run: whenever the swap falls, between a
// check and a use or during a walk, nothing outside the mount is read,
// written or removed. The tag file system is listed at its backing
// directory here, so that every name is resolved by the kernel from the
// library's descriptors: a FUSE server that resolves names by path in a
// store of its own (mergerfs does) answers for races inside that store.
TEST_F(TagFiles, DirectoriesSwappedForLinksDuringACallLeadNowhere) {
  ASSERT_EQ(Sandbox::replace_mtab("tevu " + std::string(Sandbox::kBacking) +
                                  " fuse.tevu rw 0 0\n"),
            "");
  ASSERT_STREQ(tevu_mount_point(), Sandbox::kBacking);
  ASSERT_TRUE(tevul_test::write_file("/tmp/victim/rating", "secret"));
  ASSERT_TRUE(tevul_test::write_file("/tmp/victim/cond.ini", "secret"));
  ASSERT_TRUE(tevul_test::make_dirs("/tmp/victim/v/w"));
  const std::string config = std::string(Sandbox::kBacking) + "/view/.config";
  ASSERT_TRUE(tevul_test::make_dirs(config + "/v/w"));
  const std::string before = tevul_test::tree_snapshot("/tmp/victim");
  // Each swapped place gets a link beside it to trade places with.
  const std::vector<std::string> places = {tag_dir(), config + "/v"};
  for (const std::string& place : places) {
    ASSERT_EQ(symlink("/tmp/victim", (place + ".swap").c_str()), 0);
  }
  std::atomic<bool> stop{false};
  std::atomic<long> swaps{0};
  std::thread swapper([&] {
    while (!stop) {
      for (const std::string& place : places) {
        if (syscall(SYS_renameat2, AT_FDCWD, place.c_str(), AT_FDCWD, (place + ".swap").c_str(),
                    2 /* RENAME_EXCHANGE */) == 0) {
          ++swaps;
        }
      }
    }
  });
  const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(2);
  long calls = 0;
  while (std::chrono::steady_clock::now() < until) {
    char buf[16];
    tevu_settag("/mnt/photos/a.jpg", "rating", "owned");
    tevu_gettag("/mnt/photos/a.jpg", "rating", buf, sizeof buf);
    tevu_deltag("/mnt/photos/a.jpg", "rating");
    tevu_settag("/mnt/photos/a.jpg", "rating", "owned");
    tevu_deltag_glob("/mnt/photos/a.jpg", "*");
    tevu_view_set_cond("v", "owned");
    tevu_view_set_group("v/w", "owned");
    tevu_view_enable_events("v");
    tevu_view_delete("v/w");
    tevu_view_create("v/w");
    ++calls;
  }
  stop = true;
  swapper.join();
  // Both places back as they were, then nothing of the victim changed.
  for (const std::string& place : places) {
    struct stat st;
    if (lstat(place.c_str(), &st) == 0 && S_ISLNK(st.st_mode)) {
      syscall(SYS_renameat2, AT_FDCWD, place.c_str(), AT_FDCWD, (place + ".swap").c_str(), 2);
    }
  }
  EXPECT_GT(swaps.load(), 100);
  EXPECT_GT(calls, 10);
  EXPECT_EQ(tevul_test::tree_snapshot("/tmp/victim"), before)
      << calls << " rounds of calls, " << swaps.load() << " swaps";
}

}  // namespace
