// Delete, move and cleanup through the public functions, in the real
// setting: volumes, databases, FUSE mount and FIFO.
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <string>
#include <vector>

#include "test_support.h"
#include "tevul.h"

using tevul_test::Rows;
using tevul_test::Sandbox;

namespace {

class Maintenance : public tevul_test::SandboxTest {
 protected:
  // Creates and tags files (t = volume-relative path).
  void tag_files(const std::vector<std::string>& files) {
    for (const auto& f : files) tevul_test::tag_file(f, {{"t", f.substr(5)}});
    sandbox_.drain_fifo();
  }
  static Rows rows(const std::string& volume) {
    return tevul_test::rows(volume, "SELECT Path, \".t\", Data FROM Meta ORDER BY Path");
  }
};

// A volume root, with or without its slash, stands for the whole volume.
TEST_F(Maintenance, DeleteRemovesTheTreeAndWakesTheDaemon) {
  tag_files({"/mnt/a/1", "/mnt/a/2", "/mnt/ab", "/srv/a/1", "/srv/b"});
  EXPECT_EQ(tevu_delete("/mnt/a"), 0);
  EXPECT_EQ(sandbox_.drain_fifo(), 1);
  EXPECT_EQ(rows("mnt"), (Rows{{"ab", "ab", "t=ab"}}));
  EXPECT_EQ(tevu_delete("/tmp/elsewhere"), -1);
  EXPECT_EQ(sandbox_.drain_fifo(), 0);
  EXPECT_EQ(tevu_delete("/mnt"), 0);
  EXPECT_EQ(tevu_delete("/srv/"), 0);
  EXPECT_TRUE(rows("mnt").empty() && rows("srv").empty());
}

TEST_F(Maintenance, MoveWithinAVolumeRenamesAndOffTheVolumesDrops) {
  tag_files({"/mnt/old/1", "/mnt/old/sub/2", "/mnt/older", "/mnt/gone/1"});
  EXPECT_EQ(tevu_move("/mnt/old", "/mnt/new/place"), 0);
  EXPECT_EQ(sandbox_.drain_fifo(), 1);
  EXPECT_EQ(tevu_move("/mnt/gone", "/tmp/outside/gone"), 0);
  EXPECT_EQ(rows("mnt"), (Rows{{"new/place/1", "old/1", "t=old\\1"},
                               {"new/place/sub/2", "old/sub/2", "t=old\\sub\\2"},
                               {"older", "older", "t=older"}}));
  EXPECT_EQ(tevu_move("/tmp/x", "/mnt/y"), -1) << "no database for the source";
}

// Across volumes the rows are copied and, deliberately, stay at the source.
TEST_F(Maintenance, MoveAcrossVolumesCopiesAndKeepsTheSource) {
  tag_files({"/mnt/album/1", "/mnt/album/2"});
  const Rows source = rows("mnt");
  EXPECT_EQ(tevu_move("/mnt/album", "/srv/music/album"), 0);
  EXPECT_EQ(sandbox_.drain_fifo(), 1);
  EXPECT_EQ(rows("mnt"), source);
  EXPECT_EQ(rows("srv"), (Rows{{"music/album/1", "album/1", "NULL"},
                               {"music/album/2", "album/2", "NULL"}}));
}

// A volume root without its slash fails the same-volume test and opens the
// same database a second time, on the same thread: that must fail, not hang.
TEST_F(Maintenance, MoveOntoAVolumeRootWithoutSlashDoesNotHang) {
  tag_files({"/mnt/a/1"});
  const Rows before = rows("mnt");
  auto result = std::async(std::launch::async, [] { return tevu_move("/mnt/a", "/mnt"); });
  ASSERT_EQ(result.wait_for(std::chrono::seconds(30)), std::future_status::ready);
  EXPECT_NE(result.get(), 0);
  EXPECT_EQ(rows("mnt"), before);
}

// Folder names with pattern characters are common on removable media
// ("[2019] Trip", "What?"): each selects its own tree, never that of a
// near-namesake, in delete, move (within and across volumes) and recursive
// tagging.
TEST_F(Maintenance, PathsWithPatternCharactersAreLiteral) {
  tag_files({"/mnt/[2019] Trip/a.jpg", "/mnt/2 Trip/other.jpg", "/mnt/What?/x",
             "/mnt/Whats/up.jpg", "/mnt/[x]/1", "/mnt/x/2"});
  tevu_bulk_ctx* bulk = tevu_bulk_init();
  ASSERT_EQ(tevu_bulk_setpath(bulk, "/mnt/[x]"), 0);
  ASSERT_EQ(tevu_bulk_settag_recursive(bulk, "r", "1"), 0);
  tevu_bulk_fini(bulk);
  EXPECT_EQ(tevu_delete("/mnt/What?"), 0);
  EXPECT_EQ(tevu_move("/mnt/[2019] Trip", "/mnt/2019 Trip"), 0);
  EXPECT_EQ(tevu_move("/mnt/[x]", "/srv/[x]"), 0);

  EXPECT_EQ(tevul_test::rows("mnt", "SELECT Path, \".r\" FROM Meta ORDER BY Path"),
            (Rows{{"2 Trip/other.jpg", "NULL"}, {"2019 Trip/a.jpg", "NULL"},
                  {"Whats/up.jpg", "NULL"}, {"[x]/1", "1"}, {"x/2", "NULL"}}));
  EXPECT_EQ(tevul_test::rows("srv", "SELECT Path FROM Meta"), (Rows{{"[x]/1"}}));
}

// The checked move: every tag reaches the destination, merged into rows
// already there (one left by an interrupted move, one the user tagged), or
// the call says why.
TEST_F(Maintenance, CheckedMoveMergesAndSaysWhyNot) {
  tag_files({"/mnt/d/1", "/mnt/d/2", "/mnt/e", "/mnt/g", "/mnt/h"});
  tevul_test::tag_file("/srv/d/1", {{"t", "other"}, {"u", "kept"}});
  tevul_test::RawDb(Sandbox::db_path("srv")).exec("INSERT INTO Meta(Path, \".t\") VALUES ('d/2', 'x')");
  tevul_test::tag_file("/mnt/g", {{"x", "1"}});
  sandbox_.drain_fifo();
  EXPECT_EQ(tevu_move_checked("/mnt/d", "/srv//d/"), 0);
  EXPECT_EQ(sandbox_.drain_fifo(), 2) << "once per database changed";
  EXPECT_EQ(tevul_test::rows("srv", "SELECT Path, \".t\", \".u\", Data FROM Meta ORDER BY Path"),
            (Rows{{"d/1", "d/1", "kept", "t=d\\1|u=kept"}, {"d/2", "d/2", "NULL", "t=d\\2"}}));
  EXPECT_EQ(rows("mnt"), (Rows{{"e", "e", "t=e"}, {"g", "g", "t=g|x=1"}, {"h", "h", "t=h"}}));
  EXPECT_EQ(tevu_move_checked("/mnt/d", "/srv/d"), 0) << "again: nothing left to move";

  EXPECT_EQ(tevu_move_checked("/mnt/e", "/mnt/f"), 0);
  EXPECT_EQ(tevu_move_checked("/mnt/g", "/mnt/h"), 0) << "merged within the volume";
  EXPECT_EQ(tevul_test::rows("mnt", "SELECT Path, \".t\", \".x\", Data FROM Meta ORDER BY Path"),
            (Rows{{"f", "e", "NULL", "t=e"}, {"h", "g", "1", "t=g|x=1"}}));
  for (const auto& [src, dst] : std::vector<std::pair<const char*, const char*>>{
           {"/mnt/f", "/mnt/../srv/b"}, {"mnt/f", "/srv/f"}, {"/mnt/./f", "/srv/f"},
           {"/mnt", "/srv/m"}, {"/mnt/f", "/srv"}, {"/mnt/h", "/mnt/h/sub"}}) {
    EXPECT_EQ(tevu_move_checked(src, dst), EINVAL) << src << " " << dst;
  }
  EXPECT_EQ(tevu_move_checked("/tmp/x", "/mnt/x"), ENOENT);
  EXPECT_EQ(tevu_move_checked("/mnt/f", "/tmp/outside"), 0);
  EXPECT_EQ(rows("mnt"), (Rows{{"h", "g", "t=g|x=1"}}));
  // A file that is no database: EBADF, as the queries say it.
  ASSERT_TRUE(tevul_test::write_file(Sandbox::db_path("srv"), std::string(4096, 'g')));
  EXPECT_EQ(tevu_delete_checked("/srv/d"), EBADF);
  EXPECT_EQ(tevu_move_checked("/srv/d", "/srv/e"), EBADF);
}

// Leaves about `bytes` free on the tmpfs of `volume`.
void leave_free(const std::string& volume, long bytes) {
  struct statfs fs;
  ASSERT_EQ(statfs(volume.c_str(), &fs), 0);
  const long used = static_cast<long>((fs.f_blocks - fs.f_bfree) * fs.f_bsize);
  const std::string size = "size=" + std::to_string(used + bytes);
  ASSERT_EQ(mount("tmpfs", volume.c_str(), "tmpfs", MS_REMOUNT, size.c_str()), 0);
}

// A full destination refuses the copy's COMMIT, a full source the
// deletion's: either way the call says ENOSPC, every tag is still at the
// source, and once there is room again the same call finishes the move.
TEST_F(Maintenance, CheckedMoveOntoAFullDiskKeepsEveryTag) {
  std::vector<std::string> files;
  for (int i = 0; i < 300; ++i) files.push_back("/mnt/big/f" + std::to_string(i));
  for (const auto& f : files) tevul_test::tag_file(f, {{"t", std::string(150, 'v')}});
  const auto count = [](const char* volume) {
    return tevul_test::rows(volume, "SELECT count(*) FROM Meta WHERE \".t\" IS NOT NULL")[0][0];
  };
  leave_free("/srv", 32 * 1024);
  EXPECT_EQ(tevu_move_checked("/mnt/big", "/srv/big"), ENOSPC);
  EXPECT_EQ(count("mnt"), "300");
  leave_free("/srv", 4 << 20);
  leave_free("/mnt", 0);
  EXPECT_EQ(tevu_move_checked("/mnt/big", "/srv/big"), ENOSPC) << "the source is full";
  EXPECT_EQ(count("mnt"), "300");
  EXPECT_EQ(count("srv"), "300");
  leave_free("/mnt", 4 << 20);
  EXPECT_EQ(tevu_move_checked("/mnt/big", "/srv/big"), 0);
  EXPECT_EQ(count("mnt"), "0");
  EXPECT_EQ(count("srv"), "300");
}

int g_calls = 0;
int missing_file(const char* path, int) {
  ++g_calls;
  return access(path, F_OK) != 0;
}

TEST_F(Maintenance, CleanupDropsTheRowsOfVanishedFiles) {
  tag_files({"/mnt/a", "/mnt/d/b", "/mnt/d/c", "/mnt/e"});
  ASSERT_EQ(unlink("/mnt/d/b"), 0);
  ASSERT_EQ(unlink("/mnt/e"), 0);
  int cancel = 0;
  // Given a subdirectory, the filter still sees each file's real place.
  EXPECT_EQ(tevu_cleanup_attached("/mnt/d", &cancel, missing_file), 0);
  EXPECT_EQ(g_calls, 4);
  EXPECT_EQ(rows("mnt"), (Rows{{"a", "a", "t=a"}, {"d/c", "d/c", "t=d\\c"}}));
  EXPECT_EQ(sandbox_.drain_fifo(), 0) << "a cleanup does not wake the daemon";

  EXPECT_EQ(tevu_cleanup_attached("/mnt/missing", &cancel, missing_file), -1);
  EXPECT_EQ(tevu_cleanup_attached("/tmp", &cancel, missing_file), -1);
  EXPECT_EQ(tevu_cleanup("", "/mnt", &cancel, missing_file), -1);
  EXPECT_EQ(tevu_cleanup(Sandbox::db_path("mnt").c_str(), "", &cancel, missing_file), -1);
}

}  // namespace
