// Path maintenance. See metadb_path.h and tevul.h.
#include "metadb_path.h"

#include <sqlite3.h>
#include <string.h>

#include "common.h"
#include "metadb_bulk.h"
#include "metadb_tagdb.h"

namespace {

constexpr std::size_t kDeleteSqlSize = 8243;
constexpr std::size_t kRenameSqlSize = 16468;
constexpr std::size_t kMoveSqlSize = 16476;

constexpr char kDeleteAllSql[] = "DELETE FROM Meta";
constexpr char kDeleteSubtreeSql[] = "DELETE FROM Meta WHERE " TEVUL_SUBTREE;
constexpr char kRenameSql[] =
    "UPDATE Meta SET Path='%q'||SUBSTR(Path,LENGTH('%q')+1) "
    "WHERE " TEVUL_SUBTREE;
// Column 0 is each row's destination path; the table's columns follow.
constexpr char kMoveSelectSql[] =
    "SELECT '%q'||SUBSTR(Path,LENGTH('%q')+1) AS ToPath,* FROM Meta "
    "WHERE " TEVUL_SUBTREE;

constexpr char kScanSql[] = "SELECT Path FROM Meta";
constexpr char kCreateDelSql[] =
    "CREATE TEMP TABLE IF NOT EXISTS _Del_ (Delpath TEXT)";
constexpr char kInsertDelSql[] = "INSERT INTO _Del_ VALUES (?)";
constexpr char kDropDelSql[] = "DROP TABLE IF EXISTS _Del_";
// Handed over as one text of which only the first statement runs: the
// cleanup never VACUUMs, which on a router's flash would rewrite the whole
// database. Kept as the daemon's tooling has always issued it.
constexpr char kDeleteCollectedSql[] =
    "DELETE FROM Meta WHERE Path IN (SELECT Delpath FROM _Del_);VACUUM";

using tevul::glob_literal;
using tevul::sql_text;

bool usable(const metadb_tagdb* tagdb) {
  return tagdb != nullptr && tagdb->db;
}

// Copies the tags of the row `select` stands on to `dst`: the destination
// row is created first (column 0, ToPath), then every tag that is set.
// Returns false when the destination row could not be created.
bool copy_row(sqlite3_stmt* select, metadb_tagdb* dst) {
  const char* to_path = nullptr;
  const int columns = sqlite3_column_count(select);
  for (int i = 0; i < columns; ++i) {
    if (sqlite3_column_type(select, i) == SQLITE_NULL) continue;
    const char* name = sqlite3_column_name(select, i);
    const char* text = reinterpret_cast<const char*>(sqlite3_column_text(select, i));
    if (name == nullptr) continue;
    if (name[0] == '.') {
      // A tag that cannot be copied is lost; the move goes on.
      if (to_path != nullptr) metadb_tagdb_settag(dst, to_path, name + 1, text);
    } else if (strcmp(name, "ToPath") == 0) {
      to_path = text;
      if (metadb_insert_path(dst, to_path) == 0) return false;
    }
  }
  return true;
}

// Reads the cancel flag, which another thread may set while a scan runs.
int cancel_value(const int* cancel) {
  return __atomic_load_n(cancel, __ATOMIC_RELAXED);
}

}  // namespace

extern "C" int metadb_tagdb_delete_path(metadb_tagdb* tagdb, const char* path) {
  tevul::claim(tagdb);
  if (!usable(tagdb) || path == nullptr) return 1;
  sqlite3* db = tagdb->db.get();
  const int rc =
      path[0] == '\0'
          ? metadb_exec_query(db, kDeleteAllSql, nullptr, nullptr)
          : tevul::exec_text(db, sql_text<kDeleteSqlSize>(
                                     kDeleteSubtreeSql, path,
                                     glob_literal{path}));
  if (rc != SQLITE_OK) return 1;
  tagdb->modified = 1;
  return 0;
}

extern "C" int metadb_tagdb_rename_path(metadb_tagdb* tagdb,
                                        const char* old_path,
                                        const char* new_path) {
  tevul::claim(tagdb);
  if (!usable(tagdb) || tevul::is_empty(old_path) || tevul::is_empty(new_path)) {
    return 1;
  }
  const sql_text<kRenameSqlSize> sql(kRenameSql, new_path, old_path, old_path,
                                     glob_literal{old_path});
  if (tevul::exec_text(tagdb->db.get(), sql) != SQLITE_OK) return 1;
  tagdb->modified = 1;
  return 0;
}

extern "C" int metadb_tagdb_move_path(metadb_tagdb* src, const char* old_path,
                                      metadb_tagdb* dst, const char* new_path) {
  tevul::claim(src);
  tevul::claim(dst);
  if (!usable(src) || !usable(dst) || tevul::is_empty(old_path) ||
      tevul::is_empty(new_path)) {
    return tevul::metadb_failed();
  }
  sqlite3* db = src->db.get();
  {
    const sql_text<kMoveSqlSize> sql(kMoveSelectSql, new_path, old_path,
                                     old_path, glob_literal{old_path});
    tevul::stmt_ptr select;
    if (!sql.fits() || tevul::prepare(db, sql.c_str(), -1, select) != SQLITE_OK) {
      return tevul::metadb_failed();
    }
    // An error step ends the copy like the end of the rows does.
    while (metadb_step(select.get()) == SQLITE_ROW) {
      if (!copy_row(select.get(), dst)) return tevul::metadb_failed();
    }
  }
  // Inside src's transaction; src is not marked as written (see tevul.h).
  const sql_text<kMoveSqlSize> sql(kDeleteSubtreeSql, old_path,
                                   glob_literal{old_path});
  tevul::stmt_ptr remove;
  if (sql.fits() && tevul::prepare(db, sql.c_str(), -1, remove) == SQLITE_OK) {
    metadb_step(remove.get());
  }
  return tevul::metadb_ok();
}

extern "C" int metadb_tagdb_cleanup(const char* db_file, const char* root,
                                    int* cancel,
                                    metadb_cleanup_filter filter) {
  int never = 0;
  if (cancel == nullptr) cancel = &never;
  if (cancel_value(cancel) != 0) return 1;
  if (db_file == nullptr || root == nullptr) return tevul::metadb_failed();

  char absolute[tevul::kLongPathSize];
  const int root_len = tevul::format_cut(absolute, sizeof absolute, "%s/", root);
  std::size_t offset = root_len < 0 ? 0 : static_cast<std::size_t>(root_len);
  if (offset > sizeof absolute - 1) offset = sizeof absolute - 1;

  sqlite3* raw = nullptr;
  const int open_rc = sqlite3_open(db_file, &raw);
  tevul::db_ptr db(raw);  // closed also after a failed open
  if (open_rc != SQLITE_OK) return tevul::metadb_failed();
  tevul::stmt_ptr scan;
  if (tevul::prepare(raw, kScanSql, sizeof kScanSql, scan) != SQLITE_OK) {
    return tevul::metadb_failed();
  }

  tevul::stmt_ptr collect;
  while (cancel_value(cancel) == 0 && metadb_step(scan.get()) == SQLITE_ROW) {
    const char* stored = reinterpret_cast<const char*>(sqlite3_column_text(scan.get(), 0));
    if (stored == nullptr) stored = "";
    tevul::format_cut(absolute + offset, sizeof absolute - offset, "%s", stored);
    if (filter == nullptr || filter(absolute, 0) == 0) continue;
    if (!collect) {
      if (metadb_exec_query(raw, kCreateDelSql, nullptr, nullptr) != SQLITE_OK ||
          tevul::prepare(raw, kInsertDelSql, sizeof kInsertDelSql, collect) !=
              SQLITE_OK) {
        scan.reset();  // a DROP waits for no statement of its own connection
        metadb_exec_query(raw, kDropDelSql, nullptr, nullptr);
        return tevul::metadb_failed();
      }
    }
    sqlite3_bind_text(collect.get(), 1, stored, -1, SQLITE_STATIC);
    metadb_step(collect.get());
    sqlite3_reset(collect.get());
  }
  if (collect) {
    // The scan must be done before the DROP: a table cannot be dropped while
    // a statement of the same connection still reads.
    sqlite3_reset(scan.get());
    metadb_exec_query(raw, kDeleteCollectedSql, nullptr, nullptr);
    collect.reset();
    metadb_exec_query(raw, kDropDelSql, nullptr, nullptr);
  }
  return tevul::cancel_result(cancel_value(cancel));
}

// ---------------------------------------------------------------------------
// What the checked move adds.

namespace {

// The rows of stored path ?1 and below, the pattern ?2 being the path as a
// literal GLOB pattern with "/*" (tevul::glob_escape()). Bound rather than
// formatted: no path is too long for them.
constexpr char kSubtreeRowsSql[] =
    "SELECT * FROM Meta WHERE Path=?1 OR Path GLOB ?2";
constexpr char kSubtreeAnySql[] =
    "SELECT 1 FROM Meta WHERE Path=?1 OR Path GLOB ?2 LIMIT 1";
constexpr char kSubtreeDeleteSql[] =
    "DELETE FROM Meta WHERE Path=?1 OR Path GLOB ?2";
// The row lookup of the handle's cached statement (see metadb_tagdb.h).
constexpr char kSelectRowidSql[] = "SELECT ROWID FROM Meta WHERE Path=?";
// A tag's value copied as it is stored, type included.
constexpr char kCopyTagSql[] = "UPDATE Meta SET \".%s\"=? WHERE ROWID=?";
constexpr std::size_t kCopyTagSqlSize = 229;

// Prepares one of the subtree statements on `db` with `path` and its
// pattern bound. The pattern is kept in `pattern` for the statement's life.
int prepare_subtree(sqlite3* db, const char* sql, const char* path,
                    tevul::sqlite_text& pattern, tevul::stmt_ptr& stmt) {
  pattern.reset(tevul::glob_escape(path, "/*"));
  if (!pattern) return SQLITE_NOMEM;
  const int rc = tevul::prepare(db, sql, -1, stmt);
  if (rc != SQLITE_OK) return rc;
  sqlite3_bind_text(stmt.get(), 1, path, -1, SQLITE_STATIC);
  sqlite3_bind_text(stmt.get(), 2, pattern.get(), -1, SQLITE_STATIC);
  return SQLITE_OK;
}

// The row id of stored path `path` in `tagdb`, made when missing. Returns
// SQLITE_OK with *rowid set, or the SQLite code of the failure.
int row_for(metadb_tagdb* tagdb, const char* path, sqlite3_int64* rowid) {
  sqlite3* db = tagdb->db.get();
  // Looked up again after an insert: the insert's own row id is not to be
  // trusted ("INSERT OR IGNORE" reports none for a row that exists).
  for (int attempt = 0; attempt < 2; ++attempt) {
    int rc = tevul::prepare_rowid_once(db, kSelectRowidSql, sizeof kSelectRowidSql,
                                       tagdb->stmt_select_rowid);
    if (rc != SQLITE_OK) return rc;
    sqlite3_stmt* select = tagdb->stmt_select_rowid.get();
    sqlite3_bind_text(select, 1, path, -1, SQLITE_STATIC);
    rc = metadb_step(select);
    if (rc == SQLITE_ROW) *rowid = sqlite3_column_int64(select, 0);
    sqlite3_reset(select);
    if (rc == SQLITE_ROW) return SQLITE_OK;
    if (rc != SQLITE_DONE) return rc;
    if (attempt == 0 && metadb_insert_path(tagdb, path) <= 0) {
      return sqlite3_errcode(db) != SQLITE_OK ? sqlite3_errcode(db) : SQLITE_ERROR;
    }
  }
  return SQLITE_ERROR;
}

// Copies the tag column `column` of the row `select` stands on to row
// `rowid` of `dst`.
int copy_tag(sqlite3_stmt* select, int column, metadb_tagdb* dst,
             sqlite3_int64 rowid) {
  const char* tag = sqlite3_column_name(select, column) + 1;
  // A name that could name other columns never reaches a statement.
  if (!tevul::tag_sql_safe(tag) || metadb_add_tag_column(dst, tag) != 1) {
    return SQLITE_ERROR;
  }
  const sql_text<kCopyTagSqlSize> sql(kCopyTagSql, tevul::tag_ident{tag});
  if (!sql.fits()) return SQLITE_ERROR;
  sqlite3_stmt* update = nullptr;
  int rc = dst->settag_stmts.get(dst->db.get(), sql.c_str(), &update);
  if (rc != SQLITE_OK) return rc;
  sqlite3_bind_value(update, 1, sqlite3_column_value(select, column));
  sqlite3_bind_int64(update, 2, rowid);
  rc = metadb_step(update);
  sqlite3_reset(update);
  sqlite3_clear_bindings(update);
  return rc == SQLITE_DONE ? SQLITE_OK : rc;
}

}  // namespace

namespace tevul {

int merge_rows(metadb_tagdb* src, const char* old_path, metadb_tagdb* dst,
               const char* new_path, unsigned long* rows) {
  *rows = 0;
  sqlite_text pattern;
  stmt_ptr select;
  int rc = prepare_subtree(src->db.get(), kSubtreeRowsSql, old_path, pattern,
                           select);
  if (rc != SQLITE_OK) return rc;
  const int columns = sqlite3_column_count(select.get());
  int path_column = -1;
  for (int i = 0; i < columns && path_column < 0; ++i) {
    const char* name = sqlite3_column_name(select.get(), i);
    if (name != nullptr && std::strcmp(name, "Path") == 0) path_column = i;
  }
  if (path_column < 0) return SQLITE_ERROR;
  const std::size_t old_len = std::strlen(old_path);
  text to;
  while ((rc = metadb_step(select.get())) == SQLITE_ROW) {
    const char* from = reinterpret_cast<const char*>(
        sqlite3_column_text(select.get(), path_column));
    // Selected by the exact path or the literal pattern "old_path/*".
    if (from == nullptr || std::strncmp(from, old_path, old_len) != 0) {
      return SQLITE_ERROR;
    }
    to.clear();
    to.append(new_path).append(from + old_len);
    if (!to.ok()) return SQLITE_NOMEM;
    sqlite3_int64 rowid = 0;
    rc = row_for(dst, to.c_str(), &rowid);
    if (rc != SQLITE_OK) return rc;
    for (int i = 0; i < columns; ++i) {
      const char* name = sqlite3_column_name(select.get(), i);
      if (name == nullptr || name[0] != '.' ||
          sqlite3_column_type(select.get(), i) == SQLITE_NULL) {
        continue;
      }
      rc = copy_tag(select.get(), i, dst, rowid);
      if (rc != SQLITE_OK) return rc;
    }
    dst->modified = 1;
    if (metadb_tagdb_sync(dst, to.c_str()) != 0) {
      const int code = sqlite3_errcode(dst->db.get());
      return code != SQLITE_OK && code != SQLITE_DONE ? code : SQLITE_ERROR;
    }
    ++*rows;
  }
  return rc == SQLITE_DONE ? SQLITE_OK : rc;
}

int delete_subtree(metadb_tagdb* tagdb, const char* path, unsigned long* rows) {
  *rows = 0;
  sqlite_text pattern;
  stmt_ptr remove;
  int rc = prepare_subtree(tagdb->db.get(), kSubtreeDeleteSql, path, pattern,
                           remove);
  if (rc != SQLITE_OK) return rc;
  rc = run_stmt(remove.get(), nullptr, nullptr);
  if (rc != SQLITE_OK) return rc;
  *rows = static_cast<unsigned long>(sqlite3_changes(tagdb->db.get()));
  tagdb->modified = 1;
  return SQLITE_OK;
}

int subtree_has_rows(metadb_tagdb* tagdb, const char* path, int* code) {
  sqlite_text pattern;
  stmt_ptr any;
  int rc = prepare_subtree(tagdb->db.get(), kSubtreeAnySql, path, pattern, any);
  if (rc == SQLITE_OK) rc = metadb_step(any.get());
  if (rc == SQLITE_ROW) return 1;
  if (rc == SQLITE_DONE) return 0;
  *code = rc;
  return -1;
}

}  // namespace tevul
