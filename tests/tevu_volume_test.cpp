// Mount and volume discovery: the mount table, the limits file, the runtime
// file and the volume links, with the cases a careless parser gets wrong.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "test_support.h"
#include "tevu_volume.h"

using tevul_test::Sandbox;

namespace {

// A sandbox without the tag file system: the test mounts what it needs.
class MountTable : public tevul_test::SandboxTest {
  std::vector<std::string> volumes() const override { return {"mnt"}; }
  bool mounts_tag_fs() const override { return false; }
};

// The first entry whose type and source begin with "fuse" and "tevu" wins,
// for the life of the process; a failed lookup is not kept.
TEST_F(MountTable, TheFirstFuseTevuEntryWinsForTheLifeOfTheProcess) {
  EXPECT_EQ(tevu_find_mount(), nullptr);
  ASSERT_EQ(mount("tevu", "/tmp/tevu", "tmpfs", 0, nullptr), 0) << "source tevu, type tmpfs";
  ASSERT_EQ(sandbox_.mount_fuse(Sandbox::kBacking, "/tmp/short", "tev"), "");
  EXPECT_EQ(tevu_find_mount(), nullptr) << "a failed lookup is not cached";
  ASSERT_EQ(sandbox_.mount_fuse(Sandbox::kBacking, "/tmp/longer", "tevu0"), "");
  ASSERT_EQ(sandbox_.mount_fuse(Sandbox::kBacking, "/tmp/second", "tevu"), "");
  ASSERT_NE(tevu_find_mount(), nullptr);
  EXPECT_STREQ(tevu_find_mount(), "/tmp/longer");
  ASSERT_EQ(umount2("/tmp/longer", MNT_DETACH), 0);
  EXPECT_STREQ(tevu_find_mount(), "/tmp/longer");
}

using LimitsFile = tevul_test::SandboxTest;

TEST_F(LimitsFile, FollowsTheScanRules) {
  const std::vector<std::pair<std::string, std::pair<int, int>>> cases = {
      {"TAG_NAME_MAX=255\nTAG_VALUE_MAX=1024\n", {255, 1024}},
      {"TAG_VALUE_MAX=7\nTAG_NAME_MAX=9", {9, 7}},  // no final line feed
      {"TAG_NAME_MAX=12\r\nTAG_VALUE_MAX=3\r\n", {0, 0}},
      {"TAG_NAME_MAX = 255\n", {0, 0}},  // the blank belongs to the key
      {"TAG_NAME_MAX=\nTAG_VALUE_MAX=9\n", {0, 0}},  // empty value ends the scan
      {"TAG_NAME_MAX=abc\nTAG_NAME_MAX=255\n", {0, 0}},  // the first one decides
      {"OTHER=1\n\n\n   \tTAG_NAME_MAX=7\n", {7, 0}},   // blanks before a key
      {"a line without equals\nTAG_NAME_MAX=5\n", {0, 0}},  // key spans lines
      {"TAG_NAME_MAX=99999999999\n", {INT32_MAX, 0}},
  };
  for (const auto& [text, want] : cases) {
    SCOPED_TRACE(text);
    Sandbox::write_limits(text);
    EXPECT_EQ(tevu_getmaxnamelen(), want.first);
    EXPECT_EQ(tevu_getmaxvaluelen(), want.second);
  }
  Sandbox::remove_limits();
  EXPECT_EQ(tevu_getmaxnamelen(), 0);
}

class VolumeLinks : public tevul_test::SandboxTest {
 protected:
  static void link(const std::string& name, const std::string& target) {
    ASSERT_EQ(symlink(target.c_str(), (Sandbox::meta_backing() + "/" + name).c_str()), 0);
  }
  static std::string locate(const std::string& path, int want) {
    tevu_volume vol{};
    EXPECT_EQ(tevu_locate_volume(&vol, path.c_str()), want) << path;
    return std::string(vol.prefix) + " " + std::to_string(vol.prefix_len) +
           " " + vol.db_path;
  }
};

TEST_F(VolumeLinks, ALinkMatchesItsWholeFirstComponent) {
  link("usb", "../x");
  link("usb@@db", "/db/usb");
  link("usb1", "../y");
  link("usb1@@db", "/db/usb1");
  EXPECT_EQ(locate("/usb1/x", 1), "/usb1/ 6 /db/usb1");
  EXPECT_EQ(locate("/usb", 1), "/usb/ 5 /db/usb");
  EXPECT_EQ(locate("/usb/a/b", 1), "/usb/ 5 /db/usb");
  EXPECT_EQ(locate("/mnt/f", 1), "/mnt/ 5 /mnt/.tags.db");
  EXPECT_EQ(locate("/usb10/a", 0), " 0 ");
  EXPECT_EQ(locate("usb/a", 0), " 0 ") << "relative";
  EXPECT_EQ(locate("", 0), " 0 ");
}

TEST_F(VolumeLinks, TheRuntimeFileDecidesWhenNoLinkDoes) {
  ASSERT_TRUE(tevul_test::make_dirs(Sandbox::meta_backing() + "/data"))
      << "a directory, not a link, is ignored";
  link("data@@db", "/db/data");
  EXPECT_EQ(locate("/data/a", 0), " 0 ") << "no runtime file";

  Sandbox::write_ini("x:/data:y\n");
  EXPECT_EQ(locate("/data/a", 1), "/data/ 6 /db/data");
  EXPECT_EQ(locate("/data", 1), "/data/ 6 /db/data");
  EXPECT_EQ(locate("/database/a", 0), " 0 ");
  EXPECT_EQ(locate("/datx/a", 0), " 0 ") << "every byte of the root after the first counts";
  // The first bytes are not compared; the database link is then
  // <meta directory> followed directly by the root.
  Sandbox::write_ini("x:Xdata:y\n");
  ASSERT_EQ(symlink("/db/x", (std::string(Sandbox::kBacking) + "/metaXdata@@db").c_str()), 0);
  EXPECT_EQ(locate("/data/a", 1), "Xdata/ 6 /db/x");
  Sandbox::write_ini("only-the-first-field\n");
  EXPECT_EQ(locate("/data/a", 0), " 0 ");
  Sandbox::write_ini("");
  EXPECT_EQ(locate("/data/a", 0), " 0 ");
}

TEST_F(VolumeLinks, AMissingDatabaseLinkFallsBackButKeepsThePrefix) {
  link("lost", "../lost");
  EXPECT_EQ(locate("/lost/f", 0), "/lost/ 6 ");
}

}  // namespace
