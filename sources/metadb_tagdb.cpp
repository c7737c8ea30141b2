// Tag database of one volume. See metadb_tagdb.h and tevul.h.
#include "metadb_tagdb.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "common.h"
#include "metadb_sync.h"

using tevul::is_empty;
using tevul::tag_ident;

namespace {

// The fixed statements, with the byte counts (terminator included) they are
// prepared with.
constexpr char kSelectRowid[] = "SELECT ROWID FROM Meta WHERE Path=?";
constexpr char kInsertPath[] = "INSERT OR IGNORE INTO Meta(Path) Values (?)";

// Statement buffers of the database format; a text they would cut is not run.
constexpr std::size_t kColumnSqlSize = 147;
constexpr std::size_t kSettagSqlSize = 229;
constexpr std::size_t kDeltagSqlSize = 4186;
constexpr std::size_t kGettagSqlSize = 4187;
constexpr std::size_t kRecursiveSqlSize = 8421;

constexpr char kAddColumnSql[] =
    "ALTER TABLE Meta ADD \".%s\" TEXT COLLATE NOCASE";
constexpr char kAddIndexSql[] = "CREATE INDEX 'Cidx_%q' ON Meta (\".%s\")";
// Backslashes are stripped from every stored value: the Data encoding uses
// the backslash as its escape character.
constexpr char kSettagSql[] =
    "UPDATE Meta SET \".%s\"=REPLACE('%q','\\','') WHERE ROWID=%lld";
// The same update with the value and the row bound, so that it is compiled
// once per tag rather than once per file. Never longer than kSettagSql
// formatted ("?" against a quoted value and a row number of one digit or
// more), so it always fits where that text fits.
constexpr char kSettagBoundSql[] =
    "UPDATE Meta SET \".%s\"=REPLACE(?,'\\','') WHERE ROWID=?";
constexpr char kGettagSql[] = "SELECT Meta.\".%s\" FROM Meta WHERE Path='%q'";
constexpr char kDeltagSql[] = "UPDATE Meta SET \".%s\"=NULL WHERE Path='%q'";
constexpr char kRecursiveAllSql[] =
    "UPDATE Meta SET \".%s\"=REPLACE('%q','\\',''),Data=NULL";
constexpr char kRecursiveSubtreeSql[] =
    "UPDATE Meta SET \".%s\"=REPLACE('%q','\\',''),Data=NULL "
    "WHERE " TEVUL_SUBTREE;

// True when kSettagSql formatted with `tag`, `value` and `rowid` fits its
// buffer whole. Measured, not formatted: the statement that runs is the
// same update with the value and the row bound.
bool settag_text_fits(const char* tag, const char* value, int64_t rowid) {
  // The fixed text without its "%s", "%q" and "%lld".
  std::size_t len = sizeof kSettagSql - 1 - 8 + std::strlen(tag);
  for (const char* p = value; *p != '\0'; ++p) len += *p == '\'' ? 2 : 1;
  char number[24];
  len += static_cast<std::size_t>(
      std::snprintf(number, sizeof number, "%lld", static_cast<long long>(rowid)));
  return len < kSettagSqlSize;
}

// Runs the value update of `tag` on row `rowid` with the handle's kept
// statement for that tag: the effect of the formatted kSettagSql, without
// compiling a new statement per file. Returns an SQLite code as
// metadb_exec_query() does.
int run_settag(metadb_tagdb* tagdb, const char* tag, const char* value,
               int64_t rowid) {
  const tevul::sql_text<kSettagSqlSize> sql(kSettagBoundSql, tag_ident{tag});
  if (!sql.fits()) return SQLITE_ERROR;
  sqlite3_stmt* stmt = nullptr;
  const int rc = tagdb->settag_stmts.get(tagdb->db.get(), sql.c_str(), &stmt);
  if (rc != SQLITE_OK) return rc;
  sqlite3_bind_text(stmt, 1, value, -1, SQLITE_STATIC);
  sqlite3_bind_int64(stmt, 2, static_cast<sqlite3_int64>(rowid));
  const int result = tevul::run_stmt(stmt, nullptr, nullptr);
  sqlite3_reset(stmt);
  sqlite3_clear_bindings(stmt);  // the value is the caller's
  return result;
}

}  // namespace

metadb_tagdb::~metadb_tagdb() { tevul::owner_unregister(&owner); }

extern "C" metadb_tagdb* metadb_tagdb_open(const char* name) {
  if (is_empty(name)) return nullptr;
  struct stat st;
  if (stat(name, &st) != 0 || !S_ISREG(st.st_mode)) return nullptr;

  tevul::object_ptr<metadb_tagdb> tagdb = tevul::make_object<metadb_tagdb>();
  if (!tagdb) return nullptr;

  sqlite3_enable_shared_cache(1);
  sqlite3* db = nullptr;
  const int rc = sqlite3_open(name, &db);
  tagdb->db.reset(db);  // also a connection left behind by a failed open
  if (rc != SQLITE_OK) return nullptr;

  sqlite3_busy_handler(db, metadb_busy_handler,
                       const_cast<char*>(sqlite3_db_filename(db, "main")));
  tevul::owner_register(&tagdb->owner, db);
  return tagdb.release();
}

extern "C" void metadb_tagdb_close(metadb_tagdb* tagdb) {
  if (tagdb == nullptr) return;
  tevul::object_ptr<metadb_tagdb> owned(tagdb);
  if (!tagdb->db) return;
  metadb_tagdb_transaction_commit(tagdb);
  tevul::owner_unregister(&tagdb->owner);
  // Finalised in field order.
  tevul::stmt_ptr* const statements[] = {
      &tagdb->stmt_begin,        &tagdb->stmt_commit,
      &tagdb->stmt_rollback,     &tagdb->stmt_select_rowid,
      &tagdb->stmt_insert_path,  &tagdb->stmt_sync_select,
      &tagdb->stmt_sync_update,  &tagdb->stmt_unsynced};
  for (tevul::stmt_ptr* stmt : statements) stmt->reset();
  tagdb->settag_stmts.clear();
  // Every statement is gone before its connection closes: a statement left
  // behind would keep the connection, and the database file, open.
  TEVUL_INVARIANT(!tagdb->stmt_begin && !tagdb->stmt_commit && !tagdb->stmt_unsynced);
  tagdb->db.reset();
}

int metadb_add_tag_column(metadb_tagdb* tagdb, const char* tag) {
  if (tagdb == nullptr || !tagdb->db) return 0;
  if (is_empty(tag)) return -1;
  if (metadb_column_exists(tagdb, tag) == 1) return 1;

  sqlite3* db = tagdb->db.get();
  const tag_ident column{tag};
  if (tevul::exec_text(
          db, tevul::sql_text<kColumnSqlSize>(kAddColumnSql, column)) !=
      SQLITE_OK) {
    return 0;
  }
  // The column stays even when its index cannot be made; a later call then
  // finds the column and succeeds.
  return tevul::exec_text(db, tevul::sql_text<kColumnSqlSize>(
                                  kAddIndexSql, tag, column)) == SQLITE_OK
             ? 1
             : 0;
}

int64_t metadb_insert_path(metadb_tagdb* tagdb, const char* path) {
  if (tagdb == nullptr || !tagdb->db || is_empty(path)) return -1;
  sqlite3* db = tagdb->db.get();
  tevul::prepare_once(db, kInsertPath, sizeof kInsertPath,
                      tagdb->stmt_insert_path);  // a failure shows in the step
  sqlite3_stmt* stmt = tagdb->stmt_insert_path.get();
  sqlite3_bind_text(stmt, 1, path, -1, SQLITE_STATIC);
  for (;;) {
    const int rc = metadb_step(stmt);
    if (rc == SQLITE_DONE) break;
    // A file lock of another process is retried without limit. A table lock
    // that metadb_step() could not wait out is final: no retry could end it.
    if (rc == SQLITE_BUSY) {
      usleep(5000);
      continue;
    }
    sqlite3_reset(stmt);
    return 0;
  }
  const int64_t rowid = sqlite3_last_insert_rowid(db);
  tagdb->modified = 1;
  sqlite3_reset(stmt);
  return rowid;
}

extern "C" int metadb_tagdb_settag(metadb_tagdb* tagdb, const char* path,
                                   const char* tag, const char* value) {
  tevul::claim(tagdb);
  if (tagdb == nullptr || !tagdb->db || is_empty(path) || is_empty(tag)) {
    return 1;
  }
  // A tag that can never get a column changes nothing, not even the row.
  if (!tevul::tag_sql_safe(tag)) return tevul::metadb_failed();
  sqlite3* db = tagdb->db.get();

  // A lookup that cannot be prepared fails as the row's insert would; a
  // table whose rows a row id cannot name gets no row and no update.
  if (tevul::prepare_rowid_once(db, kSelectRowid, sizeof kSelectRowid,
                                tagdb->stmt_select_rowid) != SQLITE_OK) {
    return 1;
  }
  sqlite3_stmt* select = tagdb->stmt_select_rowid.get();
  sqlite3_bind_text(select, 1, path, -1, SQLITE_STATIC);
  int64_t rowid = 0;
  if (metadb_step(select) == SQLITE_ROW) rowid = sqlite3_column_int64(select, 0);
  sqlite3_reset(select);

  if (rowid == 0) {
    rowid = metadb_insert_path(tagdb, path);
    if (rowid == 0 || rowid == -1) return 1;
  }
  if (metadb_add_tag_column(tagdb, tag) != 1) {
    return tevul::metadb_failed();
  }
  const char* v = value != nullptr ? value : "";
  // The full text decides whether the update may run at all: one that its
  // buffer would cut is never run.
  if (!settag_text_fits(tag, v, rowid)) return 1;
  if (run_settag(tagdb, tag, v, rowid) != SQLITE_OK) return 1;
  tagdb->modified = 1;
  return tevul::metadb_ok();
}

extern "C" int metadb_tagdb_gettag(metadb_tagdb* tagdb, const char* path,
                                   const char* tag, char* buf, size_t size) {
  tevul::claim(tagdb);
  if (buf == nullptr || size == 0 || is_empty(path) || is_empty(tag) ||
      tagdb == nullptr || !tagdb->db) {
    return -1;
  }
  metadb_value_buf value;
  value.capacity = size > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(size);
  value.buffer = buf;
  value.found = 0;
  const int rc = tevul::exec_text(
      tagdb->db.get(),
      tevul::sql_text<kGettagSqlSize>(kGettagSql, tag_ident{tag}, path),
      metadb_copy_value_cb, &value);
  if (rc != SQLITE_OK) return -1;
  return value.found ? 0 : -1;
}

extern "C" int metadb_tagdb_deltag(metadb_tagdb* tagdb, const char* path,
                                   const char* tag) {
  tevul::claim(tagdb);
  if (tagdb == nullptr || !tagdb->db || is_empty(path) || is_empty(tag)) {
    return 1;
  }
  const int rc = tevul::exec_text(
      tagdb->db.get(),
      tevul::sql_text<kDeltagSqlSize>(kDeltagSql, tag_ident{tag}, path));
  if (rc == SQLITE_OK) {
    tagdb->modified = 1;
    return 0;
  }
  // A tag that no path of this database ever had counts as deleted.
  return metadb_column_exists(tagdb, tag) == 1 ? 1 : 0;
}

extern "C" int metadb_tagdb_settag_recursive(metadb_tagdb* tagdb,
                                             const char* path, const char* tag,
                                             const char* value) {
  tevul::claim(tagdb);
  if (tagdb == nullptr || !tagdb->db || path == nullptr) return 1;
  if (metadb_add_tag_column(tagdb, tag) != 1) {
    return tevul::metadb_failed();
  }
  const char* v = value != nullptr ? value : "";
  const tag_ident column{tag};
  sqlite3* db = tagdb->db.get();
  const int rc =
      path[0] == '\0'
          ? tevul::exec_text(db, tevul::sql_text<kRecursiveSqlSize>(
                                     kRecursiveAllSql, column, v))
          : tevul::exec_text(db, tevul::sql_text<kRecursiveSqlSize>(
                                     kRecursiveSubtreeSql, column, v, path,
                                     tevul::glob_literal{path}));
  if (rc != SQLITE_OK) return 1;
  tagdb->modified = 1;
  metadb_tagdb_sync_all(tagdb);
  return 0;
}
