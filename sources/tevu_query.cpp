// Read-only queries. See tevu_query.h and tevul.h.
#include "tevu_query.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common.h"
#include "metadb_bulk.h"
#include "tevu_volume.h"

using tevul::array;
using tevul::db_ptr;
using tevul::kPathSize;
using tevul::stmt_ptr;
using tevul::text;

namespace {

// Results for a missing argument or no mount, as the tag-file functions.
constexpr int kNoMount = ENOENT;

// ---------------------------------------------------------------------------
// What the calling thread's last query could not read.

constexpr unsigned kFailuresKept = 8;
struct failure_record {
  unsigned count;
  int error[kFailuresKept];
  char where[kFailuresKept][256];
};
__thread failure_record t_failures;

void forget_failures() { t_failures.count = 0; }

// Records that `where` (a volume's root, or the meta directory) could not be
// read; returns `error`.
int note_failure(int error, const char* where) {
  const unsigned i = t_failures.count;
  if (i < kFailuresKept) {
    t_failures.error[i] = error;
    tevul::format_cut(t_failures.where[i], sizeof t_failures.where[i], "%s", where);
    t_failures.count = i + 1;
  }
  return error;
}

// ---------------------------------------------------------------------------
// Connections.

// The errno of SQLite result `rc` on `db`: a lock that a connection of the
// calling thread holds is EDEADLK (the busy handler gave up at once).
int query_errno(sqlite3* db, int rc) {
  if (rc == SQLITE_BUSY && db != nullptr && tevul::blocked_by_own_thread(db)) {
    return EDEADLK;
  }
  return tevul::sqlite_errno(rc);
}

// One volume's database, opened for the queries.
struct query_db {
  db_ptr db;
  // The name under which Meta's row id can be read ("rowid", "oid" or
  // "_rowid_": the first that no column of a crafted table hides), or NULL.
  const char* rowid = nullptr;
};

// True when `name` reads the row id of Meta, not a column of that name.
bool reads_rowid(sqlite3* db, const char* name) {
  const char* type = nullptr;
  int primary_key = 0;
  return sqlite3_table_column_metadata(db, nullptr, "Meta", name, &type,
                                       nullptr, nullptr, &primary_key,
                                       nullptr) == SQLITE_OK &&
         primary_key != 0 && type != nullptr && strcasecmp(type, "INTEGER") == 0;
}

// Opens the tag database `file` for the queries. Returns 0 or the errno of
// the failure (ENOENT for a file that is not there, EIO for a file without
// the table Meta, EBADF for one that is no database).
int open_query_db(const char* file, query_db* out) {
  // Only a regular file (after links) is opened: a FIFO would block, and a
  // missing file must not be created.
  struct stat st;
  if (stat(file, &st) != 0) return errno;
  if (!S_ISREG(st.st_mode)) return ENOENT;
  sqlite3* raw = nullptr;
  const int rc = sqlite3_open_v2(
      file, &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_PRIVATECACHE, nullptr);
  out->db.reset(raw);  // closed also after a failed open
  if (rc != SQLITE_OK) return tevul::sqlite_errno(rc);
  sqlite3_busy_handler(raw, tevul::own_lock_aware_busy_handler, raw);
  sqlite3_exec(raw, "PRAGMA query_only=1", nullptr, nullptr, nullptr);
  // Reads the schema, rolling a hot journal back first.
  const int meta = sqlite3_table_column_metadata(raw, nullptr, "Meta", nullptr,
                                                 nullptr, nullptr, nullptr,
                                                 nullptr, nullptr);
  if (meta != SQLITE_OK) return query_errno(raw, meta);
  static const char* const kRowidNames[] = {"rowid", "oid", "_rowid_"};
  for (const char* name : kRowidNames) {
    if (reads_rowid(raw, name)) {
      out->rowid = name;
      break;
    }
  }
  return 0;
}

// ---------------------------------------------------------------------------
// Rows copied out of a statement, one batch at a time.

// The index of the column "Path" of `stmt`, or -1.
int path_column(sqlite3_stmt* stmt) {
  const int columns = sqlite3_column_count(stmt);
  for (int i = 0; i < columns; ++i) {
    const char* name = sqlite3_column_name(stmt, i);
    if (name != nullptr && strcmp(name, "Path") == 0) return i;
  }
  return -1;
}

// The tagged files of one batch: each row's absolute path and its tags, all
// in one arena of terminated strings.
class row_batch {
 public:
  bool ok() const { return arena_.ok() && !failed_; }
  std::size_t rows() const { return rows_.size(); }
  void clear() {
    arena_.clear();
    rows_.clear();
    strings_.clear();
  }

  // Copies the row `stmt` stands on, from column `first` on, with `prefix`
  // before its stored path (column `path`): each tag column that is set,
  // its name without the ".", its value as stored. A row without tags is
  // left out.
  void add(sqlite3_stmt* stmt, int first, int path, const char* prefix) {
    const row r{arena_.size(), strings_.size(), 0};
    const char* stored = reinterpret_cast<const char*>(sqlite3_column_text(stmt, path));
    arena_.append(prefix).append(stored != nullptr ? stored : "").push('\0');
    std::size_t tags = 0;
    const int columns = sqlite3_column_count(stmt);
    for (int i = first; i < columns; ++i) {
      const char* name = sqlite3_column_name(stmt, i);
      if (name == nullptr || name[0] != '.') continue;  // Path, Data, others
      const char* value = reinterpret_cast<const char*>(sqlite3_column_text(stmt, i));
      if (value == nullptr) continue;  // SQL NULL: not set
      failed_ |= !strings_.push(arena_.size());
      arena_.append(name + 1).push('\0');
      failed_ |= !strings_.push(arena_.size());
      arena_.append(value).push('\0');
      ++tags;
    }
    if (tags == 0) {  // no tags: nothing of the row stays
      arena_.truncate(r.path);
      strings_.truncate(r.strings);
      return;
    }
    failed_ |= !rows_.push(row{r.path, r.strings, tags});
  }

  // Hands row `i` to `cb`.
  int deliver(std::size_t i, tevu_row_cb cb, void* user) {
    const row& r = rows_[i];
    names_.clear();
    values_.clear();
    const char* base = arena_.c_str();
    for (std::size_t t = 0; t < r.tags; ++t) {
      if (!names_.push(base + strings_[r.strings + 2 * t]) ||
          !values_.push(base + strings_[r.strings + 2 * t + 1])) {
        return ENOMEM;
      }
    }
    return cb(user, base + r.path, r.tags, names_.data(), values_.data());
  }

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

}  // namespace

// ---------------------------------------------------------------------------
// The volumes.

namespace {

// One volume of the tag file system as the queries walk them.
struct volume_link {
  char root[NAME_MAX + 3];  // "/N/"
  char db[kPathSize];       // its database file
  int error;                // why its database link could not be read, or 0
};

// Lists the volume links of `meta` (symbolic links, in directory order; the
// database links "N@@db" beside them are no volumes) with their database
// links read at once, so that a tag file system that goes away while the
// volumes are read loses none of them. Returns 0 or the errno of a failed
// listing.
int list_volumes(const char* meta, array<volume_link>* out) {
  tevul::unique_fd fd(open(meta, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd.valid()) return errno;
  tevul::dir_ptr dir(fdopendir(fd.get()));
  if (!dir) return errno;
  const int dir_fd = fd.release();
  for (;;) {
    errno = 0;
    const dirent* entry = readdir(dir.get());
    if (entry == nullptr) return errno;  // 0 at the end, else a failed read
    const char* name = entry->d_name;
    bool link = entry->d_type == DT_LNK;
    if (entry->d_type == DT_UNKNOWN) {
      struct stat st;
      link = fstatat(dir_fd, name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(st.st_mode);
    }
    const std::size_t len = strlen(name);
    if (!link || (len >= 4 && strcmp(name + len - 4, "@@db") == 0)) continue;
    volume_link v;
    tevul::format_cut(v.root, sizeof v.root, "/%s/", name);
    v.error = 0;
    char db_link[NAME_MAX + 8];
    tevul::format_cut(db_link, sizeof db_link, "%s@@db", name);
    const ssize_t n = readlinkat(dir_fd, db_link, v.db, sizeof v.db);
    if (n < 0) {
      v.error = errno;
    } else if (static_cast<std::size_t>(n) >= sizeof v.db) {
      v.error = ENAMETOOLONG;
    } else {
      v.db[n] = '\0';
      // A relative target is followed through the link itself.
      if (v.db[0] != '/' &&
          !tevul::format_whole(v.db, sizeof v.db, "%s/%s", meta, db_link)) {
        v.error = ENAMETOOLONG;
      }
    }
    if (!out->push(v)) return ENOMEM;
  }
}

// `root` ("/N/") without its final "/", for naming the volume.
void volume_name(const char* root, char* out, std::size_t size) {
  tevul::format_cut(out, size, "%.*s", static_cast<int>(strlen(root)) - 1, root);
}

// Calls visit(db, root, &stop) for the database of every volume, its root
// with its final "/". A volume whose database cannot be opened or read is
// recorded and the walk goes on. Returns the callback's value when it
// stopped the walk (visit set `stop`), otherwise the errno of the first
// failure, or 0.
template <typename Visit>
int walk_volumes(Visit visit) {
  char meta[kPathSize];
  tevul::format_cut(meta, sizeof meta, "%s/meta", tevu_find_mount());
  array<volume_link> volumes;
  int first = list_volumes(meta, &volumes);
  if (first != 0) note_failure(first, meta);
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
      char name[sizeof v.root];
      volume_name(v.root, name, sizeof name);
      note_failure(rc, name);
      if (first == 0) first = rc;
    }
  }
  return first;
}

// The database of the volume that holds the existing `path`, and the path as
// that database stores it (empty for the volume root). Returns 0, or the
// errno when there is none (ENOENT for a path on no tagged volume).
int open_volume_of(const char* path, tevu_volume* volume, const char** rel,
                   char* canonical, query_db* db) {
  if (realpath(path, canonical) == nullptr) return errno;
  if (tevu_locate_volume(volume, canonical) != 1) return ENOENT;
  *rel = tevul::volume_relative(volume, canonical);
  const int rc = open_query_db(volume->db_path, db);
  if (rc != 0) {
    char name[kPathSize];
    volume_name(volume->prefix, name, sizeof name);
    note_failure(rc, name);
  }
  return rc;
}

// Runs `stmt` (row id first, in row id order, at most kQueryBatch rows after
// the row id bound at `after_param`) batch after batch. `copy` takes each
// row out; once the statement is reset, so that no lock is held while the
// caller's code runs, `deliver` hands the batch on and sets *stop to stop
// the walk. Returns 0 or an errno.
template <typename Copy, typename Deliver>
int in_batches(sqlite3_stmt* stmt, int after_param, Copy copy, Deliver deliver,
               int* stop) {
  sqlite3* db = sqlite3_db_handle(stmt);
  sqlite3_int64 after = INT64_MIN;
  for (;;) {
    int rows = 0;
    sqlite3_bind_int64(stmt, after_param, after);
    int rc;
    while ((rc = metadb_step(stmt)) == SQLITE_ROW) {
      ++rows;
      after = sqlite3_column_int64(stmt, 0);
      if (const int failed = copy(stmt)) {
        sqlite3_reset(stmt);
        return failed;
      }
    }
    sqlite3_reset(stmt);
    if (rc != SQLITE_DONE) return query_errno(db, rc);
    if (const int failed = deliver(stop)) return failed;
    if (*stop != 0 || rows < tevul::kQueryBatch) return 0;
  }
}

// ---------------------------------------------------------------------------
// The three queries.

// Every tag of the one row of `rel` in `db`, copied out, to `cb`.
int tags_of(query_db& db, const char* rel, tevu_tag_cb cb, void* user) {
  stmt_ptr stmt;
  const char kRowSql[] = "SELECT * FROM Meta WHERE Path=?";
  int rc = tevul::prepare(db.db.get(), kRowSql, sizeof kRowSql, stmt);
  if (rc != SQLITE_OK) return query_errno(db.db.get(), rc);
  // A volume root has the empty relative path, which no row carries.
  sqlite3_bind_text(stmt.get(), 1, rel, -1, SQLITE_STATIC);
  row_batch row;
  rc = metadb_step(stmt.get());
  if (rc == SQLITE_ROW) row.add(stmt.get(), 0, path_column(stmt.get()), "");
  stmt.reset();  // the caller's code runs without a lock held
  if (rc != SQLITE_ROW && rc != SQLITE_DONE) return query_errno(db.db.get(), rc);
  if (!row.ok()) return ENOMEM;
  struct tag_user {
    tevu_tag_cb cb;
    void* user;
  } each{cb, user};
  return row.rows() == 0 ? 0
                         : row.deliver(0,
                                       [](void* u, const char*, size_t count,
                                          const char* const* names,
                                          const char* const* values) {
                                         const tag_user* t = static_cast<tag_user*>(u);
                                         for (size_t i = 0; i < count; ++i) {
                                           if (const int stop = t->cb(t->user, names[i], values[i])) {
                                             return stop;
                                           }
                                         }
                                         return 0;
                                       },
                                       &each);
}

int file_tags(const char* path, tevu_tag_cb cb, void* user) {
  forget_failures();
  if (tevul::is_empty(path) || cb == nullptr) return kNoMount;
  if (tevu_find_mount() == nullptr) return kNoMount;
  tevu_volume volume;
  const char* rel = nullptr;
  char canonical[kPathSize];
  query_db db;
  if (const int rc = open_volume_of(path, &volume, &rel, canonical, &db)) return rc;
  return tags_of(db, rel, cb, user);
}

// Hands every file of one volume's database that matches to `cb`.
int find_in(query_db& db, const char* root, const char* name, const char* value,
            tevu_file_cb cb, void* user, int* stop) {
  char column[256 + 2];
  if (!tevul::format_whole(column, sizeof column, ".%s", name) ||
      sqlite3_table_column_metadata(db.db.get(), nullptr, "Meta", column, nullptr,
                                    nullptr, nullptr, nullptr, nullptr) != SQLITE_OK) {
    return 0;  // no file of this volume ever carried the tag
  }
  if (db.rowid == nullptr) return EIO;  // no way to read every row once
  char sql[306];
  if (!tevul::find_sql(name, value != nullptr, db.rowid, sql, sizeof sql)) return EIO;
  stmt_ptr stmt;
  const int prepared = tevul::prepare(db.db.get(), sql, -1, stmt);
  if (prepared != SQLITE_OK) return query_errno(db.db.get(), prepared);
  if (value != nullptr) sqlite3_bind_text(stmt.get(), 1, value, -1, SQLITE_STATIC);
  text paths;
  array<std::size_t> starts;
  return in_batches(
      stmt.get(), value != nullptr ? 2 : 1,
      [&](sqlite3_stmt* s) {
        const char* path = reinterpret_cast<const char*>(sqlite3_column_text(s, 1));
        if (!starts.push(paths.size())) return ENOMEM;
        paths.append(root).append(path != nullptr ? path : "").push('\0');
        return paths.ok() ? 0 : ENOMEM;
      },
      [&](int* stopped) {
        for (std::size_t i = 0; i < starts.size() && *stopped == 0; ++i) {
          *stopped = cb(user, paths.c_str() + starts[i]);
        }
        paths.clear();
        starts.clear();
        return 0;
      },
      stop);
}

int find_files(const char* name, const char* value, tevu_file_cb cb, void* user) {
  forget_failures();
  if (tevul::is_empty(name) || cb == nullptr) return kNoMount;
  if (tevu_find_mount() == nullptr) return kNoMount;
  if (!tevul::tag_sql_safe(name)) return EINVAL;
  return walk_volumes([&](query_db& db, const char* root, int* stop) {
    return find_in(db, root, name, value, cb, user, stop);
  });
}

// Hands every row of `db` that carries a tag, or only those of stored path
// `rel` and below it when `rel` is not empty, to `cb`; `root` is the
// volume's root with its final "/".
int rows_in(query_db& db, const char* root, const char* rel, tevu_row_cb cb,
            void* user, int* stop) {
  sqlite3* handle = db.db.get();
  if (db.rowid == nullptr) return EIO;  // no way to read every row once
  // A table of as many columns as SQLite allows has no room for the row id
  // beside them: its rows are then read one by one, by row id.
  stmt_ptr all;
  int rc = tevul::prepare(handle, "SELECT * FROM Meta", -1, all);
  if (rc != SQLITE_OK) return query_errno(handle, rc);
  const bool wide = sqlite3_column_count(all.get()) >=
                    sqlite3_limit(handle, SQLITE_LIMIT_COLUMN, -1);
  all.reset();
  const bool subtree = rel[0] != '\0';
  char sql[256];
  tevul::format_cut(sql, sizeof sql,
                    "SELECT %s%s FROM Meta WHERE %s>?1%s ORDER BY %s LIMIT %d",
                    db.rowid, wide ? "" : ", *", db.rowid,
                    subtree ? " AND (Path=?2 OR Path GLOB ?3)" : "", db.rowid,
                    tevul::kQueryBatch);
  stmt_ptr stmt;
  rc = tevul::prepare(handle, sql, -1, stmt);
  if (rc != SQLITE_OK) return query_errno(handle, rc);
  tevul::sqlite_text pattern;
  if (subtree) {
    pattern.reset(tevul::glob_escape(rel, "/*"));
    if (!pattern) return ENOMEM;
    sqlite3_bind_text(stmt.get(), 2, rel, -1, SQLITE_STATIC);
    sqlite3_bind_text(stmt.get(), 3, pattern.get(), -1, SQLITE_STATIC);
  }
  stmt_ptr one;
  if (wide) {
    char one_sql[64];
    tevul::format_cut(one_sql, sizeof one_sql, "SELECT * FROM Meta WHERE %s=?",
                      db.rowid);
    rc = tevul::prepare(handle, one_sql, -1, one);
    if (rc != SQLITE_OK) return query_errno(handle, rc);
  }
  const int path = path_column(wide ? one.get() : stmt.get());
  if (path < 0) return EIO;
  row_batch batch;
  return in_batches(
      stmt.get(), 1,
      [&](sqlite3_stmt* s) {
        if (!wide) {
          batch.add(s, 1, path, root);
          return batch.ok() ? 0 : ENOMEM;
        }
        sqlite3_bind_int64(one.get(), 1, sqlite3_column_int64(s, 0));
        const int got = metadb_step(one.get());
        if (got == SQLITE_ROW) batch.add(one.get(), 0, path, root);
        sqlite3_reset(one.get());
        if (got != SQLITE_ROW && got != SQLITE_DONE) return query_errno(handle, got);
        return batch.ok() ? 0 : ENOMEM;
      },
      [&](int* stopped) {
        for (std::size_t i = 0; i < batch.rows() && *stopped == 0; ++i) {
          *stopped = batch.deliver(i, cb, user);
        }
        batch.clear();
        return 0;
      },
      stop);
}

int tagged_files(const char* dir, tevu_row_cb cb, void* user) {
  forget_failures();
  if ((dir != nullptr && dir[0] == '\0') || cb == nullptr) return kNoMount;
  if (tevu_find_mount() == nullptr) return kNoMount;
  if (dir == nullptr) {
    return walk_volumes([&](query_db& db, const char* root, int* stop) {
      return rows_in(db, root, "", cb, user, stop);
    });
  }
  tevu_volume volume;
  const char* rel = nullptr;
  char canonical[kPathSize];
  query_db db;
  if (const int rc = open_volume_of(dir, &volume, &rel, canonical, &db)) return rc;
  int stop = 0;
  const int rc = rows_in(db, volume.prefix, rel, cb, user, &stop);
  if (stop != 0) return stop;
  if (rc != 0) {
    char name[kPathSize];
    volume_name(volume.prefix, name, sizeof name);
    note_failure(rc, name);
  }
  return rc;
}

}  // namespace

bool tevul::find_sql(const char* name, bool by_value, const char* rowid,
                     char* out, std::size_t size) {
  return tag_sql_safe(name) &&
         format_whole(out, size,
                      by_value ? "SELECT %s, Path FROM Meta WHERE Meta.\".%s\"=? "
                                 "AND %s>? ORDER BY %s LIMIT %d"
                               : "SELECT %s, Path FROM Meta WHERE Meta.\".%s\" "
                                 "IS NOT NULL AND %s>? ORDER BY %s LIMIT %d",
                      rowid, name, rowid, rowid, kQueryBatch);
}

extern "C" int tevu_tagged_files(const char* dir, tevu_row_cb cb, void* user) {
  return tagged_files(dir, cb, user);
}

extern "C" int tevu_file_tags(const char* path, tevu_tag_cb cb, void* user) {
  return file_tags(path, cb, user);
}

extern "C" int tevu_find_files(const char* name, const char* value,
                               tevu_file_cb cb, void* user) {
  return find_files(name, value, cb, user);
}

extern "C" int tevu_query_failure(unsigned index, char* volume, size_t size) {
  if (index >= t_failures.count) return 0;
  if (volume != nullptr && size > 0) {
    tevul::format_cut(volume, size, "%s", t_failures.where[index]);
  }
  return t_failures.error[index];
}
