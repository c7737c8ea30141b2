// Data column and sync. See metadb_sync.h.
#include "metadb_sync.h"

#include <sqlite3.h>

#include "common.h"
#include "metadb_bulk.h"
#include "metadb_tagdb.h"

namespace {

constexpr char kSyncSelect[] = "SELECT * FROM Meta WHERE Path=?";
constexpr char kSyncUpdate[] = "UPDATE Meta SET Data=? WHERE Path=?";
constexpr char kUnsynced[] = "SELECT Path FROM Meta WHERE Data IS NULL";

// Room for a typical list, so that most rows encode without reallocating.
constexpr std::size_t kListHint = 3850;

using tevul::text;

// Appends the escaped form of tag name `name` (without its leading ".").
void escape_name(text& out, const char* name) {
  for (const char* p = name; *p != '\0'; ++p) {
    if (*p == '|' || *p == '=') out.push('\\');
    out.push(*p);
  }
}

// Appends the escaped form of tag value `value`.
void escape_value(text& out, const char* value) {
  for (const char* p = value; *p != '\0'; ++p) {
    switch (*p) {
      case '|':
        out.append("\\|");
        break;
      case '/':
        out.push('\\');  // a lone backslash stands for "/"
        break;
      case '\n':
        break;
      default:
        out.push(*p);
    }
  }
}

}  // namespace

namespace tevul {

void data_append(text& list, bool first, const char* name, const char* value) {
  if (!first) list.push('|');
  escape_name(list, name);
  list.push('=');
  escape_value(list, value);
}

}  // namespace tevul

namespace {

// Encodes the tag columns of the row `select` stands on into `list`.
void encode_row(sqlite3_stmt* select, int columns, text& list) {
  bool first = true;
  for (int i = 0; i < columns; ++i) {
    if (sqlite3_column_type(select, i) == SQLITE_NULL) continue;
    const char* name = sqlite3_column_name(select, i);
    if (name == nullptr || name[0] != '.') continue;  // Path, Data, others
    if (sqlite3_column_type(select, i) != SQLITE_TEXT) continue;
    tevul::data_append(
        list, first, name + 1,
        reinterpret_cast<const char*>(sqlite3_column_text(select, i)));
    first = false;
  }
}

// Steps 2 to 9 of a sync: returns an SQLite code, 0 or SQLITE_DONE for
// success, SQLITE_NOMEM when the list cannot be built (nothing is written).
int sync_row(metadb_tagdb* tagdb, const char* path) {
  sqlite3* db = tagdb->db.get();
  int rc = tevul::prepare_once(db, kSyncSelect, sizeof kSyncSelect,
                               tagdb->stmt_sync_select);
  if (rc != SQLITE_OK) return rc;
  sqlite3_stmt* select = tagdb->stmt_sync_select.get();
  rc = sqlite3_bind_text(select, 1, path, -1, SQLITE_STATIC);
  if (rc != SQLITE_OK) return rc;
  // No row (or a failed read) leaves Data as it is; not an error.
  if (metadb_step(select) != SQLITE_ROW) return SQLITE_OK;
  const int columns = sqlite3_column_count(select);
  if (columns == 0) return SQLITE_OK;

  text list;
  list.reserve(kListHint);
  encode_row(select, columns, list);
  if (!list.ok()) return SQLITE_NOMEM;

  rc = tevul::prepare_once(db, kSyncUpdate, sizeof kSyncUpdate,
                           tagdb->stmt_sync_update);
  if (rc != SQLITE_OK) return rc;
  sqlite3_stmt* update = tagdb->stmt_sync_update.get();
  rc = sqlite3_bind_text(update, 2, path, -1, SQLITE_STATIC);
  if (rc != SQLITE_OK) return rc;
  rc = sqlite3_bind_text(update, 1, list.c_str(), -1, SQLITE_STATIC);
  if (rc != SQLITE_OK) return rc;
  return metadb_step(update);
}

}  // namespace

extern "C" int metadb_tagdb_sync(metadb_tagdb* tagdb, const char* path) {
  tevul::claim(tagdb);
  if (tagdb == nullptr || !tagdb->db) return -1;
  if (!tagdb->modified) return 0;
  if (path == nullptr) return 0;  // no row can have it
  const int rc = sync_row(tagdb, path);
  sqlite3_reset(tagdb->stmt_sync_select.get());
  sqlite3_reset(tagdb->stmt_sync_update.get());
  return rc == SQLITE_OK || rc == SQLITE_DONE ? 0 : -1;
}

extern "C" int metadb_tagdb_sync_all(metadb_tagdb* tagdb) {
  tevul::claim(tagdb);
  if (tagdb == nullptr || !tagdb->db) return -1;
  if (!tagdb->modified) return 0;
  if (tevul::prepare_once(tagdb->db.get(), kUnsynced, sizeof kUnsynced,
                          tagdb->stmt_unsynced) != SQLITE_OK) {
    return -1;
  }
  sqlite3_stmt* scan = tagdb->stmt_unsynced.get();
  // Rewritten rows no longer match "Data IS NULL" and are not met again.
  while (metadb_step(scan) == SQLITE_ROW) {
    const char* path = reinterpret_cast<const char*>(sqlite3_column_text(scan, 0));
    if (metadb_tagdb_sync(tagdb, path) != 0) {
      sqlite3_reset(scan);
      return -1;
    }
  }
  sqlite3_reset(scan);
  return 0;
}
