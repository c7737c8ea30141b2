// Fingerprints and the repair. See tevu_repair.h.
#include "tevu_repair.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common.h"
#include "metadb_bulk.h"
#include "tevu_maint.h"
#include "tevu_query.h"
#include "tevu_volume.h"

namespace tevul {

bool fingerprint_of(const struct stat& st, fingerprint* fp) {
  if (S_ISREG(st.st_mode)) {
    fp->kind = kFingerprintFile;
    fp->size = static_cast<int64_t>(st.st_size);
  } else if (S_ISDIR(st.st_mode)) {
    fp->kind = kFingerprintDir;
    fp->size = 0;
  } else {
    return false;
  }
  fp->mtime = static_cast<int64_t>(st.st_mtim.tv_sec);
  fp->mtime_ns = static_cast<int64_t>(st.st_mtim.tv_nsec);
  return true;
}

int compare_fingerprints(const fingerprint& a, const fingerprint& b) {
  if (a.kind != b.kind) return a.kind < b.kind ? -1 : 1;
  if (a.size != b.size) return a.size < b.size ? -1 : 1;
  if (a.mtime != b.mtime) return a.mtime < b.mtime ? -1 : 1;
  if (a.mtime_ns != b.mtime_ns) return a.mtime_ns < b.mtime_ns ? -1 : 1;
  return 0;
}

// ---------------------------------------------------------------------------
// The fingerprint database.

namespace {

// A small page cache: the store is read and written a row at a time.
constexpr char kCreateFingerprintSql[] =
    "PRAGMA synchronous=NORMAL; PRAGMA cache_size=-128;"
    "CREATE TABLE IF NOT EXISTS Fingerprint(Path TEXT PRIMARY KEY,"
    " Kind INTEGER NOT NULL, Size INTEGER NOT NULL, Mtime INTEGER NOT NULL,"
    " MtimeNs INTEGER NOT NULL) WITHOUT ROWID";
constexpr char kGetFingerprintSql[] =
    "SELECT Kind, Size, Mtime, MtimeNs FROM Fingerprint WHERE Path=?1";
// An unchanged fingerprint is not written again.
constexpr char kPutFingerprintSql[] =
    "INSERT INTO Fingerprint(Path, Kind, Size, Mtime, MtimeNs)"
    " VALUES(?1, ?2, ?3, ?4, ?5) ON CONFLICT(Path) DO UPDATE SET"
    " Kind=excluded.Kind, Size=excluded.Size, Mtime=excluded.Mtime,"
    " MtimeNs=excluded.MtimeNs WHERE Kind IS NOT excluded.Kind OR"
    " Size IS NOT excluded.Size OR Mtime IS NOT excluded.Mtime OR"
    " MtimeNs IS NOT excluded.MtimeNs";
// ?1 the old path, ?2 its literal subtree pattern, ?3 the new path.
constexpr char kCopyFingerprintSql[] =
    "INSERT OR REPLACE INTO Fingerprint(Path, Kind, Size, Mtime, MtimeNs)"
    " SELECT ?3||SUBSTR(Path, LENGTH(?1)+1), Kind, Size, Mtime, MtimeNs"
    " FROM Fingerprint WHERE Path=?1 OR Path GLOB ?2";
constexpr char kForgetFingerprintSql[] =
    "DELETE FROM Fingerprint WHERE Path=?1 OR Path GLOB ?2";

// Steps a statement of the fingerprint database to its end and resets it.
int run_once(sqlite3_stmt* stmt) {
  int rc;
  while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
  }
  sqlite3_reset(stmt);
  return rc == SQLITE_DONE ? SQLITE_OK : rc;
}

}  // namespace

int fingerprint_store::open(const char* tag_db, bool read_only) {
  char file[kPathSize];
  if (!format_whole(file, sizeof file, "%s%s", tag_db, kFingerprintSuffix)) {
    return ENAMETOOLONG;
  }
  for (int attempt = 0; attempt < 2; ++attempt) {
    // Never through a link or onto anything but a regular file: the store
    // may lie on a volume that others write to.
    struct stat st;
    if (lstat(file, &st) == 0) {
      if (!S_ISREG(st.st_mode)) return EIO;
    } else if (errno != ENOENT || read_only) {
      return errno;
    }
    int flags = SQLITE_OPEN_PRIVATECACHE;
    flags |= read_only ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
#ifdef SQLITE_OPEN_NOFOLLOW
    flags |= SQLITE_OPEN_NOFOLLOW;
#endif
    sqlite3* raw = nullptr;
    int rc = sqlite3_open_v2(file, &raw, flags, nullptr);
    db_.reset(raw);
    if (rc == SQLITE_OK) {
      sqlite3_busy_timeout(raw, 5000);
      rc = read_only ? sqlite3_exec(raw, "PRAGMA cache_size=-128", nullptr, nullptr, nullptr)
                     : sqlite3_exec(raw, kCreateFingerprintSql, nullptr, nullptr, nullptr);
    }
    if (rc == SQLITE_OK) rc = prepare_statements();
    if (rc == SQLITE_OK) return 0;
    const int code = rc;
    close();
    // A damaged store holds nothing worth keeping: it is made anew once.
    if ((code == SQLITE_NOTADB || code == SQLITE_CORRUPT) && !read_only && attempt == 0) {
      unlink(file);
      continue;
    }
    return sqlite_errno(code);
  }
  return EIO;
}

void fingerprint_store::close() {
  get_.reset();
  put_.reset();
  copy_.reset();
  forget_.reset();
  db_.reset();
}

int fingerprint_store::prepare_statements() {
  int rc = prepare(db_.get(), kGetFingerprintSql, -1, get_);
  if (rc == SQLITE_OK) rc = prepare(db_.get(), kPutFingerprintSql, -1, put_);
  if (rc == SQLITE_OK) rc = prepare(db_.get(), kCopyFingerprintSql, -1, copy_);
  if (rc == SQLITE_OK) rc = prepare(db_.get(), kForgetFingerprintSql, -1, forget_);
  return rc;
}

int fingerprint_store::get(const char* rel, fingerprint* fp) {
  if (!db_) return 0;
  sqlite3_stmt* s = get_.get();
  sqlite3_bind_text(s, 1, rel, -1, SQLITE_STATIC);
  const int rc = sqlite3_step(s);
  if (rc == SQLITE_ROW) {
    fp->kind = sqlite3_column_int(s, 0);
    fp->size = sqlite3_column_int64(s, 1);
    fp->mtime = sqlite3_column_int64(s, 2);
    fp->mtime_ns = sqlite3_column_int64(s, 3);
  }
  sqlite3_reset(s);
  return rc == SQLITE_ROW ? 1 : rc == SQLITE_DONE ? 0 : -1;
}

int fingerprint_store::put(const char* rel, const fingerprint& fp) {
  if (!db_) return SQLITE_MISUSE;
  sqlite3_stmt* s = put_.get();
  sqlite3_bind_text(s, 1, rel, -1, SQLITE_STATIC);
  sqlite3_bind_int(s, 2, fp.kind);
  sqlite3_bind_int64(s, 3, fp.size);
  sqlite3_bind_int64(s, 4, fp.mtime);
  sqlite3_bind_int64(s, 5, fp.mtime_ns);
  return run_once(s);
}

namespace {

// Runs a statement over the fingerprints of `from` and below: ?1 the path,
// ?2 its literal subtree pattern, ?3 `to` (when not NULL).
int run_subtree(sqlite3* db, sqlite3_stmt* s, const char* from, const char* to) {
  if (db == nullptr) return SQLITE_MISUSE;
  sqlite_text pattern(glob_escape(from, "/*"));
  if (!pattern) return SQLITE_NOMEM;
  sqlite3_bind_text(s, 1, from, -1, SQLITE_STATIC);
  sqlite3_bind_text(s, 2, pattern.get(), -1, SQLITE_STATIC);
  if (to != nullptr) sqlite3_bind_text(s, 3, to, -1, SQLITE_STATIC);
  const int rc = run_once(s);
  sqlite3_clear_bindings(s);
  return rc;
}

}  // namespace

int fingerprint_store::copy(const char* from, const char* to) {
  return run_subtree(db_.get(), copy_.get(), from, to);
}

int fingerprint_store::forget(const char* rel) {
  return run_subtree(db_.get(), forget_.get(), rel, nullptr);
}

int fingerprint_store::begin() {
  return db_ ? sqlite3_exec(db_.get(), "BEGIN IMMEDIATE", nullptr, nullptr, nullptr)
             : SQLITE_MISUSE;
}

int fingerprint_store::commit() {
  if (!db_) return SQLITE_MISUSE;
  const int rc = sqlite3_exec(db_.get(), "COMMIT", nullptr, nullptr, nullptr);
  if (rc != SQLITE_OK && !sqlite3_get_autocommit(db_.get())) {
    sqlite3_exec(db_.get(), "ROLLBACK", nullptr, nullptr, nullptr);
  }
  return rc;
}

// ---------------------------------------------------------------------------
// The repair of one volume.

namespace {

// Rows read from the tag database at a time; rows whose file is gone that
// are matched per walk of the volume, and the bytes of their paths.
constexpr int kRepairRows = 256;
constexpr std::size_t kLostRows = 4096;
constexpr std::size_t kLostBytes = 1 << 20;
// Decided rows whose tags move in one transaction of the tag database.
constexpr std::size_t kMovesPerTransaction = 256;

// The rows of the scope, kRepairRows at a time in row id order ("%s" the
// name under which the row id reads): ?1 the row id to go on after, ?2 the
// scope ('' for all), ?3 its literal subtree pattern.
constexpr char kRepairRowsSql[] =
    "SELECT %s, Path FROM Meta WHERE %s > ?1 AND (?2 = '' OR Path = ?2 OR"
    " Path GLOB ?3) ORDER BY %s LIMIT 256";
constexpr char kHasRowSql[] = "SELECT 1 FROM Meta WHERE Path=?1";

// A row whose file is gone, with what the walk found for it.
struct lost_row {
  std::size_t path;  // offset of its stored path in the batch's arena
  fingerprint fp;
  unsigned long candidates;
  char* to;  // the first candidate (malloc()), or NULL
  unsigned long named;  // candidates with the row's own file name
  char* named_to;       // the first of them, or NULL
  bool conflict;  // another row has the same chosen candidate
};

const char* file_name(const char* path) {
  const char* slash = strrchr(path, '/');
  return slash != nullptr ? slash + 1 : path;
}

// The file a lost row became: its only candidate, or of several the only
// one that kept its name (a tree moved elsewhere keeps its names; files
// written together may share a size and, on coarse clocks and FAT, a
// time). NULL when that does not decide.
const char* chosen(const lost_row& row) {
  if (row.candidates == 1) return row.to;
  if (row.named == 1) return row.named_to;
  return nullptr;
}

int compare_lost(const void* a, const void* b) {
  return compare_fingerprints(static_cast<const lost_row*>(a)->fp,
                              static_cast<const lost_row*>(b)->fp);
}

// The rows whose files are gone, matched together in one walk.
class lost_batch {
 public:
  ~lost_batch() { clear(); }
  bool add(const char* rel, const fingerprint& fp) {
    const std::size_t at = arena_.size();
    arena_.append(rel, strlen(rel) + 1);
    if (!arena_.ok()) return false;
    return rows_.push(lost_row{at, fp, 0, nullptr, 0, nullptr, false});
  }
  bool full() const { return rows_.size() >= kLostRows || arena_.size() >= kLostBytes; }
  bool empty() const { return rows_.empty(); }
  std::size_t size() const { return rows_.size(); }
  lost_row& operator[](std::size_t i) { return rows_[i]; }
  const char* path(const lost_row& row) const { return arena_.c_str() + row.path; }
  void sort() { rows_.sort(compare_lost); }
  void clear() {
    for (std::size_t i = 0; i < rows_.size(); ++i) {
      std::free(rows_[i].to);
      std::free(rows_[i].named_to);
    }
    rows_.clear();
    arena_.clear();
  }

 private:
  text arena_;
  array<lost_row> rows_;
};

// What one walk of a volume needs.
struct volume_walk {
  lost_batch* batch;
  sqlite3_stmt* has_row;
  std::size_t root_len;
  const char* db_prefix;  // the tag database's path: its files are skipped
  std::size_t db_prefix_len;
  dev_t dev;  // the volume's file system: others below it are not entered
  bool out_of_memory;
};

// Whether the tag database has a row for `rel`.
bool has_row(sqlite3_stmt* stmt, const char* rel) {
  sqlite3_bind_text(stmt, 1, rel, -1, SQLITE_STATIC);
  const int rc = metadb_step(stmt);
  sqlite3_reset(stmt);
  return rc == SQLITE_ROW;
}

walk_answer visit_candidate(void* user, const char* path, const struct stat& st) {
  volume_walk& walk = *static_cast<volume_walk*>(user);
  if (S_ISDIR(st.st_mode) && st.st_dev != walk.dev) return walk_skip;
  const walk_answer next = S_ISDIR(st.st_mode) ? walk_enter : walk_skip;
  if (!S_ISREG(st.st_mode) && !S_ISDIR(st.st_mode)) return walk_skip;
  if (strncmp(path, walk.db_prefix, walk.db_prefix_len) == 0) return next;
  fingerprint fp;
  if (!fingerprint_of(st, &fp)) return next;
  lost_batch& batch = *walk.batch;
  // The first lost row with this fingerprint (the batch is sorted).
  std::size_t lo = 0, hi = batch.size();
  while (lo < hi) {
    const std::size_t mid = lo + (hi - lo) / 2;
    if (compare_fingerprints(batch[mid].fp, fp) < 0) {
      lo = mid + 1;
    } else {
      hi = mid;
    }
  }
  if (lo == batch.size() || compare_fingerprints(batch[lo].fp, fp) != 0) return next;
  // A file that carries tags of its own is itself, not where another went.
  if (has_row(walk.has_row, path + walk.root_len + 1)) return next;
  for (std::size_t i = lo; i < batch.size() && compare_fingerprints(batch[i].fp, fp) == 0;
       ++i) {
    lost_row& row = batch[i];
    if (++row.candidates == 1) {
      row.to = strdup(path);
      if (row.to == nullptr) walk.out_of_memory = true;
    }
    if (strcmp(file_name(path), file_name(batch.path(row))) == 0 && ++row.named == 1) {
      row.named_to = strdup(path);
      if (row.named_to == nullptr) walk.out_of_memory = true;
    }
  }
  return next;
}

int compare_targets(const void* a, const void* b) {
  const lost_row* x = *static_cast<lost_row* const*>(a);
  const lost_row* y = *static_cast<lost_row* const*>(b);
  return strcmp(chosen(*x), chosen(*y));
}

// One volume's repair in progress.
class volume_repair {
 public:
  volume_repair(const char* root, const char* tag_db, bool dry_run, repair_sink* sink)
      : root_(root), tag_db_(tag_db), dry_run_(dry_run), sink_(sink) {}

  int run(const char* scope);

 private:
  int check_row(const char* rel);
  int match_and_apply();
  void apply_moves(array<lost_row*>* pending);
  void move_one(const lost_row& row);
  // Hands a finding to the callback; false when it asked to stop.
  bool tell(int kind, const char* from, const char* to, unsigned long candidates,
            int error) {
    if (sink_->cb == nullptr || stop_ != 0) return stop_ == 0;
    stop_ = sink_->cb(sink_->user, kind, from, to, candidates, error);
    sink_->stop = stop_;
    return stop_ == 0;
  }
  // Hands a move that was made to the callback, even after a stop: the
  // caller learns of every move. The first stop is kept.
  void tell_moved(const char* from, const char* to, unsigned long candidates) {
    if (sink_->cb == nullptr) return;
    const int rc = sink_->cb(sink_->user, TEVU_REPAIR_MOVED, from, to, candidates, 0);
    if (stop_ == 0 && rc != 0) stop_ = sink_->stop = rc;
  }
  void first_failure(int error) {
    if (failure_ == 0) failure_ = error;
  }

  const char* root_;
  const char* tag_db_;
  bool dry_run_;
  repair_sink* sink_;
  query_db tags_;
  stmt_ptr has_row_;
  fingerprint_store store_;
  lost_batch lost_;
  int stop_ = 0;
  int failure_ = 0;
};

int volume_repair::check_row(const char* rel) {
  char full[kPathSize];
  if (!format_whole(full, sizeof full, "%s/%s", root_, rel)) {
    ++sink_->counts.failed;
    first_failure(ENAMETOOLONG);
    tell(TEVU_REPAIR_FAILED, rel, nullptr, 0, ENAMETOOLONG);
    return 0;
  }
  struct stat st;
  if (lstat(full, &st) == 0) {
    ++sink_->counts.in_place;
    fingerprint fp;
    if (!dry_run_ && fingerprint_of(st, &fp)) {
      const int rc = store_.put(rel, fp);
      if (rc != SQLITE_OK) return sqlite_errno(rc);
    }
    return 0;
  }
  if (errno != ENOENT && errno != ENOTDIR) {
    const int error = errno;
    ++sink_->counts.failed;
    first_failure(error);
    tell(TEVU_REPAIR_FAILED, full, nullptr, 0, error);
    return 0;
  }
  fingerprint fp;
  const int known = store_.get(rel, &fp);
  if (known < 0) return EIO;
  if (known == 0) {
    ++sink_->counts.unmatched;
    tell(TEVU_REPAIR_UNMATCHED, full, nullptr, 0, 0);
    return 0;
  }
  return lost_.add(rel, fp) ? 0 : ENOMEM;
}

int volume_repair::match_and_apply() {
  lost_.sort();
  struct stat root;
  if (stat(root_, &root) != 0) return errno;
  volume_walk walk{&lost_, has_row_.get(), strlen(root_), tag_db_, strlen(tag_db_), root.st_dev,
                   false};
  const int walked = walk_below(root_, visit_candidate, nullptr, &walk);
  if (walked != 0) return walked;
  if (walk.out_of_memory) return ENOMEM;

  // Two rows that chose the same file are both left alone.
  array<lost_row*> single;
  for (std::size_t i = 0; i < lost_.size(); ++i) {
    if (chosen(lost_[i]) != nullptr && !single.push(&lost_[i])) return ENOMEM;
  }
  single.sort(compare_targets);
  for (std::size_t i = 1; i < single.size(); ++i) {
    if (strcmp(chosen(*single[i - 1]), chosen(*single[i])) == 0) {
      single[i - 1]->conflict = single[i]->conflict = true;
    }
  }

  // The decided rows are moved together; any other finding is told after
  // the moves found before it, so the order of the findings is kept.
  array<lost_row*> pending;
  for (std::size_t i = 0; i < lost_.size() && stop_ == 0; ++i) {
    lost_row& row = lost_[i];
    char from[kPathSize];
    if (!format_whole(from, sizeof from, "%s/%s", root_, lost_.path(row))) continue;
    if (row.candidates == 0) {
      apply_moves(&pending);
      ++sink_->counts.unmatched;
      tell(TEVU_REPAIR_UNMATCHED, from, nullptr, 0, 0);
    } else if (chosen(row) == nullptr || row.conflict) {
      apply_moves(&pending);
      ++sink_->counts.ambiguous;
      tell(TEVU_REPAIR_AMBIGUOUS, from, nullptr, row.candidates, 0);
    } else if (dry_run_) {
      ++sink_->counts.moved;
      tell(TEVU_REPAIR_MOVED, from, chosen(row), row.candidates, 0);
    } else if (!pending.push(&row)) {
      apply_moves(&pending);
      move_one(row);
    } else if (pending.size() >= kMovesPerTransaction) {
      apply_moves(&pending);
    }
  }
  apply_moves(&pending);
  lost_.clear();
  return 0;
}

// Moves the tags of the decided rows of `pending` in one transaction of the
// tag database, as tevu_move_checked() moves each: the fingerprints stand at
// the new places (committed) before the tags move, and are forgotten at the
// old ones after, so an interruption leaves a fingerprint at both. When the
// batch cannot be made (memory, a failed transaction) each row is moved
// alone, so that only a row that fails alone fails. Clears `pending`.
void volume_repair::apply_moves(array<lost_row*>* pending) {
  const std::size_t n = pending->size();
  text froms;  // the rows' absolute paths, each terminated
  for (std::size_t k = 0; k < n; ++k) {
    froms.append(root_).push('/').append(lost_.path(*(*pending)[k])).push('\0');
  }
  array<const char*> from;
  array<const char*> to;
  bool whole = n > 0 && froms.ok();
  for (const char* p = froms.c_str(); whole && from.size() < n; p += strlen(p) + 1) {
    whole = from.push(p) && to.push(chosen(*(*pending)[from.size() - 1]));
  }
  if (whole && store_.begin() == SQLITE_OK) {
    const std::size_t root_len = strlen(root_);
    for (std::size_t k = 0; k < n; ++k) store_.put(to[k] + root_len + 1, (*pending)[k]->fp);
    whole = store_.commit() == SQLITE_OK && move_many_within(from.data(), to.data(), n) == 0;
  } else {
    whole = false;
  }
  if (!whole) {
    for (std::size_t k = 0; k < n && stop_ == 0; ++k) move_one(*(*pending)[k]);
    pending->clear();
    return;
  }
  const bool forgetting = store_.begin() == SQLITE_OK;
  for (std::size_t k = 0; k < n; ++k) store_.forget(lost_.path(*(*pending)[k]));
  if (forgetting) store_.commit();
  for (std::size_t k = 0; k < n; ++k) {
    ++sink_->counts.moved;
    tell_moved(from[k], to[k], (*pending)[k]->candidates);
  }
  pending->clear();
}

// Moves the tags of one decided row in a transaction of its own. Its path
// is made on the heap: the stack this call adds to the repair's is counted.
void volume_repair::move_one(const lost_row& row) {
  const char* to = chosen(row);
  c_ptr<char> from(static_cast<char*>(malloc(kPathSize)));
  int rc = ENOMEM;
  if (from) {
    format_cut(from.get(), kPathSize, "%s/%s", root_, lost_.path(row));
    // The fingerprint stands at the new place before the tags do: an
    // interruption leaves it at both.
    store_.put(to + strlen(root_) + 1, row.fp);
    rc = tevu_move_checked(from.get(), to);
  }
  if (rc != 0) {
    ++sink_->counts.failed;
    first_failure(rc);
    tell(TEVU_REPAIR_FAILED, from ? from.get() : lost_.path(row), to, row.candidates, rc);
    return;
  }
  ++sink_->counts.moved;
  store_.forget(lost_.path(row));
  tell_moved(from.get(), to, row.candidates);
}

int volume_repair::run(const char* scope) {
  struct stat st;
  if (stat(root_, &st) != 0 || !S_ISDIR(st.st_mode)) return ENOENT;
  int rc = open_query_db(tag_db_, &tags_);
  if (rc != 0) return rc;
  // The rows are read once, in order: a small page cache will do.
  sqlite3_exec(tags_.db.get(), "PRAGMA cache_size=-128", nullptr, nullptr, nullptr);
  if (tags_.rowid == nullptr) return EIO;  // no row id that can be trusted
  rc = store_.open(tag_db_, dry_run_);
  if (rc == ENOENT && dry_run_) {
    rc = 0;  // nothing was ever recorded: every lost row is unmatched
  } else if (rc != 0) {
    return rc;
  }
  char sql[sizeof kRepairRowsSql + 32];
  format_cut(sql, sizeof sql, kRepairRowsSql, tags_.rowid, tags_.rowid, tags_.rowid);
  stmt_ptr rows;
  sqlite3* db = tags_.db.get();
  if (prepare(db, sql, -1, rows) != SQLITE_OK ||
      prepare(db, kHasRowSql, -1, has_row_) != SQLITE_OK) {
    return query_errno(db, sqlite3_errcode(db));
  }
  sqlite_text pattern(glob_escape(scope, "/*"));
  if (!pattern) return ENOMEM;
  sqlite3_bind_text(rows.get(), 2, scope, -1, SQLITE_STATIC);
  sqlite3_bind_text(rows.get(), 3, pattern.get(), -1, SQLITE_STATIC);

  text batch;  // the stored paths of one read, each terminated
  sqlite3_int64 after = INT64_MIN;
  for (;;) {
    batch.clear();
    int count = 0;
    sqlite3_bind_int64(rows.get(), 1, after);
    while ((rc = metadb_step(rows.get())) == SQLITE_ROW) {
      ++count;
      after = sqlite3_column_int64(rows.get(), 0);
      const char* rel = reinterpret_cast<const char*>(sqlite3_column_text(rows.get(), 1));
      if (rel != nullptr && rel[0] != '\0') batch.append(rel, strlen(rel) + 1);
    }
    sqlite3_reset(rows.get());  // no lock held while the disk is looked at
    if (rc != SQLITE_DONE) return query_errno(db, rc);
    rc = 0;
    if (!batch.ok()) return ENOMEM;
    if (!dry_run_ && store_.begin() != SQLITE_OK) return EIO;
    for (std::size_t at = 0; at < batch.size() && stop_ == 0;) {
      const char* rel = batch.c_str() + at;
      at += strlen(rel) + 1;
      rc = check_row(rel);
      if (rc != 0) break;
      if (lost_.full()) {
        if (!dry_run_) store_.commit();
        rc = match_and_apply();
        if (rc != 0) break;
        if (!dry_run_ && store_.begin() != SQLITE_OK) return EIO;
      }
    }
    if (!dry_run_) {
      const int committed = store_.commit();
      if (rc == 0 && committed != SQLITE_OK) rc = sqlite_errno(committed);
    }
    if (rc != 0) return rc;
    if (stop_ != 0) return stop_;
    if (count < kRepairRows) break;
  }
  if (!lost_.empty()) rc = match_and_apply();
  if (rc != 0) return rc;
  return stop_ != 0 ? stop_ : failure_;
}

// The volume root "/N" of a root with its final slash ("/N/").
void root_without_slash(const char* with, char* out) {
  format_cut(out, kPathSize, "%s", with);
  const std::size_t n = strlen(out);
  if (n > 1 && out[n - 1] == '/') out[n - 1] = '\0';
}

}  // namespace

int repair_volume(const char* root, const char* tag_db, const char* scope,
                  bool dry_run, repair_sink* sink) {
  volume_repair repair(root, tag_db, dry_run, sink);
  return repair.run(scope);
}

}  // namespace tevul

extern "C" int tevu_repair(const char* dir, int dry_run, tevu_repair_cb cb,
                           void* user, struct tevu_repair_counts* counts) {
  using namespace tevul;
  forget_failures();
  repair_sink sink;
  sink.cb = cb;
  sink.user = user;
  int result = 0;
  if (tevu_find_mount() == nullptr) {
    result = ENOENT;
  } else if (dir == nullptr) {
    array<volume_link> volumes;
    result = list_volumes(&volumes);
    for (std::size_t i = 0; i < volumes.size(); ++i) {
      const volume_link& v = volumes[i];
      char root[kPathSize];
      root_without_slash(v.root, root);
      int rc = v.error != 0 ? v.error : repair_volume(root, v.db, "", dry_run != 0, &sink);
      if (sink.stop != 0) {
        result = sink.stop;
        break;
      }
      if (rc != 0) {
        // A callback's stop ends the whole repair; a volume's failure is
        // recorded and the others go on.
        note_volume_failure(rc, v.root);
        if (result == 0) result = rc;
      }
    }
  } else {
    char resolved[PATH_MAX];
    tevu_volume volume;
    if (realpath(dir, resolved) == nullptr) {
      result = errno == ENOENT ? ENOENT : errno;
    } else if (tevu_locate_volume(&volume, resolved) != 1) {
      result = ENOENT;
    } else {
      char root[kPathSize];
      root_without_slash(volume.prefix, root);
      const char* scope = volume_relative(&volume, resolved);
      result = repair_volume(root, volume.db_path, scope, dry_run != 0, &sink);
      if (result != 0 && sink.stop == 0) note_volume_failure(result, volume.prefix);
    }
  }
  if (counts != nullptr) *counts = sink.counts;
  return result;
}
