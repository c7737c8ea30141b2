// The reader: the tags of many named files, through read-only connections
// kept between calls, one per volume. An extension; see tevul.h.
//
// Each file costs its realpath(), a comparison with the prefixes of the
// volumes met so far, and one row read through a statement prepared once
// per volume. Volumes are looked up in the meta directory only the first
// time one of their files is asked for. The connections are those of the
// queries (tevu_query.h): hot journals rolled back, no write lock, no wait
// for a lock of the calling thread, rows copied out before the callback.
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "common.h"
#include "tevu_query.h"
#include "tevu_volume.h"
#include "tevul.h"

namespace {

// One volume the reader has met.
struct reader_volume {
  tevu_volume location;
  tevul::query_db db;
  tevul::stmt_ptr row;  // "SELECT * FROM Meta WHERE Path=?"
  int path = -1;        // the index of its column "Path"
};

}  // namespace

struct tevu_reader {
  tevul::array<reader_volume*> volumes;
  tevul::row_batch row;

  tevu_reader() = default;
  tevu_reader(const tevu_reader&) = delete;
  tevu_reader& operator=(const tevu_reader&) = delete;
  ~tevu_reader() {
    for (std::size_t i = 0; i < volumes.size(); ++i) {
      tevul::object_deleter<reader_volume>()(volumes[i]);
    }
  }
};

namespace {

constexpr char kRowSql[] = "SELECT * FROM Meta WHERE Path=?";

// True when `path` lies on the volume of prefix `prefix` as the lookup
// matched it: equal after the first byte of each, followed by "/" or the
// end (the volume root without its final "/").
bool on_volume(const tevu_volume& volume, const char* path) {
  const int32_t n = volume.prefix_len;
  return n >= 2 && strncmp(path + 1, volume.prefix + 1, n - 2) == 0 &&
         (path[n - 1] == '/' || path[n - 1] == '\0');
}

// The volume of `canonical`: one met before, or looked up and opened now
// (and kept only when its database could be opened). Returns 0 or an
// errno, with the failing volume recorded.
int volume_of(tevu_reader* reader, const char* canonical, reader_volume** out) {
  for (std::size_t i = 0; i < reader->volumes.size(); ++i) {
    if (on_volume(reader->volumes[i]->location, canonical)) {
      *out = reader->volumes[i];
      return 0;
    }
  }
  tevul::object_ptr<reader_volume> volume = tevul::make_object<reader_volume>();
  if (!volume) return ENOMEM;
  if (tevu_locate_volume(&volume->location, canonical) != 1) return ENOENT;
  int rc = tevul::open_query_db(volume->location.db_path, &volume->db);
  if (rc == 0) {
    const int prepared =
        tevul::prepare(volume->db.db.get(), kRowSql, sizeof kRowSql, volume->row);
    if (prepared != SQLITE_OK) rc = tevul::query_errno(volume->db.db.get(), prepared);
  }
  if (rc != 0) return tevul::note_volume_failure(rc, volume->location.prefix);
  volume->path = tevul::path_column(volume->row.get());
  if (!reader->volumes.push(volume.get())) return ENOMEM;
  *out = volume.release();
  return 0;
}

int reader_file_tags(tevu_reader* reader, const char* path, tevu_tag_cb cb,
                     void* user) {
  tevul::forget_failures();
  if (reader == nullptr || tevul::is_empty(path) || cb == nullptr) return ENOENT;
  char canonical[tevul::kPathSize];
  if (realpath(path, canonical) == nullptr) return errno;
  reader_volume* volume = nullptr;
  if (const int rc = volume_of(reader, canonical, &volume)) return rc;
  sqlite3_stmt* stmt = volume->row.get();
  // A volume root has the empty relative path, which no row carries.
  sqlite3_bind_text(stmt, 1, tevul::volume_relative(&volume->location, canonical),
                    -1, SQLITE_STATIC);
  reader->row.clear();
  const int rc = metadb_step(stmt);
  if (rc == SQLITE_ROW) reader->row.add(stmt, 0, volume->path, "");
  sqlite3_reset(stmt);  // the caller's code runs without a lock held
  if (rc != SQLITE_ROW && rc != SQLITE_DONE) {
    return tevul::note_volume_failure(tevul::query_errno(volume->db.db.get(), rc),
                                      volume->location.prefix);
  }
  if (!reader->row.ok()) return ENOMEM;
  return reader->row.rows() == 0 ? 0 : reader->row.deliver_tags(0, cb, user);
}

}  // namespace

extern "C" tevu_reader* tevu_reader_open(void) {
  if (tevu_find_mount() == nullptr) return nullptr;
  return tevul::make_object<tevu_reader>().release();
}

extern "C" int tevu_reader_file_tags(tevu_reader* reader, const char* path,
                                     tevu_tag_cb cb, void* user) {
  return reader_file_tags(reader, path, cb, user);
}

extern "C" void tevu_reader_close(tevu_reader* reader) {
  if (reader != nullptr) tevul::object_deleter<tevu_reader>()(reader);
}
