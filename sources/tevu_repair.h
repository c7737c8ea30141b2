// Fingerprints of tagged files and the repair that finds where the files
// of tagged rows went while nobody watched. The repair is exported as an
// extension (tevu_repair(), see tevul.h); the watcher (tevu_watch) keeps
// the fingerprints current and runs the repair itself.
//
// A fingerprint is what a rename, coreutils `mv` and Samba keep of a file:
// whether it is a file or a directory, its size (files only) and its
// modification time to the nanosecond. Fingerprints live in a database of
// their own beside each volume's tag database ("<tag database>.fingerprints",
// table Fingerprint), never in the daemon's databases.
#ifndef TEVUL_TEVU_REPAIR_H
#define TEVUL_TEVU_REPAIR_H

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>

#include "common.h"
#include "tevul.h"

namespace tevul {

// What a fingerprint tells apart.
enum fingerprint_kind { kFingerprintFile = 1, kFingerprintDir = 2 };

struct fingerprint {
  int kind;
  int64_t size;  // 0 for a directory: its size says nothing of it
  int64_t mtime;
  int64_t mtime_ns;
};

// The fingerprint of what `st` describes; false for anything that is no
// regular file or directory (links, devices, FIFOs are never tagged files
// to follow).
bool fingerprint_of(const struct stat& st, fingerprint* fp);

// Orders fingerprints by kind, size and time (qsort()'s comparison).
int compare_fingerprints(const fingerprint& a, const fingerprint& b);

// The suffix that names a volume's fingerprint database beside its tag
// database.
constexpr char kFingerprintSuffix[] = ".fingerprints";

// The fingerprint database of one volume. Opened by path beside the tag
// database, never through a symbolic link, created when missing (unless
// read-only). Paths are the volume-relative paths of the tag database.
class fingerprint_store {
 public:
  // Opens the store of tag database `tag_db`. Returns 0 or an errno
  // (ENAMETOOLONG, EACCES, EIO for a file that is no fingerprint database
  // and cannot be replaced). `read_only`: a missing store is ENOENT and
  // nothing is ever written.
  int open(const char* tag_db, bool read_only);
  bool is_open() const { return static_cast<bool>(db_); }
  // Finalises the statements and closes the database (a store closed so
  // can be opened again).
  void close();

  // The fingerprint of `rel`: 1 found, 0 none, -1 a failed read.
  int get(const char* rel, fingerprint* fp);
  // Records `fp` for `rel` unless it is recorded so already. Returns 0 or an
  // SQLite code.
  int put(const char* rel, const fingerprint& fp);
  // Records the fingerprints of `from` and below also under `to` (before a
  // move, so that an interruption leaves them at both places). Returns 0
  // or an SQLite code.
  int copy(const char* from, const char* to);
  // Forgets the fingerprints of `rel` and below. Returns 0 or an SQLite code.
  int forget(const char* rel);
  // Transactions around many puts (one sync instead of one per put).
  int begin();
  int commit();

  sqlite3* db() const { return db_.get(); }

 private:
  int prepare_statements();

  db_ptr db_;
  stmt_ptr get_;
  stmt_ptr put_;
  stmt_ptr copy_;
  stmt_ptr forget_;
};

// Where a repair sends its findings, and what it counts.
struct repair_sink {
  tevu_repair_cb cb = nullptr;
  void* user = nullptr;
  tevu_repair_counts counts = {};
  int stop = 0;  // the callback's value when it stopped the repair
};

// Repairs the rows of one volume: the volume root `root` (absolute, without
// a trailing "/"), its tag database `tag_db`, the rows of stored path
// `scope` and below (empty: every row). Results as tevu_repair() for one
// volume.
int repair_volume(const char* root, const char* tag_db, const char* scope,
                  bool dry_run, repair_sink* sink);

}  // namespace tevul

#endif  // TEVUL_TEVU_REPAIR_H
