// Single tags through the mount: each tag of a file is the small file
// <mount>/meta/<canonical path without its leading "/">/<tag>, whose content
// is the value byte for byte. The daemon does the database work; the library
// only creates, reads, truncates or removes that file, and never creates the
// directories along the path.
// Its functions are exported and declared once, in tevul.h: this header
// states the module's contract and declares nothing more.
#ifndef TEVUL_TEVU_TAGFILE_H
#define TEVUL_TEVU_TAGFILE_H

#include "tevul.h"

#endif  // TEVUL_TEVU_TAGFILE_H
