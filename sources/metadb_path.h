// Path maintenance: rows follow deleted, moved and vanished files.
//
// The subtree of a stored path p is selected everywhere by METADB_SUBTREE
// (metadb_bulk.h): Path='p', or Path GLOB p with its "*", "?" and "["
// bracketed and "/*" appended, so that a folder named "[2019] Trip" selects
// its own files and never a near-namesake's. The module's functions are
// exported and declared once, in tevul.h; this header adds nothing to
// them.
#ifndef TEVUL_METADB_PATH_H
#define TEVUL_METADB_PATH_H

#include "tevul.h"

#endif  // TEVUL_METADB_PATH_H
