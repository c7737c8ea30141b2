// Tag database of one volume: the handle, tag columns and path rows.
#ifndef TEVUL_METADB_TAGDB_H
#define TEVUL_METADB_TAGDB_H

#include <sqlite3.h>

#include <cstdint>

#include "common.h"
#include "metadb_bulk.h"
#include "tevul.h"

// One open tag database. Created by metadb_tagdb_open(), destroyed by
// metadb_tagdb_close(). The cached statements are prepared on first use,
// reset after each use and finalised at close.
// Made with tevul::make_object() (calloc and placement new), released by
// metadb_tagdb_close().
struct metadb_tagdb {
  tevul::db_ptr db;
  tevul::stmt_ptr stmt_begin;         // "BEGIN IMMEDIATE"
  tevul::stmt_ptr stmt_commit;        // "COMMIT"
  tevul::stmt_ptr stmt_rollback;      // "ROLLBACK"
  tevul::stmt_ptr stmt_select_rowid;  // "SELECT ROWID FROM Meta WHERE Path=?"
  tevul::stmt_ptr stmt_insert_path;   // "INSERT OR IGNORE INTO Meta(Path) ..."
  tevul::stmt_ptr stmt_sync_select;   // "SELECT * FROM Meta WHERE Path=?"
  tevul::stmt_ptr stmt_sync_update;   // "UPDATE Meta SET Data=? WHERE Path=?"
  tevul::stmt_ptr stmt_unsynced;      // "SELECT Path FROM Meta WHERE Data IS NULL"
  // The value updates of the tags set most recently, value and row bound.
  tevul::stmt_cache settag_stmts;
  // 1 once anything was written through the handle; never reset. Commit,
  // rollback and the Data sync do nothing while it is 0.
  int modified = 0;
  // What the last metadb_tagdb_transaction_commit() on the handle gave for
  // a COMMIT that had a transaction to end and did not end it (SQLITE_FULL
  // for a full disk); SQLITE_OK otherwise, also when no COMMIT was issued.
  int failed_commit = SQLITE_OK;
  tevul::lock_owner owner;

  metadb_tagdb() = default;
  metadb_tagdb(const metadb_tagdb&) = delete;
  metadb_tagdb& operator=(const metadb_tagdb&) = delete;
  ~metadb_tagdb();
};

// Returns 1 when the column of `tag` exists or was created together with its
// index, 0 when creating failed (also for a NULL handle or connection), -1 for
// a NULL or empty tag. A column whose index could not be created stays.
int metadb_add_tag_column(metadb_tagdb* tagdb, const char* tag);

// Inserts a row for `path` ("INSERT OR IGNORE"). Returns the connection's last
// inserted row id (for a path that already had a row this is not that row's
// id: call it only for a path just found missing), 0 when the insert failed,
// -1 for a NULL handle, connection or path, or an empty path.
int64_t metadb_insert_path(metadb_tagdb* tagdb, const char* path);

#endif  // TEVUL_METADB_TAGDB_H
