// Read-only queries: every tag of one file, and every file that carries a
// tag or a tag value, straight from the volumes' databases. Exported as
// extensions; see tevul.h.
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

#include <cstddef>

#include "common.h"
#include "tevul.h"

namespace tevul {

// Rows per batch: the most rows held in memory at once.
constexpr int kQueryBatch = 256;

// The statement text with which tevu_find_files() searches one database
// for tag `name` (with `by_value`, for its value, bound as parameter 1;
// the row id to go on after is the last parameter), `rowid` being the name
// under which the table's row id can be read. Returns false when it does
// not fit `size` bytes or the name could name other columns.
bool find_sql(const char* name, bool by_value, const char* rowid, char* out,
              std::size_t size);

}  // namespace tevul

#endif  // TEVUL_TEVU_QUERY_H
