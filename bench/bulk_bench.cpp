// Bulk tagging through the library against a floor that issues the same
// SQLite statements in the same transactions directly, and against the same
// floor that also looks the volume's link up in the tag file system's meta
// directory once per file (one lstat(), as the library's volume check does on
// every path), plus the latency of a
// lookup by value and of a bulk gettag, and the time of a cleanup, at the
// largest N. Every measured run is a process of its own, so that its peak
// resident memory (ru_maxrss) is its own.
//
//   bulk_bench [--tmpfs] [--disk DIR] [--one-cpu] [--repeat R] [--tsv FILE] N...
//   bulk_bench --queries [--tmpfs] [--disk DIR] N...
//
// --queries measures only the read-only queries, at every N, on a database
// the library fills first: a search by value against the meta directory
// read it includes, a listing of every file that carries a tag (time per
// row and peak memory), and the tags of one file against a hand-written
// read of the same row.
//
// Runs in the library's real setting (see tests/support/sandbox.h): the
// volume /mnt is a tmpfs (--tmpfs, the default without --disk); with --disk,
// the volume /srv is DIR bind-mounted (a directory on a disk). Each bulk run
// is repeated R times (default 1) and the median reported. --one-cpu runs
// everything, the FUSE daemon included, on one CPU. Prints a Markdown
// table; --tsv also appends the rates to FILE for plotting. Needs root.
#include <dirent.h>
#include <sched.h>
#include <sqlite3.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "sandbox.h"
#include "tevul.h"

namespace {

using tevul_test::Sandbox;

constexpr int kTags = 4;
const char* const kTagNames[kTags] = {"id", "album", "kind", "rating"};

std::string file_path(const std::string& volume, long i) {
  return "/" + volume + "/bench/d" + std::to_string(i / 1000) + "/f" +
         std::to_string(i) + ".jpg";
}

std::string tag_value(long i, int t) {
  switch (t) {
    case 0:
      return "i" + std::to_string(i);
    case 1:
      return "album " + std::to_string(i / 100);
    case 2:
      return i % 2 ? "photo" : "scan";
    default:
      return std::to_string(i % 5);
  }
}

double seconds_since(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start)
      .count();
}

struct Measure {
  double seconds = -1;
  long peak_kb = 0;
};

// Runs `body` in a child process; it returns the seconds it measured.
Measure in_child(const std::function<double()>& body) {
  int fds[2];
  if (pipe(fds) != 0) return {};
  const pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    const double s = body();
    const ssize_t n = write(fds[1], &s, sizeof s);
    _exit(n == sizeof s ? 0 : 1);
  }
  close(fds[1]);
  Measure m;
  if (read(fds[0], &m.seconds, sizeof m.seconds) != sizeof m.seconds) {
    m.seconds = -1;
  }
  close(fds[0]);
  int status = 0;
  struct rusage usage;
  if (wait4(pid, &status, 0, &usage) == pid) m.peak_kb = usage.ru_maxrss;
  return m;
}

// The library: one bulk context, one file after another, four tags each.
double run_library(const std::string& volume, long n) {
  const auto start = std::chrono::steady_clock::now();
  tevu_bulk_ctx* bulk = tevu_bulk_init();
  if (bulk == nullptr) return -1;
  for (long i = 0; i < n; ++i) {
    if (tevu_bulk_setpath(bulk, file_path(volume, i).c_str()) != 0) return -1;
    for (int t = 0; t < kTags; ++t) {
      if (tevu_bulk_settag(bulk, kTagNames[t], tag_value(i, t).c_str()) != 0) {
        return -1;
      }
    }
  }
  tevu_bulk_fini(bulk);
  return seconds_since(start);
}

struct Stmt {
  sqlite3_stmt* s = nullptr;
  Stmt(sqlite3* db, const std::string& sql) {
    sqlite3_prepare_v2(db, sql.c_str(), -1, &s, nullptr);
  }
  ~Stmt() { sqlite3_finalize(s); }
  int step() {
    const int rc = sqlite3_step(s);
    sqlite3_reset(s);
    return rc;
  }
};

// True when the meta directory holds the volume link `name`, found the way
// the library's volume check finds it: one lstat() of <meta>/<name>.
bool lookup_volume(const std::string& meta, const std::string& name) {
  struct stat st;
  return lstat((meta + "/" + name).c_str(), &st) == 0 && S_ISLNK(st.st_mode);
}

// True when the meta directory holds the volume link `name`, read the way
// the queries read it: open, entries up to the link, close.
bool scan_meta(const std::string& meta, const std::string& name) {
  DIR* dir = opendir(meta.c_str());
  if (dir == nullptr) return false;
  bool found = false;
  while (const dirent* entry = readdir(dir)) {
    if (entry->d_type == DT_LNK && name == entry->d_name) {
      found = true;
      break;
    }
  }
  closedir(dir);
  return found;
}

// The floor: the statements the library issues for the same work, in the
// same transactions, on a connection opened the same way, with every
// statement prepared once and reused, and nothing else. With `with_lookup`,
// it also looks the volume's link up before each file, as the library must.
double run_floor(const std::string& volume, long n, bool with_lookup) {
  const auto start = std::chrono::steady_clock::now();
  sqlite3* db = nullptr;
  if (sqlite3_open_v2(Sandbox::db_path(volume).c_str(), &db,
                      SQLITE_OPEN_READWRITE | SQLITE_OPEN_SHAREDCACHE,
                      nullptr) != SQLITE_OK) {
    return -1;
  }
  sqlite3_busy_timeout(db, 100000);
  const std::string prefix_dir = "/" + volume + "/";
  const std::string meta = std::string(Sandbox::kMount) + "/meta";
  {
    Stmt begin(db, "BEGIN IMMEDIATE"), commit(db, "COMMIT"),
        rollback(db, "ROLLBACK");
    Stmt select_rowid(db, "SELECT ROWID FROM Meta WHERE Path=?");
    Stmt insert(db, "INSERT OR IGNORE INTO Meta(Path) Values (?)");
    Stmt select_row(db, "SELECT * FROM Meta WHERE Path=?");
    Stmt update_data(db, "UPDATE Meta SET Data=? WHERE Path=?");
    std::vector<std::unique_ptr<Stmt>> update_tag;
    for (long i = 0; i < n; ++i) {
      const std::string rel = file_path(volume, i).substr(prefix_dir.size());
      if (with_lookup && !lookup_volume(meta, volume)) return -1;
      if (i > 0) rollback.step();  // the library's begin rolls back first
      begin.step();
      for (int t = 0; t < kTags; ++t) {
        // Every tag looks its row up, the first one inserts it.
        sqlite3_bind_text(select_rowid.s, 1, rel.c_str(), -1, SQLITE_STATIC);
        sqlite3_int64 rowid = 0;
        if (sqlite3_step(select_rowid.s) == SQLITE_ROW) {
          rowid = sqlite3_column_int64(select_rowid.s, 0);
        }
        sqlite3_reset(select_rowid.s);
        if (rowid == 0) {
          sqlite3_bind_text(insert.s, 1, rel.c_str(), -1, SQLITE_STATIC);
          insert.step();
          rowid = sqlite3_last_insert_rowid(db);
        }
        if (update_tag.size() <= static_cast<std::size_t>(t)) {
          const std::string column = std::string("\".") + kTagNames[t] + "\"";
          sqlite3_exec(db, ("ALTER TABLE Meta ADD " + column + " TEXT COLLATE NOCASE").c_str(),
                       nullptr, nullptr, nullptr);
          sqlite3_exec(db, ("CREATE INDEX 'Cidx_" + std::string(kTagNames[t]) +
                            "' ON Meta (" + column + ")").c_str(),
                       nullptr, nullptr, nullptr);
          update_tag.push_back(std::make_unique<Stmt>(
              db, "UPDATE Meta SET " + column + "=REPLACE(?,'\\','') WHERE ROWID=?"));
        }
        const std::string value = tag_value(i, t);
        sqlite3_bind_text(update_tag[t]->s, 1, value.c_str(), -1, SQLITE_STATIC);
        sqlite3_bind_int64(update_tag[t]->s, 2, rowid);
        update_tag[t]->step();
      }
      // The row's Data, from its tag columns (these values need no escapes).
      std::string data;
      sqlite3_bind_text(select_row.s, 1, rel.c_str(), -1, SQLITE_STATIC);
      if (sqlite3_step(select_row.s) == SQLITE_ROW) {
        for (int c = 0; c < sqlite3_column_count(select_row.s); ++c) {
          const char* name = sqlite3_column_name(select_row.s, c);
          if (name[0] != '.' || sqlite3_column_type(select_row.s, c) != SQLITE_TEXT) {
            continue;
          }
          if (!data.empty()) data += '|';
          data += std::string(name + 1) + "=" +
                  reinterpret_cast<const char*>(sqlite3_column_text(select_row.s, c));
        }
      }
      sqlite3_reset(select_row.s);
      sqlite3_bind_text(update_data.s, 1, data.c_str(), -1, SQLITE_STATIC);
      sqlite3_bind_text(update_data.s, 2, rel.c_str(), -1, SQLITE_STATIC);
      update_data.step();
      commit.step();
    }
  }
  sqlite3_close(db);
  return seconds_since(start);
}

// Mean seconds of one lookup by value, over `count` random files.
double run_lookups(long n, int count) {
  std::mt19937 random(1);
  std::vector<char> buf(4096);
  const auto start = std::chrono::steady_clock::now();
  for (int k = 0; k < count; ++k) {
    const std::string id = tag_value(static_cast<long>(random() % n), 0);
    if (tevu_metadata_for_tagvalue("id", id.c_str(), buf.data(), buf.size()) != 0) {
      return -1;
    }
  }
  return seconds_since(start) / count;
}

// Mean seconds of one bulk gettag (after its setpath, which is not timed),
// over `count` random files.
double run_gettags(const std::string& volume, long n, int count) {
  std::mt19937 random(2);
  tevu_bulk_ctx* bulk = tevu_bulk_init();
  if (bulk == nullptr) return -1;
  char buf[256];
  double total = 0;
  for (int k = 0; k < count; ++k) {
    const long i = static_cast<long>(random() % n);
    if (tevu_bulk_setpath(bulk, file_path(volume, i).c_str()) != 0) return -1;
    const auto start = std::chrono::steady_clock::now();
    if (tevu_bulk_gettag(bulk, "album", buf, sizeof buf) != 0) return -1;
    total += seconds_since(start);
  }
  tevu_bulk_fini(bulk);
  return total / count;
}

// Mean seconds of one read of the meta directory, as every query's volume
// walk does it, over `count` reads.
double run_meta_reads(const std::string& volume, int count) {
  const std::string meta = std::string(Sandbox::kMount) + "/meta";
  const auto start = std::chrono::steady_clock::now();
  for (int k = 0; k < count; ++k) {
    if (!scan_meta(meta, volume)) return -1;
  }
  return seconds_since(start) / count;
}

// Mean seconds of one search by value that finds one file, over `count`
// random files.
double run_find_value(long n, int count) {
  std::mt19937 random(3);
  const auto start = std::chrono::steady_clock::now();
  for (int k = 0; k < count; ++k) {
    const std::string id = tag_value(static_cast<long>(random() % n), 0);
    long found = 0;
    if (tevu_find_files("id", id.c_str(),
                        [](void* user, const char*) { return ++*static_cast<long*>(user), 0; },
                        &found) != 0 ||
        found != 1) {
      return -1;
    }
  }
  return seconds_since(start) / count;
}

// Seconds of one listing of every file that carries tag "kind" (all n).
double run_find_all(long n) {
  long found = 0;
  const auto start = std::chrono::steady_clock::now();
  if (tevu_find_files("kind", nullptr,
                      [](void* user, const char*) { return ++*static_cast<long*>(user), 0; },
                      &found) != 0 ||
      found != n) {
    return -1;
  }
  return seconds_since(start);
}

// Mean seconds of tevu_file_tags() over `count` random files.
double run_file_tags(const std::string& volume, long n, int count) {
  std::mt19937 random(4);
  const auto start = std::chrono::steady_clock::now();
  for (int k = 0; k < count; ++k) {
    int tags = 0;
    const std::string path = file_path(volume, static_cast<long>(random() % n));
    if (tevu_file_tags(path.c_str(),
                       [](void* user, const char*, const char*) {
                         return ++*static_cast<int*>(user), 0;
                       },
                       &tags) != 0 ||
        tags != kTags) {
      return -1;
    }
  }
  return seconds_since(start) / count;
}

// The same work written by hand, as an application that knows only the
// tag file system must do it: the path made canonical, the volume link
// looked up in the meta directory and the database's link read, the database
// opened read-only, the row read and its tag columns copied, the database
// closed.
double run_hand_read(const std::string& volume, long n, int count) {
  std::mt19937 random(4);
  const std::string meta = std::string(Sandbox::kMount) + "/meta";
  const std::string prefix_dir = "/" + volume + "/";
  const auto start = std::chrono::steady_clock::now();
  for (int k = 0; k < count; ++k) {
    const std::string path = file_path(volume, static_cast<long>(random() % n));
    char canonical[4096];
    if (realpath(path.c_str(), canonical) == nullptr || !lookup_volume(meta, volume)) return -1;
    char db_file[4096];
    const ssize_t len = readlink((meta + "/" + volume + "@@db").c_str(), db_file,
                                 sizeof db_file - 1);
    if (len <= 0) return -1;
    db_file[len] = '\0';
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(db_file, &db,
                        SQLITE_OPEN_READONLY | SQLITE_OPEN_PRIVATECACHE, nullptr) != SQLITE_OK) {
      return -1;
    }
    std::vector<std::pair<std::string, std::string>> tags;
    {
      Stmt row(db, "SELECT * FROM Meta WHERE Path=?");
      const std::string rel = std::string(canonical).substr(prefix_dir.size());
      sqlite3_bind_text(row.s, 1, rel.c_str(), -1, SQLITE_STATIC);
      if (sqlite3_step(row.s) == SQLITE_ROW) {
        for (int c = 0; c < sqlite3_column_count(row.s); ++c) {
          const char* name = sqlite3_column_name(row.s, c);
          if (name[0] == '.' && sqlite3_column_type(row.s, c) == SQLITE_TEXT) {
            tags.emplace_back(name + 1, reinterpret_cast<const char*>(
                                            sqlite3_column_text(row.s, c)));
          }
        }
      }
    }
    sqlite3_close(db);
    if (tags.size() != kTags) return -1;
  }
  return seconds_since(start) / count;
}

// `count` random files of the `n` of the volume, named as a user would.
std::vector<std::string> random_files(const std::string& volume, long n, int count) {
  std::mt19937 random(5);
  std::vector<std::string> paths;
  for (int k = 0; k < count; ++k) {
    paths.push_back(file_path(volume, static_cast<long>(random() % n)));
  }
  return paths;
}

// Mean seconds of realpath() alone over `paths`, the part of a reader's
// call that is not the reader's.
double run_realpath(const std::vector<std::string>& paths) {
  const auto start = std::chrono::steady_clock::now();
  for (const std::string& path : paths) {
    char canonical[4096];
    if (realpath(path.c_str(), canonical) == nullptr) return -1;
  }
  return seconds_since(start) / static_cast<double>(paths.size());
}

// Mean seconds of the tags of one named file through one reader: asked for
// one by one, or all in one call.
double run_reader(const std::vector<std::string>& paths, bool together) {
  tevu_reader* reader = tevu_reader_open();
  if (reader == nullptr) return -1;
  std::vector<const char*> names;
  for (const std::string& path : paths) names.push_back(path.c_str());
  long tags = 0;
  const auto start = std::chrono::steady_clock::now();
  if (together) {
    const int rc = tevu_reader_files(
        reader, names.data(), names.size(),
        [](void* user, size_t, int error, size_t count, const char* const*,
           const char* const*) {
          *static_cast<long*>(user) += static_cast<long>(count);
          return error;
        },
        &tags);
    if (rc != 0) return -1;
  } else {
    for (const char* path : names) {
      if (tevu_reader_file_tags(reader, path,
                                [](void* user, const char*, const char*) {
                                  return ++*static_cast<long*>(user), 0;
                                },
                                &tags) != 0) {
        return -1;
      }
    }
  }
  const double seconds = seconds_since(start) / static_cast<double>(paths.size());
  tevu_reader_close(reader);
  return tags == static_cast<long>(paths.size()) * kTags ? seconds : -1;
}

int count_one(void* user, const char*, unsigned long) { return ++*static_cast<long*>(user), 0; }

// Seconds of every tag name with its count (`name` NULL), or of every value
// of tag `name` with its count; `expected` texts must come.
double run_counts(const char* name, long expected) {
  long seen = 0;
  const auto start = std::chrono::steady_clock::now();
  const int rc = name == nullptr ? tevu_tag_names(nullptr, count_one, &seen)
                                 : tevu_tag_values(name, nullptr, count_one, &seen);
  const double seconds = seconds_since(start);
  return rc == 0 && seen == expected ? seconds : -1;
}

// Seconds of one search by condition that finds `expected` files.
double run_condition(const char* condition, long expected) {
  long found = 0;
  const auto start = std::chrono::steady_clock::now();
  const int rc = tevu_find_where(condition, nullptr,
                                 [](void* user, const char*) {
                                   return ++*static_cast<long*>(user), 0;
                                 },
                                 &found, nullptr);
  const double seconds = seconds_since(start);
  return rc == 0 && found == expected ? seconds : -1;
}

// Seconds of what `tevu find -l kind` does: the search, each found file
// with its tags; against `tevu export`'s walk.
double run_find_long(long n) {
  long tags = 0;
  const auto start = std::chrono::steady_clock::now();
  const int rc = tevu_find_rows_where(
      "kind", nullptr,
      [](void* user, const char*, size_t count, const char* const*, const char* const*) {
        *static_cast<long*>(user) += static_cast<long>(count);
        return 0;
      },
      &tags, nullptr);
  const double seconds = seconds_since(start);
  return rc == 0 && tags == n * kTags ? seconds : -1;
}

double run_export(long n) {
  long files = 0;
  const auto start = std::chrono::steady_clock::now();
  const int rc = tevu_tagged_files(nullptr,
                                   [](void* user, const char*, size_t, const char* const*,
                                      const char* const*) {
                                     return ++*static_cast<long*>(user), 0;
                                   },
                                   &files);
  const double seconds = seconds_since(start);
  return rc == 0 && files == n ? seconds : -1;
}

// The query rows of the table, at N = n, on the database the last library
// run filled.
bool print_queries(const char* medium, const std::string& volume, long n) {
  const int readings = n < 100000 ? static_cast<int>(n) : 100000;
  // Each process makes its own list of paths, so that no other carries it.
  const Measure paths = in_child([&] { return run_realpath(random_files(volume, n, readings)); });
  const Measure reader = in_child([&] { return run_reader(random_files(volume, n, readings), true); });
  const Measure one_by_one =
      in_child([&] { return run_reader(random_files(volume, n, readings), false); });
  const Measure names = in_child([&] { return run_counts(nullptr, kTags); });
  const Measure kinds = in_child([&] { return run_counts("kind", 2); });
  const Measure albums = in_child([&] { return run_counts("album", (n + 99) / 100); });
  const Measure ids = in_child([&] { return run_counts("id", n); });
  const std::string one_id = "id=i" + std::to_string(n / 2) + " and kind=scan";
  const Measure by_index = in_child([&] { return run_condition(one_id.c_str(), 1); });
  const Measure scan = in_child([&] {
    return run_condition("kind=photo and not rating=3", n / 2 - n / 10);
  });
  const Measure find_long = in_child([&] { return run_find_long(n); });
  const Measure walk = in_child([&] { return run_export(n); });
  for (const Measure* m :
       {&paths, &reader, &one_by_one, &names, &kinds, &albums, &ids, &by_index, &scan, &find_long, &walk}) {
    if (m->seconds < 0) return false;
  }
  std::printf("| %s | reader, tags of named files, all in one call (mean of %d) | %ld | "
              "%.6f | | | %.1f | %.1f us beyond realpath (%.1f us) |\n",
              medium, readings, n, reader.seconds, reader.peak_kb / 1024.0,
              (reader.seconds - paths.seconds) * 1e6, paths.seconds * 1e6);
  std::printf("| %s | reader, one file per call (mean of %d) | %ld | %.6f | | | %.1f | "
              "%.1f us beyond realpath |\n",
              medium, readings, n, one_by_one.seconds, one_by_one.peak_kb / 1024.0,
              (one_by_one.seconds - paths.seconds) * 1e6);
  std::printf("| %s | tag names with counts | %ld | %.4f | | | %.1f | |\n", medium, n,
              names.seconds, names.peak_kb / 1024.0);
  std::printf("| %s | values of kind (2) / album (%ld) / id (%ld) | %ld | %.4f / %.4f / %.4f | "
              "| | %.1f | |\n",
              medium, (n + 99) / 100, n, n, kinds.seconds, albums.seconds, ids.seconds,
              ids.peak_kb / 1024.0);
  std::printf("| %s | condition '%s' (index) | %ld | %.4f | | | %.1f | |\n", medium,
              one_id.c_str(), n, by_index.seconds, by_index.peak_kb / 1024.0);
  std::printf("| %s | condition 'kind=photo and not rating=3' | %ld | %.4f | | | %.1f | |\n",
              medium, n, scan.seconds, scan.peak_kb / 1024.0);
  std::printf("| %s | find -l kind (rows with the search) / export walk | %ld | %.3f / %.3f | | | "
              "%.1f | %.2f x |\n",
              medium, n, find_long.seconds, walk.seconds, find_long.peak_kb / 1024.0,
              find_long.seconds / walk.seconds);
  const Measure meta = in_child([&] { return run_meta_reads(volume, 200); });
  const Measure by_value = in_child([&] { return run_find_value(n, 200); });
  const Measure all = in_child([&] { return run_find_all(n); });
  const Measure tags = in_child([&] { return run_file_tags(volume, n, 2000); });
  const Measure hand = in_child([&] { return run_hand_read(volume, n, 2000); });
  for (const Measure* m : {&meta, &by_value, &all, &tags, &hand}) {
    if (m->seconds < 0) return false;
  }
  std::printf("| %s | meta directory read (mean of 200) | %ld | %.6f | | | %.1f | |\n",
              medium, n, meta.seconds, meta.peak_kb / 1024.0);
  std::printf("| %s | find by value, one file (mean of 200) | %ld | %.6f | | | %.1f | "
              "%.3f ms beyond the meta read |\n",
              medium, n, by_value.seconds, by_value.peak_kb / 1024.0,
              (by_value.seconds - meta.seconds) * 1000);
  std::printf("| %s | find every file with a tag | %ld | %.3f | %.0f | %.5f | %.1f | "
              "%.2f us per row |\n",
              medium, n, all.seconds, n / all.seconds, all.seconds * 1000 / n,
              all.peak_kb / 1024.0, all.seconds * 1e6 / n);
  std::printf("| %s | file tags (mean of 2000) | %ld | %.6f | | | %.1f | %.2f x hand-written |\n",
              medium, n, tags.seconds, tags.peak_kb / 1024.0, tags.seconds / hand.seconds);
  std::printf("| %s | hand-written row read (mean of 2000) | %ld | %.6f | | | %.1f | |\n",
              medium, n, hand.seconds, hand.peak_kb / 1024.0);
  std::fflush(stdout);
  return true;
}

long g_rows_seen = 0;
int every_tenth_gone(const char*, int) { return ++g_rows_seen % 10 == 0; }

double run_cleanup(const std::string& volume) {
  int cancel = 0;
  const auto start = std::chrono::steady_clock::now();
  const int rc = tevu_cleanup(Sandbox::db_path(volume).c_str(),
                              Sandbox::volume_root(volume).c_str(), &cancel,
                              every_tenth_gone);
  return rc == 0 ? seconds_since(start) : -1;
}

bool fresh_database(const std::string& volume) {
  const std::string db = Sandbox::db_path(volume);
  unlink(db.c_str());
  unlink((db + "-journal").c_str());
  return tevul_test::create_tag_db(db).empty();
}

bool make_files(const std::string& volume, long n) {
  for (long i = 0; i < n; ++i) {
    const std::string path = file_path(volume, i);
    if (i % 1000 == 0 && !tevul_test::make_dirs(path.substr(0, path.rfind('/')))) {
      return false;
    }
    if (access(path.c_str(), F_OK) != 0 && !tevul_test::write_file(path, "")) {
      return false;
    }
  }
  return true;
}

void row(const char* medium, const char* what, long n, const Measure& m,
         const char* extra = "") {
  std::printf("| %s | %s | %ld | %.3f | %.0f | %.3f | %.1f | %s |\n", medium, what,
              n, m.seconds, m.seconds > 0 ? n / m.seconds : 0.0,
              m.seconds * 1000 / n, m.peak_kb / 1024.0, extra);
  std::fflush(stdout);
}

// The run with the median time of `runs` (an odd count is best); its peak
// RSS is the largest of all of them, so a run's memory is never understated.
Measure median(std::vector<Measure> runs) {
  long peak_kb = 0;
  for (const Measure& m : runs) peak_kb = std::max(peak_kb, m.peak_kb);
  std::sort(runs.begin(), runs.end(),
            [](const Measure& a, const Measure& b) { return a.seconds < b.seconds; });
  Measure m = runs[runs.size() / 2];
  m.peak_kb = peak_kb;
  return m;
}

}  // namespace

int main(int argc, char** argv) {
  std::string disk;
  std::string tsv_file;
  bool tmpfs = false;
  bool one_cpu = false;
  bool queries = false;
  int repeat = 1;
  std::vector<long> sizes;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--disk") == 0 && i + 1 < argc) {
      disk = argv[++i];
    } else if (std::strcmp(argv[i], "--tmpfs") == 0) {
      tmpfs = true;
    } else if (std::strcmp(argv[i], "--tsv") == 0 && i + 1 < argc) {
      tsv_file = argv[++i];
    } else if (std::strcmp(argv[i], "--queries") == 0) {
      queries = true;
    } else if (std::strcmp(argv[i], "--one-cpu") == 0) {
      one_cpu = true;
    } else if (std::strcmp(argv[i], "--repeat") == 0 && i + 1 < argc) {
      repeat = std::atoi(argv[++i]);
    } else {
      sizes.push_back(std::atol(argv[i]));
    }
  }
  if (sizes.empty() || repeat < 1 ||
      std::any_of(sizes.begin(), sizes.end(), [](long n) { return n < 1; })) {
    std::fprintf(stderr,
                 "usage: bulk_bench [--tmpfs] [--disk DIR] [--one-cpu] [--repeat R] "
                 "[--tsv FILE] N...\n"
                 "       bulk_bench --queries [--tmpfs] [--disk DIR] N...\n");
    return 2;
  }
  // Before the sandbox starts, so that the FUSE daemon inherits it: every
  // round trip to the daemon is then a switch on one CPU, as on a
  // single-core device, instead of a wake-up of another CPU.
  if (one_cpu) {
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    CPU_SET(sched_getcpu(), &cpus);
    if (sched_setaffinity(0, sizeof cpus, &cpus) != 0) {
      std::fprintf(stderr, "bulk_bench: cannot pin to one CPU\n");
      return 1;
    }
  }
  Sandbox sandbox;
  if (const std::string why = sandbox.start({"mnt", "srv"}); !why.empty()) {
    std::fprintf(stderr, "bulk_bench: %s\n", why.c_str());
    return 1;
  }
  struct Medium {
    const char* name;
    std::string volume;
  };
  std::vector<Medium> media;
  if (tmpfs || disk.empty()) media.push_back({one_cpu ? "tmpfs-1cpu" : "tmpfs", "mnt"});
  if (!disk.empty()) {
    if (!tevul_test::make_dirs(disk) ||
        mount(disk.c_str(), "/srv", nullptr, MS_BIND, nullptr) != 0) {
      std::fprintf(stderr, "bulk_bench: cannot bind %s on /srv\n", disk.c_str());
      return 1;
    }
    media.push_back({one_cpu ? "disk-1cpu" : "disk", "srv"});
  }
  const long largest = *std::max_element(sizes.begin(), sizes.end());
  // Appends, so that runs with different options can share one file.
  FILE* tsv = tsv_file.empty() ? nullptr : std::fopen(tsv_file.c_str(), "a");
  if (tsv && std::ftell(tsv) == 0) {
    std::fprintf(tsv,
                 "# medium\tN\tlibrary_files_per_s\tfloor_files_per_s\t"
                 "floor_with_lookup_files_per_s\n");
  }

  std::printf("median of %d run(s) each\n\n", repeat);
  std::printf("| medium | run | N | seconds | files/s | ms per file | peak RSS MB | note |\n");
  std::printf("|---|---|---|---|---|---|---|---|\n");
  for (const Medium& medium : media) {
    if (!make_files(medium.volume, largest)) {
      std::fprintf(stderr, "bulk_bench: cannot create the files\n");
      return 1;
    }
    for (long n : sizes) {
      if (queries) {
        fresh_database(medium.volume);
        if (in_child([&] { return run_library(medium.volume, n); }).seconds < 0 ||
            !print_queries(medium.name, medium.volume, n)) {
          std::fprintf(stderr, "bulk_bench: a query run on %s failed at N = %ld\n",
                       medium.name, n);
          return 1;
        }
        sandbox.drain_fifo();
        continue;
      }
      // The three runs alternate, so that a slow spell of the machine
      // falls on all of them.
      std::vector<Measure> floors, lookups, libs;
      for (int r = 0; r < repeat; ++r) {
        fresh_database(medium.volume);
        floors.push_back(in_child([&] { return run_floor(medium.volume, n, false); }));
        fresh_database(medium.volume);
        lookups.push_back(in_child([&] { return run_floor(medium.volume, n, true); }));
        fresh_database(medium.volume);
        sandbox.drain_fifo();
        libs.push_back(in_child([&] { return run_library(medium.volume, n); }));
        sandbox.drain_fifo();
      }
      for (const std::vector<Measure>* runs : {&floors, &lookups, &libs}) {
        for (const Measure& m : *runs) {
          if (m.seconds < 0) {
            std::fprintf(stderr, "bulk_bench: a run on %s failed at N = %ld\n",
                         medium.name, n);
            return 1;
          }
        }
      }
      const Measure floor = median(floors);
      const Measure lookup_floor = median(lookups);
      const Measure lib = median(libs);
      char ratio[96];
      std::snprintf(ratio, sizeof ratio, "%.2f x floor, %.2f x floor + lookup",
                    lib.seconds / floor.seconds, lib.seconds / lookup_floor.seconds);
      row(medium.name, "floor (SQLite only)", n, floor);
      row(medium.name, "floor + one lookup", n, lookup_floor);
      row(medium.name, "library", n, lib, ratio);
      if (tsv) {
        std::fprintf(tsv, "%s\t%ld\t%.1f\t%.1f\t%.1f\n", medium.name, n,
                     n / lib.seconds, n / floor.seconds, n / lookup_floor.seconds);
        std::fflush(tsv);  // a run stopped early keeps what it measured
      }
      if (n != largest) continue;
      // At the largest N, on the database the last library run filled.
      const Measure lookup = in_child([&] { return run_lookups(n, 200); });
      const Measure gettag =
          in_child([&] { return run_gettags(medium.volume, n, 2000); });
      const Measure cleanup = in_child([&] { return run_cleanup(medium.volume); });
      std::printf("| %s | lookup by value (mean of 200) | %ld | %.6f | | | %.1f | |\n",
                  medium.name, n, lookup.seconds, lookup.peak_kb / 1024.0);
      std::printf("| %s | bulk gettag (mean of 2000) | %ld | %.6f | | | %.1f | |\n",
                  medium.name, n, gettag.seconds, gettag.peak_kb / 1024.0);
      std::printf("| %s | cleanup, every 10th gone | %ld | %.3f | | | %.1f | |\n",
                  medium.name, n, cleanup.seconds, cleanup.peak_kb / 1024.0);
    }
  }
  if (tsv) std::fclose(tsv);
  return 0;
}
