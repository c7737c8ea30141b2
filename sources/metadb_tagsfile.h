// Lookup by tag value: the tags of the first row, on any volume, whose tag
// has a given value, as text lines. Only reads. Exported; see tevul.h.
#ifndef TEVUL_METADB_TAGSFILE_H
#define TEVUL_METADB_TAGSFILE_H

#include "common.h"
#include "tevul.h"

namespace tevul {

// Turns an encoded tag list (the Data column) in `data` into lines, in
// place: every "\|" becomes "|", every other "|" a line feed, and one line
// feed is appended. Done as three replacements in a row through the marker
// "#ESCAPED#", so a marker that occurs in the data itself also comes out as
// "|", as readers of the daemon's format have always seen it. A failed
// allocation shows in data.ok().
void tagsfile_lines(text& data);

}  // namespace tevul

#endif  // TEVUL_METADB_TAGSFILE_H
