// Delete, move and cleanup: the public face of path maintenance. Each call
// makes short-lived bulk contexts to reach the right databases and relies on
// their end to commit and to wake the daemon.
// The module's functions are declared in tevul.h.
#include "tevul.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "common.h"
#include "metadb_path.h"
#include "metadb_tagdb.h"
#include "tevu_bulk.h"
#include "tevu_maint.h"
#include "tevu_query.h"
#include "tevu_volume.h"

using tevul::bulk_ptr;

namespace {

// `path` (the caller's string) relative to the context's volume.
const char* volume_relative(const tevu_bulk_ctx* ctx, const char* path) {
  return tevul::volume_relative(&ctx->volume, path);
}

metadb_tagdb* database(const bulk_ptr& ctx) { return ctx->tagdb.get(); }

}  // namespace

extern "C" int tevu_delete(const char* path) {
  if (tevul::is_empty(path)) return -1;
  bulk_ptr ctx(tevu_bulk_init());
  if (!ctx || tevu_bulk_open_for_path(ctx.get(), path) != 0) return -1;
  metadb_tagdb_transaction_start(database(ctx));
  if (metadb_tagdb_delete_path(database(ctx), volume_relative(ctx.get(), path)) != 0) {
    return -1;
  }
  ctx->dirty = 1;
  return 0;  // the context's end commits, syncs and wakes the daemon
}

extern "C" int tevu_move(const char* src, const char* dst) {
  if (tevul::is_empty(src) || tevul::is_empty(dst)) return -1;
  bulk_ptr from(tevu_bulk_init());
  if (!from || tevu_bulk_open_for_path(from.get(), src) != 0) return -1;
  metadb_tagdb_transaction_start(database(from));
  const char* old_rel = volume_relative(from.get(), src);

  int rc;
  const std::size_t n = static_cast<std::size_t>(from->volume.prefix_len);
  if (strncmp(dst, from->volume.prefix, n) == 0) {
    rc = metadb_tagdb_rename_path(database(from), old_rel,
                                  volume_relative(from.get(), dst));
  } else {
    bulk_ptr to(tevu_bulk_init());
    if (!to) return -1;
    if (tevu_bulk_open_for_path(to.get(), dst) == 0) {
      metadb_tagdb_transaction_start(database(to));
      // The copy's DELETE of the source rows runs in the source's open
      // transaction, which is never marked as written: the source context's
      // end skips its COMMIT and closing rolls the DELETE back. The tags then
      // stand on both volumes; applications rely on a cross-volume move
      // keeping the source rows.
      rc = metadb_tagdb_move_path(database(from), old_rel, database(to),
                                  volume_relative(to.get(), dst));
    } else {
      // Moved off the tagged volumes: the tree loses its rows.
      rc = metadb_tagdb_delete_path(database(from), old_rel);
    }
  }
  if (rc == 0) from->dirty = 1;
  return rc;
}

// ---------------------------------------------------------------------------
// The checked move.

namespace {

// True when stored path `inner` lies strictly below stored path `outer`.
bool strictly_below(const char* inner, const char* outer) {
  const std::size_t n = strlen(outer);
  return strncmp(inner, outer, n) == 0 && inner[n] == '/';
}

// The errno of an SQLite result code of the checked operations (EBADF for
// a file that is no database, as the queries say it).
int move_errno(int code) { return tevul::sqlite_errno(code); }

// One volume's database as the checked move writes it, with its own
// statements' results checked.
class writer {
 public:
  explicit writer(const tevu_volume& volume)
      : tagdb_(metadb_tagdb_open(volume.db_path)) {}
  // 0 for an open database whose table's row id nothing else can be taken
  // for, read before anything is copied to or from it; else the errno.
  int check() const {
    if (!tagdb_) return EIO;
    const int rc = tevul::meta_rowid_plain(tagdb_->db.get());
    return rc == SQLITE_OK ? 0 : move_errno(rc);
  }
  metadb_tagdb* get() const { return tagdb_.get(); }

  // Runs BEGIN IMMEDIATE, COMMIT or ROLLBACK; returns the SQLite code.
  int exec(const char* sql) {
    return metadb_exec_query(tagdb_->db.get(), sql, nullptr, nullptr);
  }
  // Begins; check() has refused a table whose row id could be taken for
  // another column before (every writer is checked once, when opened).
  int begin() { return exec("BEGIN IMMEDIATE"); }
  // Commits and tells whether the COMMIT reached the database; a refused
  // COMMIT is rolled back, so that nothing stays pending.
  int commit() {
    const int rc = exec("COMMIT");
    if (rc != SQLITE_OK && !sqlite3_get_autocommit(tagdb_->db.get())) {
      exec("ROLLBACK");
    }
    return rc;
  }
  // Ends a transaction that failed before its COMMIT.
  int abandon(int rc) {
    if (!sqlite3_get_autocommit(tagdb_->db.get())) exec("ROLLBACK");
    return rc;
  }

 private:
  tevul::tagdb_ptr tagdb_;
};


// The code a failed statement left on `tagdb`'s connection; SQLITE_ERROR
// when it left none (a text that did not fit its buffer never ran).
int failure_code(metadb_tagdb* tagdb) {
  return tevul::failure_code_or(tagdb->db.get(), SQLITE_ERROR);
}

// Deletes the rows of `rel` and below in its own checked transaction.
int delete_checked(writer& db, const char* rel, const tevul::trigger_fd& wake) {
  int rc = db.begin();
  if (rc != SQLITE_OK) return move_errno(rc);
  unsigned long rows = 0;
  rc = tevul::delete_subtree(db.get(), rel, &rows);
  if (rc != SQLITE_OK) return move_errno(db.abandon(rc));
  rc = db.commit();
  if (rc != SQLITE_OK) return move_errno(rc);
  if (rows > 0) wake.wake();
  return 0;
}

// Within one database: renamed in one statement when the destination has no
// rows yet; otherwise merged into them and the source rows deleted, in the
// same transaction. All or nothing.
int move_within(writer& db, const char* from, const char* to,
                const tevul::trigger_fd& wake) {
  int rc = db.begin();
  if (rc != SQLITE_OK) return move_errno(rc);
  const int occupied = tevul::subtree_has_rows(db.get(), to, &rc);
  if (occupied < 0) return move_errno(db.abandon(rc));
  unsigned long rows = 0;
  if (occupied == 0) {
    if (metadb_tagdb_rename_path(db.get(), from, to) != 0) {
      return move_errno(db.abandon(failure_code(db.get())));
    }
    rows = static_cast<unsigned long>(sqlite3_changes(db.get()->db.get()));
  } else {
    rc = tevul::merge_rows(db.get(), from, db.get(), to, &rows);
    if (rc == SQLITE_OK) rc = tevul::delete_subtree(db.get(), from, &rows);
    if (rc != SQLITE_OK) return move_errno(db.abandon(rc));
  }
  rc = db.commit();
  if (rc != SQLITE_OK) return move_errno(rc);
  if (rows > 0) wake.wake();
  return 0;
}

// Across databases: the destination's COMMIT first, checked; only then the
// source's deletion, checked too. An interruption anywhere leaves every tag
// at the source (and perhaps also at the destination); running the move
// again merges the same tags once more and converges.
int move_across(writer& source, const char* from, writer& dest, const char* to,
                const tevul::trigger_fd& wake) {
  int rc = dest.begin();
  if (rc != SQLITE_OK) return move_errno(rc);
  unsigned long rows = 0;
  rc = tevul::merge_rows(source.get(), from, dest.get(), to, &rows);
  if (rc != SQLITE_OK) return move_errno(dest.abandon(rc));
  rc = dest.commit();
  if (rc != SQLITE_OK) return move_errno(rc);
  if (rows == 0) return 0;  // nothing was tagged below `from`
  wake.wake();
  return delete_checked(source, from, wake);
}

int move_checked(const char* src, const char* dst) {
  char from[tevul::kPathSize];
  char to[tevul::kPathSize];
  if (const int rc = tevul::plain_path(src, from)) return rc;
  if (const int rc = tevul::plain_path(dst, to)) return rc;
  const char* mount = tevu_find_mount();
  if (mount == nullptr) return ENOENT;
  tevu_volume source_volume;
  if (tevu_locate_volume(&source_volume, from) != 1) return ENOENT;
  const char* old_rel = tevul::volume_relative(&source_volume, from);
  if (old_rel[0] == '\0') return EINVAL;  // a volume is not moved
  // The daemon is woken once for each database changed.
  const tevul::trigger_fd wake(event_trigger_init(mount));
  writer source(source_volume);
  if (const int rc = source.check()) return rc;

  tevu_volume dest_volume;
  if (tevu_locate_volume(&dest_volume, to) != 1) {
    // Off the tagged volumes: the tree's tags go.
    return delete_checked(source, old_rel, wake);
  }
  const char* new_rel = tevul::volume_relative(&dest_volume, to);
  if (new_rel[0] == '\0') return EINVAL;  // a file cannot become a volume
  if (strcmp(source_volume.db_path, dest_volume.db_path) == 0) {
    if (strcmp(old_rel, new_rel) == 0) return 0;
    // A tree moved into itself, or over a tree that holds it, is no move a
    // file system makes; its rows would overwrite each other.
    if (strictly_below(new_rel, old_rel) || strictly_below(old_rel, new_rel)) {
      return EINVAL;
    }
    return move_within(source, old_rel, new_rel, wake);
  }
  writer dest(dest_volume);
  if (const int rc = dest.check()) return rc;
  return move_across(source, old_rel, dest, new_rel, wake);
}

// One rename of a batch within the open transaction of `db` on `volume`:
// as move_within() without the transaction. Returns 0 or an errno.
int move_in_transaction(writer& db, const tevu_volume& volume, const char* src,
                        const char* dst, unsigned long* rows) {
  char from[tevul::kPathSize];
  char to[tevul::kPathSize];
  if (const int rc = tevul::plain_path(src, from)) return rc;
  if (const int rc = tevul::plain_path(dst, to)) return rc;
  const std::size_t n = static_cast<std::size_t>(volume.prefix_len);
  if (strncmp(from, volume.prefix, n) != 0 || strncmp(to, volume.prefix, n) != 0) return EXDEV;
  const char* old_rel = tevul::volume_relative(&volume, from);
  const char* new_rel = tevul::volume_relative(&volume, to);
  if (old_rel[0] == '\0' || new_rel[0] == '\0') return EINVAL;
  if (strcmp(old_rel, new_rel) == 0) return 0;
  if (strictly_below(new_rel, old_rel) || strictly_below(old_rel, new_rel)) return EINVAL;
  int code = SQLITE_OK;
  const int occupied = tevul::subtree_has_rows(db.get(), new_rel, &code);
  if (occupied < 0) return move_errno(code);
  if (occupied == 0) {
    if (metadb_tagdb_rename_path(db.get(), old_rel, new_rel) != 0) {
      return move_errno(failure_code(db.get()));
    }
    *rows += static_cast<unsigned long>(sqlite3_changes(db.get()->db.get()));
    return 0;
  }
  code = tevul::merge_rows(db.get(), old_rel, db.get(), new_rel, rows);
  if (code == SQLITE_OK) code = tevul::delete_subtree(db.get(), old_rel, rows);
  return code == SQLITE_OK ? 0 : move_errno(code);
}

int delete_path_checked(const char* path) {
  char plain[tevul::kPathSize];
  if (const int rc = tevul::plain_path(path, plain)) return rc;
  const char* mount = tevu_find_mount();
  if (mount == nullptr) return ENOENT;
  tevu_volume volume;
  if (tevu_locate_volume(&volume, plain) != 1) return ENOENT;
  const tevul::trigger_fd wake(event_trigger_init(mount));
  writer db(volume);
  if (const int rc = db.check()) return rc;
  const char* rel = tevul::volume_relative(&volume, plain);
  if (rel[0] != '\0') return delete_checked(db, rel, wake);
  // The volume root: every row of the volume.
  int rc = db.begin();
  if (rc == SQLITE_OK) rc = db.exec("DELETE FROM Meta");
  if (rc != SQLITE_OK) return move_errno(db.abandon(rc));
  const bool changed = sqlite3_changes(db.get()->db.get()) > 0;
  rc = db.commit();
  if (rc != SQLITE_OK) return move_errno(rc);
  if (changed) wake.wake();
  return 0;
}

// ---------------------------------------------------------------------------
// A tag renamed or removed on every file of every volume.

// Statement buffers: tag names longer than a column can have never get
// this far (their column does not exist).
constexpr std::size_t kTagSqlSize = 512;

// How many rows of `db` carry tag `a` (and, when `b` is not NULL and has a
// column, tag `b` too). Returns 0 with *rows set, or an SQLite code.
int count_carriers(metadb_tagdb* db, const char* a, const char* b,
                   unsigned long* rows) {
  *rows = 0;
  if (metadb_column_exists(db, a) != 1) return SQLITE_OK;
  const bool both = b != nullptr && metadb_column_exists(db, b) == 1;
  const tevul::sql_text<kTagSqlSize> sql(
      both ? "SELECT count(*) FROM Meta WHERE \".%s\" IS NOT NULL AND \".%s\" IS NOT NULL"
           : "SELECT count(*) FROM Meta WHERE \".%s\" IS NOT NULL",
      tevul::tag_ident{a}, tevul::tag_ident{both ? b : a});
  if (b != nullptr && !both) return SQLITE_OK;  // no file carries `b`
  if (!sql.fits()) return SQLITE_ERROR;
  tevul::stmt_ptr stmt;
  int rc = tevul::prepare(db->db.get(), sql.c_str(), -1, stmt);
  if (rc == SQLITE_OK) rc = metadb_step(stmt.get());
  if (rc != SQLITE_ROW) return rc;
  *rows = static_cast<unsigned long>(sqlite3_column_int64(stmt.get(), 0));
  return SQLITE_OK;
}

// Runs `statement(tagdb, &changed)` (an SQLite code; `changed` the rows it
// changed, their Data marked for rebuilding) in one checked transaction of
// `db`, rebuilds Data of the rows it marked, and adds `changed` to *rows.
// Returns 0 or an SQLite code; nothing stays of a transaction that failed.
template <typename Statement>
int change_in_transaction(writer& db, Statement statement, unsigned long* rows,
                          const tevul::trigger_fd& wake) {
  metadb_tagdb* tagdb = db.get();
  int rc = db.begin();
  if (rc != SQLITE_OK) return rc;
  unsigned long changed = 0;
  rc = statement(tagdb, &changed);
  if (rc != SQLITE_OK) return db.abandon(rc);
  tagdb->modified = 1;
  if (metadb_tagdb_sync_all(tagdb) != 0) {
    return db.abandon(tevul::failure_code_or(tagdb->db.get(), SQLITE_ERROR));
  }
  rc = db.commit();
  if (rc != SQLITE_OK) return rc;
  *rows += changed;
  if (changed > 0) wake.wake();
  return SQLITE_OK;
}

// Runs `sql` (a statement on tag `a`, and `b`) as change_in_transaction()
// does. Returns 0 or an SQLite code.
int change_tags(writer& db, const tevul::sql_text<kTagSqlSize>& sql, const char* a,
                const char* b, unsigned long* rows, const tevul::trigger_fd& wake) {
  if (!sql.fits()) return SQLITE_ERROR;
  return change_in_transaction(
      db,
      [&](metadb_tagdb* tagdb, unsigned long* changed) {
        // The new name's column, when there is one to make, is made in the
        // same transaction: a failure leaves no column behind either.
        if (strcmp(a, b) != 0 && metadb_add_tag_column(tagdb, b) != 1) {
          return tevul::failure_code_or(tagdb->db.get(), SQLITE_ERROR);
        }
        const int rc = metadb_exec_query(tagdb->db.get(), sql.c_str(), nullptr, nullptr);
        *changed = static_cast<unsigned long>(sqlite3_changes(tagdb->db.get()));
        return rc;
      },
      rows, wake);
}

// Runs `change(db)` (an SQLite code) on the checked database of each volume
// that `carriers` gives files to change, in turn: a volume that fails is named,
// the others go on, and the same call again finishes the work. Returns the
// errno of the first failure, or 0.
template <typename Change>
int change_each_volume(const tevul::array<tevul::volume_link>& volumes,
                       const tevul::array<unsigned long>& carriers, Change change) {
  int first = 0;
  for (std::size_t i = 0; i < volumes.size(); ++i) {
    if (carriers[i] == 0) continue;
    tevu_volume location;
    tevul::format_cut(location.db_path, sizeof location.db_path, "%s", volumes[i].db);
    writer db(location);
    const int rc = db.check();
    const int error = rc != 0 ? rc : move_errno(change(db));
    if (error != 0) {
      tevul::note_volume_failure(error, volumes[i].root);
      if (first == 0) first = error;
    }
  }
  return first;
}

// Reads every volume before anything changes: `count(db, &rows)` (an SQLite
// code) runs on each volume's database after its schema and row id were
// read (a file that is no tag database fails here, not as a volume without
// the tag), and its rows go to `carriers`. Every volume that cannot be read
// is named, not only the first. Returns 0, ENOMEM, or the errno of the first
// volume that could not be read.
template <typename Count>
int read_every_volume(const tevul::array<tevul::volume_link>& volumes,
                      tevul::array<unsigned long>* carriers, Count count) {
  int unread = 0;
  for (std::size_t i = 0; i < volumes.size(); ++i) {
    const tevul::volume_link& v = volumes[i];
    int error = v.error;
    unsigned long rows = 0;
    if (error == 0) {
      tevul::tagdb_ptr db(metadb_tagdb_open(v.db));
      if (!db) {
        error = ENOENT;
      } else {
        int rc = sqlite3_table_column_metadata(db->db.get(), nullptr, "Meta", nullptr,
                                               nullptr, nullptr, nullptr, nullptr, nullptr);
        if (rc == SQLITE_OK) rc = tevul::meta_rowid_plain(db->db.get());
        if (rc == SQLITE_OK) rc = count(db.get(), &rows);
        if (rc != SQLITE_OK) error = move_errno(rc);
      }
    }
    if (error != 0) {
      tevul::note_volume_failure(error, v.root);
      if (unread == 0) unread = error;
    }
    if (!carriers->push(rows)) return ENOMEM;
  }
  return unread;
}

// The renaming or removal everywhere: `to` NULL removes tag `from`.
int retag_everywhere(const char* from, const char* to, bool merge,
                     unsigned long* changed, unsigned long* kept) {
  *changed = 0;
  *kept = 0;
  tevul::forget_failures();
  if (tevul::is_empty(from) || (to != nullptr && to[0] == '\0')) return ENOENT;
  if (!tevul::tag_sql_safe(from) || (to != nullptr && !tevul::tag_sql_safe(to))) {
    return EINVAL;
  }
  // Both would name one column: setting NEW and clearing OLD would lose it.
  if (to != nullptr && strcasecmp(from, to) == 0) return EINVAL;
  const char* mount = tevu_find_mount();
  if (mount == nullptr) return ENOENT;
  tevul::array<tevul::volume_link> volumes;
  if (const int rc = tevul::list_volumes(&volumes)) return rc;
  // First every volume is read: a volume that cannot be read, or a file
  // that carries both names without `merge`, changes nothing anywhere.
  tevul::array<unsigned long> carriers;
  const int unread = read_every_volume(volumes, &carriers, [&](metadb_tagdb* db,
                                                               unsigned long* rows) {
    int rc = count_carriers(db, from, nullptr, rows);
    unsigned long both = 0;
    if (rc == SQLITE_OK && to != nullptr) rc = count_carriers(db, from, to, &both);
    *kept += both;
    return rc;
  });
  if (unread != 0) return unread;
  if (to != nullptr && *kept > 0 && !merge) return EEXIST;
  // Then each volume in a transaction of its own.
  const tevul::trigger_fd wake(event_trigger_init(mount));
  return change_each_volume(volumes, carriers, [&](writer& db) {
    const tevul::tag_ident old_column{from};
    const tevul::tag_ident new_column{to != nullptr ? to : from};
    if (to == nullptr) {
      return change_tags(
          db,
          tevul::sql_text<kTagSqlSize>(
              "UPDATE Meta SET \".%s\"=NULL,Data=NULL WHERE \".%s\" IS NOT NULL", old_column,
              old_column),
          from, from, changed, wake);
    }
    // A file that carries both (with `merge`) keeps the new name's value
    // and loses the old name.
    return change_tags(db,
                       tevul::sql_text<kTagSqlSize>(
                           "UPDATE Meta SET \".%s\"=COALESCE(\".%s\",\".%s\"),\".%s\"=NULL,"
                           "Data=NULL WHERE \".%s\" IS NOT NULL",
                           new_column, new_column, old_column, old_column, old_column),
                       from, to, changed, wake);
  });
}

// Value renames: the files whose tag `name` has value `old` (as the tag
// column compares) get `value` instead, backslashes stripped as every set
// strips them. Counts them (`value` NULL), or changes them, marking their
// Data for rebuilding. Returns 0 or an SQLite code.
constexpr char kCountValueSql[] = "SELECT count(*) FROM Meta WHERE \".%s\"=?1";
constexpr char kRenameValueSql[] =
    "UPDATE Meta SET \".%s\"=REPLACE(?2,'\\',''),Data=NULL WHERE \".%s\"=?1";
int revalue(metadb_tagdb* tagdb, const char* name, const char* old, const char* value,
            unsigned long* rows) {
  *rows = 0;
  if (metadb_column_exists(tagdb, name) != 1) return SQLITE_OK;
  const tevul::tag_ident column{name};
  const tevul::sql_text<kTagSqlSize> sql(value == nullptr ? kCountValueSql : kRenameValueSql,
                                         column, column);
  if (!sql.fits()) return SQLITE_ERROR;
  tevul::stmt_ptr stmt;
  int rc = tevul::prepare(tagdb->db.get(), sql.c_str(), -1, stmt);
  if (rc != SQLITE_OK) return rc;
  sqlite3_bind_text(stmt.get(), 1, old, -1, SQLITE_STATIC);
  if (value != nullptr) sqlite3_bind_text(stmt.get(), 2, value, -1, SQLITE_STATIC);
  rc = metadb_step(stmt.get());
  if (value == nullptr) {
    if (rc != SQLITE_ROW) return rc;
    *rows = static_cast<unsigned long>(sqlite3_column_int64(stmt.get(), 0));
    return SQLITE_OK;
  }
  if (rc != SQLITE_DONE) return rc;
  *rows = static_cast<unsigned long>(sqlite3_changes(tagdb->db.get()));
  return SQLITE_OK;
}

int revalue_everywhere(const char* name, const char* old, const char* value, int dry_run,
                       unsigned long* changed) {
  *changed = 0;
  tevul::forget_failures();
  if (tevul::is_empty(name) || old == nullptr || value == nullptr) return ENOENT;
  if (!tevul::tag_sql_safe(name)) return EINVAL;
  if (tevu_find_mount() == nullptr) return ENOENT;
  tevul::array<tevul::volume_link> volumes;
  if (const int rc = tevul::list_volumes(&volumes)) return rc;
  // Every volume is read first: one that cannot be read changes nothing
  // anywhere.
  tevul::array<unsigned long> carriers;
  const int unread = read_every_volume(volumes, &carriers, [&](metadb_tagdb* db,
                                                               unsigned long* rows) {
    const int rc = revalue(db, name, old, nullptr, rows);
    if (dry_run) *changed += *rows;
    return rc;
  });
  if (unread != 0 || dry_run) return unread;
  const tevul::trigger_fd wake(event_trigger_init(tevu_find_mount()));
  return change_each_volume(volumes, carriers, [&](writer& db) {
    return change_in_transaction(
        db,
        [&](metadb_tagdb* tagdb, unsigned long* rows) {
          return revalue(tagdb, name, old, value, rows);
        },
        changed, wake);
  });
}

}  // namespace

int tevul::move_many_within(const char* const* from, const char* const* to,
                            std::size_t count) {
  if (count == 0) return 0;
  char first[tevul::kPathSize];
  if (const int rc = tevul::plain_path(from[0], first)) return rc;
  const char* mount = tevu_find_mount();
  if (mount == nullptr) return ENOENT;
  tevu_volume volume;
  if (tevu_locate_volume(&volume, first) != 1) return ENOENT;
  const tevul::trigger_fd wake(event_trigger_init(mount));
  writer db(volume);
  if (const int rc = db.check()) return rc;
  int rc = db.begin();
  if (rc != SQLITE_OK) return move_errno(rc);
  unsigned long rows = 0;
  for (std::size_t i = 0; i < count; ++i) {
    if (const int failed = move_in_transaction(db, volume, from[i], to[i], &rows)) {
      db.abandon(failed);
      return failed;
    }
  }
  rc = db.commit();
  if (rc != SQLITE_OK) return move_errno(rc);
  if (rows > 0) wake.wake();
  return 0;
}

extern "C" int tevu_move_checked(const char* src, const char* dst) {
  return move_checked(src, dst);
}

extern "C" int tevu_delete_checked(const char* path) {
  return delete_path_checked(path);
}

extern "C" int tevu_rename_tag(const char* old_name, const char* new_name,
                               int merge, unsigned long* renamed,
                               unsigned long* kept) {
  unsigned long ignored_renamed = 0, ignored_kept = 0;
  return retag_everywhere(old_name, new_name == nullptr ? "" : new_name, merge != 0,
                          renamed != nullptr ? renamed : &ignored_renamed,
                          kept != nullptr ? kept : &ignored_kept);
}

extern "C" int tevu_delete_tag(const char* name, unsigned long* removed) {
  unsigned long ignored_removed = 0, kept = 0;
  return retag_everywhere(name, nullptr, false,
                          removed != nullptr ? removed : &ignored_removed, &kept);
}

// ---------------------------------------------------------------------------
// Cleanup.

extern "C" int tevu_cleanup(const char* db_path, const char* dir, int* cancel,
                            metadb_cleanup_filter filter) {
  if (tevul::is_empty(db_path) || tevul::is_empty(dir)) return -1;
  return metadb_tagdb_cleanup(db_path, dir, cancel, filter);
}

extern "C" int tevu_cleanup_attached(const char* path, int* cancel,
                                     metadb_cleanup_filter filter) {
  char canonical[tevul::kPathSize];
  if (path == nullptr || realpath(path, canonical) == nullptr) return -1;
  bulk_ptr ctx(tevu_bulk_init());
  if (!ctx) return -1;
  if (tevu_locate_volume(&ctx->volume, canonical) != 1) return -1;
  // The stored paths are relative to the volume's root, whatever directory
  // of the volume was given: the filter gets root + "/" + stored path, the
  // file's real place. The root is the prefix without its final "/".
  const tevu_volume& volume = ctx->volume;
  if (volume.prefix_len < 2 ||
      static_cast<std::size_t>(volume.prefix_len) >= sizeof volume.prefix) {
    return -1;
  }
  char root[sizeof volume.prefix];
  memcpy(root, volume.prefix, static_cast<std::size_t>(volume.prefix_len) - 1);
  root[volume.prefix_len - 1] = '\0';
  return tevu_cleanup(volume.db_path, root, cancel, filter);
}

extern "C" int tevu_rename_value(const char* name, const char* old_value,
                                 const char* new_value, int dry_run,
                                 unsigned long* renamed) {
  unsigned long count = 0;
  const int rc = revalue_everywhere(name, old_value, new_value, dry_run, &count);
  if (renamed != nullptr) *renamed = count;
  return rc;
}
