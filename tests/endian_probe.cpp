// The bytes the library writes and reads are the same on every byte order:
// a tag database written on one target is read back, byte for byte, on
// every other, and the daemon's wake-up is the same single byte.
//
//   endian_probe write DB     writes the sample tags into a new database DB
//   endian_probe dump DB      prints what the library reads back from DB
//   endian_probe check DUMP DB...
//                             the test: writes a database of its own, and
//                             compares the dumps of it and of each DB with
//                             the file DUMP; checks the wake-up byte
//
// tests/data holds databases written by the library on x86_64 and under
// qemu-mips (big-endian), each by `endian_probe write tests/data/tags-ARCH.db`
// run on that target, and tags.dump, `endian_probe dump` of either.
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "sandbox.h"
#include "tevul.h"

namespace {

using Tag = std::pair<const char*, const char*>;

struct SampleFile {
  const char* path;
  std::vector<Tag> tags;
};

// Every kind of text the Data list encodes differently, multi-byte UTF-8,
// and a backslash the database strips.
const std::vector<SampleFile> kSample = {
    {"music/Bjørk/Jóga.flac", {{"artist", "Björk"}, {"year", "1997"}, {"genre", "Electronic"}}},
    {"music/東京/夜.mp3", {{"artist", "東京事変"}, {"title", "閃光少女"}, {"year", "0042"}}},
    {"docs/a|b.txt", {{"note", "a|b/c\\d"}, {"empty", ""}, {"lines", "one\ntwo"}}},
    {"photos/[2019] Trip/x.jpg", {{"rating", "5"}, {"who", "ann|bo"}, {"long", nullptr}}},
};

const std::string kLongValue(159, 'v');

int write_sample(const std::string& file) {
  unlink(file.c_str());
  if (!tevul_test::create_tag_db(file).empty()) return 1;
  metadb_tagdb* db = metadb_tagdb_open(file.c_str());
  if (db == nullptr) return 1;
  int failures = metadb_tagdb_transaction_start(db);
  for (const SampleFile& f : kSample) {
    for (const Tag& tag : f.tags) {
      const char* value = tag.second != nullptr ? tag.second : kLongValue.c_str();
      failures += metadb_tagdb_settag(db, f.path, tag.first, value) != 0;
    }
    failures += metadb_tagdb_sync(db, f.path) != 0;
  }
  failures += metadb_tagdb_transaction_commit(db);
  metadb_tagdb_close(db);
  return failures == 0 ? 0 : 1;
}

std::string hex(const std::string& text) {
  static const char digits[] = "0123456789abcdef";
  std::string out;
  for (unsigned char c : text) {
    out += digits[c >> 4];
    out += digits[c & 15];
  }
  return out;
}

// Each file's tags as the library reads them and its Data list, as hex.
bool dump(const std::string& file, std::string* out) {
  metadb_tagdb* db = metadb_tagdb_open(file.c_str());
  if (db == nullptr) return false;
  bool ok = true;
  for (const SampleFile& f : kSample) {
    *out += hex(f.path) + "\n";
    for (const Tag& tag : f.tags) {
      char value[512];
      ok &= metadb_tagdb_gettag(db, f.path, tag.first, value, sizeof value) == 0;
      *out += "  " + std::string(tag.first) + " " + hex(value) + "\n";
    }
  }
  metadb_tagdb_close(db);
  sqlite3* raw = nullptr;
  sqlite3_stmt* stmt = nullptr;
  ok &= sqlite3_open_v2(file.c_str(), &raw, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK &&
        sqlite3_prepare_v2(raw, "SELECT Path, Data FROM Meta ORDER BY ROWID", -1, &stmt,
                           nullptr) == SQLITE_OK;
  while (ok && sqlite3_step(stmt) == SQLITE_ROW) {
    *out += "data " + hex(reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0))) +
            " " + hex(reinterpret_cast<const char*>(sqlite3_column_text(stmt, 1))) + "\n";
  }
  sqlite3_finalize(stmt);
  sqlite3_close(raw);
  return ok;
}

// The wake-up the library writes: exactly one byte, zero.
bool wake_up_is_one_zero_byte(const std::string& dir) {
  const std::string fifo = dir + "/action_trigger";
  if (mkfifo(fifo.c_str(), 0600) != 0) return false;
  const int fd = open(fifo.c_str(), O_RDWR | O_NONBLOCK);
  if (fd < 0) return false;
  event_trigger(fd);
  unsigned char buf[4] = {0xff, 0xff, 0xff, 0xff};
  const ssize_t n = read(fd, buf, sizeof buf);
  close(fd);
  unlink(fifo.c_str());
  return n == 1 && buf[0] == 0;
}

int check(const std::string& dump_file, const std::vector<std::string>& written_elsewhere) {
  const std::string expected = tevul_test::read_file(dump_file);
  char scratch[] = "/var/tmp/tevul-endian.XXXXXX";
  if (expected.empty() || mkdtemp(scratch) == nullptr) return 1;
  std::vector<std::string> databases = {std::string(scratch) + "/written-here.db"};
  int failures = write_sample(databases[0]) != 0;
  for (const std::string& file : written_elsewhere) {
    // Read from a copy: a read may leave a journal beside the file.
    const std::string copy = std::string(scratch) + "/" + file.substr(file.rfind('/') + 1);
    const std::string bytes = tevul_test::read_file(file);
    if (bytes.empty() || !tevul_test::write_file(copy, bytes)) {
      std::printf("FAIL: cannot read %s\n", file.c_str());
      ++failures;
      continue;
    }
    databases.push_back(copy);
  }
  for (const std::string& db : databases) {
    std::string got;
    if (!dump(db, &got) || got != expected) {
      std::printf("FAIL: %s reads back differently:\n%s", db.c_str(), got.c_str());
      ++failures;
    } else {
      std::printf("same bytes: %s\n", db.c_str());
    }
    unlink(db.c_str());
  }
  if (!wake_up_is_one_zero_byte(scratch)) {
    std::printf("FAIL: the wake-up is not one zero byte\n");
    ++failures;
  }
  rmdir(scratch);
  return failures == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string command = argc >= 3 ? argv[1] : "";
  if (command == "write") return write_sample(argv[2]);
  if (command == "dump") {
    std::string out;
    if (!dump(argv[2], &out)) return 1;
    std::fputs(out.c_str(), stdout);
    return 0;
  }
  if (command == "check") return check(argv[2], std::vector<std::string>(argv + 3, argv + argc));
  std::fprintf(stderr, "usage: endian_probe write|dump DB, endian_probe check DUMP DB...\n");
  return 2;
}
