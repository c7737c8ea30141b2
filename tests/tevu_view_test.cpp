// View configuration files under the real mount, byte for byte.
#include <errno.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "test_support.h"
#include "tevul.h"

using tevul_test::Sandbox;

namespace {

class Views : public tevul_test::SandboxTest {
 protected:
  // The view's file as the daemon would read it, from behind the mount.
  static std::string dir(const std::string& view) {
    return std::string(Sandbox::kBacking) + "/view/.config/" + view;
  }
  static std::string config(const std::string& view, const std::string& file) {
    const std::string path = dir(view) + "/" + file;
    return access(path.c_str(), F_OK) == 0 ? tevul_test::read_file(path) : "(none)";
  }
  static bool exists(const std::string& view) { return access(dir(view).c_str(), F_OK) == 0; }
};

TEST_F(Views, ConfigurationFilesAreWrittenWholeAndDeleted) {
  EXPECT_EQ(tevu_view_set_cond("photos", "kind=photo & rating>3"), 0);
  EXPECT_EQ(tevu_view_set_cond("photos", " "), 0);
  EXPECT_EQ(config("photos", "cond.ini"), " ") << "replaced whole";
  EXPECT_EQ(tevu_view_set_group("nested/view", "album/year"), 0) << "slashes nest";
  EXPECT_EQ(config("nested/view", "group.ini"), "album/year");
  EXPECT_EQ(tevu_view_enable_events("photos"), 0);
  EXPECT_EQ(config("photos", "events.ini"), "1");
  EXPECT_EQ(tevu_view_disable_events("photos"), 0);
  EXPECT_EQ(config("photos", "events.ini"), "0");
  EXPECT_EQ(tevu_view_enable_events("never"), ENOENT) << "events need an existing view";
  EXPECT_FALSE(exists("never"));
  EXPECT_EQ(tevu_view_create("photos"), 0) << "an existing view is fine";
  EXPECT_EQ(tevu_view_delete("photos"), 0);
  EXPECT_FALSE(exists("photos"));
  EXPECT_EQ(tevu_view_delete("photos"), ENOENT);
  // A file where a view's directory must be: the directory cannot be made,
  // which the family says with fsutil_mkdir()'s -1.
  ASSERT_TRUE(tevul_test::write_file(dir("f"), "a file"));
  EXPECT_EQ(tevu_view_create("f/x"), -1);
  EXPECT_EQ(tevu_view_set_cond("f/x", "c"), -1);
  EXPECT_EQ(tevu_view_set_group("f/x", "g"), -1);
  EXPECT_EQ(tevul_test::read_file(dir("f")), "a file");
}

TEST_F(Views, PathOfTheViewsContents) {
  char buf[64];
  std::memset(buf, '#', sizeof buf);
  EXPECT_EQ(tevu_view_get_path("unknown", buf, sizeof buf), nullptr);
  EXPECT_EQ(buf[0], '#') << "untouched";
  ASSERT_EQ(tevu_view_create("music"), 0);
  EXPECT_EQ(tevu_view_get_path("music", buf, sizeof buf), buf);
  EXPECT_STREQ(buf, "/tmp/tevu/view/music");
  EXPECT_EQ(tevu_view_get_path("music", buf, 10), buf);
  EXPECT_STREQ(buf, "/tmp/tevu");
}

TEST_F(Views, BadArgumentsComeBeforeTheMount) {
  sandbox_.unmount_tag_fs();
  char buf[8];
  EXPECT_EQ(tevu_view_set_cond("v", ""), -1);
  EXPECT_EQ(tevu_view_create(""), -1);
  EXPECT_EQ(tevu_view_create("v"), ENOENT);
  EXPECT_EQ(tevu_view_set_cond("v", "c"), ENOENT);
  EXPECT_EQ(tevu_view_get_path("v", buf, sizeof buf), nullptr);
}

// A view name with a "." or ".." component would reach outside the views'
// configuration (the volume links, any directory of the device): refused
// by every view function, and nothing changes. "a/b" is a nested view.
TEST_F(Views, NamesNeverLeaveTheConfiguration) {
  ASSERT_TRUE(tevul_test::write_file("/tmp/victim/sub/f", "x"));
  ASSERT_EQ(tevu_view_set_cond("best", "rating=5"), 0);
  ASSERT_EQ(tevu_view_set_cond("a/b", "nested"), 0);
  auto state = [] {
    return tevul_test::tree_snapshot(Sandbox::kBacking) +
           tevul_test::tree_snapshot("/tmp/victim");
  };
  const std::string before = state();
  char buf[256];
  for (const char* name : {"..", ".", "../../../../../../tmp/victim", "../../meta",
                           "best/..", "a/./b", "a/../..", "/", "//", "a//b", "a/", "/a"}) {
    EXPECT_EQ(tevu_view_delete(name), -1) << name;
    EXPECT_EQ(tevu_view_create(name), -1) << name;
    EXPECT_EQ(tevu_view_set_cond(name, "x"), -1) << name;
    EXPECT_EQ(tevu_view_set_group(name, "x"), -1) << name;
    EXPECT_EQ(tevu_view_enable_events(name), -1) << name;
    EXPECT_EQ(tevu_view_get_path(name, buf, sizeof buf), nullptr) << name;
  }
  EXPECT_EQ(state(), before);
  EXPECT_NE(tevu_view_get_path("a/b", buf, sizeof buf), nullptr);
  EXPECT_EQ(tevu_view_delete("a/b"), 0);
}

// Links planted in the configuration tree lead nowhere: a view behind a
// link to outside is refused, a configuration file is never written through
// a link, and a link at a view's place is deleted as a link.
TEST_F(Views, PlantedLinksLeadNowhere) {
  ASSERT_TRUE(tevul_test::write_file("/tmp/victim/sub/f", "x"));
  ASSERT_TRUE(tevul_test::write_file("/tmp/victim/cond.ini", "mine"));
  ASSERT_EQ(tevu_view_create("best"), 0);
  ASSERT_EQ(symlink("/tmp/victim", dir("planted").c_str()), 0);
  ASSERT_EQ(symlink("/tmp/victim/cond.ini", (dir("best") + "/cond.ini").c_str()), 0);
  const std::string before = tevul_test::tree_snapshot("/tmp/victim");
  char buf[256];
  EXPECT_EQ(tevu_view_delete("planted/sub"), -1);
  EXPECT_EQ(tevu_view_set_cond("planted", "x"), -1);
  EXPECT_EQ(tevu_view_enable_events("planted"), -1);
  EXPECT_EQ(tevu_view_create("planted/new"), -1);
  EXPECT_EQ(tevu_view_get_path("planted", buf, sizeof buf), nullptr);
  EXPECT_EQ(tevu_view_set_cond("best", "x"), -1);
  EXPECT_EQ(tevul_test::tree_snapshot("/tmp/victim"), before);
  EXPECT_EQ(tevu_view_delete("planted"), 0);
  EXPECT_FALSE(exists("planted"));
  EXPECT_EQ(tevul_test::tree_snapshot("/tmp/victim"), before);
}

}  // namespace
