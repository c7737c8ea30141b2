// Time and peak memory of a cleanup over N tagged rows whose filter reports
// every tenth file gone.
//
//   cleanup_bench N [DIR]
//
// The database is built by a child process, so that the measuring process's
// peak memory (getrusage ru_maxrss) is the cleanup's own.
#include <sqlite3.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "sandbox.h"
#include "tevul.h"

namespace {

long g_rows_seen = 0;

int every_tenth_gone(const char*, int) { return ++g_rows_seen % 10 == 0; }

// The rows left in table Meta of `file`, or -1 when it cannot be read.
long long count_rows(const std::string& file) {
  sqlite3* db = nullptr;
  sqlite3_stmt* stmt = nullptr;
  long long rows = -1;
  if (sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK &&
      sqlite3_prepare_v2(db, "SELECT count(*) FROM Meta", -1, &stmt, nullptr) == SQLITE_OK &&
      sqlite3_step(stmt) == SQLITE_ROW) {
    rows = sqlite3_column_int64(stmt, 0);
  }
  sqlite3_finalize(stmt);
  sqlite3_close(db);
  return rows;
}

bool build_database(const std::string& file, long rows) {
  sqlite3* db = nullptr;
  if (sqlite3_open(file.c_str(), &db) != SQLITE_OK) return false;
  sqlite3_exec(db,
               "CREATE TABLE Meta(Path TEXT UNIQUE, Data TEXT, \".id\" TEXT "
               "COLLATE NOCASE, \".album\" TEXT COLLATE NOCASE);"
               "CREATE INDEX 'Cidx_id' ON Meta (\".id\");"
               "CREATE INDEX 'Cidx_album' ON Meta (\".album\");BEGIN",
               nullptr, nullptr, nullptr);
  sqlite3_stmt* insert = nullptr;
  sqlite3_prepare_v2(db, "INSERT INTO Meta VALUES (?1, 'id='||?2||'|album='||?3, ?2, ?3)",
                     -1, &insert, nullptr);
  for (long i = 0; i < rows; ++i) {
    const std::string path = "photos/" + std::to_string(i / 500) + "/img" +
                             std::to_string(i) + ".jpg";
    const std::string id = "id-" + std::to_string(i);
    const std::string album = "Album " + std::to_string(i / 500);
    sqlite3_bind_text(insert, 1, path.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_text(insert, 2, id.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_text(insert, 3, album.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_step(insert);
    sqlite3_reset(insert);
  }
  sqlite3_finalize(insert);
  const bool ok = sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr) == SQLITE_OK;
  sqlite3_close(db);
  return ok;
}

}  // namespace

int main(int argc, char** argv) {
  const long rows = argc > 1 ? std::atol(argv[1]) : 100000;
  const std::string dir = argc > 2 ? argv[2] : "/tmp";
  const std::string file = dir + "/cleanup_bench.db";
  unlink(file.c_str());

  const pid_t child = fork();
  if (child == 0) _exit(build_database(file, rows) ? 0 : 1);
  if (tevul_test::exit_status(child) != 0) {
    std::fprintf(stderr, "cannot build %s\n", file.c_str());
    return 1;
  }

  rusage before{};
  getrusage(RUSAGE_SELF, &before);
  int cancel = 0;
  const auto start = std::chrono::steady_clock::now();
  const int rc = tevu_cleanup(file.c_str(), "/mnt", &cancel, every_tenth_gone);
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  rusage after{};
  getrusage(RUSAGE_SELF, &after);

  std::printf("rows %ld: result %d, filter calls %ld, rows left %lld, %.3f s, "
              "peak RSS %ld KiB (before the cleanup %ld KiB)\n",
              rows, rc, g_rows_seen, count_rows(file), seconds, after.ru_maxrss,
              before.ru_maxrss);
  unlink(file.c_str());
  return rc == 0 ? 0 : 1;
}
