// Read-only queries: every tag of one file, every file that carries a tag or
// a tag value, every tagged file of a tree, the tag names and values with
// their counts, straight from the volumes' databases. Exported as
// extensions; see tevul.h. The reader (tevu_reader) and the condition
// search (tevu_cond) are built on what this header shares.
//
// Each database is read through a connection of its own: private cache (no
// shared-cache table lock of another connection of the process stands in
// the way), read-write so that it rolls a hot journal back as any of the
// daemon's connections would, but with writes switched off (query_only).
// File locks are waited out, except one that a library connection of the
// calling thread holds (EDEADLK at once). Rows are copied out and the
// statement reset before the caller's callback runs, so no read lock is
// held while the caller's code runs and a writer waits at most for one
// batch. A volume that cannot be read is never passed over in silence: the
// walk goes on with the others and then returns its errno, and
// tevu_query_failure() names it.
#ifndef TEVUL_TEVU_QUERY_H
#define TEVUL_TEVU_QUERY_H

#include <limits.h>
#include <stdint.h>

#include <cstddef>

#include "common.h"
#include "metadb_bulk.h"
#include "tevu_volume.h"
#include "tevul.h"

namespace tevul {

// Rows per batch: the most rows held in memory at once.
constexpr int kQueryBatch = 256;
// Bytes per batch: a batch ends after the row that takes its rows' text
// (paths, names and values) to this size, however few rows it holds, so
// that a call holds at most this much of any database's rows, and one row.
// (1 MiB held 1.2 MB more at the peak of an export of wide rows.)
constexpr std::size_t kBatchBytes = 256 * 1024;

// ---------------------------------------------------------------------------
// What the calling thread's last query could not read.

// Forgets the failures of the thread's previous query.
void forget_failures();
// Records that `where` (a volume's root, or the meta directory) could not be
// read; returns `error`.
int note_failure(int error, const char* where);
// Records the failure of the volume with root `root` ("/N/"); returns
// `error`.
int note_volume_failure(int error, const char* root);

// ---------------------------------------------------------------------------
// Connections.

// One volume's database, opened for the queries.
struct query_db {
  db_ptr db;
  // The name under which Meta's row id can be read ("rowid", "oid" or
  // "_rowid_": the first that no column of a crafted table hides), or NULL.
  const char* rowid = nullptr;
};

// Opens the tag database `file` for the queries. Returns 0 or the errno of
// the failure (ENOENT for a file that is not there, EIO for a file without
// the table Meta, EBADF for one that is no database).
int open_query_db(const char* file, query_db* out);

// The errno of SQLite result `rc` on `db`: a lock that a connection of the
// calling thread holds is EDEADLK (the busy handler gave up at once).
int query_errno(sqlite3* db, int rc);

// The index of the column "Path" of `stmt`, or -1.
int path_column(sqlite3_stmt* stmt);

// ---------------------------------------------------------------------------
// Rows copied out of a statement, one batch at a time.

// The tagged files of one batch: each row's absolute path and its tags, all
// in one arena of terminated strings.
class row_batch {
 public:
  bool ok() const { return arena_.ok() && !failed_; }
  std::size_t rows() const { return rows_.size(); }
  // The bytes of text the batch holds.
  std::size_t bytes() const { return arena_.size(); }
  void clear();

  // Copies the row `stmt` stands on, from column `first` on, with `prefix`
  // before its stored path (column `path`): each tag column that is set,
  // its name without the ".", its value as stored. A row without tags is
  // left out unless `untagged_too`.
  void add(sqlite3_stmt* stmt, int first, int path, const char* prefix,
           bool untagged_too = false);

  // The path of row `i` and its tags as arrays, valid until the next call
  // or clear(). Returns false when memory is short.
  bool expose(std::size_t i, const char** path, std::size_t* count,
              const char* const** names, const char* const** values);
  // Hands row `i` to `cb`.
  int deliver(std::size_t i, tevu_row_cb cb, void* user);
  // Hands each tag of row `i` to `cb`.
  int deliver_tags(std::size_t i, tevu_tag_cb cb, void* user);

 private:
  struct row {
    std::size_t path;     // offset of the path in the arena
    std::size_t strings;  // index of the row's first offset in strings_
    std::size_t tags;
  };
  text arena_;
  array<row> rows_;
  array<std::size_t> strings_;  // per tag: the offsets of name and value
  array<const char*> names_;
  array<const char*> values_;
  bool failed_ = false;
};

// Runs `stmt` (row id first, in row id order, at most kQueryBatch rows after
// the row id bound at `after_param`) batch after batch, a batch also ending
// at kBatchBytes. `copy(stmt)` takes
// each row out (0, or an errno); once the statement is reset, so that no
// lock is held while the caller's code runs, `deliver(stop)` hands the
// batch on and sets *stop to stop the walk. Returns 0 or an errno.
template <typename Copy, typename Deliver>
int in_batches(sqlite3_stmt* stmt, int after_param, Copy copy, Deliver deliver,
               int* stop) {
  sqlite3* db = sqlite3_db_handle(stmt);
  sqlite3_int64 after = INT64_MIN;
  for (;;) {
    int rows = 0;
    std::size_t bytes = 0;
    sqlite3_bind_int64(stmt, after_param, after);
    int rc;
    while ((rc = metadb_step(stmt)) == SQLITE_ROW) {
      ++rows;
      after = sqlite3_column_int64(stmt, 0);
      if (const int failed = copy(stmt)) {
        sqlite3_reset(stmt);
        return failed;
      }
      for (int i = sqlite3_column_count(stmt) - 1; i >= 0; --i) {
        bytes += static_cast<std::size_t>(sqlite3_column_bytes(stmt, i));
      }
      if (bytes >= kBatchBytes) break;
    }
    const bool full = rc == SQLITE_ROW;  // cut by its bytes: more may follow
    sqlite3_reset(stmt);
    if (!full && rc != SQLITE_DONE) return query_errno(db, rc);
    if (const int failed = deliver(stop)) return failed;
    if (*stop != 0 || (!full && rows < kQueryBatch)) return 0;
  }
}

// Runs a search `stmt` (row id and stored path of each row, batched as
// in_batches() wants) and hands each file's absolute path, `root` and the
// stored path, to `cb`. Returns 0 or an errno; *stop as in_batches().
int paths_in_batches(sqlite3_stmt* stmt, int after_param, const char* root,
                     tevu_file_cb cb, void* user, int* stop);

// The name of a tag column, "." and a tag name of up to 256 bytes.
constexpr std::size_t kColumnSize = 256 + 2;

// True when Meta of `db` has the column of tag `name`, whose name
// (".name") is then in `column`. A name too long for it has none.
bool has_tag_column(sqlite3* db, const char* name, char (&column)[kColumnSize]);

// Sets *wide when Meta has as many columns as SQLite allows, leaving no
// room for the row id beside them in one result row. Returns 0 or an errno.
int wide_table(query_db& db, bool* wide);

// Runs a search `stmt` of `db` (batched as in_batches() wants) and hands
// each whole row it finds to `cb`, as tevu_tagged_files() does, `root`
// before its stored path. The search selects the row id and then every
// column ("rowid, *"), or, for a `wide` table, the row id first and each
// row is read again by it. A row without tags is handed on only when
// `untagged_too`. Returns 0 or an errno; *stop as in_batches().
int rows_in_batches(query_db& db, bool wide, bool untagged_too, sqlite3_stmt* stmt,
                    int after_param, const char* root, tevu_row_cb cb, void* user,
                    int* stop);

// ---------------------------------------------------------------------------
// The volumes.

// One volume of the tag file system as the queries walk them.
struct volume_link {
  char root[NAME_MAX + 3];  // "/N/"
  char db[kPathSize];       // its database file
  int error;                // why its database link could not be read, or 0
};

// Lists the volume links of the meta directory (symbolic links, in
// directory order; the database links "N@@db" beside them are no volumes)
// with their database links read at once, so that a tag file system that
// goes away while the volumes are read loses none of them. Returns 0 or the
// errno of a failed listing, which is recorded.
int list_volumes(array<volume_link>* out);

// Calls visit(db, root, &stop) with the database of every volume and its
// root with its final "/". A volume whose database cannot be opened, or
// for which visit returns an errno, is recorded and the walk goes on.
// Returns the callback's value when it stopped the walk (visit set
// `stop`), otherwise the errno of the first failure, or 0.
template <typename Visit>
int walk_volumes(Visit visit) {
  array<volume_link> volumes;
  int first = list_volumes(&volumes);
  for (std::size_t i = 0; i < volumes.size(); ++i) {
    const volume_link& v = volumes[i];
    int rc = v.error;
    if (rc == 0) {
      query_db db;
      rc = open_query_db(v.db, &db);
      int stop = 0;
      if (rc == 0) rc = visit(db, v.root, &stop);
      if (stop != 0) return stop;
    }
    if (rc != 0) {
      note_volume_failure(rc, v.root);
      if (first == 0) first = rc;
    }
  }
  return first;
}

// A literal place below which a query looks: an absolute path taken as it
// is written, with repeated and trailing slashes ignored, that need not
// exist on the disk. `rel` is the path as the volume's database stores it
// (empty for the volume root). Returns 0, EINVAL for a path that is
// relative or holds a "." or ".." component, ENAMETOOLONG, or ENOENT for a
// path on no tagged volume.
int locate_literal(const char* path, tevu_volume* volume, const char** rel,
                   char* plain);

// Copies the absolute path `path` into `out` (kPathSize bytes) with
// repeated and trailing slashes dropped. Returns 0, EINVAL for a path that
// is not absolute or holds a "." or ".." component (its canonical form
// cannot be told without the disk, and a ".." taken as text would reach
// another tree), ENAMETOOLONG for one that does not fit.
int plain_path(const char* path, char* out);

// The statement text with which tevu_find_files() searches one database
// for tag `name` (with `by_value`, for its value, bound as parameter 1;
// the row id to go on after is the last parameter), `rowid` being the name
// under which the table's row id can be read. Returns false when it does
// not fit `size` bytes or the name could name other columns.
bool find_sql(const char* name, bool by_value, const char* rowid, char* out,
              std::size_t size);

// The statement text with which the count of files carrying tag `name` is
// read from one database (with `subtree`, only files of stored path ?1 and
// below, ?2 being its literal pattern); with `values`, one count per value.
// Returns false as find_sql() does.
bool count_sql(const char* name, bool values, bool subtree, char* out,
               std::size_t size);

}  // namespace tevul

#endif  // TEVUL_TEVU_QUERY_H
