// Path maintenance: rows follow deleted, moved and vanished files.
//
// The subtree of a stored path p is selected everywhere by
// Path='p' OR Path GLOB 'p/' followed by '*'. The text of p goes into the pattern as it is,
// so "*", "?" and "[" in a path act as wildcards below it; the daemon has
// always selected so, and existing databases are maintained that way. The
// functions are exported; see tevul.h.
#ifndef TEVUL_METADB_PATH_H
#define TEVUL_METADB_PATH_H

#include "tevul.h"

#endif  // TEVUL_METADB_PATH_H
