// Path maintenance. See metadb_path.h.
#include "metadb_path.h"

#include <sqlite3.h>
#include <string.h>

#include <algorithm>

#include "common.h"
#include "metadb_bulk.h"
#include "metadb_tagdb.h"

namespace {

constexpr std::size_t kDeleteSqlSize = 8243;
constexpr std::size_t kRenameSqlSize = 16468;
constexpr std::size_t kMoveSqlSize = 16476;

constexpr char kDeleteAllSql[] = "DELETE FROM Meta";
constexpr char kDeleteSubtreeSql[] = "DELETE FROM Meta WHERE " METADB_SUBTREE;
constexpr char kRenameSql[] =
    "UPDATE Meta SET Path='%q'||SUBSTR(Path,LENGTH('%q')+1) "
    "WHERE " METADB_SUBTREE;
// Column 0 is each row's destination path; the table's columns follow.
constexpr char kMoveSelectSql[] =
    "SELECT '%q'||SUBSTR(Path,LENGTH('%q')+1) AS ToPath,* FROM Meta "
    "WHERE " METADB_SUBTREE;

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
  if (!usable(tagdb) || path == nullptr) return 1;
  sqlite3* db = tagdb->db.get();
  const int rc =
      path[0] == '\0'
          ? metadb_exec_query(db, kDeleteAllSql, nullptr, nullptr)
          : metadb_exec_text(db, metadb_sql_text<kDeleteSqlSize>(
                                     kDeleteSubtreeSql, path,
                                     metadb_glob_literal{path}));
  if (rc != SQLITE_OK) return 1;
  tagdb->modified = 1;
  return 0;
}

extern "C" int metadb_tagdb_rename_path(metadb_tagdb* tagdb,
                                        const char* old_path,
                                        const char* new_path) {
  if (!usable(tagdb) || tevul::is_empty(old_path) || tevul::is_empty(new_path)) {
    return 1;
  }
  const metadb_sql_text<kRenameSqlSize> sql(kRenameSql, new_path, old_path,
                                            old_path,
                                            metadb_glob_literal{old_path});
  if (metadb_exec_text(tagdb->db.get(), sql) != SQLITE_OK) return 1;
  tagdb->modified = 1;
  return 0;
}

extern "C" int metadb_tagdb_move_path(metadb_tagdb* src, const char* old_path,
                                      metadb_tagdb* dst, const char* new_path) {
  if (!usable(src) || !usable(dst) || tevul::is_empty(old_path) ||
      tevul::is_empty(new_path)) {
    return metadb_failed();
  }
  sqlite3* db = src->db.get();
  {
    const metadb_sql_text<kMoveSqlSize> sql(kMoveSelectSql, new_path, old_path,
                                            old_path,
                                            metadb_glob_literal{old_path});
    metadb_stmt_ptr select;
    if (!sql.fits() || metadb_prepare(db, sql.c_str(), -1, select) != SQLITE_OK) {
      return metadb_failed();
    }
    // An error step ends the copy like the end of the rows does.
    while (metadb_step(select.get()) == SQLITE_ROW) {
      if (!copy_row(select.get(), dst)) return metadb_failed();
    }
  }
  // Inside src's transaction; src is not marked as written (see tevul.h).
  const metadb_sql_text<kMoveSqlSize> sql(kDeleteSubtreeSql, old_path,
                                          metadb_glob_literal{old_path});
  metadb_stmt_ptr remove;
  if (sql.fits() && metadb_prepare(db, sql.c_str(), -1, remove) == SQLITE_OK) {
    metadb_step(remove.get());
  }
  return metadb_ok();
}

extern "C" int metadb_tagdb_cleanup(const char* db_file, const char* root,
                                    int* cancel,
                                    metadb_cleanup_filter filter) {
  int never = 0;
  if (cancel == nullptr) cancel = &never;
  if (cancel_value(cancel) != 0) return 1;
  if (db_file == nullptr || root == nullptr) return metadb_failed();

  char absolute[tevul::kLongPathSize];
  const int root_len = tevul::format_cut(absolute, sizeof absolute, "%s/", root);
  const std::size_t offset =
      root_len < 0 ? 0
                   : std::min<std::size_t>(static_cast<std::size_t>(root_len),
                                           sizeof absolute - 1);

  sqlite3* raw = nullptr;
  const int open_rc = sqlite3_open(db_file, &raw);
  metadb_db_ptr db(raw);  // closed also after a failed open
  if (open_rc != SQLITE_OK) return metadb_failed();
  metadb_stmt_ptr scan;
  if (metadb_prepare(raw, kScanSql, sizeof kScanSql, scan) != SQLITE_OK) {
    return metadb_failed();
  }

  metadb_stmt_ptr collect;
  while (cancel_value(cancel) == 0 && metadb_step(scan.get()) == SQLITE_ROW) {
    const char* stored = reinterpret_cast<const char*>(sqlite3_column_text(scan.get(), 0));
    if (stored == nullptr) stored = "";
    tevul::format_cut(absolute + offset, sizeof absolute - offset, "%s", stored);
    if (filter == nullptr || filter(absolute, 0) == 0) continue;
    if (!collect) {
      if (metadb_exec_query(raw, kCreateDelSql, nullptr, nullptr) != SQLITE_OK ||
          metadb_prepare(raw, kInsertDelSql, sizeof kInsertDelSql, collect) !=
              SQLITE_OK) {
        scan.reset();  // a DROP waits for no statement of its own connection
        metadb_exec_query(raw, kDropDelSql, nullptr, nullptr);
        return metadb_failed();
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
  return metadb_cancel_result(cancel_value(cancel));
}
