// Lookup by tag value: the tags of the first row, on any volume, whose tag
// has a given value, as text lines. Only reads. Exported; see tevul.h.
#ifndef TEVUL_METADB_TAGSFILE_H
#define TEVUL_METADB_TAGSFILE_H

#include <string>

#include "tevul.h"

// Turns an encoded tag list (the Data column) into lines: every "\|" becomes
// "|", every other "|" a line feed, and one line feed is appended. Done as
// three replacements in a row through the marker "#ESCAPED#", so a marker
// that occurs in the data itself also comes out as "|", as readers of the
// daemon's format have always seen it.
std::string metadb_tagsfile_lines(const std::string& data);

#endif  // TEVUL_METADB_TAGSFILE_H
