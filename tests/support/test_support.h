// Test support: temporary directories, direct access to tag databases
// (independent of the library under test), and the fixtures.
#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "common.h"
#include "sandbox.h"
#include "tevul.h"

namespace tevul_test {

using Rows = std::vector<std::vector<std::string>>;
using Tags = std::vector<std::pair<std::string, std::string>>;

// A fresh directory under $TMPDIR (or /tmp), removed with its contents.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const {
    return path_ + "/" + name;
  }

 private:
  std::string path_;
};


// A plain SQLite connection with a private cache, for checking what the
// library wrote and for arranging what it should find.
class RawDb {
 public:
  explicit RawDb(const std::string& file, int busy_timeout_ms = 5000);
  ~RawDb();
  RawDb(const RawDb&) = delete;
  RawDb& operator=(const RawDb&) = delete;

  // Runs one or more statements; fails the test on error.
  void exec(const std::string& sql);
  // The rows of a query, each column as text ("NULL" for SQL NULL).
  std::vector<std::vector<std::string>> rows(const std::string& sql);
  // The single value of a query, or "NULL"/"(none)".
  std::string value(const std::string& sql);
  // Names of the columns of Meta, in table order.
  std::vector<std::string> columns();
  sqlite3* get() { return db_; }

 private:
  sqlite3* db_ = nullptr;
};

// The rows of the query `sql` on the tag database of the sandbox's `volume`.
Rows rows(const std::string& volume, const std::string& sql);

// Creates `file` (with its directories) unless it exists and sets `tags` on
// it through a bulk context of its own, committed on return.
void tag_file(const std::string& file, const Tags& tags);

// Runs `work` on a thread with a router's stack: 128 KiB, musl's default.
void on_small_stack(const std::function<void()>& work);

// The deepest condition the language takes (16 levels of parentheses and
// "not") around `name`, with the terms `or_term` and `and_term`.
std::string deepest_condition(const std::string& name, const std::string& or_term,
                              const std::string& and_term);
// The longest (128 terms): `first`, then `or_term` and "not `and_term`" by turns.
std::string longest_condition(const std::string& first, const std::string& or_term,
                              const std::string& and_term);

// Makes `root` ("/V/DIR", below the sandbox's volume V) a volume of its own,
// as the runtime file names one: V's database link is removed, so that the
// lookup falls back to the runtime file, and a new tag database `db` serves
// the root.
void make_runtime_volume(const std::string& root, const std::string& db);

// A library handle closed, and a bulk context released (and committed), at
// the end of their scope: the library's own owners.
using TagDbHandle = tevul::tagdb_ptr;
using Bulk = tevul::bulk_ptr;

// A test in a Sandbox of its own (see sandbox.h); skipped, saying why, where
// a sandbox cannot be built.
class SandboxTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (std::string why = Sandbox::unavailable_reason(); !why.empty()) GTEST_SKIP() << why;
    ASSERT_EQ(sandbox_.start(volumes(), mounts_tag_fs()), "");
  }
  // The volumes to build, and whether the tag file system is mounted.
  virtual std::vector<std::string> volumes() const { return {"mnt", "srv"}; }
  virtual bool mounts_tag_fs() const { return true; }

  Sandbox sandbox_;
};

// A test with a fresh tag database file_ in dir_, open through db_.
class TagDbTest : public ::testing::Test {
 protected:
  void SetUp() override {
    file_ = dir_ / "vol@@db";
    ASSERT_EQ(create_tag_db(file_), "");
    db_.reset(metadb_tagdb_open(file_.c_str()));
    ASSERT_NE(db_, nullptr);
  }

  TempDir dir_;
  std::string file_;
  TagDbHandle db_;
};

#ifdef TEVU_TOOL
// Runs the tool in place of the calling (child) process, behind an emulator
// when the suite runs under one. Binaries that run the tool define
// TEVU_TOOL and TEVU_TOOL_EMULATOR.
[[noreturn]] inline void exec_tool(const std::vector<std::string>& args) {
  std::vector<std::string> command;
  const std::string emulator = TEVU_TOOL_EMULATOR;
  for (std::size_t start = 0; start < emulator.size();) {
    const std::size_t end = std::min(emulator.find(' ', start), emulator.size());
    if (end > start) command.push_back(emulator.substr(start, end - start));
    start = end + 1;
  }
  command.push_back(TEVU_TOOL);
  command.insert(command.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& word : command) argv.push_back(word.data());
  argv.push_back(nullptr);
  execv(argv[0], argv.data());
  _exit(127);
}
#endif

}  // namespace tevul_test
