// The bytes the library writes and reads are the same on every byte order:
// a tag database written on one target reads back, byte for byte, as one
// written on any other.
//
//   endian_probe write DB     writes the sample tags into a new database DB
//   endian_probe check DB...  the test: writes a database of its own and
//                             compares what the library reads from it with
//                             what it reads from each DB
//
// tests/data holds databases written on x86_64 and under qemu-mips
// (big-endian), each by `endian_probe write tests/data/tags-ARCH.db` run on
// that target.
#include <sqlite3.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "sandbox.h"
#include "tevul.h"

namespace {

struct SampleFile {
  const char* path;
  std::vector<std::pair<const char*, std::string>> tags;
};

// Every kind of text the Data list encodes differently, multi-byte UTF-8,
// and a backslash the database strips.
const std::vector<SampleFile> kSample = {
    {"music/Bjørk/Jóga.flac", {{"artist", "Björk"}, {"year", "1997"}, {"genre", "Electronic"}}},
    {"music/東京/夜.mp3", {{"artist", "東京事変"}, {"title", "閃光少女"}, {"year", "0042"}}},
    {"docs/a|b.txt", {{"note", "a|b/c\\d"}, {"empty", ""}, {"lines", "one\ntwo"}}},
    {"photos/[2019] Trip/x.jpg",
     {{"rating", "5"}, {"who", "ann|bo"}, {"long", std::string(159, 'v')}}},
};

int write_sample(const std::string& file) {
  if (!tevul_test::create_tag_db(file).empty()) return 1;
  metadb_tagdb* db = metadb_tagdb_open(file.c_str());
  int failures = db == nullptr || metadb_tagdb_transaction_start(db) != 0;
  for (const SampleFile& f : kSample) {
    for (const auto& tag : f.tags) {
      failures += metadb_tagdb_settag(db, f.path, tag.first, tag.second.c_str()) != 0;
    }
    failures += metadb_tagdb_sync(db, f.path) != 0;
  }
  failures += metadb_tagdb_transaction_commit(db) != 0;
  metadb_tagdb_close(db);
  return failures == 0 ? 0 : 1;
}

// Each file's tags as the library reads them, and every row's Data list.
bool dump(const std::string& file, std::string* out) {
  metadb_tagdb* db = metadb_tagdb_open(file.c_str());
  bool ok = db != nullptr;
  for (const SampleFile& f : kSample) {
    *out += std::string(f.path) + "\n";
    for (const auto& tag : f.tags) {
      char value[512] = "";
      ok &= metadb_tagdb_gettag(db, f.path, tag.first, value, sizeof value) == 0;
      *out += "  " + std::string(tag.first) + "=" + value + "\n";
    }
  }
  metadb_tagdb_close(db);
  sqlite3* raw = nullptr;
  sqlite3_stmt* stmt = nullptr;
  ok &= sqlite3_open_v2(file.c_str(), &raw, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK &&
        sqlite3_prepare_v2(raw, "SELECT Path, Data FROM Meta ORDER BY ROWID", -1, &stmt,
                           nullptr) == SQLITE_OK;
  while (ok && sqlite3_step(stmt) == SQLITE_ROW) {
    const auto text = [stmt](int column) {
      const unsigned char* t = sqlite3_column_text(stmt, column);
      return t ? std::string(reinterpret_cast<const char*>(t)) : "NULL";
    };
    *out += "data " + text(0) + " " + text(1) + "\n";
  }
  sqlite3_finalize(stmt);
  sqlite3_close(raw);
  return ok;
}

int check(const std::vector<std::string>& written_elsewhere) {
  char scratch[] = "/var/tmp/tevul-endian.XXXXXX";
  if (mkdtemp(scratch) == nullptr) return 1;
  const std::string here = std::string(scratch) + "/written-here.db";
  std::string expected;
  int failures = write_sample(here) != 0 || !dump(here, &expected);
  for (const std::string& file : written_elsewhere) {
    // Read from a copy: a read may leave a journal beside the file.
    const std::string copy = std::string(scratch) + "/" + file.substr(file.rfind('/') + 1);
    tevul_test::write_file(copy, tevul_test::read_file(file));
    std::string got;
    const bool same = dump(copy, &got) && got == expected;
    std::printf(same ? "same bytes: %s\n" : "FAIL: %s reads back differently:\n", file.c_str());
    if (!same) std::printf("%s-- written here:\n%s", got.c_str(), expected.c_str());
    failures += !same;
    unlink(copy.c_str());
  }
  unlink(here.c_str());
  rmdir(scratch);
  return failures == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string command = argc >= 3 ? argv[1] : "";
  if (command == "write") return write_sample(argv[2]);
  if (command == "check") return check(std::vector<std::string>(argv + 2, argv + argc));
  std::fprintf(stderr, "usage: endian_probe write DB, endian_probe check DB...\n");
  return 2;
}
