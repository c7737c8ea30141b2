// The watcher and the repair in the real setting: tmpfs volumes, their tag
// databases, the FUSE mount, real inotify, and files moved by rename(2) and
// by coreutils `mv` as a user's shell would.
#include <errno.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "test_support.h"
#include "tevul.h"

using tevul_test::Rows;
using tevul_test::Sandbox;

namespace {

using Clock = std::chrono::steady_clock;

Rows paths(const std::string& volume) {
  return tevul_test::rows(volume, "SELECT Path FROM Meta ORDER BY Path");
}

Rows tags_of(const std::string& volume, const std::string& path,
             const std::vector<std::string>& names) {
  std::string sql = "SELECT ";
  for (std::size_t i = 0; i < names.size(); ++i) {
    sql += (i ? ", \"." : "\".") + names[i] + "\"";
  }
  return tevul_test::rows(volume, sql + " FROM Meta WHERE Path='" + path + "'");
}

int run(const std::string& command) { return std::system(command.c_str()); }

class Watch : public tevul_test::SandboxTest {
 protected:
  void TearDown() override { tevu_watch_close(watch_); }

  // Starts the watcher and runs its first call (the start's repair).
  void start(const std::vector<std::string>& dirs = {}, unsigned grace_ms = 1000) {
    std::vector<const char*> list;
    for (const auto& d : dirs) list.push_back(d.c_str());
    watch_ = tevu_watch_open(list.data(), list.size(), grace_ms, record, this);
    ASSERT_NE(watch_, nullptr) << strerror(errno);
    pump_for(0);
    // The volumes taken up are no news.
    const std::string added = std::to_string(TEVU_WATCH_VOLUME_ADDED) + " ";
    events_.erase(std::remove_if(events_.begin(), events_.end(),
                                 [&](const std::string& e) { return e.rfind(added, 0) == 0; }),
                  events_.end());
  }

  // Runs the caller's loop as an application would: poll() on the
  // descriptor with the timeout the watcher asks for, then process.
  bool pump_until(const std::function<bool()>& done, int ms = 3000) {
    const auto end = Clock::now() + std::chrono::milliseconds(ms);
    int timeout = 0;
    for (;;) {
      tevu_watch_process(watch_, &timeout);
      if (done()) return true;
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
      if (left.count() <= 0) return false;
      pollfd p = {tevu_watch_fd(watch_), POLLIN, 0};
      const int wait = timeout < 0 ? static_cast<int>(left.count())
                                   : std::min<int>(timeout, static_cast<int>(left.count()));
      poll(&p, 1, std::max(wait, 1));
    }
  }
  void pump_for(int ms) {
    pump_until([] { return false; }, ms);
  }
  bool rows_become(const std::string& volume, const Rows& expected, int ms = 3000) {
    return pump_until([&] { return paths(volume) == expected; }, ms);
  }

  static void record(void* user, int event, const char* from, const char* to, int error,
                     unsigned long count) {
    auto* self = static_cast<Watch*>(user);
    std::string line = std::to_string(event) + " " + (from ? from : "-") + " " + (to ? to : "-") +
                       " " + std::to_string(error) + " " + std::to_string(count);
    self->events_.push_back(line);
  }
  bool saw(int event, const std::string& from) const {
    const std::string head = std::to_string(event) + " " + from + " ";
    for (const auto& e : events_) {
      if (e.rfind(head, 0) == 0) return true;
    }
    return false;
  }
  std::string events() const {
    std::string all;
    for (const auto& e : events_) all += e + "\n";
    return all;
  }

  tevu_watch* watch_ = nullptr;
  std::vector<std::string> events_;
};

// Renames at any depth, trees moved with mv, a directory renamed after its
// parent moved (the watcher's own map of paths must follow), and a file
// moved into directories made after the start and used at once.
TEST_F(Watch, RenamesAndMovesWithinAVolumeAreFollowed) {
  for (const char* f : {"/mnt/a.jpg", "/mnt/p/b.jpg", "/mnt/p/q/c.jpg"}) {
    tevul_test::tag_file(f, {{"kind", "photo"}});
  }
  ASSERT_TRUE(tevul_test::make_dirs("/mnt/archive"));
  start();
  ASSERT_EQ(rename("/mnt/a.jpg", "/mnt/a2.jpg"), 0);
  const auto renamed = Clock::now();
  ASSERT_TRUE(rows_become("mnt", {{"a2.jpg"}, {"p/b.jpg"}, {"p/q/c.jpg"}})) << events();
  EXPECT_LT(Clock::now() - renamed, std::chrono::seconds(1));
  EXPECT_EQ(tags_of("mnt", "a2.jpg", {"kind"}), (Rows{{"photo"}}));

  ASSERT_EQ(run("mv /mnt/p /mnt/archive/p"), 0);
  ASSERT_TRUE(rows_become("mnt", {{"a2.jpg"}, {"archive/p/b.jpg"}, {"archive/p/q/c.jpg"}}))
      << events();
  ASSERT_EQ(rename("/mnt/archive/p/q", "/mnt/archive/p/r"), 0);
  ASSERT_TRUE(rows_become("mnt", {{"a2.jpg"}, {"archive/p/b.jpg"}, {"archive/p/r/c.jpg"}}))
      << events();

  ASSERT_EQ(run("mkdir -p /mnt/new/deep/er && mv /mnt/a2.jpg /mnt/new/deep/er/ && "
                "mv /mnt/archive/p/r/c.jpg /mnt/new/deep/"),
            0);
  ASSERT_TRUE(rows_become("mnt", {{"archive/p/b.jpg"}, {"new/deep/c.jpg"}, {"new/deep/er/a2.jpg"}}))
      << events();
  EXPECT_EQ(tags_of("mnt", "new/deep/c.jpg", {"kind"}), (Rows{{"photo"}}));
  EXPECT_TRUE(saw(TEVU_WATCH_MOVED, "/mnt/a.jpg")) << events();
}

// mv across file systems copies and then unlinks: the tags go to the copy.
TEST_F(Watch, AMoveOntoAnotherVolumeTakesTheTagsToTheCopy) {
  tevul_test::tag_file("/mnt/p/a.jpg", {{"kind", "photo"}, {"year", "2019"}});
  tevul_test::tag_file("/mnt/p/b.jpg", {{"kind", "scan"}});
  ASSERT_TRUE(tevul_test::write_file("/mnt/p/untagged.txt", "abc"));
  tevul_test::tag_file("/mnt/solo.jpg", {{"kind", "photo"}});
  tevul_test::tag_file("/mnt/other.jpg", {{"kind", "photo"}});
  start({}, 60000);  // a grace period the test never reaches
  ASSERT_EQ(run("mv /mnt/p /srv/p && mv /mnt/solo.jpg /srv/"), 0);
  // A file of the same name but another size is no copy of it.
  ASSERT_TRUE(tevul_test::write_file("/srv/elsewhere/other.jpg", "not the same bytes"));
  ASSERT_EQ(unlink("/mnt/other.jpg"), 0);
  ASSERT_TRUE(rows_become("srv", {{"p/a.jpg"}, {"p/b.jpg"}, {"solo.jpg"}})) << events();
  pump_for(200);
  EXPECT_EQ(paths("mnt"), (Rows{{"other.jpg"}})) << "waiting for its grace period";
  EXPECT_EQ(paths("srv"), (Rows{{"p/a.jpg"}, {"p/b.jpg"}, {"solo.jpg"}}));
  EXPECT_EQ(tags_of("srv", "p/a.jpg", {"kind", "year"}), (Rows{{"photo", "2019"}}));
  EXPECT_EQ(tags_of("srv", "p/b.jpg", {"kind"}), (Rows{{"scan"}}));
}

// Editors save by writing a temporary file and renaming it over the
// original: the original keeps its tags, and a tagged temporary file's
// tags merge in.
TEST_F(Watch, ARenameOverATaggedFileKeepsItsTags) {
  tevul_test::tag_file("/mnt/doc.txt", {{"kind", "doc"}});
  start({}, 300);
  ASSERT_TRUE(tevul_test::write_file("/mnt/.doc.txt.swp", "new text"));
  ASSERT_EQ(rename("/mnt/.doc.txt.swp", "/mnt/doc.txt"), 0);
  pump_for(800);
  EXPECT_EQ(paths("mnt"), (Rows{{"doc.txt"}}));
  EXPECT_EQ(tags_of("mnt", "doc.txt", {"kind"}), (Rows{{"doc"}}));

  tevul_test::tag_file("/mnt/draft.tmp", {{"state", "draft"}});
  ASSERT_EQ(rename("/mnt/draft.tmp", "/mnt/doc.txt"), 0);
  ASSERT_TRUE(rows_become("mnt", {{"doc.txt"}})) << events();
  EXPECT_EQ(tags_of("mnt", "doc.txt", {"kind", "state"}), (Rows{{"doc", "draft"}}));
}

// A deleted path keeps its tags through the grace period: a program that
// unlinks and re-creates a file keeps them; a tree removed for good loses
// them once the period is over, not before.
TEST_F(Watch, DeletionsWaitForTheGracePeriod) {
  tevul_test::tag_file("/mnt/keep.txt", {{"kind", "doc"}});
  tevul_test::tag_file("/mnt/gone/x.txt", {{"kind", "doc"}});
  tevul_test::tag_file("/mnt/gone/y/z.txt", {{"kind", "doc"}});
  // A grace period far longer than the test's own steps, so that a slow
  // machine cannot end it before the first check.
  start({}, 3000);
  ASSERT_EQ(unlink("/mnt/keep.txt"), 0);
  ASSERT_EQ(run("rm -r /mnt/gone"), 0);
  pump_for(200);
  ASSERT_TRUE(tevul_test::write_file("/mnt/keep.txt", "again"));
  pump_for(500);
  EXPECT_EQ(paths("mnt"), (Rows{{"gone/x.txt"}, {"gone/y/z.txt"}, {"keep.txt"}}))
      << "nothing dropped within the grace period";
  ASSERT_TRUE(rows_become("mnt", {{"keep.txt"}}, 8000)) << events();
  EXPECT_TRUE(saw(TEVU_WATCH_DELETED, "/mnt/gone")) << events();
  pump_for(3200);
  EXPECT_EQ(paths("mnt"), (Rows{{"keep.txt"}}));
}

// Files without rows cost no write of the tag database, and the
// database's own files (its journal, the fingerprints) are never taken
// for a user's files, also while tags are written beside the watcher.
TEST_F(Watch, UntaggedFilesAndTheDatabasesOwnFilesCostNoWrite) {
  tevul_test::tag_file("/mnt/tagged", {{"kind", "doc"}});
  start({}, 200);
  struct stat before;
  ASSERT_EQ(stat(Sandbox::db_path("mnt").c_str(), &before), 0);
  const std::string content = tevul_test::read_file(Sandbox::db_path("mnt"));
  ASSERT_EQ(run("mkdir -p /mnt/d && for i in 1 2 3 4 5; do echo $i > /mnt/d/f$i; "
                "mv /mnt/d/f$i /mnt/d/g$i; done; rm -r /mnt/d"),
            0);
  pump_for(700);
  struct stat after;
  ASSERT_EQ(stat(Sandbox::db_path("mnt").c_str(), &after), 0);
  EXPECT_EQ(tevul_test::read_file(Sandbox::db_path("mnt")), content);
  EXPECT_EQ(after.st_mtim.tv_nsec, before.st_mtim.tv_nsec);
  EXPECT_TRUE(events_.empty()) << events();

  for (int i = 0; i < 5; ++i) {
    tevul_test::tag_file("/mnt/more" + std::to_string(i), {{"kind", "doc"}});
    pump_for(50);
  }
  pump_for(1500);
  EXPECT_EQ(paths("mnt").size(), 6u);
  EXPECT_TRUE(events_.empty()) << events();
}

// A disk plugged in while watching (its links appear and it is mounted) is
// taken up; pulled, it is released and nothing of it counts as deleted.
TEST_F(Watch, VolumesComeAndGoWithoutARestart) {
  start({}, 300);
  const std::string db = "/tmp/opt.tags.db";
  ASSERT_EQ(tevul_test::create_tag_db(db), "");
  const std::string meta = Sandbox::meta_backing();
  ASSERT_EQ(symlink("../.tagfiles/opt", (meta + "/opt").c_str()), 0);
  ASSERT_EQ(symlink(db.c_str(), (meta + "/opt@@db").c_str()), 0);
  ASSERT_EQ(mount("tevul-usb", "/opt", "tmpfs", 0, "size=4m"), 0) << strerror(errno);
  ASSERT_TRUE(pump_until([&] { return saw(TEVU_WATCH_VOLUME_ADDED, "/opt"); })) << events();
  unsigned long dirs = 0, volumes = 0;
  tevu_watch_counts(watch_, &dirs, &volumes, nullptr);
  EXPECT_EQ(volumes, 3u);

  tevul_test::tag_file("/opt/song.mp3", {{"kind", "song"}});
  ASSERT_EQ(rename("/opt/song.mp3", "/opt/tune.mp3"), 0);
  ASSERT_TRUE(pump_until([&] {
    return tevul_test::RawDb(db).rows("SELECT Path FROM Meta") == Rows{{"tune.mp3"}};
  })) << events();

  ASSERT_EQ(umount2("/opt", MNT_DETACH), 0);
  ASSERT_TRUE(pump_until([&] { return saw(TEVU_WATCH_VOLUME_REMOVED, "/opt"); })) << events();
  pump_for(800);
  EXPECT_EQ(tevul_test::RawDb(db).rows("SELECT Path FROM Meta"), (Rows{{"tune.mp3"}}));
  EXPECT_FALSE(saw(TEVU_WATCH_DELETED, "/opt/tune.mp3")) << events();
}

// Only the directories given are watched, and a directory on no tagged
// volume is refused.
TEST_F(Watch, OnlyTheGivenDirectoriesAreWatched) {
  tevul_test::tag_file("/mnt/in/a", {{"kind", "doc"}});
  tevul_test::tag_file("/mnt/out/b", {{"kind", "doc"}});
  const char* outside[] = {"/tmp"};
  EXPECT_EQ(tevu_watch_open(outside, 1, 0, nullptr, nullptr), nullptr);
  EXPECT_EQ(errno, ENOENT);
  start({"/mnt/in"}, 200);
  unsigned long dirs = 0;
  tevu_watch_counts(watch_, &dirs, nullptr, nullptr);
  EXPECT_EQ(dirs, 1u);
  ASSERT_EQ(rename("/mnt/in/a", "/mnt/in/a2"), 0);
  ASSERT_EQ(rename("/mnt/out/b", "/mnt/out/b2"), 0);
  ASSERT_TRUE(rows_become("mnt", {{"in/a2"}, {"out/b"}})) << events();
}

// ---------------------------------------------------------------------------
// The repair.

class Repair : public tevul_test::SandboxTest {
 protected:
  static int found(void* user, int kind, const char* from, const char* to, unsigned long n, int) {
    static_cast<std::vector<std::string>*>(user)->push_back(
        std::to_string(kind) + " " + from + " " + (to ? to : "-") + " " + std::to_string(n));
    return 0;
  }
  std::vector<std::string> findings_;
};

TEST_F(Repair, MovesOnlyWhatOneFileMatches) {
  // Sizes of their own: files written within one tick of a coarse clock
  // share a time.
  ASSERT_TRUE(tevul_test::write_file("/mnt/a.bin", "a"));
  ASSERT_TRUE(tevul_test::write_file("/mnt/never.bin", "nn"));
  tevul_test::tag_file("/mnt/a.bin", {{"kind", "a"}});
  ASSERT_TRUE(tevul_test::write_file("/mnt/twin.bin", "same size"));
  tevul_test::tag_file("/mnt/twin.bin", {{"kind", "twin"}});
  tevul_test::tag_file("/mnt/never.bin", {{"kind", "n"}});
  // The first repair records the fingerprints of the files in place.
  tevu_repair_counts counts = {};
  ASSERT_EQ(tevu_repair(nullptr, 0, found, &findings_, &counts), 0);
  EXPECT_EQ(counts.in_place, 3u);
  EXPECT_TRUE(findings_.empty());
  // Then, with nothing watching: one file moved, one copied twice (times
  // kept) and removed, one removed.
  ASSERT_EQ(run("mkdir -p /mnt/d && mv /mnt/a.bin /mnt/d/renamed.bin && "
                "cp -p /mnt/twin.bin /mnt/d/t1 && cp -p /mnt/twin.bin /mnt/d/t2 && "
                "rm /mnt/twin.bin /mnt/never.bin"),
            0);
  const Rows before = paths("mnt");
  ASSERT_EQ(tevu_repair("/mnt", 1, found, &findings_, &counts), 0);
  EXPECT_EQ(paths("mnt"), before) << "a dry run changes nothing";
  EXPECT_EQ(counts.moved, 1u);
  EXPECT_EQ(counts.ambiguous, 1u);
  EXPECT_EQ(counts.unmatched, 1u);
  findings_.clear();
  ASSERT_EQ(tevu_repair("/mnt", 0, found, &findings_, &counts), 0);
  EXPECT_EQ(paths("mnt"), (Rows{{"d/renamed.bin"}, {"never.bin"}, {"twin.bin"}}));
  EXPECT_EQ(tags_of("mnt", "d/renamed.bin", {"kind"}), (Rows{{"a"}}));
  std::sort(findings_.begin(), findings_.end());
  EXPECT_EQ(findings_, (std::vector<std::string>{"1 /mnt/a.bin /mnt/d/renamed.bin 1",
                                                 "2 /mnt/twin.bin - 2",
                                                 "3 /mnt/never.bin - 0"}));
  // The database keeps exactly the daemon's tables.
  EXPECT_EQ(tevul_test::rows("mnt", "SELECT name FROM sqlite_master WHERE type='table'"),
            (Rows{{"Meta"}}));
  EXPECT_EQ(tevu_repair("/tmp", 0, nullptr, nullptr, nullptr), ENOENT);
}

// Of files with the same fingerprint, one that carries tags of its own is
// no candidate, and of several the one that kept the row's name decides,
// only when it is the only one.
TEST_F(Repair, TaggedFilesAndNamesDecideAmongEqualFingerprints) {
  ASSERT_TRUE(tevul_test::write_file("/mnt/a.bin", "aaaa"));
  tevul_test::tag_file("/mnt/a.bin", {{"kind", "a"}});
  ASSERT_TRUE(tevul_test::write_file("/mnt/b.bin", "bbbbbb"));
  tevul_test::tag_file("/mnt/b.bin", {{"kind", "b"}});
  ASSERT_TRUE(tevul_test::write_file("/mnt/c.bin", "cccccccc"));
  tevul_test::tag_file("/mnt/c.bin", {{"kind", "c"}});
  ASSERT_EQ(tevu_repair(nullptr, 0, nullptr, nullptr, nullptr), 0);
  // a.bin: its only look-alike is tagged itself. b.bin: two look-alikes,
  // one kept the name. c.bin: two look-alikes that both kept the name.
  ASSERT_EQ(run("cp -p /mnt/a.bin /mnt/a-copy.bin && mkdir -p /mnt/d1 /mnt/d2 && "
                "cp -p /mnt/b.bin /mnt/d1/b.bin && cp -p /mnt/b.bin /mnt/d2/renamed.bin && "
                "cp -p /mnt/c.bin /mnt/d1/c.bin && cp -p /mnt/c.bin /mnt/d2/c.bin && "
                "rm /mnt/a.bin /mnt/b.bin /mnt/c.bin"),
            0);
  tevul_test::tag_file("/mnt/a-copy.bin", {{"kind", "copy"}});
  tevu_repair_counts counts = {};
  ASSERT_EQ(tevu_repair("/mnt", 0, found, &findings_, &counts), 0);
  std::sort(findings_.begin(), findings_.end());
  EXPECT_EQ(findings_, (std::vector<std::string>{"1 /mnt/b.bin /mnt/d1/b.bin 2",
                                                 "2 /mnt/c.bin - 2",
                                                 "3 /mnt/a.bin - 0"}));
  EXPECT_EQ(tags_of("mnt", "a-copy.bin", {"kind"}), (Rows{{"copy"}}));
  EXPECT_EQ(tags_of("mnt", "d1/b.bin", {"kind"}), (Rows{{"b"}}));
}

// Many moves are made in transactions of a few hundred: a callback that
// stops at the first still hears of every move already made, and the
// counts agree with the rows; the next repair moves the rest and keeps the
// fingerprints, so that a later move is found again.
TEST_F(Repair, MovesInBatchesTellEveryMoveAndConverge) {
  for (int i = 0; i < 700; ++i) {
    const std::string path = "/mnt/many/" + std::to_string(i);
    ASSERT_TRUE(tevul_test::write_file(path, std::string(static_cast<std::size_t>(i) + 1, 'x')));
    tevul_test::tag_file(path, {{"n", std::to_string(i)}});
  }
  ASSERT_EQ(tevu_repair(nullptr, 0, nullptr, nullptr, nullptr), 0);
  ASSERT_EQ(run("mv /mnt/many /mnt/moved"), 0);
  struct Stop {
    static int first(void* user, int kind, const char*, const char*, unsigned long, int) {
      if (kind == TEVU_REPAIR_MOVED) ++*static_cast<unsigned long*>(user);
      return 7;
    }
  };
  unsigned long told = 0;
  tevu_repair_counts counts = {};
  EXPECT_EQ(tevu_repair("/mnt", 0, Stop::first, &told, &counts), 7);
  const auto moved_rows = [] {
    return tevul_test::rows("mnt", "SELECT count(*) FROM Meta WHERE Path GLOB 'moved/*'")[0][0];
  };
  EXPECT_GT(told, 0u);
  EXPECT_LT(told, 700u) << "the stop ended the repair";
  EXPECT_EQ(told, counts.moved);
  EXPECT_EQ(moved_rows(), std::to_string(told));
  ASSERT_EQ(tevu_repair("/mnt", 0, nullptr, nullptr, &counts), 0);
  EXPECT_EQ(counts.moved, 700u - told);
  EXPECT_EQ(moved_rows(), "700");
  EXPECT_EQ(tags_of("mnt", "moved/699", {"n"}), (Rows{{"699"}}));
  ASSERT_EQ(run("mv /mnt/moved /mnt/again"), 0);
  ASSERT_EQ(tevu_repair("/mnt", 0, nullptr, nullptr, &counts), 0);
  EXPECT_EQ(counts.moved, 700u) << "every fingerprint followed its file";
}

// The watcher repairs at its start what moved while none ran.
TEST_F(Watch, TheStartRepairsMovesMadeWhileNoneRan) {
  tevul_test::tag_file("/mnt/x/photo.jpg", {{"kind", "photo"}});
  ASSERT_EQ(tevu_repair(nullptr, 0, nullptr, nullptr, nullptr), 0);
  ASSERT_EQ(run("mv /mnt/x /mnt/y"), 0);
  start({}, 200);
  EXPECT_EQ(paths("mnt"), (Rows{{"y/photo.jpg"}})) << events();
  EXPECT_TRUE(saw(TEVU_WATCH_MOVED, "/mnt/x/photo.jpg")) << events();
}

}  // namespace

namespace {

// The watch limit (per user namespace since Linux 5.11) lowered for a
// watcher of its own: the directories beyond it are counted and reported,
// the others followed. Runs in a child that enters a user namespace of its
// own, so that the machine's limit stays as it is.
TEST_F(Watch, DirectoriesBeyondTheWatchLimitAreCountedAndReported) {
  for (int i = 0; i < 30; ++i) tevul_test::make_dirs("/mnt/many/d" + std::to_string(i));
  tevul_test::tag_file("/mnt/a", {{"kind", "doc"}});
  const pid_t child = fork();
  if (child == 0) {
    const auto write = [](const char* file, const std::string& text) {
      return tevul_test::write_file(file, text);
    };
    if (unshare(CLONE_NEWUSER) != 0) _exit(77);
    if (!write("/proc/self/setgroups", "deny") || !write("/proc/self/uid_map", "0 0 1") ||
        !write("/proc/self/gid_map", "0 0 1")) {
      _exit(77);
    }
    // The namespace's own limit (fs.inotify.max_user_watches is the whole
    // machine's and is never touched here).
    if (!write("/proc/sys/user/max_inotify_watches", "12")) _exit(77);
    unsigned long reported = 0;
    struct sink {
      static void on(void* user, int event, const char*, const char*, int, unsigned long count) {
        if (event == TEVU_WATCH_UNWATCHED) *static_cast<unsigned long*>(user) = count;
      }
    };
    tevu_watch* w = tevu_watch_open(nullptr, 0, 200, sink::on, &reported);
    if (w == nullptr) _exit(2);
    unsigned long dirs = 0, unwatched = 0;
    tevu_watch_counts(w, &dirs, nullptr, &unwatched);
    tevu_watch_process(w, nullptr);
    const bool counted = dirs + unwatched >= 33 && unwatched > 0 && reported == unwatched;
    // What is watched is still followed.
    rename("/mnt/a", "/mnt/b");
    int timeout = 0;
    for (int i = 0; i < 50; ++i) {
      tevu_watch_process(w, &timeout);
      usleep(20000);
    }
    tevu_watch_close(w);
    _exit(counted ? 0 : 3);
  }
  const int status = tevul_test::exit_status(child);
  if (status == 77) GTEST_SKIP() << "no user namespace with its own watch limit here";
  EXPECT_EQ(status, 0);
  EXPECT_EQ(paths("mnt"), (Rows{{"b"}}));
}

}  // namespace
