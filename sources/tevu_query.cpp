// Read-only queries. See tevu_query.h and tevul.h.
#include "tevu_query.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "common.h"
#include "metadb_bulk.h"
#include "tevu_volume.h"

namespace {

constexpr char kRowSql[] = "SELECT ROWID, * FROM Meta WHERE Path=?";
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

// The tags of one row, copied out of its statement.
struct tagged_row {
  std::string path;  // absolute
  std::vector<std::string> names;
  std::vector<std::string> values;
};

// Copies the current row of a statement over "ROWID, *" into `row`, with
// `prefix` before its stored path: each tag column that is set, its name
// without the ".", its value as stored.
void copy_row(sqlite3_stmt* stmt, const std::string& prefix, tagged_row* row) {
  row->path = prefix;
  const int columns = sqlite3_column_count(stmt);
  for (int i = 1; i < columns; ++i) {
    const char* name = sqlite3_column_name(stmt, i);
    const char* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt, i));
    if (name == nullptr || text == nullptr) continue;  // SQL NULL: not set
    if (strcmp(name, "Path") == 0) {
      row->path += text;
    } else if (name[0] == '.') {
      row->names.emplace_back(name + 1);
      row->values.emplace_back(text);
    }
  }
}

// Runs `stmt` (row id first, in row id order, one batch of at most
// tevu_query_batch rows after the row id bound at `after_param`) batch after
// batch. `copy` takes each row out into the batch; once the statement is
// reset, so that no lock is held while the caller's code runs, `deliver`
// hands each item on and stops the walk with a non-zero value. Returns 0,
// that value, or an errno.
template <typename Item, typename Copy, typename Deliver>
int in_batches(sqlite3_stmt* stmt, int after_param, Copy copy, Deliver deliver) {
  std::vector<Item> batch;
  sqlite3_int64 after = 0;
  for (;;) {
    batch.clear();
    std::size_t rows = 0;
    sqlite3_bind_int64(stmt, after_param, after);
    int rc;
    while ((rc = metadb_step(stmt)) == SQLITE_ROW) {
      ++rows;
      after = sqlite3_column_int64(stmt, 0);
      copy(stmt, &batch);
    }
    sqlite3_reset(stmt);
    if (rc != SQLITE_DONE) return metadb_errno(rc);
    for (const Item& item : batch) {
      if (const int stop = deliver(item)) return stop;
    }
    if (rows < static_cast<std::size_t>(tevu_query_batch)) return 0;
  }
}

// Calls `visit` with the read-only database of every volume linked in the
// meta directory and the volume's root with its final "/"; a volume without
// a usable database has no files. Returns ENOENT when the meta directory
// cannot be read, otherwise the first non-zero result of `visit`, or 0.
int each_volume_db(const std::function<int(sqlite3*, const std::string&)>& visit) {
  char meta[tevul::kPathSize];
  tevul::format_cut(meta, sizeof meta, "%s/meta", tevu_find_mount());
  struct walk {
    const std::function<int(sqlite3*, const std::string&)>* visit;
    int result;
  } w{&visit, 0};
  const bool read = tevu_each_volume(
      meta,
      [](void* user, const char* volume, const char* db_file) {
        walk* w = static_cast<walk*>(user);
        int error = 0;
        const metadb_db_ptr db = open_volume_db(db_file, &error);
        if (!db) return 0;
        w->result = (*w->visit)(db.get(), std::string("/") + volume + "/");
        return w->result;
      },
      &w);
  return read ? w.result : ENOENT;
}

// The read-only database of the volume that holds the existing `path`, and
// the path as that database stores it (empty for the volume root). Returns
// none with *error set to the errno when there is none.
metadb_db_ptr open_volume_of(const char* path, tevu_volume* volume, std::string* rel,
                             int* error) {
  char canonical[tevul::kPathSize];
  if (realpath(path, canonical) == nullptr) {
    *error = errno;
    return nullptr;
  }
  if (tevu_locate_volume(volume, canonical) != 1) {
    *error = ENOENT;
    return nullptr;
  }
  *rel = tevu_volume_relative(volume, canonical);
  return open_read_only(volume->db_path, error);
}

int file_tags(const char* path, tevu_tag_cb cb, void* user) {
  if (tevul::is_empty(path) || cb == nullptr) return kNoMount;
  if (tevu_find_mount() == nullptr) return kNoMount;
  tevu_volume volume;
  std::string rel;
  int error = 0;
  const metadb_db_ptr db = open_volume_of(path, &volume, &rel, &error);
  if (!db) return error;
  metadb_stmt_ptr stmt;
  const int prepared = metadb_prepare(db.get(), kRowSql, sizeof kRowSql, stmt);
  if (prepared != SQLITE_OK) return metadb_errno(prepared);
  // A volume root has the empty relative path, which no row carries.
  sqlite3_bind_text(stmt.get(), 1, rel.c_str(), -1, SQLITE_STATIC);
  tagged_row row;
  const int rc = metadb_step(stmt.get());
  if (rc == SQLITE_ROW) copy_row(stmt.get(), "", &row);
  stmt.reset();  // the caller's code runs without a lock held
  if (rc != SQLITE_ROW && rc != SQLITE_DONE) return metadb_errno(rc);
  for (std::size_t i = 0; i < row.names.size(); ++i) {
    if (const int stop = cb(user, row.names[i].c_str(), row.values[i].c_str())) return stop;
  }
  return 0;
}

// Hands every file of one volume's database that matches to `cb`.
int find_in(sqlite3* db, const std::string& prefix, const char* name,
            const char* value, tevu_file_cb cb, void* user) {
  const std::string column = std::string(".") + name;
  if (sqlite3_table_column_metadata(db, nullptr, "Meta", column.c_str(), nullptr,
                                    nullptr, nullptr, nullptr, nullptr) != SQLITE_OK) {
    return 0;  // no file of this volume ever carried the tag
  }
  const metadb_sql_text<kFindSqlSize> sql(
      value != nullptr ? tevu_query_find_value_sql : tevu_query_find_any_sql,
      metadb_tag_ident{name}, tevu_query_batch);
  if (!sql.fits()) return EIO;
  metadb_stmt_ptr stmt;
  const int prepared = metadb_prepare(db, sql.c_str(), -1, stmt);
  if (prepared != SQLITE_OK) return metadb_errno(prepared);
  if (value != nullptr) sqlite3_bind_text(stmt.get(), 1, value, -1, SQLITE_STATIC);
  return in_batches<std::string>(
      stmt.get(), value != nullptr ? 2 : 1,
      [&prefix](sqlite3_stmt* s, std::vector<std::string>* batch) {
        const char* path = reinterpret_cast<const char*>(sqlite3_column_text(s, 1));
        batch->push_back(prefix + (path != nullptr ? path : ""));
      },
      [cb, user](const std::string& path) { return cb(user, path.c_str()); });
}

int find_files(const char* name, const char* value, tevu_file_cb cb, void* user) {
  if (tevul::is_empty(name) || cb == nullptr) return kNoMount;
  if (tevu_find_mount() == nullptr) return kNoMount;
  if (!metadb_tag_sql_safe(name)) return EINVAL;
  return each_volume_db([&](sqlite3* db, const std::string& prefix) {
    return find_in(db, prefix, name, value, cb, user);
  });
}

// Hands every row of `db` that carries a tag, or only those of stored path
// `rel` and below it when `rel` is not empty, to `cb`; `prefix` is the
// volume's root with its final "/".
int rows_in(sqlite3* db, const std::string& prefix, const std::string& rel,
            tevu_row_cb cb, void* user) {
  const bool subtree = !rel.empty();
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
        metadb_glob_escape(rel.c_str()), sqlite3_free);
    if (!literal) return ENOMEM;
    pattern = std::string(literal.get()) + "/*";
    sqlite3_bind_text(stmt.get(), 2, rel.c_str(), -1, SQLITE_STATIC);
    sqlite3_bind_text(stmt.get(), 3, pattern.c_str(), -1, SQLITE_STATIC);
  }
  std::vector<const char*> names, values;
  return in_batches<tagged_row>(
      stmt.get(), 1,
      [&prefix](sqlite3_stmt* s, std::vector<tagged_row>* batch) {
        tagged_row row;
        copy_row(s, prefix, &row);
        if (!row.names.empty()) batch->push_back(std::move(row));
      },
      [&](const tagged_row& row) {
        names.clear();
        values.clear();
        for (std::size_t i = 0; i < row.names.size(); ++i) {
          names.push_back(row.names[i].c_str());
          values.push_back(row.values[i].c_str());
        }
        return cb(user, row.path.c_str(), names.size(), names.data(), values.data());
      });
}

int tagged_files(const char* dir, tevu_row_cb cb, void* user) {
  if ((dir != nullptr && dir[0] == '\0') || cb == nullptr) return kNoMount;
  if (tevu_find_mount() == nullptr) return kNoMount;
  if (dir == nullptr) {
    return each_volume_db([&](sqlite3* db, const std::string& prefix) {
      return rows_in(db, prefix, "", cb, user);
    });
  }
  tevu_volume volume;
  std::string rel;
  int error = 0;
  const metadb_db_ptr db = open_volume_of(dir, &volume, &rel, &error);
  if (!db) return error;
  return rows_in(db.get(), volume.prefix, rel, cb, user);
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
