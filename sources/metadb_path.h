// Path maintenance: rows follow deleted, moved and vanished files.
//
// The subtree of a stored path p is selected everywhere by TEVUL_SUBTREE
// (metadb_bulk.h): Path='p', or Path GLOB p with its "*", "?" and "["
// bracketed and "/*" appended, so that a folder named "[2019] Trip" selects
// its own files and never a near-namesake's. The daemon's functions of the
// module are declared in tevul.h; what the checked move adds is here.
#ifndef TEVUL_METADB_PATH_H
#define TEVUL_METADB_PATH_H

#include "tevul.h"

namespace tevul {

// Copies every row of stored path `old_path` and below from `src` into `dst`
// under `new_path`, each with every tag column that is set, merging into
// rows that `dst` has already: a copied tag replaces the destination's
// value, the destination's other tags stay. Values are copied exactly as
// stored. Rebuilds Data of every destination row it wrote. Runs inside the
// transaction the caller began on `dst`, and never writes to `src` (`src`
// and `dst` may be the same handle when `new_path` is not inside
// `old_path`). Returns SQLITE_OK or the SQLite code of the first failure; a
// tag name holding a double quote, or a tag whose column cannot be made in
// `dst`, is SQLITE_ERROR. *rows counts the source rows copied.
int merge_rows(metadb_tagdb* src, const char* old_path, metadb_tagdb* dst,
               const char* new_path, unsigned long* rows);

// Deletes the rows of stored path `path` and below (never the whole volume:
// `path` must not be empty), with the path bound, not formatted, so that no
// length limit applies. Returns SQLITE_OK or the SQLite code of the failure;
// *rows counts the rows deleted.
int delete_subtree(metadb_tagdb* tagdb, const char* path, unsigned long* rows);

// Whether any row of stored path `path` or below exists: 1, 0, or -1 with
// *code set to the SQLite code of a failed read.
int subtree_has_rows(metadb_tagdb* tagdb, const char* path, int* code);

}  // namespace tevul

#endif  // TEVUL_METADB_PATH_H
