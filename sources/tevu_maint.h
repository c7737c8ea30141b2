// Delete, move and cleanup: the public face of path maintenance. Each call
// makes short-lived bulk contexts to reach the right databases and relies on
// their end to commit and to wake the daemon.
// Its functions are exported and declared once, in tevul.h: this header
// states the module's contract and declares nothing more.
#ifndef TEVUL_TEVU_MAINT_H
#define TEVUL_TEVU_MAINT_H

#include "tevul.h"

#endif  // TEVUL_TEVU_MAINT_H
