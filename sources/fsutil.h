// File tests, stat templates and recursive mkdir and rmdir, shared with the
// daemon. Results mix conventions on purpose, as the daemon's callers expect:
// the system calls' -1 with errno, positive error numbers for what these
// functions find themselves, and truth values. Exported; see tevul.h.
#ifndef TEVUL_FSUTIL_H
#define TEVUL_FSUTIL_H

#include "tevul.h"

#endif  // TEVUL_FSUTIL_H
