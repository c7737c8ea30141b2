// SQLite access layer: lock-tolerant statement execution and transactions.
//
// Every statement the library runs on a tag database goes through this
// layer. Several processes and threads share the database files with
// SQLite's shared cache on, so the layer's job is to make each statement
// survive lock contention:
//   - a shared-cache table lock held by another connection
//     (SQLITE_LOCKED_SHAREDCACHE) is waited out through sqlite3_unlock_notify;
//   - a file lock of another process (SQLITE_BUSY) is waited out by a busy
//     handler that never gives up;
//   - the query runner adds a bounded sleep-and-retry of its own.
// A lock that no other connection could release (a statement of the same
// connection, or a connection of the waiting thread itself) is never waited
// for: it is reported at once as SQLITE_LOCKED (SQLITE_BUSY for the
// read-only connections of the queries).
//
// The names of the daemon's interface (metadb_step, metadb_exec_query, ...)
// stay global; what the project added lives in namespace tevul.
#ifndef TEVUL_METADB_BULK_H
#define TEVUL_METADB_BULK_H

#include <pthread.h>
#include <sqlite3.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "common.h"
#include "tevul.h"

// ---------------------------------------------------------------------------
// The daemon's interface of this layer.

// The per-row callback of metadb_exec_query(): user pointer, column count,
// the row's values as text (NULL for SQL NULL; followed by one NULL entry)
// and the column names. Returns 0 for the next row, non-zero to stop. The
// pointers are valid only during the call.
typedef int (*metadb_row_callback)(void* user, int count, char** values,
                                   char** names);

// The record through which metadb_copy_value_cb() returns one value.
struct metadb_value_buf {
  uint32_t capacity;  // in: size of buffer; after a copy: bytes copied
  char* buffer;       // the caller's output buffer
  int found;          // set to 1 when a value was copied
};

// SQLite primary result codes 0..26 mapped to the platform's errno values.
extern const int32_t metadb_errno_table[27];

// Transaction operation codes of metadb_transaction_op().
enum {
  metadb_txn_begin = 1,
  metadb_txn_commit = 2,
  metadb_txn_rollback = 3,
};

// Steps `stmt`, waiting out shared-cache locks of other connections without
// limit. Returns the step's result code (SQLITE_ROW, SQLITE_DONE or an error,
// SQLITE_LOCKED for a lock that cannot be waited out). A NULL statement gives
// SQLITE_MISUSE.
int metadb_step(sqlite3_stmt* stmt);

// sqlite3_prepare_v2 of the first statement of `sql` (`bytes` as for SQLite:
// the length including the terminator for fixed texts, -1 for formatted
// ones), waiting out shared-cache locks of other connections. Returns the
// SQLite result code; *stmt is NULL on failure.
int metadb_prepare(sqlite3* db, const char* sql, int bytes,
                   sqlite3_stmt** stmt);

// The busy handler of every tag database connection: sleeps 10 ms and asks
// SQLite to retry, for ever.
int metadb_busy_handler(void* unused, int count);

// Runs the first statement of `sql` to its end. When `user` is not NULL,
// `callback` is called with each result row. File and table locks are
// retried up to ten times, 50 ms apart, over the whole query.
// Returns 0 when all rows were consumed, SQLITE_ROW when the callback
// stopped the query, otherwise an SQLite result code.
int metadb_exec_query(sqlite3* db, const char* sql,
                      metadb_row_callback callback, void* user);

// Runs BEGIN IMMEDIATE, COMMIT or ROLLBACK on the handle's cached
// statements. Returns 0, or -1 for an unknown code or a statement that could
// not be prepared. The step's own result is not examined.
int metadb_transaction_op(metadb_tagdb* tagdb, int op);

// Returns 1 when table Meta has the column of `tag`, 0 when it has not (also
// for a NULL handle or connection), -1 for a NULL or empty tag. The column
// name is cut at 254 bytes, as the database format has always done.
int metadb_column_exists(metadb_tagdb* tagdb, const char* tag);

// A metadb_row_callback whose user pointer is a metadb_value_buf: copies the
// single column of each row into the buffer (the last row wins). Stops the
// query, copying nothing, for SQL NULL, a column count other than 1, or a
// value that does not fit.
int metadb_copy_value_cb(void* user, int count, char** values, char** names);

namespace tevul {

// ---------------------------------------------------------------------------
// Results.

// The code the last failed statement left on `db`, or `otherwise` when it
// left none (a statement whose text did not fit its buffer never ran).
inline int failure_code_or(sqlite3* db, int otherwise) {
  const int code = sqlite3_errcode(db);
  return code == SQLITE_OK || code == SQLITE_DONE || code == SQLITE_ROW ? otherwise
                                                                         : code;
}

// Maps an SQLite result code (or -1) through metadb_errno_table: codes that,
// taken as unsigned, are below 27 give the table's entry, all others EIO.
int32_t sqlite_errno(int code);

// The results of the metadb_ family, decided here once. Success is the entry
// of SQLITE_OK (0); a failed statement or an unusable argument of the path
// operations, the settag and the recursive settag is EIO, the entry of
// SQLITE_ERROR.
inline int32_t metadb_ok() { return metadb_errno_table[SQLITE_OK]; }
inline int32_t metadb_failed() { return metadb_errno_table[SQLITE_ERROR]; }

// What a cleanup returns for its cancel flag's value at the end: the value
// taken as if it were an SQLite result code (0 after a complete scan; 1, and
// 27 and above, give EIO). The daemon's cleanup has always reported a
// cancel so, and its callers compare against these numbers.
inline int32_t cancel_result(int flag) { return sqlite_errno(flag); }

// ---------------------------------------------------------------------------
// Statement texts.

// A tag name to be put into a statement as a column name ("%s" inside a
// double-quoted identifier). Tag names go into SQL unescaped, so a name
// holding a double quote could name or create other columns: a statement
// given such a name is never run.
struct tag_ident {
  const char* name;
};

// True when `tag` may be named in a statement.
inline bool tag_sql_safe(const char* tag) {
  return std::strchr(tag, '"') == nullptr;
}

// `path` as a GLOB pattern that matches only itself ("*", "?" and "[" are
// bracketed), followed by `suffix`, in memory from sqlite3_malloc(); NULL
// when memory is short.
char* glob_escape(const char* path, const char* suffix = "");

// A path that selects its subtree by pattern (the "%q" of the GLOB half of
// TEVUL_SUBTREE). Its "*", "?" and "[" are bracketed ("[*]", "[?]", "[[]")
// so that they match only themselves: a folder named "[2019] Trip" selects
// its own files, never those of "2 Trip".
struct glob_literal {
  const char* path;
};

// The rows of a stored path p and of everything below it, to be formatted
// with p (for "%q") and then glob_literal{p}. A sibling that only shares a
// prefix ("a/bc" for "a/b") is never selected.
#define TEVUL_SUBTREE "Path='%q' OR Path GLOB '%q/*'"

// A statement text formatted with SQLite's formatter ("%q" for quoted texts,
// "%s" for tag names given as tag_ident, "%q" for patterns given as
// glob_literal, "%lld" for row ids) for a buffer of N bytes, as the database
// format fixes it. A text is usable only when it fits whole and names no
// unsafe tag: otherwise fits() is false, c_str() is empty, and the caller
// treats it as a failed statement.
//
// The text is measured whole before it is copied: sqlite3_snprintf() cannot
// be trusted to show a cut, since it drops an argument longer than the whole
// buffer and goes on with the rest, which leaves a short but valid statement
// (a value of 300 bytes would become the empty value).
template <std::size_t N>
class sql_text {
 public:
  template <typename... Args>
  explicit sql_text(const char* format, Args... args) {
    bool safe = true;
    char* whole = sqlite3_mprintf(format, unwrap(args, safe)...);
    const std::size_t len = whole != nullptr ? std::strlen(whole) : N;
    fits_ = safe && len < N;
    if (fits_) {
      std::memcpy(buf_, whole, len + 1);
    } else {
      buf_[0] = '\0';
    }
    sqlite3_free(whole);
    sqlite3_free(pattern_);
  }
  sql_text(const sql_text&) = delete;
  sql_text& operator=(const sql_text&) = delete;

  bool fits() const { return fits_; }
  const char* c_str() const { return buf_; }

 private:
  static const char* unwrap(tag_ident tag, bool& safe) {
    if (!tag_sql_safe(tag.name)) safe = false;
    return tag.name;
  }
  // One pattern per text; its storage lives until the text is formatted.
  const char* unwrap(glob_literal literal, bool& safe) {
    if (pattern_ == nullptr) pattern_ = glob_escape(literal.path);
    if (pattern_ == nullptr) safe = false;
    return pattern_ != nullptr ? pattern_ : "";
  }
  template <typename T>
  static T unwrap(T value, bool& /*safe*/) {
    return value;
  }

  char buf_[N];
  bool fits_;
  char* pattern_ = nullptr;
};

// ---------------------------------------------------------------------------
// Lock owners.

// The registration of one library connection, embedded in its handle. The
// thread recorded is the one that opened the connection or last began a
// transaction through it. It lets a waiting thread tell whether the lock in
// its way is held by one of its own connections, which it alone could
// release.
struct lock_owner {
  sqlite3* db = nullptr;
  pthread_t thread{};
  lock_owner* prev = nullptr;
  lock_owner* next = nullptr;
};

// Registers `owner` for connection `db`, owned by the calling thread.
void owner_register(lock_owner* owner, sqlite3* db);
// Records the calling thread as the owner of `owner`'s connection: every
// operation on a handle does, so that the locks of a handle handed to
// another thread in the middle of a transaction follow it (a wait of that
// thread for them never ends; another thread's wait ends with its commit).
void owner_claim(lock_owner* owner);
// owner_claim() for the connection of `tagdb` (NULL is ignored).
void claim(metadb_tagdb* tagdb);
// Removes `owner`; harmless for an owner that was never registered.
void owner_unregister(lock_owner* owner);

// True when a library connection of the calling thread, other than `db`,
// holds locks on the database file of `db`: a wait for them would last
// until this very thread released them, that is, for ever.
bool blocked_by_own_thread(sqlite3* db);

// The busy handler of the queries' connections (argument: the connection):
// waits out a file lock of another process or thread as metadb_busy_handler
// does, 10 ms at a time for ever, but gives up at once (SQLITE_BUSY) on a
// lock that a library connection of the calling thread holds.
int own_lock_aware_busy_handler(void* db, int count);

// ---------------------------------------------------------------------------
// Statement execution.

// Prepares into an owning slot; same result as metadb_prepare().
int prepare(sqlite3* db, const char* sql, int bytes, stmt_ptr& slot);

// Prepares `sql` into `slot` unless the slot already holds a statement: the
// cached statements of a handle are prepared on first use and then reused.
// Returns SQLITE_OK for a filled slot, otherwise as metadb_prepare().
inline int prepare_once(sqlite3* db, const char* sql, int bytes,
                        stmt_ptr& slot) {
  return slot ? SQLITE_OK : prepare(db, sql, bytes, slot);
}

// SQLITE_OK when the table Meta of `db` has a row id that nothing else can
// be taken for: a table with a row id (not WITHOUT ROWID) and no column
// named "rowid", "oid" or "_rowid_" (in any case), which would hide it.
// SQLITE_IOERR (EIO through every errno table) for a table crafted so,
// whose rows a walk or an update by row id could not tell apart; otherwise
// the code of the failed read.
int meta_rowid_plain(sqlite3* db);

// prepare_once() for a statement that names rows by row id: the first time
// only after meta_rowid_plain() said yes (its code otherwise).
inline int prepare_rowid_once(sqlite3* db, const char* sql, int bytes, stmt_ptr& slot) {
  if (slot) return SQLITE_OK;
  const int rc = meta_rowid_plain(db);
  return rc != SQLITE_OK ? rc : prepare(db, sql, bytes, slot);
}

// Runs the prepared statement `stmt` to its end exactly as
// metadb_exec_query() runs the statement of its text, with the same callback
// rules and lock retries, and the same results. The statement is left as its
// last step left it: the caller resets or finalises it.
int run_stmt(sqlite3_stmt* stmt, metadb_row_callback callback, void* user);

// Runs a formatted statement text, or gives SQLITE_ERROR without running
// anything when the text did not fit its buffer.
template <std::size_t N>
int exec_text(sqlite3* db, const sql_text<N>& text,
              metadb_row_callback callback = nullptr, void* user = nullptr) {
  return text.fits() ? metadb_exec_query(db, text.c_str(), callback, user)
                     : SQLITE_ERROR;
}

// A few prepared statements of one connection, kept by their text, for
// statements that are run with the same text over and over (a tag's update,
// once per file) and would otherwise be compiled anew every time. At most
// kSlots statements are kept; the one used least recently makes room. The
// owner must clear() the cache before it closes the connection.
class stmt_cache {
 public:
  static constexpr std::size_t kSlots = 8;

  // Sets *stmt to the statement for the text `sql` of connection `db`,
  // preparing it first (through metadb_prepare()) unless it is kept
  // already. The caller resets it after each use. Returns SQLITE_OK, or the
  // code of the failed prepare (*stmt is then NULL).
  int get(sqlite3* db, const char* sql, sqlite3_stmt** stmt);

  // Finalises every kept statement.
  void clear();

 private:
  struct slot {
    stmt_ptr stmt;
    uint32_t used = 0;
  };
  slot slots_[kSlots];
  uint32_t clock_ = 0;
};

}  // namespace tevul

#endif  // TEVUL_METADB_BULK_H
