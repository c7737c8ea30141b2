// Views: the configuration of each view V is a directory of small files
// under <mount>/view/.config/V/ that the daemon reads (cond.ini, group.ini,
// events.ini); the daemon shows the view's files under <mount>/view/V. The
// library writes the files whole and never reads them back. The view name is
// used as it stands, so a name with slashes addresses nested directories.
//
// Its functions are exported and declared once, in tevul.h: this header
// states the module's contract and declares nothing more.
#ifndef TEVUL_TEVU_VIEW_H
#define TEVUL_TEVU_VIEW_H

#include "tevul.h"

#endif  // TEVUL_TEVU_VIEW_H
