// The `tevu` tool, run as a program in the sandbox: every command, its
// output for scripts, its messages and exit statuses, checked against the
// databases.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <signal.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "test_support.h"

using tevul_test::Rows;
using tevul_test::Sandbox;
using tevul_test::exec_tool;
using tevul_test::exit_status;
using tevul_test::make_dirs;
using tevul_test::rows;
using tevul_test::write_file;

namespace {

struct Result {
  int status = -1;
  std::string out;
  std::string err;
};

// Runs the tool with `input` on its standard input (a file) and collects
// its output. With `tty_stderr` its standard error is a terminal.
Result run(const std::vector<std::string>& args, const std::string& input = "",
           bool tty_stderr = false) {
  write_file("/tmp/tool.in", input);
  int master = -1, slave = -1;
  if (tty_stderr && openpty(&master, &slave, nullptr, nullptr, nullptr) != 0) return {};
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(open("/tmp/tool.in", O_RDONLY), 0);
    dup2(open("/tmp/tool.out", O_WRONLY | O_CREAT | O_TRUNC, 0600), 1);
    dup2(tty_stderr ? slave : open("/tmp/tool.err", O_WRONLY | O_CREAT | O_TRUNC, 0600), 2);
    exec_tool(args);
  }
  Result result;
  if (tty_stderr) {
    close(slave);
    char buf[4096];
    for (ssize_t n; (n = read(master, buf, sizeof buf)) > 0;) result.err.append(buf, n);
    close(master);
  }
  result.status = exit_status(pid);
  result.out = tevul_test::read_file("/tmp/tool.out");
  if (!tty_stderr) result.err = tevul_test::read_file("/tmp/tool.err");
  return result;
}

// The lines of `text`, sorted: volumes come in directory order.
std::vector<std::string> sorted_lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  std::sort(lines.begin(), lines.end());
  return lines;
}

class Tool : public tevul_test::SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    if (IsSkipped()) return;
    for (const char* file : {"/mnt/photos/a.jpg", "/mnt/photos/b.jpg", "/mnt/docs/old/x.txt",
                             "/mnt/docs/old/y.txt", "/mnt/docs/z.txt", "/srv/music/s.mp3",
                             "/tmp/untagged.txt"}) {
      ASSERT_TRUE(write_file(file, "data"));
    }
  }
};

TEST_F(Tool, SetGetAndDeleteInTheDatabases) {
  Result r = run({"set", "-t", "rating=5", "--tag", "who=ann|bo", "-t", "empty=",
                  "/mnt/photos/a.jpg", "/mnt/photos/b.jpg", "/srv/music/s.mp3"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out + r.err, "");
  EXPECT_EQ(rows("srv", "SELECT Path, \".rating\", Data FROM Meta"),
            (Rows{{"music/s.mp3", "5", "rating=5|who=ann\\|bo|empty="}}));
  EXPECT_EQ(sandbox_.drain_fifo(), 3) << "one wake-up per committed file";

  r = run({"get", "-0", "/mnt/photos/../photos/a.jpg", "empty"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, std::string(1, '\0'));
  // Several files at once, from the databases: path, TAB, value.
  r = run({"get", "/mnt/photos/a.jpg", "/srv/music/s.mp3", "RATING"});
  EXPECT_EQ(r.out, "/mnt/photos/a.jpg\t5\n/srv/music/s.mp3\t5\n");
  r = run({"list", "/mnt/photos/b.jpg", "/tmp/untagged.txt", "/srv/music/s.mp3"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "tevu: /tmp/untagged.txt: file is not on a tagged volume\n");
  EXPECT_EQ(r.out, "/mnt/photos/b.jpg\trating=5\n/mnt/photos/b.jpg\twho=ann|bo\n"
                   "/mnt/photos/b.jpg\tempty=\n/srv/music/s.mp3\trating=5\n"
                   "/srv/music/s.mp3\twho=ann|bo\n/srv/music/s.mp3\tempty=\n") << "column order";

  // A recursive set tags the directory and everything on disk below it,
  // in name order, never through a symbolic link.
  ASSERT_TRUE(write_file("/mnt/photos/[2019] Trip/c.jpg", ""));
  ASSERT_EQ(symlink("/srv/music/s.mp3", "/mnt/photos/link"), 0);
  r = run({"set", "-r", "-n", "-t", "album=x", "/mnt/photos"});
  EXPECT_EQ(r.out, "/mnt/photos\n/mnt/photos/[2019] Trip\n/mnt/photos/a.jpg\n"
                   "/mnt/photos/b.jpg\n/mnt/photos/[2019] Trip/c.jpg\n");
  EXPECT_EQ(rows("mnt", "SELECT count(*) FROM Meta WHERE \".album\"='x'"),
            (Rows{{"0"}})) << "a dry run tags nothing";
  r = run({"set", "-r", "-t", "album=x", "/mnt/photos"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(rows("mnt", "SELECT Path, Data FROM Meta WHERE \".album\"='x' ORDER BY Path"),
            (Rows{{"photos", "album=x"},
                  {"photos/[2019] Trip", "album=x"},
                  {"photos/[2019] Trip/c.jpg", "album=x"},
                  {"photos/a.jpg", "rating=5|who=ann\\|bo|empty=|album=x"},
                  {"photos/b.jpg", "rating=5|who=ann\\|bo|empty=|album=x"}}));
  EXPECT_EQ(rows("srv", "SELECT Data FROM Meta"), (Rows{{"rating=5|who=ann\\|bo|empty="}}))
      << "the link's target is not tagged";

  r = run({"del", "-t", "rating", "-t", "never-set", "/mnt/photos/a.jpg"});
  EXPECT_EQ(r.status, 0) << r.err;
  r = run({"get", "/mnt/photos/a.jpg", "rating"});
  EXPECT_EQ(r.status, 4);
  EXPECT_EQ(r.out + r.err, "tevu: /mnt/photos/a.jpg: rating: tag not set\n");
  EXPECT_EQ(rows("mnt", "SELECT Data FROM Meta WHERE Path='photos/a.jpg'"),
            (Rows{{"who=ann\\|bo|empty=|album=x"}}));
}

TEST_F(Tool, EachFailureIsOneLineAndTheOthersGoOn) {
  const std::string long_name(64, 'n');
  const std::string long_value(160, 'v');
  Result r = run({"set", "-t", "ok=1", "-t", long_name + "=1", "-t",
                  "v=" + long_value, "-t", "bad\"name=1", "/mnt/missing.jpg",
                  "/tmp/untagged.txt", "/mnt/photos/a.jpg"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err,
            "tevu: /mnt/missing.jpg: no such file\n"
            "tevu: /tmp/untagged.txt: file is not on a tagged volume\n"
            "tevu: /mnt/photos/a.jpg: " + long_name +
                ": tag name too long (limit 63)\n"
                "tevu: /mnt/photos/a.jpg: v: tag value too long (limit 159)\n"
                "tevu: /mnt/photos/a.jpg: bad\"name: tag name contains a double quote\n");
  EXPECT_EQ(rows("mnt", "SELECT Path, Data FROM Meta"),
            (Rows{{"photos/a.jpg", "ok=1"}}));
}

TEST_F(Tool, UsageErrorsAndHelp) {
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{}, "tevu: no command given (see 'tevu --help')\n"},
      {{"frob"}, "tevu: unknown command 'frob' (see 'tevu --help')\n"},
      {{"set", "-t", "novalue", "/mnt/photos/a.jpg"},
       "tevu set: 'novalue' is not NAME=VALUE (see 'tevu set --help')\n"},
      {{"del", "-t", "a", "-g", "b*", "/mnt/photos/a.jpg"},
       "tevu del: give either -t NAME or -g PATTERN (see 'tevu del --help')\n"},
      {{"rename", "Rating", "rating"},
       "tevu rename: OLD and NEW differ only in letter case, which tag names do not "
       "tell apart (see 'tevu rename --help')\n"},
  };
  for (const auto& [args, err] : cases) {
    const Result r = run(args);
    EXPECT_EQ(r.status, 2) << err;
    EXPECT_EQ(r.out + r.err, err);
  }
  EXPECT_EQ(run({"--version"}).out, "tevu 0.1.0\n");
}

TEST_F(Tool, WithoutTheMountEveryCommandSaysSo) {
  sandbox_.unmount_tag_fs();
  // Each command checks for itself, before it touches anything.
  const std::vector<std::vector<std::string>> commands = {
      {"set", "-t", "a=1", "/mnt/photos/a.jpg"}, {"set", "-m", "-t", "a=1", "/mnt/photos/a.jpg"},
      {"get", "/mnt/photos/a.jpg", "a"}, {"get", "-m", "/mnt/photos/a.jpg", "a"},
      {"list", "/mnt/photos/a.jpg"}, {"del", "-g", "*", "/mnt/photos/a.jpg"}, {"find", "a", "1"},
      {"import"}, {"deleted", "/mnt/photos"}, {"moved", "/mnt/photos", "/mnt/pics"},
      {"cleanup", "/mnt"}, {"export"}, {"rename", "a", "b"}, {"del", "--all", "a"},
      {"view", "create", "v"}, {"view", "path", "v"}, {"limits"}};
  for (const auto& args : commands) {
    const Result r = run(args, "/mnt/photos/a.jpg\ta=1\n");
    EXPECT_EQ(r.status, 3) << args[0];
    EXPECT_EQ(r.err, "tevu: tag file system is not mounted\n") << args[0];
  }
}

TEST_F(Tool, ListGetAndGlobDeleteThroughTheMount) {
  // Where the daemon shows the tag files of a.jpg (behind the mount).
  const std::string tag_dir = std::string(Sandbox::kBacking) + "/.tagfiles/mnt/photos/a.jpg";
  ASSERT_TRUE(make_dirs(tag_dir));
  Result r = run({"set", "-m", "-t", "rating=5", "-t", "note=two\nlines",
                  "-t", "keep=1", "/mnt/photos/a.jpg"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(tevul_test::read_file(tag_dir + "/note"), "two\nlines");
  r = run({"list", "-m", "--null", "/mnt/photos/a.jpg"});
  EXPECT_EQ(r.out, std::string("keep=1\0note=two\nlines\0rating=5\0", 31)) << "sorted";
  r = run({"get", "-m", "/mnt/photos/a.jpg", "nope"});
  EXPECT_EQ(r.status, 4);
  EXPECT_EQ(r.err, "tevu: /mnt/photos/a.jpg: nope: tag not set\n");

  r = run({"del", "-g", "*e*", "/mnt/photos/a.jpg"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(run({"list", "-m", "/mnt/photos/a.jpg"}).out, "rating=5\n");
  r = run({"del", "-m", "-t", "rating", "-t", "gone", "/mnt/photos/a.jpg"});
  EXPECT_EQ(r.status, 0) << r.err;
  r = run({"set", "-m", "-t", "a=1", "/mnt/nothere"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "tevu: /mnt/nothere: a: no such file\n");
}

TEST_F(Tool, FindListsEveryMatchingFile) {
  ASSERT_EQ(run({"set", "-t", "id=Abc-1", "-t", "who=ann", "/srv/music/s.mp3"}).status, 0);
  ASSERT_EQ(run({"set", "-t", "who=ANN", "/mnt/photos/a.jpg", "/mnt/photos/b.jpg"}).status, 0);
  Result r = run({"find", "who", "ann"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(sorted_lines(r.out), (std::vector<std::string>{"/mnt/photos/a.jpg", "/mnt/photos/b.jpg",
                                             "/srv/music/s.mp3"}));
  r = run({"find", "-0", "id"});
  EXPECT_EQ(r.out, std::string("/srv/music/s.mp3\0", 17));
  r = run({"find", "-l", "id", "ABC-1"});
  EXPECT_EQ(r.out, "/srv/music/s.mp3\tid=Abc-1\twho=ann\n");
  r = run({"find", "id", "abc-2"});
  EXPECT_EQ(r.status, 4);
  EXPECT_EQ(r.err, "tevu: id=abc-2: no file has this tag value\n");
  EXPECT_EQ(run({"find", "never"}).status, 4);
  EXPECT_EQ(run({"find", "i\"d"}).status, 1);

  // The daemon's single-file lookup stays reachable.
  r = run({"find", "--first", "id", "abc-1"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "id=Abc-1\nwho=ann\n");
  EXPECT_EQ(run({"find", "--first", "id"}).status, 2);
}

TEST_F(Tool, TagsFollowDeletedMovedAndVanishedFiles) {
  ASSERT_TRUE(write_file("/mnt/docs2/w.txt", ""));
  ASSERT_EQ(run({"set", "-t", "k=v", "/mnt/docs/old/x.txt", "/mnt/docs/old/y.txt",
                 "/mnt/docs/z.txt", "/mnt/photos/a.jpg", "/mnt/photos/b.jpg",
                 "/mnt/docs2/w.txt"})
                .status,
            0);
  // Vanished behind the tool's back: one below the cleaned directory, others
  // elsewhere on the volume (one in a sibling that shares its name's start),
  // which must keep their rows.
  ASSERT_EQ(unlink("/mnt/docs/old/y.txt"), 0);
  ASSERT_EQ(unlink("/mnt/photos/b.jpg"), 0);
  ASSERT_EQ(unlink("/mnt/docs2/w.txt"), 0);
  const Rows all = rows("mnt", "SELECT Path FROM Meta ORDER BY Path");

  EXPECT_EQ(run({"cleanup", "-n", "/mnt/docs"}).out, "/mnt/docs/old/y.txt\n");
  EXPECT_EQ(rows("mnt", "SELECT Path FROM Meta ORDER BY Path"), all) << "a dry run";
  Result r = run({"cleanup", "-0", "/mnt/docs"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, std::string("/mnt/docs/old/y.txt\0", 20));
  EXPECT_EQ(rows("mnt", "SELECT Path FROM Meta ORDER BY Path"),
            (Rows{{"docs/old/x.txt"}, {"docs/z.txt"}, {"docs2/w.txt"}, {"photos/a.jpg"},
                  {"photos/b.jpg"}}));
  ASSERT_EQ(run({"deleted", "/mnt/docs2"}).status, 0);

  // A script moved a directory within the volume, then onto another one.
  ASSERT_EQ(rename("/mnt/docs/old", "/mnt/docs/new"), 0);
  r = run({"moved", "/mnt/docs/old", "/mnt/docs//new/"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(rows("mnt", "SELECT Path FROM Meta WHERE Path LIKE 'docs/%' ORDER BY Path"),
            (Rows{{"docs/new/x.txt"}, {"docs/z.txt"}}));
  // Onto another volume: the tags stand only at the new place, their list
  // rebuilt, so both searches find the new path and only that one.
  ASSERT_EQ(run({"set", "-t", "only=z", "/mnt/docs/z.txt"}).status, 0);
  ASSERT_TRUE(write_file("/srv/z.txt", "data"));  // another file system
  ASSERT_EQ(unlink("/mnt/docs/z.txt"), 0);
  r = run({"moved", "/mnt/docs/z.txt", "/srv/z.txt"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(rows("srv", "SELECT Path, \".k\", Data FROM Meta"),
            (Rows{{"z.txt", "v", "k=v|only=z"}}));
  EXPECT_EQ(rows("mnt", "SELECT count(*) FROM Meta WHERE Path='docs/z.txt'"),
            (Rows{{"0"}}));
  EXPECT_EQ(sorted_lines(run({"find", "k", "v"}).out),
            (std::vector<std::string>{"/mnt/docs/new/x.txt", "/mnt/photos/a.jpg",
                                      "/mnt/photos/b.jpg", "/srv/z.txt"}));
  EXPECT_EQ(run({"find", "--first", "only", "z"}).out, "k=v\nonly=z\n");

  r = run({"deleted", "/mnt/docs/gone/../new", "/mnt/photos/./a.jpg", "/tmp/untagged.txt"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "tevu: /tmp/untagged.txt: file is not on a tagged volume\n");
  EXPECT_EQ(rows("mnt", "SELECT Path FROM Meta ORDER BY Path"), (Rows{{"photos/b.jpg"}}));
}

// A volume that cannot be read is named, what could be read is printed, and
// the status says that something is missing; nothing is changed.
TEST_F(Tool, AnUnreadableVolumeIsNamed) {
  ASSERT_EQ(run({"set", "-t", "k=v", "/mnt/photos/a.jpg", "/srv/music/s.mp3"}).status, 0);
  ASSERT_TRUE(write_file(Sandbox::db_path("mnt"), std::string(4096, 'g')));
  const std::string unread = "tevu: /mnt: tag database could not be read: not a database\n";
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"export"}, {"find", "k"}}) {
    const Result r = run(args);
    EXPECT_EQ(r.status, 1) << args[0];
    EXPECT_EQ(r.out.substr(0, 16), "/srv/music/s.mp3") << args[0];
    EXPECT_EQ(r.err, unread) << args[0];
  }
  const Result r = run({"rename", "k", "j"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, unread);
  EXPECT_EQ(rows("srv", "SELECT Data FROM Meta"), (Rows{{"k=v"}}));
}

// del --all and rename reach every file of every volume, and only the
// files that carry the tag.
TEST_F(Tool, TagsAreRemovedAndRenamedEverywhere) {
  ASSERT_EQ(run({"set", "-t", "artist=ann", "-t", "year=1999", "/mnt/photos/a.jpg",
                 "/srv/music/s.mp3"}).status, 0);
  ASSERT_EQ(run({"set", "-t", "performer=old", "-t", "year=2000", "/mnt/photos/b.jpg"}).status, 0);
  ASSERT_EQ(run({"set", "-t", "Artist=bo", "/mnt/docs/z.txt"}).status, 0);
  ASSERT_EQ(unlink("/mnt/docs/z.txt"), 0);  // vanished: its row stays

  Result r = run({"rename", "ARTIST", "performer"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err,
            "tevu: /mnt/docs/z.txt: no such file (its tags stay until 'tevu cleanup')\n"
            "tevu: rename: ARTIST: performer: renamed on 2 files\n");
  EXPECT_EQ(rows("mnt", "SELECT Path, Data FROM Meta ORDER BY Path"),
            (Rows{{"docs/z.txt", "artist=bo"},
                  {"photos/a.jpg", "year=1999|performer=ann"},
                  {"photos/b.jpg", "year=2000|performer=old"}}));
  EXPECT_EQ(rows("srv", "SELECT Data FROM Meta"), (Rows{{"year=1999|performer=ann"}}));
  EXPECT_EQ(sandbox_.drain_fifo(), 2 + 1 + 1 + 2) << "one wake-up per changed file";
  r = run({"rename", "nobody", "x"});
  EXPECT_EQ(r.status, 4);
  EXPECT_EQ(r.err, "tevu: rename: nobody: x: no file has this tag\n");

  r = run({"del", "--all", "year", "never"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "tevu: del: year: removed from 3 files\n"
                   "tevu: del: never: removed from 0 files\n");
  EXPECT_EQ(rows("mnt", "SELECT Path, Data FROM Meta ORDER BY Path"),
            (Rows{{"docs/z.txt", "artist=bo"},
                  {"photos/a.jpg", "performer=ann"},
                  {"photos/b.jpg", "performer=old"}}));
  EXPECT_EQ(rows("srv", "SELECT Data FROM Meta"), (Rows{{"performer=ann"}}));
}

// What export writes, import restores: every tag of every file, values
// and paths with tabs, line feeds, carriage returns, backslashes, "|", "/"
// and "=" included. The first import runs with a progress line on a
// terminal, for which it counts the records of its input file first.
TEST_F(Tool, ExportThenImportRestoresEveryTag) {
  ASSERT_TRUE(write_file("/mnt/[x] dir/tab\there\\.txt", ""));
  Result r = run({"import"},
                 "/mnt/photos/a.jpg\tnote=a\\tb\\nc\\rd\tpath=/x/y|z\tq=\"k=v\"\n"
                 "/mnt/[x] dir/tab\\there\\\\.txt\tkind=odd\n"
                 "/srv/music/s.mp3\tkind=song\tempty=\n",
                 /*tty_stderr=*/true);
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.err.find("/3 records, "), std::string::npos) << "progress line";
  r = run({"export"});
  EXPECT_EQ(r.status, 0) << r.err;
  const std::string exported = r.out;
  EXPECT_EQ(sorted_lines(exported),
            (std::vector<std::string>{
                "/mnt/[x] dir/tab\\there\\\\.txt\tkind=odd",
                "/mnt/photos/a.jpg\tnote=a\\tb\\nc\\rd\tpath=/x/y|z\tq=\"k=v\"",
                "/srv/music/s.mp3\tkind=song\tempty="}));
  r = run({"export", "/mnt/[x] dir"});
  EXPECT_EQ(r.out, "/mnt/[x] dir/tab\\there\\\\.txt\tkind=odd\n") << "the path is literal";
  r = run({"export", "--json", "/mnt/photos"});
  EXPECT_EQ(r.out, "{\"path\":\"/mnt/photos/a.jpg\",\"tags\":{\"note\":\"a\\tb\\nc\\rd\","
                   "\"path\":\"/x/y|z\",\"q\":\"\\\"k=v\\\"\"}}\n");

  const Rows mnt = rows("mnt", "SELECT * FROM Meta ORDER BY Path");
  const Rows srv = rows("srv", "SELECT * FROM Meta ORDER BY Path");
  ASSERT_EQ(run({"deleted", "/mnt", "/srv"}).status, 0);
  ASSERT_EQ(rows("mnt", "SELECT count(*) FROM Meta"), (Rows{{"0"}}));
  r = run({"import", "-q"}, exported);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(rows("mnt", "SELECT * FROM Meta ORDER BY Path"), mnt);
  EXPECT_EQ(rows("srv", "SELECT * FROM Meta ORDER BY Path"), srv);
}

// An interrupt stops an import after the current file: what was done
// stays, the interrupt is said once and is no failure, the status is 130.
TEST_F(Tool, InterruptedImportKeepsWhatWasDone) {
  int input[2];
  ASSERT_EQ(pipe(input), 0);
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(input[0], 0);
    close(input[1]);
    dup2(open("/tmp/tool.err", O_WRONLY | O_CREAT | O_TRUNC, 0600), 2);
    exec_tool({"import"});
  }
  close(input[0]);
  const std::string line = "/mnt/photos/a.jpg\tk=1\n";
  ASSERT_EQ(write(input[1], line.data(), line.size()), static_cast<ssize_t>(line.size()));
  // Waits until the first file is stored; the tool then blocks reading.
  for (int i = 0; i < 500 && rows("mnt", "SELECT count(*) FROM Meta")[0][0] != "1"; ++i) {
    usleep(10000);
  }
  ASSERT_EQ(kill(pid, SIGINT), 0);
  EXPECT_EQ(exit_status(pid), 130);
  close(input[1]);
  const std::string err = tevul_test::read_file("/tmp/tool.err");
  EXPECT_EQ(err.find("tevu: import: line 1: interrupted; the files before it are stored\n"
                     "tevu: import: 1 file, 1 tag, 0 failures, "), 0u) << err;
  EXPECT_EQ(rows("mnt", "SELECT Path, Data FROM Meta"), (Rows{{"photos/a.jpg", "k=1"}}));
}

TEST_F(Tool, ViewsAndLimits) {
  EXPECT_EQ(run({"view", "events", "best", "on"}).err, "tevu: view: events: best: no such view\n");
  EXPECT_EQ(run({"view", "cond", "best", "rating>4"}).status, 0);
  EXPECT_EQ(tevul_test::read_file(std::string(Sandbox::kBacking) + "/view/.config/best/cond.ini"),
            "rating>4");
  EXPECT_EQ(run({"view", "path", "best"}).out, std::string(Sandbox::kMount) + "/view/best\n");
  EXPECT_EQ(run({"limits"}).out, "TAG_NAME_MAX=64\nTAG_VALUE_MAX=160\n");
  Sandbox::remove_limits();
  const Result r = run({"limits"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "TAG_NAME_MAX=0\nTAG_VALUE_MAX=0\n");
}

TEST_F(Tool, ImportReportsEachBadLineAndSumsUp) {
  const std::string name56(56, 'm'), name57(57, 'o');
  const std::string input =
      "/mnt/photos/a.jpg\trating=5\twho=ann\r\n"
      "\n"
      "no tab here\n"
      "/mnt/photos/b.jpg\tnoequals\n"
      "/mnt/photos/b.jpg\t=x\n"
      "/mnt/missing.jpg\ta=1\n"
      "/tmp/untagged.txt\ta=1\n"
      "/srv/music/s.mp3\tgood=1\t" + std::string(64, 'n') + "=1\n"
      "/mnt/photos/b.jpg\twin=C:\\\\dir\n"
      "/mnt/photos/b.jpg\tnote=C:\\dir\n"
      "/mnt/docs/z.txt\tlast=a\\tb\t" + name56 + "=1\t" + name57 + "=1";
  Result r = run({"import"}, input);
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "");
  const std::string expected =
      "tevu: import: line 3: no tab here: malformed line (no tags: expected "
      "PATH<TAB>NAME=VALUE[<TAB>NAME=VALUE...])\n"
      "tevu: import: line 4: /mnt/photos/b.jpg: noequals: malformed field (expected NAME=VALUE)\n"
      "tevu: import: line 5: /mnt/photos/b.jpg: =x: malformed field (expected NAME=VALUE)\n"
      "tevu: import: line 6: /mnt/missing.jpg: no such file\n"
      "tevu: import: line 7: /tmp/untagged.txt: file is not on a tagged volume\n"
      "tevu: import: line 8: /srv/music/s.mp3: " + std::string(64, 'n') +
      ": tag name too long (limit 63)\n"
      "tevu: import: line 9: /mnt/photos/b.jpg: win: value holds a backslash, which the "
      "tag database would strip (--strip-backslashes stores it without)\n"
      "tevu: import: line 10: /mnt/photos/b.jpg: note=C:\\dir: bad escape '\\d' "
      "(known: \\t \\n \\r \\\\)\n"
      "tevu: import: line 11: /mnt/docs/z.txt: " + name57 +
      ": tag name too long for the tag database (limit 56)\n"
      "tevu: import: 4 files, 5 tags, 9 failures, ";
  EXPECT_EQ(r.err.substr(0, expected.size()), expected);
  EXPECT_EQ(rows("mnt", "SELECT Path, Data FROM Meta ORDER BY Path"),
            (Rows{{"docs/z.txt", "last=a\tb|" + name56 + "=1"},
                  {"photos/a.jpg", "rating=5|who=ann"}}))
      << "the CR of a CR LF line is dropped, escapes are decoded";

  // --strip-backslashes stores what the database keeps of such a value;
  // NUL-separated records may hold line feeds; one of each is singular.
  ASSERT_TRUE(write_file("/mnt/two\nlines.txt", "x"));
  r = run({"import", "-0", "--strip-backslashes"},
          std::string("/mnt/two\nlines.txt\tnote=a\nb\\\\c\0", 31));
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err.rfind("tevu: import: 1 file, 1 tag, 0 failures, ", 0), 0u) << r.err;
  EXPECT_EQ(rows("mnt", "SELECT \".note\", Data FROM Meta WHERE Path='two\nlines.txt'"),
            (Rows{{"a\nbc", "note=abc"}}))
      << "Data drops line feeds";
}

// A full disk under the database refuses COMMITs while statements pass:
// each lost file is a failure, and the summary counts only stored files.
TEST_F(Tool, ImportOntoAFullDiskReportsTheLostFiles) {
  ASSERT_EQ(mount("tmpfs", "/mnt", "tmpfs", MS_REMOUNT, "size=256k"), 0);
  std::string input;
  for (int i = 0; i < 3000; ++i) {
    const std::string file = "/mnt/f" + std::to_string(i);
    ASSERT_TRUE(write_file(file, ""));
    input += file + "\tk=" + std::string(150, 'v') + "\n";
  }
  const Result r = run({"import"}, input);
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find(": tags not stored: no space left on the device\n"),
            std::string::npos) << r.err;
  const std::string stored =
      rows("mnt", "SELECT count(*) FROM Meta WHERE \".k\" IS NOT NULL")[0][0];
  EXPECT_NE(r.err.find("tevu: import: " + stored + " files, " + stored + " tags, "),
            std::string::npos) << r.err;
}

}  // namespace
