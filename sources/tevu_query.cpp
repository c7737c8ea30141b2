// Read-only queries. See tevu_query.h and tevul.h.
#include "tevu_query.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common.h"
#include "metadb_bulk.h"
#include "tevu_volume.h"

using tevul::array;
using tevul::kPathSize;
using tevul::query_db;
using tevul::stmt_ptr;
using tevul::text;

namespace {

// Results for a missing argument or no mount, as the tag-file functions.
constexpr int kNoMount = ENOENT;

// What the calling thread's last query could not read.
constexpr unsigned kFailuresKept = 8;
struct failure_record {
  unsigned count;  // kept
  unsigned total;  // kept or not
  int error[kFailuresKept];
  char where[kFailuresKept][256];
};
__thread failure_record t_failures;

}  // namespace

namespace tevul {

void forget_failures() { t_failures.count = t_failures.total = 0; }

int note_failure(int error, const char* where) {
  const unsigned i = t_failures.count;
  // A volume that failed twice in one call (its database opened again) is
  // one failure.
  for (unsigned k = 0; k < i; ++k) {
    if (t_failures.error[k] == error && strcmp(t_failures.where[k], where) == 0) return error;
  }
  ++t_failures.total;
  if (i < kFailuresKept) {
    t_failures.error[i] = error;
    format_cut(t_failures.where[i], sizeof t_failures.where[i], "%s", where);
    t_failures.count = i + 1;
  }
  return error;
}

int note_volume_failure(int error, const char* root) {
  // "/N/" is named "/N".
  char name[NAME_MAX + 3];
  format_cut(name, sizeof name, "%.*s", static_cast<int>(strlen(root)) - 1, root);
  return note_failure(error, name);
}

int query_errno(sqlite3* db, int rc) {
  if (rc == SQLITE_BUSY && db != nullptr && blocked_by_own_thread(db)) {
    return EDEADLK;
  }
  return sqlite_errno(rc);
}

int open_query_db(const char* file, query_db* out) {
  // Only a regular file (after links) is opened: a FIFO would block, and a
  // missing file must not be created.
  struct stat st;
  if (stat(file, &st) != 0) return errno;
  if (!S_ISREG(st.st_mode)) return ENOENT;
  sqlite3* raw = nullptr;
  const int rc = sqlite3_open_v2(
      file, &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_PRIVATECACHE, nullptr);
  out->db.reset(raw);  // closed also after a failed open
  if (rc != SQLITE_OK) return sqlite_errno(rc);
  sqlite3_busy_handler(raw, own_lock_aware_busy_handler, raw);
  sqlite3_exec(raw, "PRAGMA query_only=1", nullptr, nullptr, nullptr);
  // Walks read the table once in row order: a page cache of 512 KiB (not
  // SQLite's 2 MB) serves them as well, and keeps a router's memory.
  sqlite3_exec(raw, "PRAGMA cache_size=-512", nullptr, nullptr, nullptr);
  // Reads the schema, rolling a hot journal back first.
  const int meta = sqlite3_table_column_metadata(raw, nullptr, "Meta", nullptr,
                                                 nullptr, nullptr, nullptr,
                                                 nullptr, nullptr);
  if (meta != SQLITE_OK) return query_errno(raw, meta);
  // Walks go by row id: a table that could hide it is refused, not walked
  // (a crafted column "rowid" would repeat or skip rows).
  const int plain = meta_rowid_plain(raw);
  if (plain != SQLITE_OK) return query_errno(raw, plain);
  out->rowid = "rowid";
  return 0;
}

int path_column(sqlite3_stmt* stmt) {
  const int columns = sqlite3_column_count(stmt);
  for (int i = 0; i < columns; ++i) {
    const char* name = sqlite3_column_name(stmt, i);
    if (name != nullptr && strcmp(name, "Path") == 0) return i;
  }
  return -1;
}

void row_batch::clear() {
  arena_.clear();
  rows_.clear();
  strings_.clear();
}

namespace {

// Appends the value of column `i` of the row `stmt` stands on, as stored,
// and a terminator. Read as bytes: a text read as text would be copied
// once more inside SQLite only to get its terminator.
void append_column(text& out, sqlite3_stmt* stmt, int i) {
  const void* bytes = sqlite3_column_blob(stmt, i);
  const int n = sqlite3_column_bytes(stmt, i);
  if (bytes != nullptr && n > 0) {
    out.append(static_cast<const char*>(bytes), static_cast<std::size_t>(n));
  }
  out.push('\0');
}

}  // namespace

void row_batch::add(sqlite3_stmt* stmt, int first, int path, const char* prefix,
                    bool untagged_too) {
  const row r{arena_.size(), strings_.size(), 0};
  arena_.append(prefix);
  append_column(arena_, stmt, path);
  std::size_t tags = 0;
  const int columns = sqlite3_column_count(stmt);
  for (int i = first; i < columns; ++i) {
    const char* name = sqlite3_column_name(stmt, i);
    if (name == nullptr || name[0] != '.') continue;  // Path, Data, others
    if (sqlite3_column_type(stmt, i) == SQLITE_NULL) continue;  // not set
    failed_ |= !strings_.push(arena_.size());
    arena_.append(name + 1).push('\0');
    failed_ |= !strings_.push(arena_.size());
    append_column(arena_, stmt, i);
    ++tags;
  }
  if (tags == 0 && !untagged_too) {  // no tags: nothing of the row stays
    arena_.truncate(r.path);
    strings_.truncate(r.strings);
    return;
  }
  failed_ |= !rows_.push(row{r.path, r.strings, tags});
}

bool row_batch::expose(std::size_t i, const char** path, std::size_t* count,
                       const char* const** names, const char* const** values) {
  const row& r = rows_[i];
  names_.clear();
  values_.clear();
  const char* base = arena_.c_str();
  for (std::size_t t = 0; t < r.tags; ++t) {
    if (!names_.push(base + strings_[r.strings + 2 * t]) ||
        !values_.push(base + strings_[r.strings + 2 * t + 1])) {
      return false;
    }
  }
  *path = base + r.path;
  *count = r.tags;
  *names = names_.data();
  *values = values_.data();
  return true;
}

int row_batch::deliver(std::size_t i, tevu_row_cb cb, void* user) {
  const char* path = nullptr;
  std::size_t count = 0;
  const char* const* names = nullptr;
  const char* const* values = nullptr;
  if (!expose(i, &path, &count, &names, &values)) return ENOMEM;
  return cb(user, path, count, names, values);
}

int row_batch::deliver_tags(std::size_t i, tevu_tag_cb cb, void* user) {
  const row& r = rows_[i];
  const char* base = arena_.c_str();
  for (std::size_t t = 0; t < r.tags; ++t) {
    if (const int stop = cb(user, base + strings_[r.strings + 2 * t],
                            base + strings_[r.strings + 2 * t + 1])) {
      return stop;
    }
  }
  return 0;
}

int list_volumes(array<volume_link>* out) {
  char meta[kPathSize];
  format_cut(meta, sizeof meta, "%s/meta", tevu_find_mount());
  unique_fd fd(open(meta, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd.valid()) return note_failure(errno, meta);
  dir_ptr dir(fdopendir(fd.get()));
  if (!dir) return note_failure(errno, meta);
  const int dir_fd = fd.release();
  for (;;) {
    errno = 0;
    const dirent* entry = readdir(dir.get());
    if (entry == nullptr) {  // the end, or a failed read
      return errno == 0 ? 0 : note_failure(errno, meta);
    }
    const char* name = entry->d_name;
    bool link = entry->d_type == DT_LNK;
    if (entry->d_type == DT_UNKNOWN) {
      struct stat st;
      link = fstatat(dir_fd, name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(st.st_mode);
    }
    const std::size_t len = strlen(name);
    if (!link || (len >= 4 && strcmp(name + len - 4, "@@db") == 0)) continue;
    volume_link v;
    format_cut(v.root, sizeof v.root, "/%s/", name);
    v.error = 0;
    char db_link[NAME_MAX + 8];
    format_cut(db_link, sizeof db_link, "%s@@db", name);
    const ssize_t n = readlinkat(dir_fd, db_link, v.db, sizeof v.db);
    if (n < 0) {
      v.error = errno;
    } else if (static_cast<std::size_t>(n) >= sizeof v.db) {
      v.error = ENAMETOOLONG;
    } else {
      v.db[n] = '\0';
      // A relative target is followed through the link itself.
      if (v.db[0] != '/' && !format_whole(v.db, sizeof v.db, "%s/%s", meta, db_link)) {
        v.error = ENAMETOOLONG;
      }
    }
    if (!out->push(v)) return note_failure(ENOMEM, meta);
  }
}

int plain_path(const char* path, char* out) {
  if (path == nullptr || path[0] != '/') return EINVAL;
  std::size_t n = 0;
  for (const char* part = path; *part != '\0';) {
    while (*part == '/') ++part;
    const std::size_t len = strcspn(part, "/");
    if (len == 0) break;
    if ((len == 1 && part[0] == '.') ||
        (len == 2 && part[0] == '.' && part[1] == '.')) {
      return EINVAL;
    }
    if (n + 1 + len >= kPathSize) return ENAMETOOLONG;
    out[n++] = '/';
    memcpy(out + n, part, len);
    n += len;
    part += len;
  }
  if (n == 0) out[n++] = '/';
  out[n] = '\0';
  return 0;
}

int locate_literal(const char* path, tevu_volume* volume, const char** rel,
                   char* plain) {
  if (const int rc = plain_path(path, plain)) return rc;
  if (tevu_locate_volume(volume, plain) != 1) return ENOENT;
  *rel = volume_relative(volume, plain);
  return 0;
}

int paths_in_batches(sqlite3_stmt* stmt, int after_param, const char* root,
                     tevu_file_cb cb, void* user, int* stop) {
  text paths;
  array<std::size_t> starts;
  return in_batches(
      stmt, after_param,
      [&](sqlite3_stmt* s) {
        if (!starts.push(paths.size())) return ENOMEM;
        append_column(paths.append(root), s, 1);
        return paths.ok() ? 0 : ENOMEM;
      },
      [&](int* stopped) {
        for (std::size_t i = 0; i < starts.size() && *stopped == 0; ++i) {
          *stopped = cb(user, paths.c_str() + starts[i]);
        }
        paths.clear();
        starts.clear();
        return 0;
      },
      stop);
}

bool has_tag_column(sqlite3* db, const char* name, char (&column)[kColumnSize]) {
  return format_whole(column, sizeof column, ".%s", name) &&
         sqlite3_table_column_metadata(db, nullptr, "Meta", column, nullptr, nullptr,
                                       nullptr, nullptr, nullptr) == SQLITE_OK;
}

int wide_table(query_db& db, bool* wide) {
  sqlite3* handle = db.db.get();
  stmt_ptr all;
  const int rc = tevul::prepare(handle, "SELECT * FROM Meta", -1, all);
  if (rc != SQLITE_OK) return query_errno(handle, rc);
  *wide = sqlite3_column_count(all.get()) >= sqlite3_limit(handle, SQLITE_LIMIT_COLUMN, -1);
  return 0;
}

int rows_in_batches(query_db& db, bool wide, bool untagged_too, sqlite3_stmt* stmt,
                    int after_param, const char* root, tevu_row_cb cb, void* user,
                    int* stop) {
  sqlite3* handle = db.db.get();
  stmt_ptr one;
  if (wide) {
    char one_sql[64];
    format_cut(one_sql, sizeof one_sql, "SELECT * FROM Meta WHERE %s=?", db.rowid);
    const int rc = tevul::prepare(handle, one_sql, -1, one);
    if (rc != SQLITE_OK) return query_errno(handle, rc);
  }
  // In a whole row, the row id comes first and the table's columns follow.
  const int first = wide ? 0 : 1;
  const int path = path_column(wide ? one.get() : stmt);
  if (path < 0) return EIO;
  row_batch batch;
  return in_batches(
      stmt, after_param,
      [&](sqlite3_stmt* s) {
        if (!wide) {
          batch.add(s, first, path, root, untagged_too);
          return batch.ok() ? 0 : ENOMEM;
        }
        sqlite3_bind_int64(one.get(), 1, sqlite3_column_int64(s, 0));
        const int got = metadb_step(one.get());
        if (got == SQLITE_ROW) batch.add(one.get(), first, path, root, untagged_too);
        sqlite3_reset(one.get());
        if (got != SQLITE_ROW && got != SQLITE_DONE) return query_errno(handle, got);
        return batch.ok() ? 0 : ENOMEM;
      },
      [&](int* stopped) {
        for (std::size_t i = 0; i < batch.rows() && *stopped == 0; ++i) {
          *stopped = batch.deliver(i, cb, user);
        }
        batch.clear();
        return 0;
      },
      stop);
}

bool find_sql(const char* name, bool by_value, const char* rowid, char* out,
              std::size_t size) {
  return tag_sql_safe(name) &&
         format_whole(out, size,
                      by_value ? "SELECT %s, Path FROM Meta WHERE Meta.\".%s\"=? "
                                 "AND %s>? ORDER BY %s LIMIT %d"
                               : "SELECT %s, Path FROM Meta WHERE Meta.\".%s\" "
                                 "IS NOT NULL AND %s>? ORDER BY %s LIMIT %d",
                      rowid, name, rowid, rowid, kQueryBatch);
}

bool count_sql(const char* name, bool values, bool subtree, char* out,
               std::size_t size) {
  const char* where = subtree ? " AND (Path=?1 OR Path GLOB ?2)" : "";
  return tag_sql_safe(name) &&
         (values ? format_whole(out, size,
                                "SELECT min(\".%s\" COLLATE BINARY), count(*) FROM Meta "
                                "WHERE \".%s\" IS NOT NULL%s GROUP BY \".%s\"",
                                name, name, where, name)
                 : format_whole(out, size,
                                "SELECT count(*) FROM Meta WHERE \".%s\" IS NOT NULL%s",
                                name, where));
}

}  // namespace tevul

namespace {

using tevul::in_batches;
using tevul::query_errno;
using tevul::row_batch;

// The database of the volume that holds the existing `path`, and the path as
// that database stores it (empty for the volume root). Returns 0, or the
// errno when there is none (ENOENT for a path on no tagged volume).
int open_volume_of(const char* path, tevu_volume* volume, const char** rel,
                   char* canonical, query_db* db) {
  if (realpath(path, canonical) == nullptr) return errno;
  if (tevu_locate_volume(volume, canonical) != 1) return ENOENT;
  *rel = tevul::volume_relative(volume, canonical);
  const int rc = tevul::open_query_db(volume->db_path, db);
  return rc != 0 ? tevul::note_volume_failure(rc, volume->prefix) : 0;
}

int file_tags(const char* path, tevu_tag_cb cb, void* user) {
  tevul::forget_failures();
  if (tevul::is_empty(path) || cb == nullptr) return kNoMount;
  if (tevu_find_mount() == nullptr) return kNoMount;
  tevu_volume volume;
  const char* rel = nullptr;
  char canonical[kPathSize];
  query_db db;
  if (const int rc = open_volume_of(path, &volume, &rel, canonical, &db)) return rc;
  stmt_ptr stmt;
  const char kRowSql[] = "SELECT * FROM Meta WHERE Path=?";
  int rc = tevul::prepare(db.db.get(), kRowSql, sizeof kRowSql, stmt);
  if (rc != SQLITE_OK) {
    return tevul::note_volume_failure(query_errno(db.db.get(), rc), volume.prefix);
  }
  // A volume root has the empty relative path, which no row carries.
  sqlite3_bind_text(stmt.get(), 1, rel, -1, SQLITE_STATIC);
  row_batch row;
  rc = metadb_step(stmt.get());
  if (rc == SQLITE_ROW) row.add(stmt.get(), 0, tevul::path_column(stmt.get()), "");
  stmt.reset();  // the caller's code runs without a lock held
  if (rc != SQLITE_ROW && rc != SQLITE_DONE) {
    return tevul::note_volume_failure(query_errno(db.db.get(), rc), volume.prefix);
  }
  if (!row.ok()) return ENOMEM;
  return row.rows() == 0 ? 0 : row.deliver_tags(0, cb, user);
}

// Hands every file of one volume's database that matches to `cb`.
int find_in(query_db& db, const char* root, const char* name, const char* value,
            tevu_file_cb cb, void* user, int* stop) {
  char column[tevul::kColumnSize];
  if (!tevul::has_tag_column(db.db.get(), name, column)) {
    return 0;  // no file of this volume ever carried the tag
  }
  if (db.rowid == nullptr) return EIO;  // no way to read every row once
  char sql[306];
  if (!tevul::find_sql(name, value != nullptr, db.rowid, sql, sizeof sql)) return EIO;
  stmt_ptr stmt;
  const int prepared = tevul::prepare(db.db.get(), sql, -1, stmt);
  if (prepared != SQLITE_OK) return query_errno(db.db.get(), prepared);
  if (value != nullptr) sqlite3_bind_text(stmt.get(), 1, value, -1, SQLITE_STATIC);
  return tevul::paths_in_batches(stmt.get(), value != nullptr ? 2 : 1, root, cb, user, stop);
}

int find_files(const char* name, const char* value, tevu_file_cb cb, void* user) {
  tevul::forget_failures();
  if (tevul::is_empty(name) || cb == nullptr) return kNoMount;
  if (tevu_find_mount() == nullptr) return kNoMount;
  if (!tevul::tag_sql_safe(name)) return EINVAL;
  return tevul::walk_volumes([&](query_db& db, const char* root, int* stop) {
    return find_in(db, root, name, value, cb, user, stop);
  });
}

// Hands every row of `db` that carries a tag, or only those of stored path
// `rel` and below it when `rel` is not empty, to `cb`; `root` is the
// volume's root with its final "/".
int rows_in(query_db& db, const char* root, const char* rel, tevu_row_cb cb,
            void* user, int* stop) {
  sqlite3* handle = db.db.get();
  if (db.rowid == nullptr) return EIO;  // no way to read every row once
  bool wide = false;
  int rc = tevul::wide_table(db, &wide);
  if (rc != 0) return rc;
  const bool subtree = rel[0] != '\0';
  char sql[256];
  tevul::format_cut(sql, sizeof sql,
                    "SELECT %s%s FROM Meta WHERE %s>?1%s ORDER BY %s LIMIT %d",
                    db.rowid, wide ? "" : ", *", db.rowid,
                    subtree ? " AND (Path=?2 OR Path GLOB ?3)" : "", db.rowid,
                    tevul::kQueryBatch);
  stmt_ptr stmt;
  rc = tevul::prepare(handle, sql, -1, stmt);
  if (rc != SQLITE_OK) return query_errno(handle, rc);
  tevul::sqlite_text pattern;
  if (subtree) {
    pattern.reset(tevul::glob_escape(rel, "/*"));
    if (!pattern) return ENOMEM;
    sqlite3_bind_text(stmt.get(), 2, rel, -1, SQLITE_STATIC);
    sqlite3_bind_text(stmt.get(), 3, pattern.get(), -1, SQLITE_STATIC);
  }
  return tevul::rows_in_batches(db, wide, false, stmt.get(), 1, root, cb, user, stop);
}

// The rows of one volume, or of one tree of it, as rows_in() hands them on.
int rows_of_volume(const tevu_volume& volume, const char* rel, tevu_row_cb cb,
                   void* user) {
  query_db db;
  int rc = tevul::open_query_db(volume.db_path, &db);
  int stop = 0;
  if (rc == 0) rc = rows_in(db, volume.prefix, rel, cb, user, &stop);
  if (stop != 0) return stop;
  return rc != 0 ? tevul::note_volume_failure(rc, volume.prefix) : 0;
}

int tagged_files(const char* dir, tevu_row_cb cb, void* user) {
  tevul::forget_failures();
  if ((dir != nullptr && dir[0] == '\0') || cb == nullptr) return kNoMount;
  if (tevu_find_mount() == nullptr) return kNoMount;
  if (dir == nullptr) {
    return tevul::walk_volumes([&](query_db& db, const char* root, int* stop) {
      return rows_in(db, root, "", cb, user, stop);
    });
  }
  char canonical[kPathSize];
  if (realpath(dir, canonical) == nullptr) return errno;
  tevu_volume volume;
  if (tevu_locate_volume(&volume, canonical) != 1) return ENOENT;
  return rows_of_volume(volume, tevul::volume_relative(&volume, canonical), cb, user);
}

int tagged_below(const char* path, tevu_row_cb cb, void* user) {
  tevul::forget_failures();
  if (tevul::is_empty(path) || cb == nullptr) return kNoMount;
  if (tevu_find_mount() == nullptr) return kNoMount;
  tevu_volume volume;
  const char* rel = nullptr;
  char plain[kPathSize];
  if (const int rc = tevul::locate_literal(path, &volume, &rel, plain)) return rc;
  return rows_of_volume(volume, rel, cb, user);
}

}  // namespace

extern "C" int tevu_tagged_files(const char* dir, tevu_row_cb cb, void* user) {
  return tagged_files(dir, cb, user);
}

extern "C" int tevu_tagged_below(const char* path, tevu_row_cb cb, void* user) {
  return tagged_below(path, cb, user);
}

extern "C" int tevu_file_tags(const char* path, tevu_tag_cb cb, void* user) {
  return file_tags(path, cb, user);
}

extern "C" int tevu_find_files(const char* name, const char* value,
                               tevu_file_cb cb, void* user) {
  return find_files(name, value, cb, user);
}

extern "C" unsigned tevu_query_failure_count(void) { return t_failures.total; }

extern "C" int tevu_query_failure(unsigned index, char* volume, size_t size) {
  if (index >= t_failures.count) return 0;
  if (volume != nullptr && size > 0) {
    tevul::format_cut(volume, size, "%s", t_failures.where[index]);
  }
  return t_failures.error[index];
}

// ---------------------------------------------------------------------------
// Tag names and values with their counts.

namespace {

// Counted texts gathered from every volume, merged without regard to the
// case of ASCII letters (as the tag columns are named and compare), and
// handed on sorted.
class tally {
 public:
  bool ok() const { return arena_.ok() && !failed_; }
  void add(const char* text, unsigned long count) {
    failed_ |= !offsets_.push(entry{arena_.size(), count});
    arena_.append(text).push('\0');
  }
  int deliver(tevu_count_cb cb, void* user) {
    if (!ok()) return ENOMEM;
    array<item> items;
    const char* base = arena_.c_str();
    for (std::size_t i = 0; i < offsets_.size(); ++i) {
      if (!items.push(item{base + offsets_[i].offset, offsets_[i].count})) return ENOMEM;
    }
    // One volume's counts come sorted already (the statement groups by the
    // column, which compares so): then a pass finds it, and no sort runs.
    bool sorted = true;
    for (std::size_t i = 1; i < items.size() && sorted; ++i) {
      sorted = compare(&items[i - 1], &items[i]) <= 0;
    }
    if (!sorted) items.sort(compare);
    for (std::size_t i = 0; i < items.size();) {
      unsigned long count = 0;
      std::size_t j = i;
      for (; j < items.size() && strcasecmp(items[i].text, items[j].text) == 0; ++j) {
        count += items[j].count;
      }
      if (const int stop = cb(user, items[i].text, count)) return stop;
      i = j;
    }
    return 0;
  }

 private:
  struct entry {
    std::size_t offset;
    unsigned long count;
  };
  struct item {
    const char* text;
    unsigned long count;
  };
  // Letter case ignored, then byte by byte.
  static int compare(const void* a, const void* b) {
    const char* x = static_cast<const item*>(a)->text;
    const char* y = static_cast<const item*>(b)->text;
    const int folded = strcasecmp(x, y);
    return folded != 0 ? folded : strcmp(x, y);
  }
  text arena_;
  array<entry> offsets_;
  bool failed_ = false;
};

// The tag columns of Meta in `db`, each name without its ".", in `names`
// (terminated strings one after the other). Returns 0 or an errno.
int tag_columns(sqlite3* db, text* names, std::size_t* count) {
  stmt_ptr all;
  const int rc = tevul::prepare(db, "SELECT * FROM Meta", -1, all);
  if (rc != SQLITE_OK) return query_errno(db, rc);
  *count = 0;
  const int columns = sqlite3_column_count(all.get());
  for (int i = 0; i < columns; ++i) {
    const char* name = sqlite3_column_name(all.get(), i);
    if (name == nullptr || name[0] != '.') continue;
    names->append(name + 1).push('\0');
    ++*count;
  }
  return names->ok() ? 0 : ENOMEM;
}

// Prepares the count statement `sql` into `stmt` and, when `rel` is not
// empty, binds the stored path and its literal pattern (kept in `pattern`)
// as ?1 and ?2. Returns 0 or an errno.
int prepare_below(sqlite3* db, const char* sql, const char* rel, stmt_ptr& stmt,
                  tevul::sqlite_text& pattern) {
  const int rc = tevul::prepare(db, sql, -1, stmt);
  if (rc != SQLITE_OK) return query_errno(db, rc);
  if (rel[0] != '\0') {
    pattern.reset(tevul::glob_escape(rel, "/*"));
    if (!pattern) return ENOMEM;
    sqlite3_bind_text(stmt.get(), 1, rel, -1, SQLITE_STATIC);
    sqlite3_bind_text(stmt.get(), 2, pattern.get(), -1, SQLITE_STATIC);
  }
  return 0;
}

// Runs a count statement of tag `name` on `db` (count_sql()) and adds what
// it counts to `counts`, below stored path `rel` when it is not empty.
int count_in(sqlite3* db, const char* name, bool values, const char* rel,
             tally* counts) {
  char sql[1024];
  // A name that could name other columns is never put into a statement;
  // the library never makes such a column, only a crafted table has one.
  if (!tevul::count_sql(name, values, rel[0] != '\0', sql, sizeof sql)) return EIO;
  stmt_ptr stmt;
  tevul::sqlite_text pattern;
  int rc = prepare_below(db, sql, rel, stmt, pattern);
  if (rc != 0) return rc;
  while ((rc = metadb_step(stmt.get())) == SQLITE_ROW) {
    const sqlite3_int64 n = sqlite3_column_int64(stmt.get(), values ? 1 : 0);
    const char* text = values ? reinterpret_cast<const char*>(sqlite3_column_text(stmt.get(), 0))
                              : name;
    if (n > 0 && text != nullptr) counts->add(text, static_cast<unsigned long>(n));
  }
  if (rc != SQLITE_DONE) return query_errno(db, rc);
  return counts->ok() ? 0 : ENOMEM;
}

// The columns of Meta in `db` that an index begins with, each terminated,
// in `indexed`. Returns 0 or an errno.
constexpr char kIndexedColumnsSql[] =
    "SELECT DISTINCT ii.name FROM pragma_index_list('Meta') AS il,"
    " pragma_index_info(il.name) AS ii WHERE ii.seqno = 0";
int indexed_columns(sqlite3* db, text* indexed) {
  stmt_ptr stmt;
  int rc = tevul::prepare(db, kIndexedColumnsSql, -1, stmt);
  if (rc != SQLITE_OK) return query_errno(db, rc);
  while ((rc = metadb_step(stmt.get())) == SQLITE_ROW) {
    const char* name = reinterpret_cast<const char*>(sqlite3_column_text(stmt.get(), 0));
    if (name != nullptr) indexed->append(name).push('\0');
  }
  if (rc != SQLITE_DONE) return query_errno(db, rc);
  return indexed->ok() ? 0 : ENOMEM;
}

bool listed(const text& names, const char* name) {
  for (std::size_t at = 0; at < names.size();) {
    const char* n = names.c_str() + at;
    if (strcmp(n, name) == 0) return true;
    at += strlen(n) + 1;
  }
  return false;
}

// Counts the tags `columns` (names without their ".") that no index serves
// in one read of the table, at most 500 in one statement: a table whose
// tags have no index (a crafted or an old one) is read a few times, not
// once per tag. Below stored path `rel` when it is not empty.
int count_unindexed(sqlite3* db, const array<const char*>& columns, const char* rel,
                    tally* counts) {
  constexpr std::size_t kPerStatement = 500;
  for (std::size_t first = 0; first < columns.size(); first += kPerStatement) {
    const std::size_t end = first + kPerStatement < columns.size() ? first + kPerStatement
                                                                   : columns.size();
    text sql;
    sql.append("SELECT ");
    for (std::size_t i = first; i < end; ++i) {
      // A name that could name other columns never gets here (tag_sql_safe()).
      sql.appendf("%scount(\".%s\")", i > first ? "," : "", columns[i]);
    }
    sql.append(" FROM Meta");
    if (rel[0] != '\0') sql.append(" WHERE Path=?1 OR Path GLOB ?2");
    if (!sql.ok()) return ENOMEM;
    stmt_ptr stmt;
    tevul::sqlite_text pattern;
    int rc = prepare_below(db, sql.c_str(), rel, stmt, pattern);
    if (rc != 0) return rc;
    rc = metadb_step(stmt.get());
    if (rc != SQLITE_ROW) return query_errno(db, rc);
    for (std::size_t i = first; i < end; ++i) {
      const sqlite3_int64 n = sqlite3_column_int64(stmt.get(), static_cast<int>(i - first));
      if (n > 0) counts->add(columns[i], static_cast<unsigned long>(n));
    }
    if (!counts->ok()) return ENOMEM;
  }
  return 0;
}

// Counts in one volume's database: every tag name (`name` NULL) or every
// value of tag `name`.
int count_volume(query_db& db, const char* name, const char* rel, tally* counts) {
  sqlite3* handle = db.db.get();
  if (name != nullptr) {
    char column[tevul::kColumnSize];
    if (!tevul::has_tag_column(handle, name, column)) {
      return 0;  // no file of this volume ever carried the tag
    }
    return count_in(handle, name, true, rel, counts);
  }
  text names;
  std::size_t n = 0;
  if (const int rc = tag_columns(handle, &names, &n)) return rc;
  text indexed;
  if (const int rc = indexed_columns(handle, &indexed)) return rc;
  // A tag with an index is counted through it; the others together.
  array<const char*> unindexed;
  const char* column = names.c_str();
  for (std::size_t i = 0; i < n; ++i, column += strlen(column) + 1) {
    char full[tevul::kColumnSize];
    if (!tevul::tag_sql_safe(column)) return EIO;
    if (tevul::format_whole(full, sizeof full, ".%s", column) && listed(indexed, full)) {
      if (const int rc = count_in(handle, column, false, rel, counts)) return rc;
    } else if (!unindexed.push(column)) {
      return ENOMEM;
    }
  }
  return count_unindexed(handle, unindexed, rel, counts);
}

int count_tags(const char* name, const char* under, tevu_count_cb cb, void* user) {
  tevul::forget_failures();
  if ((under != nullptr && under[0] == '\0') || cb == nullptr) return kNoMount;
  if (tevu_find_mount() == nullptr) return kNoMount;
  tally counts;
  int rc;
  if (under == nullptr) {
    rc = tevul::walk_volumes([&](query_db& db, const char*, int*) {
      return count_volume(db, name, "", &counts);
    });
  } else {
    tevu_volume volume;
    const char* rel = nullptr;
    char plain[kPathSize];
    if ((rc = tevul::locate_literal(under, &volume, &rel, plain)) != 0) return rc;
    query_db db;
    rc = tevul::open_query_db(volume.db_path, &db);
    if (rc == 0) rc = count_volume(db, name, rel, &counts);
    if (rc != 0) tevul::note_volume_failure(rc, volume.prefix);
  }
  const int delivered = counts.deliver(cb, user);
  return delivered != 0 ? delivered : rc;
}

}  // namespace

extern "C" int tevu_tag_names(const char* under, tevu_count_cb cb, void* user) {
  return count_tags(nullptr, under, cb, user);
}

extern "C" int tevu_tag_values(const char* name, const char* under,
                               tevu_count_cb cb, void* user) {
  if (tevul::is_empty(name)) {
    tevul::forget_failures();
    return kNoMount;
  }
  if (!tevul::tag_sql_safe(name)) {
    tevul::forget_failures();
    return EINVAL;
  }
  return count_tags(name, under, cb, user);
}
