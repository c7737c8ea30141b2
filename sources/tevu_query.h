// Read-only queries: every tag of one file, and every file that carries a
// tag or a tag value, straight from the volumes' databases. Exported as
// extensions; see tevul.h.
//
// Each database is read through a connection of its own, opened read-only
// with a private cache (so no shared-cache table lock of another connection
// of the process, the caller's own bulk context included, stands in the
// way) and the busy handler of every tag database connection. Rows are
// copied out and the statement reset before the caller's callback runs, so
// no read lock is held while the caller's code runs and a writer waits at
// most for one batch.
#ifndef TEVUL_TEVU_QUERY_H
#define TEVUL_TEVU_QUERY_H

#include <cstddef>

#include "tevul.h"

// The search of tevu_find_files() in one database: the files whose tag (the
// "%s", a column name) equals the bound value (parameter 1), after row id
// parameter 2, in row id order, one batch at a time. The tag column's index
// serves it.
constexpr char tevu_query_find_value_sql[] =
    "SELECT ROWID, Path FROM Meta WHERE Meta.\".%s\"=? AND ROWID>? "
    "ORDER BY ROWID LIMIT %d";
// The same for every file that carries the tag at all.
constexpr char tevu_query_find_any_sql[] =
    "SELECT ROWID, Path FROM Meta WHERE Meta.\".%s\" IS NOT NULL AND ROWID>? "
    "ORDER BY ROWID LIMIT %d";
// The walk of tevu_tagged_files() in one database: every row after row id
// parameter 1, all columns, in row id order, one batch at a time.
constexpr char tevu_query_rows_sql[] =
    "SELECT ROWID, * FROM Meta WHERE ROWID>? ORDER BY ROWID LIMIT %d";
// The same for the rows of stored path parameter 2 and everything below it
// (parameter 3: the path as a GLOB pattern that matches only itself, with
// "/*"). Bound rather than formatted, so that no path is too long for it.
constexpr char tevu_query_subtree_rows_sql[] =
    "SELECT ROWID, * FROM Meta WHERE ROWID>?1 AND (Path=?2 OR Path GLOB ?3) "
    "ORDER BY ROWID LIMIT %d";
// Rows per batch: the most paths held in memory at once.
constexpr int tevu_query_batch = 256;

#endif  // TEVUL_TEVU_QUERY_H
