// File tests, stat templates and recursive mkdir and rmdir, shared with the
// daemon. Results mix conventions on purpose, as the daemon's callers expect:
// the system calls' -1 with errno, positive error numbers for what these
// functions find themselves, and truth values.
// Its functions are exported and declared once, in tevul.h: this header
// states the module's contract and declares nothing more.
#ifndef TEVUL_FSUTIL_H
#define TEVUL_FSUTIL_H

#include "tevul.h"

#endif  // TEVUL_FSUTIL_H
