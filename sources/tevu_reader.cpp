// The reader: the tags of many named files, through read-only connections
// kept between calls, one per volume. An extension; see tevul.h.
//
// Each file costs its realpath(), a comparison with the prefixes of the
// volumes met so far, and one row read through a statement prepared once
// per volume. Reading a row in a transaction of its own costs SQLite eight
// system calls (locks, the hot journal and WAL checks, the change counter),
// more than the row itself: files asked for together share one per batch.
// Volumes are looked up in the meta directory only the first time one of
// their files is asked for. The connections are those of the
// queries (tevu_query.h): hot journals rolled back, no write lock, no wait
// for a lock of the calling thread, rows copied out before the callback.
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

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
  dev_t dev = 0;        // the database file when it was opened
  ino_t ino = 0;
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
  struct stat st;
  if (stat(volume->location.db_path, &st) == 0) {
    volume->dev = st.st_dev;
    volume->ino = st.st_ino;
  }
  volume->path = tevul::path_column(volume->row.get());
  if (!reader->volumes.push(volume.get())) return ENOMEM;
  *out = volume.release();
  return 0;
}

// Where each file of a batch stands: its canonical path in the arena, or
// the errno for which it has none; then the row read for it.
struct batch_file {
  std::size_t canonical;  // offset in the arena
  int error;
  reader_volume* volume;
  std::size_t row;        // index in the row batch, or kNoRow
};
constexpr std::size_t kNoRow = static_cast<std::size_t>(-1);

// Reads the row of `file` (canonical, on `file.volume`) into `rows`.
void read_row(tevu_reader* reader, const char* canonical, batch_file* file) {
  reader_volume* volume = file->volume;
  sqlite3_stmt* stmt = volume->row.get();
  // A volume root has the empty relative path, which no row carries.
  sqlite3_bind_text(stmt, 1, tevul::volume_relative(&volume->location, canonical), -1,
                    SQLITE_STATIC);
  const std::size_t before = reader->row.rows();
  const int rc = metadb_step(stmt);
  if (rc == SQLITE_ROW) reader->row.add(stmt, 0, volume->path, "", true);
  sqlite3_reset(stmt);
  if (rc != SQLITE_ROW && rc != SQLITE_DONE) {
    file->error = tevul::note_volume_failure(tevul::query_errno(volume->db.db.get(), rc),
                                             volume->location.prefix);
  } else if (reader->row.rows() > before) {
    file->row = before;
  }
}

// Reads the files `paths[first]` to `paths[first + n - 1]` (n at most
// kQueryBatch; fewer when their rows reach kBatchBytes: *done tells how
// many) and hands them to `cb`. Their paths are made canonical
// first, so that no lock is held while the disk is asked; then, when there
// are several, each volume's rows are read in one read transaction, which
// ends before `cb` runs.
int read_batch(tevu_reader* reader, const char* const* paths, std::size_t first,
               std::size_t n, std::size_t* done, tevu_reader_cb cb, void* user) {
  tevul::text canonicals;
  batch_file files[tevul::kQueryBatch];
  char canonical[tevul::kPathSize];
  for (std::size_t i = 0; i < n; ++i) {
    batch_file& f = files[i];
    f = batch_file{canonicals.size(), 0, nullptr, kNoRow};
    const char* path = paths[first + i];
    if (tevul::is_empty(path)) {
      f.error = ENOENT;
    } else if (realpath(path, canonical) == nullptr) {
      f.error = errno;
    } else {
      f.error = volume_of(reader, canonical, &f.volume);
      canonicals.append(canonical).push('\0');
    }
  }
  if (!canonicals.ok()) return ENOMEM;
  reader->row.clear();
  tevul::array<reader_volume*> begun;
  for (std::size_t i = 0; i < n; ++i) {
    batch_file& f = files[i];
    if (f.error != 0) continue;
    bool in_transaction = n == 1;  // a single row needs none of its own
    for (std::size_t v = 0; v < begun.size() && !in_transaction; ++v) {
      in_transaction = begun[v] == f.volume;
    }
    if (!in_transaction) {
      if (!begun.push(f.volume)) return ENOMEM;
      sqlite3_exec(f.volume->db.db.get(), "BEGIN", nullptr, nullptr, nullptr);
    }
    read_row(reader, canonicals.c_str() + f.canonical, &f);
    if (reader->row.bytes() >= tevul::kBatchBytes) {
      n = i + 1;
      break;
    }
  }
  *done = n;
  for (std::size_t v = 0; v < begun.size(); ++v) {
    // Only read: ending it cannot fail but for a misuse, and releases the
    // lock either way.
    sqlite3_exec(begun[v]->db.db.get(), "COMMIT", nullptr, nullptr, nullptr);
  }
  if (!reader->row.ok()) return ENOMEM;
  for (std::size_t i = 0; i < n; ++i) {
    const char* path = nullptr;
    std::size_t count = 0;
    const char* const* names = nullptr;
    const char* const* values = nullptr;
    if (files[i].row != kNoRow &&
        !reader->row.expose(files[i].row, &path, &count, &names, &values)) {
      return ENOMEM;
    }
    if (const int stop = cb(user, first + i, files[i].error, count, names, values)) {
      return stop;
    }
  }
  return 0;
}

// True when the volume is still where and what it was when the reader met
// it: the meta directory still names it, with the same database link, and
// that file is still the one opened (not a disk swapped under the volume,
// nor a database replaced).
bool unchanged(const reader_volume& volume) {
  char root[tevul::kPathSize];
  const std::size_t n = strlen(volume.location.prefix);
  if (n < 2) return false;
  memcpy(root, volume.location.prefix, n - 1);
  root[n - 1] = '\0';
  tevu_volume now;
  struct stat st;
  return tevu_locate_volume(&now, root) == 1 &&
         strcmp(now.db_path, volume.location.db_path) == 0 &&
         stat(volume.location.db_path, &st) == 0 && st.st_dev == volume.dev &&
         st.st_ino == volume.ino;
}

// Closes the connections of the volumes that changed since the reader met
// them; their files are looked up afresh.
void forget_changed_volumes(tevu_reader* reader) {
  std::size_t kept = 0;
  for (std::size_t i = 0; i < reader->volumes.size(); ++i) {
    reader_volume* volume = reader->volumes[i];
    if (unchanged(*volume)) {
      reader->volumes[kept++] = volume;
    } else {
      tevul::object_deleter<reader_volume>()(volume);
    }
  }
  reader->volumes.truncate(kept);
}

int reader_files(tevu_reader* reader, const char* const* paths, std::size_t count,
                 tevu_reader_cb cb, void* user) {
  tevul::forget_failures();
  if (reader == nullptr || (paths == nullptr && count > 0) || cb == nullptr) return ENOENT;
  forget_changed_volumes(reader);
  for (std::size_t first = 0, done = 0; first < count; first += done) {
    const std::size_t n =
        count - first < tevul::kQueryBatch ? count - first : tevul::kQueryBatch;
    if (const int rc = read_batch(reader, paths, first, n, &done, cb, user)) return rc;
  }
  return 0;
}

// The one file of tevu_reader_file_tags(): its result, and its tags to the
// caller's callback.
struct one_file {
  tevu_tag_cb cb;
  void* user;
  int result;
};

int hand_tags(void* user, size_t, int error, size_t count, const char* const* names,
              const char* const* values) {
  one_file* one = static_cast<one_file*>(user);
  one->result = error;
  for (std::size_t t = 0; t < count && one->result == 0; ++t) {
    one->result = one->cb(one->user, names[t], values[t]);
  }
  return 0;
}

int reader_file_tags(tevu_reader* reader, const char* path, tevu_tag_cb cb,
                     void* user) {
  if (reader == nullptr || tevul::is_empty(path) || cb == nullptr) {
    tevul::forget_failures();
    return ENOENT;
  }
  one_file one{cb, user, 0};
  const int rc = reader_files(reader, &path, 1, hand_tags, &one);
  return rc != 0 ? rc : one.result;
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

extern "C" int tevu_reader_files(tevu_reader* reader, const char* const* paths,
                                 size_t count, tevu_reader_cb cb, void* user) {
  return reader_files(reader, paths, count, cb, user);
}

extern "C" void tevu_reader_close(tevu_reader* reader) {
  if (reader != nullptr) tevul::object_deleter<tevu_reader>()(reader);
}
