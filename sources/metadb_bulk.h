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
// for: it is reported at once as SQLITE_LOCKED.
#ifndef TEVUL_METADB_BULK_H
#define TEVUL_METADB_BULK_H

#include <pthread.h>
#include <sqlite3.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

#include "tevul.h"

// ---------------------------------------------------------------------------
// Resource owners.

struct metadb_stmt_finalizer {
  void operator()(sqlite3_stmt* stmt) const { sqlite3_finalize(stmt); }
};
// A prepared statement that is finalised when its owner goes away.
using metadb_stmt_ptr = std::unique_ptr<sqlite3_stmt, metadb_stmt_finalizer>;

struct metadb_db_closer {
  void operator()(sqlite3* db) const { sqlite3_close(db); }
};
// A connection that is closed when its owner goes away.
using metadb_db_ptr = std::unique_ptr<sqlite3, metadb_db_closer>;

// ---------------------------------------------------------------------------
// Statement texts.

// A tag name to be put into a statement as a column name ("%s" inside a
// double-quoted identifier). Tag names go into SQL unescaped, so a name
// holding a double quote could name or create other columns: a statement
// given such a name is never run.
struct metadb_tag_ident {
  const char* name;
};

// True when `tag` may be named in a statement.
inline bool metadb_tag_sql_safe(const char* tag) {
  return std::strchr(tag, '"') == nullptr;
}

// `path` as a GLOB pattern that matches only itself, in memory from
// sqlite3_malloc() (the caller frees it with sqlite3_free()); NULL when
// memory is short.
char* metadb_glob_escape(const char* path);

// A path that selects its subtree by pattern (the "%q" of the GLOB half of
// METADB_SUBTREE). Its "*", "?" and "[" are bracketed ("[*]", "[?]", "[[]")
// so that they match only themselves: a folder named "[2019] Trip" selects
// its own files, never those of "2 Trip".
struct metadb_glob_literal {
  const char* path;
};

// The rows of a stored path p and of everything below it, to be formatted
// with p (for "%q") and then metadb_glob_literal{p}. A sibling that only
// shares a prefix ("a/bc" for "a/b") is never selected.
#define METADB_SUBTREE "Path='%q' OR Path GLOB '%q/*'"

// A statement text formatted with SQLite's formatter ("%q" for quoted texts,
// "%s" for tag names given as metadb_tag_ident, "%q" for patterns given as
// metadb_glob_literal, "%lld" for row ids) for a buffer of N bytes, as the
// database format fixes it. A text is usable only when it fits whole and
// names no unsafe tag: otherwise fits() is false, c_str() is empty, and the
// caller treats it as a failed statement.
//
// The text is measured whole before it is copied: sqlite3_snprintf() cannot
// be trusted to show a cut, since it drops an argument longer than the whole
// buffer and goes on with the rest, which leaves a short but valid statement
// (a value of 300 bytes would become the empty value).
template <std::size_t N>
class metadb_sql_text {
 public:
  template <typename... Args>
  explicit metadb_sql_text(const char* format, Args... args) {
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
  metadb_sql_text(const metadb_sql_text&) = delete;
  metadb_sql_text& operator=(const metadb_sql_text&) = delete;

  bool fits() const { return fits_; }
  const char* c_str() const { return buf_; }

 private:
  static const char* unwrap(metadb_tag_ident tag, bool& safe) {
    if (!metadb_tag_sql_safe(tag.name)) safe = false;
    return tag.name;
  }
  // One pattern per text; its storage lives until the text is formatted.
  const char* unwrap(metadb_glob_literal literal, bool& safe) {
    if (pattern_ == nullptr) pattern_ = metadb_glob_escape(literal.path);
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
struct metadb_lock_owner {
  sqlite3* db = nullptr;
  pthread_t thread{};
  metadb_lock_owner* prev = nullptr;
  metadb_lock_owner* next = nullptr;
};

// Registers `owner` for connection `db`, owned by the calling thread.
void metadb_owner_register(metadb_lock_owner* owner, sqlite3* db);
// Records the calling thread as the owner of `owner`'s connection.
void metadb_owner_claim(metadb_lock_owner* owner);
// Removes `owner`; harmless for an owner that was never registered.
void metadb_owner_unregister(metadb_lock_owner* owner);

// ---------------------------------------------------------------------------
// Statement execution.

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

// Maps an SQLite result code (or -1) through metadb_errno_table: codes that,
// taken as unsigned, are below 27 give the table's entry, all others EIO.
int32_t metadb_errno(int code);

// The results of the metadb_ family, decided here once. Every error number
// of a metadb_ function comes from metadb_errno_table; these name the
// entries the functions end in.

// Success: the entry of SQLITE_OK (0).
inline int32_t metadb_ok() { return metadb_errno_table[SQLITE_OK]; }

// A failed statement or an unusable argument of the path operations, the
// settag and the recursive settag: EIO, the entry of SQLITE_ERROR.
inline int32_t metadb_failed() { return metadb_errno_table[SQLITE_ERROR]; }

// What a cleanup returns for its cancel flag's value at the end: the value
// taken as if it were an SQLite result code (0 after a complete scan; 1, and
// 27 and above, give EIO). The daemon's cleanup has always reported a
// cancel so, and its callers compare against these numbers.
inline int32_t metadb_cancel_result(int flag) { return metadb_errno(flag); }

// Transaction operation codes of metadb_transaction_op().
enum {
  metadb_txn_begin = 1,
  metadb_txn_commit = 2,
  metadb_txn_rollback = 3,
};

// Waits for the shared-cache lock that blocked the last statement of `db`
// to be released. Returns 0 after the notification fired, otherwise the
// code of sqlite3_unlock_notify (SQLITE_LOCKED when SQLite sees a deadlock).
// Aborts the process, with the failed expression, when a pthread call fails.
int wait_for_unlock_notify(sqlite3* db);

// The unlock-notify callback: wakes each waiting record of `args`.
void unlock_notify_cb(void** args, int count);

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

// Prepares into an owning slot; same result as metadb_prepare().
int metadb_prepare(sqlite3* db, const char* sql, int bytes,
                   metadb_stmt_ptr& slot);

// Prepares `sql` into `slot` unless the slot already holds a statement: the
// cached statements of a handle are prepared on first use and then reused.
// Returns SQLITE_OK for a filled slot, otherwise as metadb_prepare().
inline int metadb_prepare_once(sqlite3* db, const char* sql, int bytes,
                               metadb_stmt_ptr& slot) {
  return slot ? SQLITE_OK : metadb_prepare(db, sql, bytes, slot);
}

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

// Runs the prepared statement `stmt` to its end exactly as
// metadb_exec_query() runs the statement of its text, with the same callback
// rules and lock retries, and the same results. The statement is left as its
// last step left it: the caller resets or finalises it.
int metadb_run_stmt(sqlite3_stmt* stmt, metadb_row_callback callback,
                    void* user);

// A few prepared statements of one connection, kept by their text, for
// statements that are run with the same text over and over (a tag's update,
// once per file) and would otherwise be compiled anew every time. At most
// kSlots statements are kept; the one used least recently makes room. The
// owner must clear() the cache before it closes the connection.
class metadb_stmt_cache {
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
    metadb_stmt_ptr stmt;
    uint32_t used = 0;
  };
  slot slots_[kSlots];
  uint32_t clock_ = 0;
};

// Runs a formatted statement text, or gives SQLITE_ERROR without running
// anything when the text did not fit its buffer.
template <std::size_t N>
int metadb_exec_text(sqlite3* db, const metadb_sql_text<N>& text,
                     metadb_row_callback callback = nullptr,
                     void* user = nullptr) {
  return text.fits() ? metadb_exec_query(db, text.c_str(), callback, user)
                     : SQLITE_ERROR;
}

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

#endif  // TEVUL_METADB_BULK_H
