// The `tevu` tool, run as a program in the sandbox: every command as a user
// runs it, its output for scripts in both forms, its messages and exit
// statuses, checked against the databases.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <functional>
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

// The stack the tool's main thread may grow to, when not 0 (a router's
// 128 KiB, with qemu-user told the same).
rlim_t g_stack_limit = 0;

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
    if (g_stack_limit != 0) {
      const struct rlimit limit = {g_stack_limit, g_stack_limit};
      setrlimit(RLIMIT_STACK, &limit);
      setenv("QEMU_STACK_SIZE", std::to_string(g_stack_limit).c_str(), 1);
    }
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

// The bytes of every database, for "nothing changed" checks.
std::string databases() {
  return tevul_test::read_file(Sandbox::db_path("mnt")) +
         tevul_test::read_file(Sandbox::db_path("srv"));
}

// True when `text` is one JSON value and nothing else (a strict reading of
// RFC 8259's grammar, without building anything).
bool valid_json(const std::string& text) {
  std::size_t i = 0;
  const auto blank = [&] { while (i < text.size() && strchr(" \t\r\n", text[i])) ++i; };
  std::function<bool()> value = [&]() -> bool {
    blank();
    if (i >= text.size()) return false;
    const char c = text[i];
    if (c == '"') {
      for (++i; i < text.size() && text[i] != '"'; ++i) {
        if (static_cast<unsigned char>(text[i]) < 0x20) return false;
        if (text[i] == '\\' && ++i < text.size() && text[i] == 'u') i += 4;
      }
      return i++ < text.size();
    }
    if (c == '{' || c == '[') {
      ++i;
      blank();
      if (i < text.size() && text[i] == (c == '{' ? '}' : ']')) return ++i, true;
      for (;;) {
        if (c == '{') {
          blank();
          if (i >= text.size() || text[i] != '"' || !value()) return false;
          blank();
          if (i >= text.size() || text[i++] != ':') return false;
        }
        if (!value()) return false;
        blank();
        if (i < text.size() && text[i] == ',') { ++i; continue; }
        return i < text.size() && text[i++] == (c == '{' ? '}' : ']');
      }
    }
    const std::size_t start = i;
    while (i < text.size() && strchr("-+.eE0123456789", text[i])) ++i;
    return i > start;
  };
  if (!value()) return false;
  blank();
  return i == text.size();
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

TEST_F(Tool, SetGetListAndDeleteInTheDatabases) {
  Result r = run({"set", "-t", "rating=5", "--tag", "who=ann|bo", "-t", "empty=",
                  "/mnt/photos/a.jpg", "/mnt/photos/b.jpg", "/srv/music/s.mp3"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out + r.err, "tevu: set: 3 files, 9 tags, 0 failures\n");
  EXPECT_EQ(rows("srv", "SELECT Path, \".rating\", Data FROM Meta"),
            (Rows{{"music/s.mp3", "5", "rating=5|who=ann\\|bo|empty="}}));
  EXPECT_EQ(sandbox_.drain_fifo(), 3) << "one wake-up per committed file";

  r = run({"get", "-0", "/mnt/photos/../photos/a.jpg", "empty"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, std::string(1, '\0'));
  r = run({"get", "/mnt/photos/a.jpg", "/srv/music/s.mp3", "RATING"});
  EXPECT_EQ(r.out, "/mnt/photos/a.jpg\t5\n/srv/music/s.mp3\t5\n");
  // Several names: one record per file in import's form; the files first.
  r = run({"get", "/mnt/photos/a.jpg", "who", "rating", "nope"});
  EXPECT_EQ(r.status, 4);
  EXPECT_EQ(r.out, "/mnt/photos/a.jpg\twho=ann|bo\trating=5\n");
  EXPECT_EQ(r.err, "tevu: /mnt/photos/a.jpg: nope: tag not set\n");
  r = run({"get", "rating", "/mnt/photos/a.jpg"});
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.err, "tevu get: '/mnt/photos/a.jpg' comes after a tag name: the files come "
                   "first (tevu get FILE... NAME...) (see 'tevu get --help')\n");
  r = run({"list", "/mnt/photos/b.jpg", "/tmp/untagged.txt", "/srv/music/s.mp3"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "tevu: /tmp/untagged.txt: file is not on a tagged volume\n");
  EXPECT_EQ(r.out, "/mnt/photos/b.jpg\trating=5\n/mnt/photos/b.jpg\twho=ann|bo\n"
                   "/mnt/photos/b.jpg\tempty=\n/srv/music/s.mp3\trating=5\n"
                   "/srv/music/s.mp3\twho=ann|bo\n/srv/music/s.mp3\tempty=\n") << "column order";
  r = run({"list", "--json", "/mnt/photos/b.jpg"});
  EXPECT_EQ(r.out, "{\"path\":\"/mnt/photos/b.jpg\",\"tags\":{\"rating\":\"5\","
                   "\"who\":\"ann|bo\",\"empty\":\"\"}}\n");

  // A recursive set tags the directory and everything on disk below it, in
  // name order, never through a symbolic link; a volume's root itself
  // carries no tags, which is said once.
  ASSERT_TRUE(write_file("/mnt/photos/[2019] Trip/c.jpg", ""));
  ASSERT_EQ(symlink("/srv/music/s.mp3", "/mnt/photos/link"), 0);
  r = run({"set", "-r", "-n", "-t", "album=x", "/mnt/photos"});
  EXPECT_EQ(r.out, "/mnt/photos\n/mnt/photos/[2019] Trip\n/mnt/photos/[2019] Trip/c.jpg\n"
                   "/mnt/photos/a.jpg\n/mnt/photos/b.jpg\n");
  EXPECT_EQ(r.err, "tevu: set: 5 files, 5 tags, 0 failures (dry run: nothing changed)\n");
  r = run({"set", "-r", "-t", "album=x", "/mnt/photos"});
  EXPECT_EQ(r.err, "tevu: set: 5 files, 5 tags, 0 failures\n");
  EXPECT_EQ(rows("srv", "SELECT Data FROM Meta"), (Rows{{"rating=5|who=ann\\|bo|empty="}}))
      << "the link's target is not tagged";
  r = run({"set", "-r", "-t", "kind=any", "/srv"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err.rfind("tevu: /srv: a volume's root carries no tags of its own\n", 0), 0u)
      << r.err;
  EXPECT_EQ(rows("srv", "SELECT \".kind\" FROM Meta WHERE Path='music/s.mp3'"), (Rows{{"any"}}));

  r = run({"del", "-t", "rating", "-t", "never-set", "/mnt/photos/a.jpg"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "tevu: del: 1 file, 1 tag, 0 failures\n");
  EXPECT_EQ(rows("mnt", "SELECT Data FROM Meta WHERE Path='photos/a.jpg'"),
            (Rows{{"who=ann\\|bo|empty=|album=x"}}));
}

// One check of tag names and values, for every file and every route: a
// refused name or value is said once, with the limit, and nothing of it is
// stored anywhere.
TEST_F(Tool, NamesAndValuesAreCheckedOnceForEveryRoute) {
  const std::string long_name(57, 'n'), long_value(160, 'v');
  Result r = run({"set", "-t", "ok=1", "-t", "rating = 5", "-t", "a/b=1", "-t",
                  long_name + "=1", "-t", "v=" + long_value, "-t", "bad\"name=1",
                  "/mnt/missing.jpg", "/tmp/untagged.txt", "/mnt/photos/a.jpg",
                  "/mnt/photos/b.jpg"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "tevu: rating : tag name begins or ends with a blank\n"
                   "tevu: a/b: tag name holds a \"/\"\n"
                   "tevu: " + long_name + ": tag name too long (limit 56)\n"
                   "tevu: v: tag value too long (limit 159 with this name)\n"
                   "tevu: bad\"name: tag name holds a double quote\n"
                   "tevu: /mnt/missing.jpg: no such file\n"
                   "tevu: /tmp/untagged.txt: file is not on a tagged volume\n"
                   "tevu: set: 2 files, 2 tags, 7 failures\n");
  EXPECT_EQ(rows("mnt", "SELECT Path, Data FROM Meta ORDER BY Path"),
            (Rows{{"photos/a.jpg", "ok=1"}, {"photos/b.jpg", "ok=1"}}));
  r = run({"set", "-m", "-t", "a/b=1", "/mnt/photos/a.jpg"});
  EXPECT_EQ(r.err, "tevu: a/b: tag name holds a \"/\"\n"
                   "tevu: set: 0 files, 0 tags, 1 failure\n") << "the mount route alike";
  r = run({"set", "-t", std::string(120, 'w') + "=" + std::string(60, 'v'), "/mnt/photos/a.jpg"});
  EXPECT_NE(r.err.find("tag name too long (limit 56)"), std::string::npos) << r.err;
  r = run({"set", "-t", "note=" + std::string(150, 'v'), "/mnt/photos/a.jpg"});
  EXPECT_EQ(r.err, "tevu: set: 1 file, 1 tag, 0 failures\n") << "150 bytes fit beside 'note'";
  r = run({"get", "/mnt/photos/a.jpg", "a/b"});
  EXPECT_EQ(r.status, 2);
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
      {{"deleted", ""}, "tevu deleted: empty path (see 'tevu deleted --help')\n"},
      {{"moved", "", "/srv/x"}, "tevu moved: empty path (see 'tevu moved --help')\n"},
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
      {"get", "/mnt/photos/a.jpg", "a"}, {"list", "/mnt/photos/a.jpg"},
      {"del", "-g", "*", "/mnt/photos/a.jpg"}, {"find", "a"}, {"tags"}, {"values", "a"},
      {"import"}, {"deleted", "/mnt/gone"}, {"moved", "/mnt/gone", "/mnt/photos"},
      {"cleanup", "/mnt"}, {"export"}, {"rename", "a", "b"}, {"del", "--all", "a"},
      {"view", "create", "v"}, {"view", "list"}, {"limits"}};
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
  r = run({"set", "-m", "-t", "a=1", "/mnt/nothere"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "tevu: /mnt/nothere: a: no such file\ntevu: set: 0 files, 0 tags, 1 failure\n");
}

// find by condition, by name and value, under a directory, counted, long,
// as JSON; tags and values with their counts.
TEST_F(Tool, FindTagsAndValues) {
  ASSERT_EQ(run({"set", "-t", "id=Abc-1", "-t", "who=ann", "-t", "rating=10",
                 "/srv/music/s.mp3"}).status, 0);
  ASSERT_EQ(run({"set", "-t", "who=ANN", "-t", "rating=4", "/mnt/photos/a.jpg",
                 "/mnt/photos/b.jpg"}).status, 0);
  ASSERT_EQ(run({"set", "-t", "year=2019", "/mnt/photos/b.jpg"}).status, 0);
  Result r = run({"find", "who=ann"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(sorted_lines(r.out), (std::vector<std::string>{
                                     "/mnt/photos/a.jpg", "/mnt/photos/b.jpg", "/srv/music/s.mp3"}));
  r = run({"find", "who=ann and not year=2019 and rating>=4"});
  EXPECT_EQ(sorted_lines(r.out),
            (std::vector<std::string>{"/mnt/photos/a.jpg", "/srv/music/s.mp3"}))
      << "10 >= 4 as numbers";
  EXPECT_EQ(run({"find", "--count", "who", "--under", "/mnt/photos/../photos"}).out, "2\n");
  r = run({"find", "-l", "id=ABC-1"});
  EXPECT_EQ(r.out, "/srv/music/s.mp3\tid=Abc-1\twho=ann\trating=10\n");
  r = run({"find", "--json", "-l", "id=abc-1"});
  EXPECT_EQ(r.out, "{\"path\":\"/srv/music/s.mp3\",\"tags\":{\"id\":\"Abc-1\",\"who\":\"ann\","
                   "\"rating\":\"10\"}}\n");
  r = run({"find", "id=abc-2"});
  EXPECT_EQ(r.status, 4);
  EXPECT_EQ(r.err, "tevu: id=abc-2: no file matches\n");
  r = run({"find", "who=ann and (rating>4"});
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.err, "tevu find: malformed condition at character 22:\n"
                   "  who=ann and (rating>4\n"
                   "  " + std::string(21, ' ') + "^\n"
                   "tevu find: (see 'tevu find --help' for conditions; at most 128 terms and 16 "
                   "levels of parentheses and 'not')\n");
  // The daemon's single-file lookup stays reachable.
  r = run({"find", "--first", "id", "abc-1"});
  EXPECT_EQ(r.out, "id=Abc-1\nwho=ann\nrating=10\n");

  r = run({"tags"});
  EXPECT_EQ(r.out, "id\t1\nrating\t3\nwho\t3\nyear\t1\n");
  r = run({"values", "who"});
  EXPECT_EQ(r.out, "ANN\t3\n") << "one value, in the spelling that sorts first";
  r = run({"values", "--json", "rating", "/mnt"});
  EXPECT_EQ(r.out, "{\"value\":\"4\",\"files\":2}\n");
  for (const std::string& line : sorted_lines(run({"tags", "--json"}).out)) {
    EXPECT_TRUE(valid_json(line)) << line;
  }
  EXPECT_EQ(run({"values", "never"}).status, 4);
}

// deleted, moved and cleanup check the disk: a path is taken as the disk
// means it, and only a change the disk shows is made.
TEST_F(Tool, TagsFollowDeletedMovedAndVanishedFiles) {
  ASSERT_TRUE(write_file("/mnt/docs2/w.txt", ""));
  ASSERT_EQ(run({"set", "-t", "k=v", "/mnt/docs/old/x.txt", "/mnt/docs/old/y.txt",
                 "/mnt/docs/z.txt", "/mnt/photos/a.jpg", "/mnt/photos/b.jpg",
                 "/mnt/docs2/w.txt"}).status, 0);
  const std::string before = databases();
  Result r = run({"deleted", "/mnt/docs/old", "/mnt/nonexistent/..", "/mnt/photos/*.jpg"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err,
            "tevu: /mnt/docs/old: still exists: its files would lose their tags (delete it "
            "first)\n"
            "tevu: /mnt/nonexistent/..: not a path that names a file (make it canonical)\n"
            "tevu: /mnt/photos/*.jpg: no tags here (a pattern is not expanded here: 'tevu "
            "cleanup DIR' finds the files that vanished)\n"
            "tevu: deleted: 0 files, 0 tags, 2 failures\n");
  EXPECT_EQ(databases(), before);

  // Vanished behind the tool's back: one below the cleaned directory, one
  // in a sibling that shares its name's start, which keeps its row.
  ASSERT_EQ(unlink("/mnt/docs/old/y.txt"), 0);
  ASSERT_EQ(unlink("/mnt/docs2/w.txt"), 0);
  r = run({"cleanup", "-0", "/mnt/docs"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, std::string("/mnt/docs/old/y.txt\0", 20));
  EXPECT_EQ(r.err, "tevu: cleanup: 1 file, 1 tag, 0 failures\n");
  ASSERT_EQ(rmdir("/mnt/docs2"), 0);
  r = run({"deleted", "/mnt/docs2"});
  EXPECT_EQ(r.err, "tevu: deleted: 1 file, 1 tag, 0 failures\n");
  EXPECT_EQ(run({"deleted", "/mnt/docs2"}).status, 4) << "nothing tagged there any more";

  // mv's two forms: renamed, and moved into a folder of another volume.
  ASSERT_EQ(rename("/mnt/docs/old", "/mnt/docs/new"), 0);
  r = run({"moved", "/mnt/docs/old", "/mnt/docs//new/"});
  EXPECT_EQ(r.err, "tevu: moved: 1 file, 1 tag, 0 failures\n");
  ASSERT_TRUE(write_file("/srv/best/z.txt", "data"));
  ASSERT_EQ(unlink("/mnt/docs/z.txt"), 0);
  r = run({"moved", "/mnt/docs/z.txt", "/srv/best/"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(rows("srv", "SELECT Path, Data FROM Meta"), (Rows{{"best/z.txt", "k=v"}}));
  EXPECT_EQ(rows("mnt", "SELECT Path FROM Meta ORDER BY Path"),
            (Rows{{"docs/new/x.txt"}, {"photos/a.jpg"}, {"photos/b.jpg"}}));
  // Without the mv, nothing; with --before, the tags go first.
  r = run({"moved", "/mnt/photos/a.jpg", "/srv/a.jpg"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "tevu: /mnt/photos/a.jpg: still exists: call 'tevu moved' after the move "
                   "(or give --before)\ntevu: moved: 0 files, 0 tags, 1 failure\n");
  r = run({"moved", "/mnt/photos/a.jpg", "/mnt/photos/b.jpg", "/srv/best/z.txt"});
  EXPECT_EQ(r.err, "tevu: /srv/best/z.txt: several sources: DST must be the directory that "
                   "now holds them\ntevu: /srv/best/z.txt: several sources: DST must be the "
                   "directory that now holds them\ntevu: moved: 0 files, 0 tags, 2 failures\n");
  r = run({"moved", "--before", "/mnt/photos/a.jpg", "/srv/best"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(sorted_lines(run({"find", "k"}).out),
            (std::vector<std::string>{"/mnt/docs/new/x.txt", "/mnt/photos/b.jpg",
                                      "/srv/best/a.jpg", "/srv/best/z.txt"}));
}

// Every command that changes tags has a dry run that prints what it would
// change and changes nothing.
TEST_F(Tool, DryRunsChangeNothing) {
  ASSERT_EQ(run({"set", "-t", "k=v", "-t", "j=w", "/mnt/docs/old/x.txt", "/mnt/photos/a.jpg"})
                .status, 0);
  ASSERT_EQ(unlink("/mnt/docs/old/x.txt"), 0);
  ASSERT_EQ(rmdir("/mnt/docs/old") == 0 || unlink("/mnt/docs/old/y.txt") == 0, true);
  rmdir("/mnt/docs/old");
  ASSERT_TRUE(write_file("/srv/old/x.txt", ""));
  const std::string before = databases();
  const std::vector<std::pair<std::vector<std::string>, std::string>> runs = {
      {{"deleted", "-n", "/mnt/docs/old"}, "/mnt/docs/old/x.txt\n"},
      {{"moved", "-n", "/mnt/docs/old", "/srv/old"}, "/mnt/docs/old/x.txt\n"},
      {{"rename", "-n", "k", "kk"}, "/mnt/docs/old/x.txt\n/mnt/photos/a.jpg\n"},
      {{"del", "--all", "-n", "j"}, "/mnt/docs/old/x.txt\n/mnt/photos/a.jpg\n"},
      {{"cleanup", "-n", "/mnt"}, "/mnt/docs/old/x.txt\n"},
      {{"import", "-n"}, "/mnt/photos/b.jpg\n"},
  };
  for (const auto& [args, out] : runs) {
    const Result r = run(args, "/mnt/photos/b.jpg\tnew=1\n");
    EXPECT_EQ(r.status, 0) << args[0] << r.err;
    EXPECT_EQ(sorted_lines(r.out), sorted_lines(out)) << args[0];
    EXPECT_NE(r.err.find("(dry run: nothing changed)"), std::string::npos) << args[0] << r.err;
  }
  EXPECT_EQ(databases(), before);
}

// rename and del --all work on every row, vanished files included; rename
// never overwrites a value; a full disk is said as such.
TEST_F(Tool, TagsAreRemovedAndRenamedEverywhere) {
  ASSERT_EQ(run({"set", "-t", "artist=ann", "-t", "year=1999", "/mnt/photos/a.jpg",
                 "/srv/music/s.mp3"}).status, 0);
  ASSERT_EQ(run({"set", "-t", "performer=old", "-t", "artist=bo", "/mnt/photos/b.jpg"}).status, 0);
  ASSERT_EQ(run({"set", "-t", "Artist=cy", "/mnt/docs/z.txt"}).status, 0);
  ASSERT_EQ(unlink("/mnt/docs/z.txt"), 0);  // vanished: its row is renamed too
  sandbox_.drain_fifo();
  const std::string before = databases();
  Result r = run({"rename", "ARTIST", "performer"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "tevu: rename: ARTIST: performer: 1 file carries both: nothing renamed "
                   "('--merge' merges: those keep performer's value and lose ARTIST)\n"
                   "tevu: rename: 0 files, 0 tags, 1 failure\n");
  EXPECT_EQ(databases(), before);
  r = run({"rename", "-n", "--merge", "ARTIST", "performer"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(sorted_lines(r.out), (std::vector<std::string>{
                                     "/mnt/docs/z.txt", "/mnt/photos/a.jpg",
                                     "/mnt/photos/b.jpg\tloses ARTIST=bo", "/srv/music/s.mp3"}));
  EXPECT_EQ(databases(), before);
  r = run({"rename", "--merge", "ARTIST", "performer"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "tevu: rename: ARTIST: performer: 1 file carries both: kept performer's "
                   "value, lost ARTIST\n"
                   "tevu: rename: 4 files, 4 tags, 0 failures\n");
  EXPECT_EQ(rows("mnt", "SELECT Path, Data FROM Meta ORDER BY Path"),
            (Rows{{"docs/z.txt", "performer=cy"},
                  {"photos/a.jpg", "year=1999|performer=ann"},
                  {"photos/b.jpg", "performer=old"}}));
  EXPECT_EQ(rows("srv", "SELECT Data FROM Meta"), (Rows{{"year=1999|performer=ann"}}));
  EXPECT_EQ(sandbox_.drain_fifo(), 2) << "one wake-up per volume changed";
  r = run({"rename", "nobody", "x"});
  EXPECT_EQ(r.status, 4);
  EXPECT_EQ(r.err, "tevu: rename: nobody: no file has this tag\n");

  r = run({"del", "--all", "year", "never"});
  EXPECT_EQ(r.status, 4);
  EXPECT_EQ(r.err, "tevu: never: no file has this tag\ntevu: del: 2 files, 2 tags, 0 failures\n");
  EXPECT_EQ(rows("srv", "SELECT Data FROM Meta"), (Rows{{"performer=ann"}}));

  ASSERT_EQ(mount("tmpfs", "/mnt", "tmpfs", MS_REMOUNT, "size=64k"), 0);
  const int filler = open("/mnt/filler", O_WRONLY | O_CREAT, 0600);
  const std::string block(4096, 'f');
  while (write(filler, block.data(), block.size()) > 0) {
  }
  close(filler);
  r = run({"rename", "performer", "by"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("no space left on the device"), std::string::npos) << r.err;
}

// What export writes, import restores: every tag of every file, values
// and paths with tabs, line feeds, carriage returns, backslashes, "|", "/"
// and "=", names with "=" too; in both forms. The first import runs with a
// progress line on a terminal, for which it counts the records first.
TEST_F(Tool, ExportThenImportRestoresEveryTag) {
  ASSERT_TRUE(write_file("/mnt/[x] dir/tab\there\\.txt", ""));
  Result r = run({"import"},
                 "# a comment, then a blank line\n\n"
                 "/mnt/photos/a.jpg\tnote=a\\tb\\nc\\rd\tpath=/x/y|z\tq=\"k=v\"\ta\\=b=1\n"
                 "/mnt/[x] dir/tab\\there\\\\.txt\tkind=odd\n"
                 "/srv/music/s.mp3\tkind=song\tempty=\n"
                 "/srv/music/s.mp3\tmore=1\n",
                 /*tty_stderr=*/true);
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.err.find("/4 records, "), std::string::npos) << "progress line";
  EXPECT_NE(r.err.find("tevu: import: 3 files, 8 tags, 0 failures"), std::string::npos)
      << "a file counted once: " << r.err;
  const std::string exported = run({"export"}).out;
  EXPECT_EQ(sorted_lines(exported),
            (std::vector<std::string>{
                "/mnt/[x] dir/tab\\there\\\\.txt\tkind=odd",
                "/mnt/photos/a.jpg\tnote=a\\tb\\nc\\rd\tpath=/x/y|z\tq=\"k=v\"\ta\\=b=1",
                "/srv/music/s.mp3\tkind=song\tempty=\tmore=1"}));
  EXPECT_EQ(run({"export", "/mnt/[x] dir"}).out, "/mnt/[x] dir/tab\\there\\\\.txt\tkind=odd\n")
      << "the path is literal";
  const std::string json = run({"export", "--json"}).out;
  for (const std::string& line : sorted_lines(json)) EXPECT_TRUE(valid_json(line)) << line;
  EXPECT_EQ(run({"find", "-l", "kind=odd"}).out, "/mnt/[x] dir/tab\\there\\\\.txt\tkind=odd\n")
      << "import's form";

  const Rows mnt = rows("mnt", "SELECT * FROM Meta ORDER BY Path");
  const Rows srv = rows("srv", "SELECT * FROM Meta ORDER BY Path");
  for (const bool as_json : {false, true}) {
    ASSERT_EQ(run({"del", "--all", "note", "path", "q", "a=b", "kind", "empty", "more"}).status,
              2) << "a=b is no name one types";
    tevul_test::RawDb(Sandbox::db_path("mnt")).exec("DELETE FROM Meta");
    tevul_test::RawDb(Sandbox::db_path("srv")).exec("DELETE FROM Meta");
    r = as_json ? run({"import", "--json", "-q"}, json) : run({"import", "-q"}, exported);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(rows("mnt", "SELECT * FROM Meta ORDER BY Path"), mnt) << as_json;
    EXPECT_EQ(rows("srv", "SELECT * FROM Meta ORDER BY Path"), srv) << as_json;
  }
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
  EXPECT_EQ(tevul_test::read_file("/tmp/tool.err"),
            "tevu: import: line 1: interrupted; the files before it are stored\n"
            "tevu: import: 1 file, 1 tag, 0 failures\n");
  EXPECT_EQ(rows("mnt", "SELECT Path, Data FROM Meta"), (Rows{{"photos/a.jpg", "k=1"}}));
}

TEST_F(Tool, ViewsAndLimits) {
  EXPECT_EQ(run({"view", "events", "best", "on"}).err, "tevu: view: events: best: no such view\n");
  EXPECT_EQ(run({"view", "cond", "best", "rating>4"}).status, 0);
  EXPECT_EQ(run({"view", "group", "a/b", "year"}).status, 0);
  EXPECT_EQ(run({"view", "events", "best", "on"}).status, 0);
  EXPECT_EQ(tevul_test::read_file(std::string(Sandbox::kBacking) + "/view/.config/best/cond.ini"),
            "rating>4");
  EXPECT_EQ(run({"view", "path", "best"}).out, std::string(Sandbox::kMount) + "/view/best\n");
  EXPECT_EQ(run({"view", "show", "best"}).out, "cond=rating>4\nevents=on\n");
  EXPECT_EQ(run({"view", "list"}).out, "a/b\nbest\n");
  EXPECT_EQ(run({"view", "create", "../x"}).err, "tevu: view: create: ../x: Invalid argument\n");
  ASSERT_TRUE(write_file(std::string(Sandbox::kBacking) + "/view/.config/file", ""));
  EXPECT_EQ(run({"view", "create", "file/sub"}).err,
            "tevu: view: create: file/sub: Not a directory\n") << "the real errno";
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
      "/mnt/photos/b.jpg\tnote=C:\\dir\n" +
      std::string("/mnt/photos/b.jpg\tn\0me=v\n", 25) +
      "/mnt/docs/z.txt\tlast=a\\tb\t" + name56 + "=1\t" + name57 + "=1";
  Result r = run({"import"}, input);
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err,
            "tevu: import: line 3: no tab here: malformed line (no tags: expected "
            "PATH<TAB>NAME=VALUE[<TAB>NAME=VALUE...])\n"
            "tevu: import: line 4: /mnt/photos/b.jpg: noequals: malformed field (expected "
            "NAME=VALUE)\n"
            "tevu: import: line 5: /mnt/photos/b.jpg: =x: malformed field (expected NAME=VALUE)\n"
            "tevu: import: line 6: /mnt/missing.jpg: no such file\n"
            "tevu: import: line 7: /tmp/untagged.txt: file is not on a tagged volume\n"
            "tevu: import: line 8: /srv/music/s.mp3: " + std::string(64, 'n') +
            ": tag name too long (limit 56)\n"
            "tevu: import: line 9: /mnt/photos/b.jpg: win: value holds a backslash, which the "
            "tag database would strip (--strip-backslashes stores it without)\n"
            "tevu: import: line 10: /mnt/photos/b.jpg: note=C:\\dir: bad escape '\\d' "
            "(known: \\t \\n \\r \\\\ \\=)\n"
            "tevu: import: line 11: the line holds a NUL byte\n"
            "tevu: import: line 12: /mnt/docs/z.txt: " + name57 +
            ": tag name too long (limit 56)\n"
            "tevu: import: 3 files, 5 tags, 10 failures\n");
  EXPECT_EQ(rows("mnt", "SELECT Path, Data FROM Meta ORDER BY Path"),
            (Rows{{"docs/z.txt", "last=a\tb|" + name56 + "=1"},
                  {"photos/a.jpg", "rating=5|who=ann"}}))
      << "the CR of a CR LF line is dropped, escapes are decoded";
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
  EXPECT_EQ(r.err, unread + "tevu: rename: 0 files, 0 tags, 1 failure\n");
  EXPECT_EQ(rows("srv", "SELECT Data FROM Meta"), (Rows{{"k=v"}}));
}

// A volume whose every tagged file is missing (its disk not mounted) keeps
// its tags unless told otherwise.
TEST_F(Tool, CleanupKeepsAVolumeWhoseFilesAreAllMissing) {
  ASSERT_EQ(run({"set", "-t", "k=v", "/srv/music/s.mp3"}).status, 0);
  ASSERT_EQ(unlink("/srv/music/s.mp3"), 0);
  const std::string before = databases();
  Result r = run({"cleanup", "/srv"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "tevu: /srv: every tagged file of the volume is missing (is its disk "
                   "mounted?); nothing removed ('--force' removes their tags)\n");
  EXPECT_EQ(databases(), before);
  r = run({"cleanup", "--force", "/srv"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(rows("srv", "SELECT count(*) FROM Meta"), (Rows{{"0"}}));
}

// set -r names every entry it cannot tag (a path deeper than the library
// takes) and counts it; the walk goes on below it.
TEST_F(Tool, RecursiveSetNamesWhatItCannotTag) {
  ASSERT_EQ(chdir("/mnt"), 0);
  std::string deep = "/mnt";
  for (int level = 0; level < 22; ++level) {
    const std::string name(200, static_cast<char>('a' + level));
    ASSERT_EQ(mkdir(name.c_str(), 0755), 0);
    ASSERT_EQ(chdir(name.c_str()), 0);
    deep += "/" + name;
  }
  ASSERT_EQ(chdir("/"), 0);
  const Result r = run({"set", "-r", "-n", "-t", "k=v", "/mnt/" + std::string(200, 'a')});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(sorted_lines(r.out).size(), 20u);
  EXPECT_EQ(sorted_lines(r.err).size(), 3u) << r.err;
  EXPECT_NE(r.err.find(deep + ": path too long to tag (limit 4094 bytes)"), std::string::npos);
  EXPECT_NE(r.err.find("tevu: set: 20 files, 20 tags, 2 failures (dry run"), std::string::npos);
}

// The completion, driven through real bash with the script as installed:
// folder names with blanks stay one word, tag names are offered.
TEST_F(Tool, CompletionOffersFilesWithBlanksAndTagNames) {
  ASSERT_TRUE(write_file("/mnt/photos/Summer Trip [2019]/c.jpg", ""));
  ASSERT_EQ(run({"set", "-t", "rating=5", "-t", "mood=ok", "/mnt/photos/a.jpg"}).status, 0);
  const auto complete = [](const std::string& line) {
    // The tool the completion runs is the one under test.
    const std::string script =
        "source '" TEVU_COMPLETION "'\n"
        "tevu() { " + std::string(TEVU_TOOL_EMULATOR) + " '" TEVU_TOOL "' \"$@\"; }\n"
        "COMP_LINE=" + line + "\nread -ra COMP_WORDS <<<\"$COMP_LINE\"\n"
        "[[ $COMP_LINE == *' ' ]] && COMP_WORDS+=('')\n"
        "COMP_CWORD=$((${#COMP_WORDS[@]} - 1))\n_tevu\nprintf '%s\\n' \"${COMPREPLY[@]}\"\n";
    write_file("/tmp/complete.sh", script);
    const pid_t pid = fork();
    if (pid == 0) {
      dup2(open("/tmp/complete.out", O_WRONLY | O_CREAT | O_TRUNC, 0600), 1);
      execlp("bash", "bash", "--norc", "/tmp/complete.sh", static_cast<char*>(nullptr));
      _exit(127);
    }
    EXPECT_EQ(exit_status(pid), 0);
    return sorted_lines(tevul_test::read_file("/tmp/complete.out"));
  };
  using Words = std::vector<std::string>;
  EXPECT_EQ(complete("'tevu get /mnt/photos/S'"), (Words{"/mnt/photos/Summer Trip [2019]"}));
  EXPECT_EQ(complete("'tevu get /mnt/photos/a.jpg m'"), (Words{"mood"}));
  EXPECT_EQ(complete("'tevu find r'"), (Words{"rating"}));
  EXPECT_EQ(complete("'tevu find rating>4 '"), (Words{"and", "or"}));
  EXPECT_EQ(complete("'tevu find rating>4 and m'"), (Words{"mood"}));
  EXPECT_EQ(complete("'tevu find rating>4 and n'"), (Words{"not"}));
  EXPECT_EQ(complete("'tevu set -t m'"), (Words{"mood="}));
  EXPECT_EQ(complete("'tevu rename '"), (Words{"mood", "rating"}));
  // A name with a blank and a quote is inserted escaped, one word.
  ASSERT_EQ(run({"set", "-t", "my tag's=1", "/mnt/photos/a.jpg"}).status, 0);
  EXPECT_EQ(complete("'tevu find my'"), (Words{"my\\ tag\\'s"}));
  ASSERT_EQ(run({"view", "create", "summer"}).status, 0);
  EXPECT_EQ(complete("'tevu view delete s'"), (Words{"summer"}));
}

}  // namespace

namespace {

// tevu repair: the pairs, a dry run that changes nothing, what is left
// alone on standard error, and an exit status that says so.
TEST_F(Tool, RepairFindsFilesMovedWhileNothingWatched) {
  // Sizes of their own: files written within one tick of a coarse clock
  // share a time, and the fixture's files share a size.
  ASSERT_TRUE(write_file("/mnt/photos/a.jpg", "a size of its own"));
  ASSERT_TRUE(write_file("/mnt/photos/b.jpg", "other size"));
  ASSERT_EQ(run({"set", "-t", "k=v", "/mnt/photos/a.jpg", "/mnt/photos/b.jpg"}).status, 0);
  Result r = run({"repair"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "tevu: repair: 0 files moved, 0 ambiguous, 0 not found, 0 failures\n");
  ASSERT_EQ(rename("/mnt/photos/a.jpg", "/mnt/docs/a-renamed.jpg"), 0);
  ASSERT_EQ(unlink("/mnt/photos/b.jpg"), 0);
  const std::string before = databases();
  r = run({"repair", "-n", "/mnt/photos"});
  EXPECT_EQ(r.status, 4);
  EXPECT_EQ(r.out, "/mnt/photos/a.jpg\t/mnt/docs/a-renamed.jpg\n");
  EXPECT_EQ(r.err,
            "tevu: repair: /mnt/photos/b.jpg: no file matches (or none was ever "
            "fingerprinted); left alone\n"
            "tevu: repair: 1 file would move, 0 ambiguous, 1 not found, 0 failures (dry run: "
            "nothing changed)\n");
  EXPECT_EQ(databases(), before);
  r = run({"repair", "/mnt/photos"});
  EXPECT_EQ(r.status, 4);
  EXPECT_EQ(r.out, "/mnt/photos/a.jpg\t/mnt/docs/a-renamed.jpg\n");
  EXPECT_EQ(run({"get", "/mnt/docs/a-renamed.jpg", "k"}).out, "v\n");
  r = run({"repair", "/tmp"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("/tmp: not on a tagged volume"), std::string::npos) << r.err;
}

// tevu watch as a service runs it: the line that says it watches, one line
// per followed move with -v, and exit status 0 after SIGTERM.
TEST_F(Tool, WatchFollowsAndStopsCleanly) {
  ASSERT_EQ(run({"set", "-t", "k=v", "/mnt/photos/a.jpg"}).status, 0);
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(open("/tmp/watch.out", O_WRONLY | O_CREAT | O_TRUNC, 0600), 1);
    dup2(open("/tmp/watch.err", O_WRONLY | O_CREAT | O_TRUNC, 0600), 2);
    exec_tool({"watch", "-v", "--grace", "0.5"});
  }
  const auto said = [](const char* file, const std::string& what) {
    for (int i = 0; i < 600; ++i) {
      if (tevul_test::read_file(file).find(what) != std::string::npos) return true;
      usleep(50000);
    }
    return false;
  };
  ASSERT_TRUE(said("/tmp/watch.err", "tevu: watch: watching "));
  EXPECT_NE(tevul_test::read_file("/tmp/watch.err").find(" directories on 2 volumes\n"),
            std::string::npos)
      << tevul_test::read_file("/tmp/watch.err");
  ASSERT_EQ(rename("/mnt/photos/a.jpg", "/mnt/photos/c.jpg"), 0);
  EXPECT_TRUE(said("/tmp/watch.out", "moved\t/mnt/photos/a.jpg\t/mnt/photos/c.jpg\n"))
      << tevul_test::read_file("/tmp/watch.out");
  ASSERT_EQ(unlink("/mnt/photos/c.jpg"), 0);
  kill(pid, SIGTERM);  // the deletion's grace period is waited out first
  EXPECT_EQ(exit_status(pid), 0);
  EXPECT_NE(tevul_test::read_file("/tmp/watch.out").find("deleted\t/mnt/photos/c.jpg\n"),
            std::string::npos);
  EXPECT_EQ(run({"get", "/mnt/photos/b.jpg", "k"}).status, 4);
  EXPECT_EQ(rows("mnt", "SELECT count(*) FROM Meta"), (tevul_test::Rows{{"0"}}));
}

}  // namespace

namespace {

// A tagged file whose folder went with it is still a path the disk means:
// its deepest existing ancestor is canonical, and nothing missing can be a
// link.
TEST_F(Tool, DeletedTakesAFileWhoseFolderWentWithIt) {
  ASSERT_EQ(run({"set", "-t", "k=v", "/mnt/docs/old/x.txt", "/mnt/docs/z.txt"}).status, 0);
  ASSERT_EQ(std::system("rm -r /mnt/docs/old"), 0);
  Result r = run({"deleted", "/mnt//docs/old/x.txt"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(rows("mnt", "SELECT Path FROM Meta"), (tevul_test::Rows{{"docs/z.txt"}}));
  r = run({"deleted", "/mnt/docs/gone/../z.txt"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "tevu: /mnt/docs/gone/../z.txt: not a path that names a file (make it "
                   "canonical)\n"
                   "tevu: deleted: 0 files, 0 tags, 1 failure\n");
}

}  // namespace

namespace {

// A dry run of cleanup prints and counts exactly what the run drops, a
// vanished file whose row lost its last tag included.
TEST_F(Tool, CleanupDryRunSaysWhatTheRunDoes) {
  ASSERT_EQ(run({"set", "-t", "k=v", "/mnt/photos/a.jpg", "/mnt/photos/b.jpg",
                 "/mnt/docs/z.txt"}).status, 0);
  ASSERT_EQ(run({"del", "-t", "k", "/mnt/photos/b.jpg"}).status, 0);
  ASSERT_EQ(unlink("/mnt/photos/a.jpg"), 0);
  ASSERT_EQ(unlink("/mnt/photos/b.jpg"), 0);
  const std::string before = databases();
  Result dry = run({"cleanup", "-n", "/mnt/photos"});
  EXPECT_EQ(dry.status, 0) << dry.err;
  EXPECT_EQ(databases(), before);
  Result r = run({"cleanup", "/mnt/photos"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(sorted_lines(dry.out), sorted_lines(r.out));
  EXPECT_EQ(sorted_lines(r.out),
            (std::vector<std::string>{"/mnt/photos/a.jpg", "/mnt/photos/b.jpg"}));
  EXPECT_EQ(dry.err, "tevu: cleanup: 2 files, 1 tag, 0 failures (dry run: nothing changed)\n");
  EXPECT_EQ(r.err, "tevu: cleanup: 2 files, 1 tag, 0 failures\n");
  EXPECT_EQ(rows("mnt", "SELECT Path FROM Meta"), (Rows{{"docs/z.txt"}}));
}

}  // namespace

namespace {

// Every volume that cannot be read is named, or, past the first eight,
// counted; a change everywhere names them all and changes nothing.
TEST_F(Tool, EveryUnreadableVolumeIsNamedOrCounted) {
  ASSERT_EQ(run({"set", "-t", "k=v", "/srv/music/s.mp3"}).status, 0);
  for (int i = 0; i < 10; ++i) {
    const std::string name = "v" + std::to_string(i);
    ASSERT_EQ(symlink(("../.tagfiles/" + name).c_str(), (Sandbox::meta_backing() + "/" + name).c_str()), 0);
    ASSERT_EQ(symlink(("/tmp/missing-" + name + ".db").c_str(),
                      (Sandbox::meta_backing() + "/" + name + "@@db").c_str()), 0);
  }
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"export"}, {"find", "k"}, {"rename", "k", "j"}}) {
    const Result r = run(args);
    EXPECT_EQ(r.status, 1) << args[0];
    const auto lines = sorted_lines(r.err);
    std::size_t named = 0;
    for (const auto& line : lines) {
      if (line.find(": tag database could not be read: no such file") != std::string::npos) ++named;
    }
    EXPECT_EQ(named, 8u) << r.err;
    EXPECT_NE(r.err.find("tevu: 2 more volumes could not be read\n"), std::string::npos) << r.err;
  }
  EXPECT_EQ(rows("srv", "SELECT Data FROM Meta"), (Rows{{"k=v"}}));
}

}  // namespace

namespace {

// A dry run says what the run does, operand duplicates and all, and a file
// is counted once whatever it loses.
TEST_F(Tool, DryRunsCountAsTheRunDoes) {
  ASSERT_EQ(run({"set", "-t", "old=1", "-t", "p=1", "-t", "q=1", "/mnt/photos/a.jpg",
                 "/mnt/photos/b.jpg"}).status, 0);
  for (const bool dry : {true, false}) {
    std::vector<std::string> args = {"del", "--all"};
    if (dry) args.push_back("-n");
    args.insert(args.end(), {"old", "OLD", "old"});
    Result r = run(args);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, std::string("tevu: del: 2 files, 2 tags, 0 failures") +
                         (dry ? " (dry run: nothing changed)" : "") + "\n");
    EXPECT_EQ(sorted_lines(r.out), dry ? (std::vector<std::string>{"/mnt/photos/a.jpg",
                                                                   "/mnt/photos/b.jpg"})
                                       : std::vector<std::string>{});
  }
  Result r = run({"del", "--all", "p", "q"});
  EXPECT_EQ(r.err, "tevu: del: 2 files, 4 tags, 0 failures\n");

  ASSERT_EQ(run({"set", "-t", "k=v", "/mnt/docs/old/x.txt", "/mnt/docs/old/y.txt"}).status, 0);
  ASSERT_EQ(std::system("rm -r /mnt/docs/old"), 0);
  for (const bool dry : {true, false}) {
    std::vector<std::string> args = {"deleted"};
    if (dry) args.push_back("-n");
    args.insert(args.end(), {"/mnt/docs/old/x.txt", "/mnt/docs/old", "/mnt/docs/old"});
    r = run(args);
    EXPECT_EQ(r.status, 4) << r.err;
    EXPECT_EQ(r.err, std::string("tevu: /mnt/docs/old: no tags here\n"
                                 "tevu: deleted: 2 files, 2 tags, 0 failures") +
                         (dry ? " (dry run: nothing changed)" : "") + "\n");
  }
}

}  // namespace

namespace {

// import -n finds what the run finds: a path on no volume and a dangling
// link fail in both.
TEST_F(Tool, ImportDryRunFailsWhereTheRunFails) {
  ASSERT_EQ(symlink("/mnt/nowhere", "/mnt/photos/dangling"), 0);
  const std::string input =
      "/mnt/photos/a.jpg\tk=v\n/tmp/untagged.txt\tk=v\n/mnt/photos/dangling\tk=v\n";
  const Result dry = run({"import", "-n"}, input);
  const Result r = run({"import"}, input);
  EXPECT_EQ(dry.status, 1);
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(dry.err, "tevu: import: line 2: /tmp/untagged.txt: file is not on a tagged volume\n"
                     "tevu: import: line 3: /mnt/photos/dangling: no such file\n"
                     "tevu: import: 1 file, 1 tag, 2 failures (dry run: nothing changed)\n");
  EXPECT_EQ(r.err, "tevu: import: line 2: /tmp/untagged.txt: file is not on a tagged volume\n"
                   "tevu: import: line 3: /mnt/photos/dangling: no such file\n"
                   "tevu: import: 1 file, 1 tag, 2 failures\n");
}

// A volume whose database file is gone is a tagged volume that cannot be
// read, not a place outside the volumes.
TEST_F(Tool, AMissingDatabaseIsNotAMissingVolume) {
  ASSERT_EQ(run({"set", "-t", "k=v", "/mnt/photos/a.jpg"}).status, 0);
  ASSERT_EQ(unlink(Sandbox::db_path("mnt").c_str()), 0);
  for (const char* command : {"get", "list"}) {
    std::vector<std::string> args = {command, "/mnt/photos/a.jpg"};
    if (std::string(command) == "get") args.push_back("k");
    const Result r = run(args);
    EXPECT_EQ(r.status, 1) << command;
    EXPECT_EQ(r.err, "tevu: /mnt/photos/a.jpg: tag database could not be read: no such file\n")
        << command;
  }
}

}  // namespace

namespace {

// Fills the tmpfs `volume` to its last page (its size set to what it holds
// and a page, the page filled by /<volume>/filler).
void fill(const std::string& volume) {
  struct statfs fs;
  ASSERT_EQ(statfs(volume.c_str(), &fs), 0);
  const long used = static_cast<long>((fs.f_blocks - fs.f_bfree) * fs.f_bsize);
  ASSERT_EQ(mount("tmpfs", volume.c_str(), "tmpfs", MS_REMOUNT,
                  ("size=" + std::to_string(used + 4096)).c_str()), 0);
  std::system(("cat /dev/zero > " + volume + "/filler 2>/dev/null").c_str());
}

// What failed is said as it is: a volume list the daemon no longer shows
// is no database, and a full disk fails a change, not a read.
TEST_F(Tool, FailuresAreNamedForWhatTheyAre) {
  ASSERT_EQ(run({"set", "-t", "k=v", "/mnt/photos/a.jpg"}).status, 0);
  // Fill /mnt to the last page: the rename's COMMIT cannot be written.
  fill("/mnt");
  Result r = run({"rename", "k", "renamed-with-a-long-name-to-need-room"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("tevu: /mnt: tag database could not be changed: no space left on the "
                       "device\n"),
            std::string::npos)
      << r.err;
  unlink("/mnt/filler");

  const std::string meta = Sandbox::meta_backing();
  ASSERT_EQ(rename(meta.c_str(), (meta + ".away").c_str()), 0);
  r = run({"export"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, std::string("tevu: ") + Sandbox::kMount +
                       "/meta: the tag file system's volumes cannot be listed: no such file "
                       "(is its daemon running?)\n");
}

}  // namespace

namespace {

// A move whose source disk is full says where the tags stand, and the run
// after it finishes the move.
TEST_F(Tool, AFailedMoveSaysWhereTheTagsStand) {
  ASSERT_EQ(run({"set", "-t", "k=v", "/mnt/photos/a.jpg"}).status, 0);
  ASSERT_EQ(std::system("mkdir -p /srv/photos && mv /mnt/photos/a.jpg /srv/photos/"), 0);
  fill("/mnt");
  Result r = run({"moved", "/mnt/photos/a.jpg", "/srv/photos/a.jpg"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("/mnt/photos/a.jpg: tags not moved: no space left on the device; every "
                       "tag is still here, and some may stand at the destination too until "
                       "'tevu moved' runs again"),
            std::string::npos)
      << r.err;
  EXPECT_EQ(rows("mnt", "SELECT Path FROM Meta"), (Rows{{"photos/a.jpg"}}));
  unlink("/mnt/filler");
  ASSERT_EQ(mount("tmpfs", "/mnt", "tmpfs", MS_REMOUNT, "size=16m"), 0);
  r = run({"moved", "/mnt/photos/a.jpg", "/srv/photos/a.jpg"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(rows("mnt", "SELECT count(*) FROM Meta"), (Rows{{"0"}}));
  EXPECT_EQ(run({"get", "/srv/photos/a.jpg", "k"}).out, "v\n");
}

}  // namespace

namespace {

// A reader who may not write the database, facing a change a writer left
// in the middle (a hot journal), is told that a writer must roll it back.
TEST_F(Tool, AReaderFacingAnInterruptedChangeIsToldWhatToDo) {
  ASSERT_EQ(run({"set", "-t", "k=v", "/mnt/photos/a.jpg"}).status, 0);
  const pid_t writer = fork();
  if (writer == 0) {
    sqlite3* db = nullptr;
    sqlite3_open(Sandbox::db_path("mnt").c_str(), &db);
    // Pages spill to the file mid-transaction; the process ends without a
    // commit or a rollback, and the journal stays hot.
    sqlite3_exec(db,
                 "PRAGMA cache_size=1; BEGIN; WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL "
                 "SELECT i+1 FROM n WHERE i<2000) INSERT INTO Meta (Path) SELECT "
                 "printf('%.500d', i) FROM n",
                 nullptr, nullptr, nullptr);
    _exit(0);
  }
  ASSERT_EQ(exit_status(writer), 0);
  ASSERT_EQ(access((Sandbox::db_path("mnt") + "-journal").c_str(), F_OK), 0);
  const pid_t reader = fork();
  if (reader == 0) {
    dup2(open("/tmp/reader.err", O_WRONLY | O_CREAT | O_TRUNC, 0666), 2);
    if (setgid(65534) != 0 || setuid(65534) != 0) _exit(99);
    exec_tool({"get", "/mnt/photos/a.jpg", "k"});
  }
  EXPECT_EQ(exit_status(reader), 1);
  EXPECT_EQ(tevul_test::read_file("/tmp/reader.err"),
            "tevu: /mnt/photos/a.jpg: tag database could not be read: an interrupted change "
            "must be rolled back first, by a user who may write the database (any tevu "
            "command that changes tags)\n");
  // A writer's command rolls it back; then everyone reads.
  EXPECT_EQ(run({"get", "/mnt/photos/a.jpg", "k"}).out, "v\n");
}

}  // namespace

namespace {

// The tool's heaviest paths on a router's stack (128 KiB, as musl gives a
// thread; the main thread is limited the same way here): the deepest and
// the longest condition, the longest paths, a walk over rows of 300 wide
// tags, the checked move across volumes and the repair.
TEST_F(Tool, HeaviestCommandsRunOn128KiBOfStack) {
  std::string deep = "/mnt";
  while (deep.size() < 3834) deep += "/" + std::string(200, 'd');
  ASSERT_TRUE(make_dirs(deep));
  const std::string longest = deep + "/" + std::string(4089 - deep.size(), 'f');
  ASSERT_TRUE(write_file(longest, "x"));
  std::vector<std::string> set_wide = {"set"};
  for (int i = 0; i < 300; ++i) {
    set_wide.push_back("-t");
    set_wide.push_back("tag" + std::to_string(i) + "=" + std::string(150, 'v'));
  }
  ASSERT_TRUE(make_dirs("/mnt/wide"));
  for (int i = 0; i < 20; ++i) {
    ASSERT_TRUE(write_file("/mnt/wide/" + std::to_string(i), std::string(i + 1, 'w')));
    set_wide.push_back("/mnt/wide/" + std::to_string(i));
  }
  set_wide.push_back(longest);
  const std::string deepest = tevul_test::deepest_condition("tag1", "tag2>=6", "tag3<2020");
  const std::string longest_condition = tevul_test::longest_condition("tag0", "tag9>'9'", "tag8=1");
  // A tree 900 directories deep for the walk of `set -r`.
  std::string chain = "/mnt/chain";
  for (int level = 0; level < 900; ++level) chain += "/d";
  ASSERT_TRUE(make_dirs(chain));

  g_stack_limit = 128 * 1024;
  const std::vector<std::vector<std::string>> commands = {
      set_wide,
      {"set", "-r", "-t", "again=1", "/mnt/wide"},
      {"set", "-r", "-n", "-t", "deep=1", "/mnt/chain"},
      {"list", longest},
      {"find", deepest},
      {"find", "-l", longest_condition},
      {"export"},
      {"tags"},
      {"values", "tag7"},
      {"rename", "tag5", "renamed5"},
      {"moved", "/mnt/wide", "/srv/wide"},
      {"repair", "/srv"},
  };
  for (const auto& command : commands) {
    if (command[0] == "moved") {
      ASSERT_EQ(system("cp -a /mnt/wide /srv/wide && rm -r /mnt/wide"), 0);
    }
    const Result r = run(command);
    // A search may find nothing (4); what counts is that it ends.
    EXPECT_TRUE(r.status == 0 || (command[0] == "find" && r.status == 4))
        << command[0] << ": " << r.status << " " << r.err.substr(0, 300);
  }
  g_stack_limit = 0;
  EXPECT_EQ(run({"get", "/srv/wide/7", "tag0"}).out, std::string(150, 'v') + "\n");
}

}  // namespace

namespace {

// The peak resident memory, in KiB, of `tevu ARGS` with its output thrown
// away.
long peak_kib(const std::vector<std::string>& args) {
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(open("/dev/null", O_WRONLY), 1);
    dup2(open("/dev/null", O_WRONLY), 2);
    exec_tool(args);
  }
  int status = 0;
  struct rusage usage {};
  if (wait4(pid, &status, 0, &usage) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    return -1;
  }
  return usage.ru_maxrss;
}

// What a walk holds does not grow with the rows: export (every walk and
// the tool's own output) over 100 MB of wide rows (300 files of 1,997 tags
// of 170 bytes) and over 100,000 narrow rows stays within a few MB of its
// start-up size. (A batch of 256 wide rows was held whole: 133 MB.)
TEST_F(Tool, ExportHoldsAFewMegabytesWhateverTheRows) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "the sanitizers' shadow memory says nothing of the tool's own";
#endif
  if (std::string(TEVU_TOOL_EMULATOR).size() > 0) {
    GTEST_SKIP() << "under an emulator the peak is the emulator's";
  }
  const long base = peak_kib({"export"});
  ASSERT_GT(base, 0);
  {
    tevul_test::RawDb raw(Sandbox::db_path("srv"));
    std::string columns, values;
    for (int i = 0; i < 1997; ++i) {
      raw.exec("ALTER TABLE Meta ADD COLUMN \".t" + std::to_string(i) + "\" TEXT");
      values += ", v";
    }
    raw.exec("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n WHERE i<300) "
             "INSERT INTO Meta SELECT 'w'||i, NULL" + values +
             " FROM n, (SELECT printf('%.170c', 'v') AS v)");
  }
  {
    tevul_test::RawDb raw(Sandbox::db_path("mnt"));
    raw.exec("ALTER TABLE Meta ADD COLUMN \".n\" TEXT");
    raw.exec("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n WHERE i<100000) "
             "INSERT INTO Meta(Path, \".n\") SELECT 'n'||i, i FROM n");
  }
  const long wide = peak_kib({"export", "/srv"});
  const long narrow = peak_kib({"export", "/mnt"});
  const long found = peak_kib({"find", "-l", "t5 or n>99990"});
  std::printf("peak RSS (KiB): start-up %ld, export of 100 MB of wide rows %ld, "
              "of 100,000 narrow rows %ld, find over both %ld\n",
              base, wide, narrow, found);
  EXPECT_GT(wide, 0);
  EXPECT_LE(wide - base, 4 * 1024);
  EXPECT_LE(narrow - base, 4 * 1024);
  EXPECT_LE(found - base, 4 * 1024);
}

}  // namespace

namespace {

// Decodes one JSON string at `text[*i]` (the opening quote), as RFC 8259
// reads it; "" on any escape it does not define.
std::string json_string(const std::string& text, std::size_t* i) {
  std::string out;
  for (++*i; *i < text.size() && text[*i] != '"'; ++*i) {
    if (text[*i] != '\\') {
      out += text[*i];
      continue;
    }
    const char c = text[++*i];
    const char* simple = std::strchr("\"\\/bfnrt", c);
    if (simple != nullptr && c != '\0') {
      out += "\"\\/\b\f\n\r\t"[simple - "\"\\/bfnrt"];
    } else if (c == 'u') {
      out += static_cast<char>(std::stoi(text.substr(*i + 1, 4), nullptr, 16));
      *i += 4;
    } else {
      return "";
    }
  }
  ++*i;
  return out;
}

// Every control byte (1 to 31, and DEL) in a path and a value comes out of
// --json escaped, as valid JSON, and reads back as the same bytes.
TEST_F(Tool, JsonEscapesEveryControlByte) {
  std::string controls;
  for (int c = 1; c < 32; ++c) controls += static_cast<char>(c);
  controls += '\x7f';
  const std::string file = "/mnt/ctl" + controls.substr(0, 9) + controls.substr(10);
  ASSERT_TRUE(write_file(file, "x"));
  tevul_test::tag_file(file, {{"v", controls}});
  const Result r = run({"list", "--json", file});
  ASSERT_EQ(r.status, 0) << r.err;
  ASSERT_FALSE(r.out.empty());
  const std::string line = r.out.substr(0, r.out.size() - 1);
  EXPECT_TRUE(valid_json(line)) << line;
  for (std::size_t k = 0; k < line.size(); ++k) {
    EXPECT_GE(static_cast<unsigned char>(line[k]), 0x20u) << "raw byte at " << k;
  }
  std::size_t i = line.find("\"path\":") + 7;
  EXPECT_EQ(json_string(line, &i), file);
  i = line.find("\"v\":") + 4;
  EXPECT_EQ(json_string(line, &i), controls);
}

}  // namespace

namespace {

// A record longer than 1 MiB (input that is no record list) is skipped and
// reported, and the records after it are imported: the import never holds
// more of its input than one record of that size.
TEST_F(Tool, AnOverlongRecordIsSkippedAndTheRestImported) {
  const std::string input = "/mnt/photos/a.jpg\tk=" + std::string(2 * 1024 * 1024, 'v') +
                            "\n/mnt/photos/a.jpg\tk=fits\n";
  const Result r = run({"import"}, input);
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "tevu: import: line 1: record longer than 1 MiB, skipped\n"
                   "tevu: import: 1 file, 1 tag, 1 failure\n");
  EXPECT_EQ(run({"get", "/mnt/photos/a.jpg", "k"}).out, "fits\n");
}

}  // namespace

namespace {

// With a number on the query side every operator compares numbers, and
// only stored numbers match: a word or an empty value never does, 1e2 is
// 100, exponents of any size are numbers. With text, text compares.
TEST_F(Tool, NumericComparisonsMatchOnlyNumbers) {
  const std::vector<std::pair<std::string, std::string>> values = {
      {"hundred", "100"}, {"exp", "1e2"}, {"word", "unrated"}, {"empty", ""},
      {"huge", "1e400"},  {"minus", "-5"}, {"frac", "99.5"}};
  for (const auto& [file, value] : values) {
    ASSERT_TRUE(write_file("/mnt/n/" + file, "x"));
    tevul_test::tag_file("/mnt/n/" + file, {{"n", value}});
  }
  const auto found = [&](const std::string& condition) {
    const Result r = run({"find", condition});
    std::string names;
    for (const std::string& line : sorted_lines(r.out)) names += line.substr(7) + " ";
    return names;
  };
  EXPECT_EQ(found("n=100"), "exp hundred ");
  EXPECT_EQ(found("n>99"), "exp frac huge hundred ");
  EXPECT_EQ(found("n<0"), "minus ") << "an empty value is no number";
  EXPECT_EQ(found("n!=100"), "frac huge minus ") << "words and empty values never match";
  EXPECT_EQ(found("n<=1e2 and n>=99.5"), "exp frac hundred ");
  EXPECT_EQ(found("n=unrated"), "word ");
  EXPECT_EQ(found("n>=u"), "word ") << "text compares as text";
}

}  // namespace

namespace {

// A file whose last tag was removed is no tagged file: `find 'not NAME'`
// does not list it, as `list` prints nothing for it.
TEST_F(Tool, AFileWithoutTagsIsFoundByNoCondition) {
  ASSERT_TRUE(write_file("/mnt/u", "x"));
  ASSERT_EQ(run({"set", "-t", "x=1", "/mnt/u"}).status, 0);
  ASSERT_EQ(run({"del", "-t", "x", "/mnt/u"}).status, 0);
  EXPECT_EQ(run({"list", "/mnt/u"}).out, "");
  const Result r = run({"find", "not rating"});
  EXPECT_EQ(r.out.find("/mnt/u"), std::string::npos) << r.out;
}

}  // namespace

namespace {

// find says what is wrong with its directory as tags does, counts 0 as an
// answer, and refuses options --first does not take.
TEST_F(Tool, FindSaysWhatIsWrongWithItsQuestion) {
  ASSERT_TRUE(write_file("/mnt/a", "x"));
  ASSERT_EQ(run({"set", "-t", "rating=5", "/mnt/a"}).status, 0);
  Result r = run({"find", "rating", "--under", "/tmp"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "tevu: /tmp: not on a tagged volume\n");
  r = run({"find", "rating", "--under", "/mnt/nonexistent"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "tevu: /mnt/nonexistent: no such file\n");
  r = run({"find", "--count", "nosuch"});
  EXPECT_EQ(r.status, 4);
  EXPECT_EQ(r.out, "0\n");
  EXPECT_EQ(r.err, "");
  r = run({"find", "--count", "rating=5"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "1\n");
  r = run({"find", "--count", "--first", "rating", "5"});
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err.find("--first prints one file's tags"), std::string::npos) << r.err;
  EXPECT_NE(run({"--help"}).out.find("4 not found (get, find, values,"), std::string::npos);
}

}  // namespace

namespace {

// import --json takes numbers as their JSON text, as programs that write
// JSON write them, and refuses an array with the reason.
TEST_F(Tool, ImportJsonTakesNumbersAndRefusesArrays) {
  ASSERT_TRUE(write_file("/mnt/a", "x"));
  Result r = run({"import", "--json"},
                 "{\"path\":\"/mnt/a\",\"tags\":{\"stars\":5,\"size\":1e2,\"neg\":-0.5}}\n"
                 "{\"path\":\"/mnt/a\",\"tags\":{\"who\":[\"ann\",\"bo\"]}}\n");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("line 2: /mnt/a: an array at character 32: a tag takes one value (a string or a "
                       "number)"),
            std::string::npos)
      << r.err;
  EXPECT_EQ(run({"list", "/mnt/a"}).out, "stars=5\nsize=1e2\nneg=-0.5\n");
  r = run({"import", "--json"}, "{\"path\":\"/mnt/a\",\"tags\":{\"n\":01}}\n");
  EXPECT_EQ(r.status, 1) << "a leading zero is no JSON number";
}

}  // namespace

namespace {

// find joins its operands into one condition, as users type them; two
// words are never taken for NAME=VALUE, nor a keyword for a tag name.
TEST_F(Tool, FindJoinsItsOperandsIntoOneCondition) {
  ASSERT_TRUE(write_file("/mnt/old", "x"));
  ASSERT_TRUE(write_file("/mnt/new", "x"));
  ASSERT_EQ(run({"set", "-t", "year=1999", "-t", "draft=", "/mnt/old"}).status, 0);
  ASSERT_EQ(run({"set", "-t", "year=2015", "/mnt/new"}).status, 0);
  EXPECT_EQ(run({"find", "year", ">", "2000", "and", "not", "draft"}).out, "/mnt/new\n");
  EXPECT_EQ(run({"find", "not", "draft"}).out, "/mnt/new\n");
  EXPECT_EQ(run({"find", "year>1990", "and", "year<2000"}).out, "/mnt/old\n");
  const Result r = run({"find", "year", "2015"});
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err.find("the 2 operands were joined into one condition: write NAME=VALUE"),
            std::string::npos)
      << r.err;
}

}  // namespace

namespace {

// rename --value renames one value of a tag everywhere, vanished files
// included; onto a value other files carry, the two merge. Its dry run
// lists the files and changes nothing.
TEST_F(Tool, RenameValueRenamesAndMergesValues) {
  for (const char* f : {"/mnt/a", "/mnt/b", "/srv/c", "/srv/gone"}) ASSERT_TRUE(write_file(f, "x"));
  ASSERT_EQ(run({"set", "-t", "genre=Rock", "/mnt/a", "/srv/c", "/srv/gone"}).status, 0);
  ASSERT_EQ(run({"set", "-t", "genre=rock-n-roll", "/mnt/b"}).status, 0);
  ASSERT_EQ(unlink("/srv/gone"), 0);
  const std::string before = databases();
  Result r = run({"rename", "--value", "-n", "-0", "genre", "rock", "rock'n'roll"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out.size(), 24u) << "three paths, each ended by a NUL byte";
  EXPECT_EQ(r.err, "tevu: rename: 3 files, 3 tags, 0 failures (dry run: nothing changed)\n");
  EXPECT_TRUE(databases() == before);
  r = run({"rename", "--value", "genre", "rock", "rock'n'roll"});
  EXPECT_EQ(r.status, 0) << r.err;
  r = run({"rename", "--value", "genre", "rock-n-roll", "rock'n'roll"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "tevu: rename: 1 file, 1 tag, 0 failures\n");
  r = run({"values", "genre"});
  EXPECT_EQ(r.out, "rock'n'roll\t4\n") << "merged";
  r = run({"rename", "--value", "genre", "jazz", "blues"});
  EXPECT_EQ(r.status, 4);
  EXPECT_EQ(r.err, "tevu: rename: genre: jazz: no file has this value\n");
  EXPECT_EQ(run({"rename", "--value", "genre", "a", "b\\c"}).status, 2);
}

}  // namespace

namespace {

// One output form per kind of output: list and get with several files
// escape a line feed or TAB in a path or value as every record does (raw
// with -0), and every dry run takes -0.
TEST_F(Tool, RecordsAreEscapedAlikeAndDryRunsTakeNul) {
  ASSERT_TRUE(write_file("/mnt/two\nlines", "x"));
  ASSERT_TRUE(write_file("/mnt/plain", "x"));
  tevul_test::tag_file("/mnt/two\nlines", {{"note", "a\nb\tc"}});
  tevul_test::tag_file("/mnt/plain", {{"note", "p"}});
  EXPECT_EQ(run({"list", "/mnt/two\nlines"}).out, "note=a\\nb\\tc\n");
  EXPECT_EQ(run({"list", "/mnt/two\nlines", "/mnt/plain"}).out,
            "/mnt/two\\nlines\tnote=a\\nb\\tc\n/mnt/plain\tnote=p\n");
  EXPECT_EQ(run({"get", "/mnt/two\nlines", "/mnt/plain", "note"}).out,
            "/mnt/two\\nlines\ta\\nb\\tc\n/mnt/plain\tp\n");
  EXPECT_EQ(run({"get", "/mnt/two\nlines", "note"}).out, "a\nb\tc\n") << "the value alone";
  EXPECT_EQ(run({"list", "-0", "/mnt/two\nlines"}).out, std::string("note=a\nb\tc\0", 11));
  EXPECT_EQ(run({"del", "--all", "-n", "-0", "note"}).out.size(), 26u) << "two paths, raw";
  // Every list of paths prints one line per file, escaped as records are.
  tevul_test::tag_file("/mnt/two\nlines", {{"other", "o"}});
  for (const std::vector<std::string>& command : std::vector<std::vector<std::string>>{
           {"find", "note"},
           {"del", "--all", "-n", "note"},
           {"rename", "-n", "note", "memo"},
           {"rename", "--value", "-n", "note", "a\nb\tc", "d"},
           {"set", "-r", "-n", "-t", "k=v", "/mnt/two\nlines"}}) {
    const Result r = run(command);
    EXPECT_EQ(r.out.substr(0, 16), "/mnt/two\\nlines\n") << command[0] << ": " << r.out << r.err;
  }
  EXPECT_EQ(run({"rename", "-n", "--merge", "other", "note"}).out,
            "/mnt/two\\nlines\tloses other=o\n");
  EXPECT_EQ(run({"import", "-n"}, "/mnt/two\\nlines\tk=v\n").out, "/mnt/two\\nlines\n");
  ASSERT_EQ(run({"repair", "/mnt/two\nlines"}).status, 0) << "fingerprinted";
  ASSERT_EQ(rename("/mnt/two\nlines", "/mnt/x\ty"), 0);
  EXPECT_EQ(run({"repair", "-n", "/mnt"}).out, "/mnt/two\\nlines\t/mnt/x\\ty\n");
  EXPECT_EQ(run({"repair", "-n", "-0", "/mnt"}).out, std::string("/mnt/two\nlines\t/mnt/x\ty\0", 24));
  EXPECT_EQ(run({"moved", "-n", "/mnt/two\nlines", "/mnt/x\ty"}).out, "/mnt/two\\nlines\n");
  EXPECT_EQ(run({"deleted", "-n", "/mnt/two\nlines"}).out, "/mnt/two\\nlines\n");
  EXPECT_EQ(run({"cleanup", "-n", "/mnt"}).out, "/mnt/two\\nlines\n");
  // A message names the file on one line too.
  EXPECT_EQ(run({"deleted", "/mnt/x\ty"}).err,
            "tevu: /mnt/x\\ty: still exists: its files would lose their tags (delete it first)\n"
            "tevu: deleted: 0 files, 0 tags, 1 failure\n");
  ASSERT_EQ(rename("/mnt/x\ty", "/mnt/two\nlines"), 0);
  ASSERT_EQ(rename("/mnt/plain", "/mnt/moved"), 0);
  EXPECT_EQ(run({"moved", "-n", "-0", "/mnt/plain", "/mnt/moved"}).out,
            std::string("/mnt/plain\0", 11));
}

}  // namespace

namespace {

// set -r shows import's progress line while standard error is a terminal,
// cleared before the count; nothing of it when it is not.
TEST_F(Tool, RecursiveSetShowsProgressOnATerminal) {
  for (int i = 0; i < 50; ++i) ASSERT_TRUE(write_file("/mnt/many/" + std::to_string(i), "x"));
  Result r = run({"set", "-r", "-t", "k=v", "/mnt/many"}, "", /*tty_stderr=*/true);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.err.find("\rtevu: set: "), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("\r\033[Ktevu: set: 51 files, 51 tags, 0 failures"), std::string::npos)
      << r.err;
  r = run({"set", "-r", "-t", "k=w", "/mnt/many"});
  EXPECT_EQ(r.err, "tevu: set: 51 files, 51 tags, 0 failures\n");
}

}  // namespace

namespace {

// repair and cleanup show the progress line on a terminal too, cleared
// before their count; the files they list on standard output stay whole.
TEST_F(Tool, RepairAndCleanupShowProgressOnATerminal) {
  for (int i = 0; i < 30; ++i) ASSERT_TRUE(write_file("/mnt/a/" + std::to_string(i), std::to_string(i)));
  ASSERT_EQ(run({"set", "-r", "-t", "k=v", "/mnt/a"}).status, 0);
  ASSERT_EQ(run({"repair", "/mnt"}).status, 0);
  ASSERT_EQ(system("mv /mnt/a /mnt/b"), 0);
  Result r = run({"repair", "/mnt"}, "", /*tty_stderr=*/true);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.err.find("\rtevu: repair: 1 file, "), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("\r\033[Ktevu: repair: 31 files moved, 0 ambiguous"), std::string::npos)
      << r.err;
  EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 31) << "the directory too: " << r.out;

  ASSERT_EQ(system("rm /mnt/b/1*"), 0);
  r = run({"cleanup", "/mnt/b"}, "", /*tty_stderr=*/true);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.err.find("\rtevu: cleanup: 1 file, "), std::string::npos) << r.err;
  EXPECT_NE(r.err.find(" records, "), std::string::npos) << "the rows are known: " << r.err;
  EXPECT_NE(r.err.find("\r\033[Ktevu: cleanup: 11 files, 11 tags, 0 failures"), std::string::npos)
      << r.err;
  ASSERT_EQ(system("rm /mnt/b/2*"), 0);
  r = run({"cleanup", "/mnt/b"});
  EXPECT_EQ(r.err, "tevu: cleanup: 11 files, 11 tags, 0 failures\n");
}

}  // namespace
