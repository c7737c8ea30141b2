// Path and string matching, offered to other programs (the library itself
// does not call them). Nothing is allocated; pointer results point into the
// argument or at a constant.
// Its functions are exported and declared once, in tevul.h: this header
// states the module's contract and declares nothing more.
#ifndef TEVUL_FSUTIL_MATCH_H
#define TEVUL_FSUTIL_MATCH_H

#include "tevul.h"

#endif  // TEVUL_FSUTIL_MATCH_H
