// Path and string matching, offered to other programs (the library itself
// does not call them). Nothing is allocated; pointer results point into the
// argument or at a constant. Exported; see tevul.h.
#ifndef TEVUL_FSUTIL_MATCH_H
#define TEVUL_FSUTIL_MATCH_H

#include "tevul.h"

#endif  // TEVUL_FSUTIL_MATCH_H
