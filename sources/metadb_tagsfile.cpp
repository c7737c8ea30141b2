// Lookup by tag value. See metadb_tagsfile.h.
#include "metadb_tagsfile.h"

#include <errno.h>
#include <string.h>

#include <cstdio>

#include "common.h"
#include "metadb_bulk.h"
#include "metadb_tagdb.h"
#include "tevu_volume.h"

namespace {

constexpr std::size_t kLookupSqlSize = 306;
// "Data>=''" leaves out rows whose Data is not encoded yet (NULL); the tag
// column's own index serves "=?", with the column's NOCASE collation.
constexpr char kLookupSql[] =
    "SELECT Data FROM Meta WHERE Meta.\".%s\"=? AND Data>=''";
constexpr char kMarker[] = "#ESCAPED#";

// Looks `value` up in one volume database. Returns 0 or ENOSPC when a row
// was found (and copied into dest), ENOENT otherwise.
int lookup_in(metadb_tagdb* tagdb, const char* tag, const char* value,
              char* dest, std::size_t size) {
  // Formatted with plain snprintf into the format's fixed buffer; a text it
  // would cut, or a tag that could name other columns, is never prepared.
  char sql[kLookupSqlSize + 1];
  const int len = std::snprintf(sql, sizeof sql, kLookupSql, tag);
  if (len < 0 || static_cast<std::size_t>(len) >= kLookupSqlSize ||
      !tevul::tag_sql_safe(tag)) {
    return ENOENT;
  }
  tevul::stmt_ptr stmt;
  if (tevul::prepare(tagdb->db.get(), sql, -1, stmt) != SQLITE_OK) return ENOENT;
  if (sqlite3_bind_text(stmt.get(), 1, value, -1, SQLITE_STATIC) != SQLITE_OK ||
      metadb_step(stmt.get()) != SQLITE_ROW) {
    return ENOENT;
  }
  const char* data = reinterpret_cast<const char*>(sqlite3_column_text(stmt.get(), 0));
  tevul::text lines;
  lines.append(data != nullptr ? data : "");
  tevul::tagsfile_lines(lines);
  // Memory running short finds nothing, as a failed read does.
  if (!lines.ok()) return ENOENT;
  tevul::format_cut(dest, size, "%s", lines.c_str());
  return lines.size() < size ? 0 : ENOSPC;
}

}  // namespace

namespace tevul {

void tagsfile_lines(text& data) {
  data.replace_all("\\|", kMarker).replace_all("|", "\n").replace_all(kMarker, "|");
  data.push('\n');
}

}  // namespace tevul

namespace {

// One search by value: its arguments, and its result so far.
struct search {
  const char* tag;
  const char* value;
  char* dest;
  std::size_t size;
  int result;
};

// Searches the database `db_file` of one volume; non-zero ends the walk.
int search_volume(void* user, const char* /*name*/, const char* db_file) {
  search* s = static_cast<search*>(user);
  tevul::tagdb_ptr tagdb(metadb_tagdb_open(db_file));
  if (!tagdb) return 0;  // the result stays as it was
  // The arguments are tested only here, so a call without them still
  // opens and closes every database once; kept as callers have seen it.
  if (s->tag == nullptr || s->value == nullptr || s->dest == nullptr ||
      s->size == 0) {
    s->result = ENOENT;
    return 0;
  }
  s->result = lookup_in(tagdb.get(), s->tag, s->value, s->dest, s->size);
  return s->result == 0 || s->result == ENOSPC ? 1 : 0;
}

}  // namespace

extern "C" int metadb_tagsfile_get_for_tagvalue(const char* mount,
                                                const char* tag,
                                                const char* value, char* dest,
                                                size_t size) {
  if (mount == nullptr) return ENOENT;
  char meta[tevul::kLongPathSize];
  tevul::format_cut(meta, sizeof meta, "%s/meta", mount);
  search s{tag, value, dest, size, ENOENT};
  if (!tevul::each_volume(meta, search_volume, &s)) return ENOENT;
  return s.result;
}

extern "C" int tevu_metadata_for_tagvalue(const char* tag, const char* value,
                                          char* dest, size_t size) {
  return metadb_tagsfile_get_for_tagvalue(tevu_find_mount(), tag, value, dest,
                                          size);
}
