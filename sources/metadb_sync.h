// The Data column: the cached, encoded tag list of each row of Meta.
//
// Data holds one entry per tag column that is set (not NULL, TEXT), in the
// table's column order, separated by "|": the escaped name, "=", the escaped
// value. In a name "|" becomes "\|" and "=" becomes "\="; in a value "|"
// becomes "\|", "/" becomes a single "\" and line feeds are dropped. A row
// without tags gets the empty text; NULL means "not encoded yet".
#ifndef TEVUL_METADB_SYNC_H
#define TEVUL_METADB_SYNC_H

#include "common.h"
#include "tevul.h"

namespace tevul {

// Appends the entry of tag `name` (without its column's leading ".") with
// `value` to the encoded list `list`, after a "|" unless it is the `first`
// entry. Neither argument may be NULL. A failed allocation shows in
// list.ok().
void data_append(text& list, bool first, const char* name, const char* value);

}  // namespace tevul

#endif  // TEVUL_METADB_SYNC_H
