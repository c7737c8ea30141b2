// Read-only queries. See tevu_query.h and tevul.h.
#include "tevu_query.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "common.h"
#include "metadb_bulk.h"
#include "tevu_volume.h"

namespace {

constexpr char kRowSql[] = "SELECT * FROM Meta WHERE Path=?";
// The buffer of the search texts, as long as the lookup's by value.
constexpr std::size_t kFindSqlSize = 306;
// Results for a missing argument or no mount, as the tag-file functions.
constexpr int kNoMount = ENOENT;

// Opens the tag database `file` for reading only. Returns the connection,
// or none with *error set to the errno of the failure.
metadb_db_ptr open_read_only(const char* file, int* error) {
  // Only a regular file (after links) is opened: a FIFO would block.
  struct stat st;
  if (stat(file, &st) != 0 || !S_ISREG(st.st_mode)) {
    *error = ENOENT;
    return nullptr;
  }
  sqlite3* raw = nullptr;
  const int rc = sqlite3_open_v2(
      file, &raw, SQLITE_OPEN_READONLY | SQLITE_OPEN_PRIVATECACHE, nullptr);
  metadb_db_ptr db(raw);  // closed also after a failed open
  if (rc != SQLITE_OK) {
    *error = metadb_errno(rc);
    return nullptr;
  }
  sqlite3_busy_handler(raw, metadb_busy_handler, nullptr);
  return db;
}

// The database behind the volume link `link` (<meta>/<name>@@db), opened
// for reading only. The link is read once and its absolute target opened,
// so that neither the check nor SQLite's open resolves the link through
// the tag file system again (each step there is a round trip to the
// daemon); a relative or unreadable link is opened as it is.
metadb_db_ptr open_volume_db(const char* link, int* error) {
  char target[tevul::kPathSize];
  const ssize_t len = readlink(link, target, sizeof target - 1);
  if (len <= 0 || target[0] != '/') return open_read_only(link, error);
  target[len] = '\0';
  return open_read_only(target, error);
}

// Copies the tags of row `path` of `db`: column names without their ".",
// values as stored, in column order. Returns 0 (also for no row) or an
// SQLite result code.
int read_row(sqlite3* db, const char* path,
             std::vector<std::pair<std::string, std::string>>* tags) {
  metadb_stmt_ptr stmt;
  int rc = metadb_prepare(db, kRowSql, sizeof kRowSql, stmt);
  if (rc != SQLITE_OK) return rc;
  sqlite3_bind_text(stmt.get(), 1, path, -1, SQLITE_STATIC);
  rc = metadb_step(stmt.get());
  if (rc == SQLITE_DONE) return SQLITE_OK;
  if (rc != SQLITE_ROW) return rc;
  const int columns = sqlite3_column_count(stmt.get());
  for (int i = 0; i < columns; ++i) {
    const char* name = sqlite3_column_name(stmt.get(), i);
    if (name == nullptr || name[0] != '.' ||
        sqlite3_column_type(stmt.get(), i) == SQLITE_NULL) {
      continue;
    }
    const char* value =
        reinterpret_cast<const char*>(sqlite3_column_text(stmt.get(), i));
    tags->emplace_back(name + 1, value != nullptr ? value : "");
  }
  return SQLITE_OK;
}

int file_tags(const char* path, tevu_tag_cb cb, void* user) {
  if (tevul::is_empty(path) || cb == nullptr) return kNoMount;
  if (tevu_find_mount() == nullptr) return kNoMount;
  char canonical[tevul::kPathSize];
  if (realpath(path, canonical) == nullptr) return errno;
  tevu_volume volume;
  if (tevu_locate_volume(&volume, canonical) != 1) return ENOENT;
  // A volume root has the empty relative path, which no row carries.
  const char* rel = tevu_volume_relative(&volume, canonical);

  int error = 0;
  const metadb_db_ptr db = open_read_only(volume.db_path, &error);
  if (!db) return error;
  std::vector<std::pair<std::string, std::string>> tags;
  const int rc = read_row(db.get(), rel, &tags);
  if (rc != SQLITE_OK) return metadb_errno(rc);
  for (const auto& tag : tags) {
    if (const int stop = cb(user, tag.first.c_str(), tag.second.c_str())) {
      return stop;
    }
  }
  return 0;
}

// Hands every file of one volume's database that matches to `cb`, one
// batch at a time. Returns 0, the callback's non-zero value, or an errno.
int find_in(sqlite3* db, const char* root, const char* name, const char* value,
            tevu_file_cb cb, void* user) {
  std::string column = ".";
  column += name;
  if (sqlite3_table_column_metadata(db, nullptr, "Meta", column.c_str(),
                                    nullptr, nullptr, nullptr, nullptr,
                                    nullptr) != SQLITE_OK) {
    return 0;  // no file of this volume ever carried the tag
  }
  const metadb_sql_text<kFindSqlSize> sql(
      value != nullptr ? tevu_query_find_value_sql : tevu_query_find_any_sql,
      metadb_tag_ident{name}, tevu_query_batch);
  if (!sql.fits()) return EIO;
  metadb_stmt_ptr stmt;
  const int prepared = metadb_prepare(db, sql.c_str(), -1, stmt);
  if (prepared != SQLITE_OK) return metadb_errno(prepared);
  const int rowid_param = value != nullptr ? 2 : 1;
  if (value != nullptr) {
    sqlite3_bind_text(stmt.get(), 1, value, -1, SQLITE_STATIC);
  }

  std::vector<std::string> batch;
  sqlite3_int64 after = 0;
  for (;;) {
    batch.clear();
    sqlite3_bind_int64(stmt.get(), rowid_param, after);
    int rc;
    while ((rc = metadb_step(stmt.get())) == SQLITE_ROW) {
      after = sqlite3_column_int64(stmt.get(), 0);
      const char* path =
          reinterpret_cast<const char*>(sqlite3_column_text(stmt.get(), 1));
      batch.push_back(std::string(root) + "/" + (path != nullptr ? path : ""));
    }
    // The read ends here: the caller's code runs without a lock held.
    sqlite3_reset(stmt.get());
    if (rc != SQLITE_DONE) return metadb_errno(rc);
    for (const std::string& path : batch) {
      if (const int stop = cb(user, path.c_str())) return stop;
    }
    if (batch.size() < static_cast<std::size_t>(tevu_query_batch)) return 0;
  }
}

// One search for files: its arguments, and its result so far.
struct file_search {
  const char* name;
  const char* value;
  tevu_file_cb cb;
  void* user;
  int result;
};

// Searches the database of volume `volume`; non-zero ends the walk.
int search_volume(void* user, const char* volume, const char* db_file) {
  file_search* s = static_cast<file_search*>(user);
  int error = 0;
  const metadb_db_ptr db = open_volume_db(db_file, &error);
  if (!db) return 0;  // a volume without a usable database has no files
  const std::string root = std::string("/") + volume;
  s->result = find_in(db.get(), root.c_str(), s->name, s->value, s->cb, s->user);
  return s->result;
}

int find_files(const char* name, const char* value, tevu_file_cb cb,
               void* user) {
  if (tevul::is_empty(name) || cb == nullptr) return kNoMount;
  const char* mount = tevu_find_mount();
  if (mount == nullptr) return kNoMount;
  if (!metadb_tag_sql_safe(name)) return EINVAL;
  char meta[tevul::kPathSize];
  tevul::format_cut(meta, sizeof meta, "%s/meta", mount);
  file_search s{name, value, cb, user, 0};
  if (!tevu_each_volume(meta, search_volume, &s)) return ENOENT;
  return s.result;
}

// The tags of one row of a walk, copied out of the statement.
struct tagged_row {
  std::string path;  // absolute
  std::vector<std::string> names;
  std::vector<std::string> values;
};

// Copies the current row of a rows statement ("ROWID, *") into `row`, with
// `prefix` before its stored path. Returns the row id.
sqlite3_int64 copy_row(sqlite3_stmt* stmt, const std::string& prefix,
                       tagged_row* row) {
  row->path = prefix;
  const int columns = sqlite3_column_count(stmt);
  for (int i = 1; i < columns; ++i) {
    const char* name = sqlite3_column_name(stmt, i);
    const char* text =
        reinterpret_cast<const char*>(sqlite3_column_text(stmt, i));
    if (name == nullptr || text == nullptr) continue;  // SQL NULL: not set
    if (strcmp(name, "Path") == 0) {
      row->path += text;
    } else if (name[0] == '.') {
      row->names.emplace_back(name + 1);
      row->values.emplace_back(text);
    }
  }
  return sqlite3_column_int64(stmt, 0);
}

// Hands every row of `db` that carries a tag, or only those of stored path
// `rel` and below it when `rel` is not empty, to `cb`, one batch at a time;
// `prefix` is the volume's root with its final "/". Returns 0, the
// callback's non-zero value, or an errno.
int rows_in(sqlite3* db, const std::string& prefix, const char* rel,
            tevu_row_cb cb, void* user) {
  const bool subtree = !tevul::is_empty(rel);
  char sql[sizeof tevu_query_subtree_rows_sql + 16];
  tevul::format_cut(sql, sizeof sql,
                    subtree ? tevu_query_subtree_rows_sql : tevu_query_rows_sql,
                    tevu_query_batch);
  metadb_stmt_ptr stmt;
  const int prepared = metadb_prepare(db, sql, -1, stmt);
  if (prepared != SQLITE_OK) return metadb_errno(prepared);
  std::string pattern;
  if (subtree) {
    std::unique_ptr<char, decltype(&sqlite3_free)> literal(
        metadb_glob_escape(rel), sqlite3_free);
    if (!literal) return ENOMEM;
    pattern = std::string(literal.get()) + "/*";
    sqlite3_bind_text(stmt.get(), 2, rel, -1, SQLITE_STATIC);
    sqlite3_bind_text(stmt.get(), 3, pattern.c_str(), -1, SQLITE_STATIC);
  }

  std::vector<tagged_row> batch;
  std::vector<const char*> names;
  std::vector<const char*> values;
  sqlite3_int64 after = 0;
  for (;;) {
    batch.clear();
    std::size_t rows = 0;
    sqlite3_bind_int64(stmt.get(), 1, after);
    int rc;
    while ((rc = metadb_step(stmt.get())) == SQLITE_ROW) {
      ++rows;
      tagged_row row;
      after = copy_row(stmt.get(), prefix, &row);
      if (!row.names.empty()) batch.push_back(std::move(row));
    }
    // The read ends here: the caller's code runs without a lock held.
    sqlite3_reset(stmt.get());
    if (rc != SQLITE_DONE) return metadb_errno(rc);
    for (const tagged_row& row : batch) {
      names.clear();
      values.clear();
      for (std::size_t i = 0; i < row.names.size(); ++i) {
        names.push_back(row.names[i].c_str());
        values.push_back(row.values[i].c_str());
      }
      if (const int stop = cb(user, row.path.c_str(), names.size(),
                              names.data(), values.data())) {
        return stop;
      }
    }
    if (rows < static_cast<std::size_t>(tevu_query_batch)) return 0;
  }
}

// One walk over the rows of every volume.
struct row_walk {
  tevu_row_cb cb;
  void* user;
  int result;
};

// Walks the database of volume `volume`; non-zero ends the walk.
int walk_volume(void* user, const char* volume, const char* db_file) {
  row_walk* w = static_cast<row_walk*>(user);
  int error = 0;
  const metadb_db_ptr db = open_volume_db(db_file, &error);
  if (!db) return 0;  // a volume without a usable database has no files
  const std::string prefix = std::string("/") + volume + "/";
  w->result = rows_in(db.get(), prefix, nullptr, w->cb, w->user);
  return w->result;
}

int tagged_files(const char* dir, tevu_row_cb cb, void* user) {
  if ((dir != nullptr && dir[0] == '\0') || cb == nullptr) return kNoMount;
  const char* mount = tevu_find_mount();
  if (mount == nullptr) return kNoMount;
  if (dir == nullptr) {
    char meta[tevul::kPathSize];
    tevul::format_cut(meta, sizeof meta, "%s/meta", mount);
    row_walk w{cb, user, 0};
    if (!tevu_each_volume(meta, walk_volume, &w)) return ENOENT;
    return w.result;
  }
  char canonical[tevul::kPathSize];
  if (realpath(dir, canonical) == nullptr) return errno;
  tevu_volume volume;
  if (tevu_locate_volume(&volume, canonical) != 1) return ENOENT;
  int error = 0;
  const metadb_db_ptr db = open_read_only(volume.db_path, &error);
  if (!db) return error;
  return rows_in(db.get(), volume.prefix,
                 tevu_volume_relative(&volume, canonical), cb, user);
}

}  // namespace

extern "C" int tevu_tagged_files(const char* dir, tevu_row_cb cb, void* user) {
  return tevul::c_boundary(ENOMEM, [&] { return tagged_files(dir, cb, user); });
}

extern "C" int tevu_file_tags(const char* path, tevu_tag_cb cb, void* user) {
  return tevul::c_boundary(ENOMEM, [&] { return file_tags(path, cb, user); });
}

extern "C" int tevu_find_files(const char* name, const char* value,
                               tevu_file_cb cb, void* user) {
  return tevul::c_boundary(ENOMEM,
                           [&] { return find_files(name, value, cb, user); });
}
