// SQLite access layer. See metadb_bulk.h.

// The consistency checks of the unlock-notify wait stay active in every
// build, so the platform's assertion reporter is declared whatever NDEBUG is.
#undef NDEBUG
#include <assert.h>

#include "metadb_bulk.h"

#include <errno.h>
#include <pthread.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "common.h"
#include "metadb_tagdb.h"

const int32_t metadb_errno_table[27] = {
    0,       // SQLITE_OK
    EIO,     // SQLITE_ERROR
    EFAULT,  // SQLITE_INTERNAL
    EPERM,   // SQLITE_PERM
    EINTR,   // SQLITE_ABORT
    EBUSY,   // SQLITE_BUSY
    EDEADLK, // SQLITE_LOCKED
    ENOMEM,  // SQLITE_NOMEM
    EROFS,   // SQLITE_READONLY
    EINTR,   // SQLITE_INTERRUPT
    EIO,     // SQLITE_IOERR
    EFAULT,  // SQLITE_CORRUPT
    ENOENT,  // SQLITE_NOTFOUND
    ENOSPC,  // SQLITE_FULL
    EACCES,  // SQLITE_CANTOPEN
    EPIPE,   // SQLITE_PROTOCOL
    ENOENT,  // SQLITE_EMPTY
    EBADF,   // SQLITE_SCHEMA
    EFBIG,   // SQLITE_TOOBIG
    ESPIPE,  // SQLITE_CONSTRAINT: kept as the daemon has always mapped it
    ENODEV,  // SQLITE_MISMATCH: likewise
    EPIPE,   // SQLITE_MISUSE
    ENOTTY,  // SQLITE_NOLFS
    EACCES,  // SQLITE_AUTH
    EBADF,   // SQLITE_FORMAT
    EINVAL,  // SQLITE_RANGE
    EBADF,   // SQLITE_NOTADB
};

namespace tevul {

int32_t sqlite_errno(int code) {
  const unsigned index = static_cast<unsigned>(code);
  return index < 27 ? metadb_errno_table[index] : EIO;
}

char* glob_escape(const char* path, const char* suffix) {
  const std::size_t len = std::strlen(path);
  const std::size_t suffix_len = std::strlen(suffix);
  char* out = static_cast<char*>(sqlite3_malloc64(3 * len + suffix_len + 1));
  if (out == nullptr) return nullptr;
  char* o = out;
  for (const char* p = path; *p != '\0'; ++p) {
    if (*p == '*' || *p == '?' || *p == '[') {
      *o++ = '[';
      *o++ = *p;
      *o++ = ']';
    } else {
      *o++ = *p;
    }
  }
  std::memcpy(o, suffix, suffix_len + 1);
  return out;
}

}  // namespace tevul

namespace {

constexpr char kSourceName[] = "sources/metadb_bulk";

// Reports a failed consistency check the platform's way and aborts.
[[noreturn]] void assertion_failed(const char* expression, unsigned line,
                                   const char* function) {
#if defined(__UCLIBC__)
  __assert(expression, kSourceName, line, function);
#else
  __assert_fail(expression, kSourceName, line, function);
#endif
  std::abort();  // not reached
}

// Aborts with `expression` unless `result` is 0.
inline void check_zero(int result, const char* expression, unsigned line,
                       const char* function) {
  if (result != 0) assertion_failed(expression, line, function);
}

// One wait for an unlock notification; lives on the waiting thread's stack.
struct unlock_notify_ctx {
  int fired;
  pthread_cond_t cond;
  pthread_mutex_t mutex;
};

// ---------------------------------------------------------------------------
// Registry of the library's connections, for telling a lock that another
// thread or process will release from one that only the waiting thread could
// release. Touched at open, close and transaction begin, and when a wait is
// about to start; never on the plain step path.

pthread_mutex_t g_owner_mutex = PTHREAD_MUTEX_INITIALIZER;
tevul::lock_owner* g_owners = nullptr;

// True when the connection has an open transaction or an unfinished
// statement, that is, holds locks.
bool holds_locks(sqlite3* db) {
  if (!sqlite3_get_autocommit(db)) return true;
  for (sqlite3_stmt* s = sqlite3_next_stmt(db, nullptr); s != nullptr;
       s = sqlite3_next_stmt(db, s)) {
    if (sqlite3_stmt_busy(s)) return true;
  }
  return false;
}

}  // namespace

namespace tevul {

bool blocked_by_own_thread(sqlite3* db) {
  const char* file = sqlite3_db_filename(db, "main");
  if (file == nullptr || file[0] == '\0') return false;  // private database
  const pthread_t self = pthread_self();
  const mutex_hold hold(&g_owner_mutex);
  for (lock_owner* o = g_owners; o != nullptr; o = o->next) {
    if (o->db == db || !pthread_equal(o->thread, self)) continue;
    const char* other = sqlite3_db_filename(o->db, "main");
    if (other != nullptr && std::strcmp(other, file) == 0 &&
        holds_locks(o->db)) {
      return true;
    }
  }
  return false;
}

void owner_register(lock_owner* owner, sqlite3* db) {
  const mutex_hold hold(&g_owner_mutex);
  owner->db = db;
  owner->thread = pthread_self();
  owner->prev = nullptr;
  owner->next = g_owners;
  if (g_owners != nullptr) g_owners->prev = owner;
  g_owners = owner;
}

void owner_claim(lock_owner* owner) {
  const mutex_hold hold(&g_owner_mutex);
  owner->thread = pthread_self();
}

void claim(metadb_tagdb* tagdb) {
  if (tagdb != nullptr && tagdb->db) owner_claim(&tagdb->owner);
}

void owner_unregister(lock_owner* owner) {
  const mutex_hold hold(&g_owner_mutex);
  if (owner->db == nullptr) return;
  if (owner->prev != nullptr) owner->prev->next = owner->next;
  if (owner->next != nullptr) owner->next->prev = owner->prev;
  if (g_owners == owner) g_owners = owner->next;
  owner->db = nullptr;
  owner->prev = owner->next = nullptr;
}

}  // namespace tevul

namespace {

// True when the SQLITE_LOCKED just reported on `db` is a shared-cache lock of
// another connection that another thread can release, the only kind worth
// an unlock-notify wait.
bool lock_can_be_waited_out(sqlite3* db) {
  return sqlite3_extended_errcode(db) == SQLITE_LOCKED_SHAREDCACHE &&
         !tevul::blocked_by_own_thread(db);
}

// The checks of the wait abort with "sources/metadb_bulk:LINE: FUNCTION:
// Assertion `EXPRESSION' failed.", word for word the message the daemon's
// own build of this wait prints: field reports and the daemon's support
// scripts are matched on it. So the expression texts and the line numbers
// below are fixed values, not this file's own lines; keep them as they are
// when the file changes.
void unlock_notify_cb(void** args, int count) {
  for (int i = 0; i < count; ++i) {
    unlock_notify_ctx* _ctx = static_cast<unlock_notify_ctx*>(args[i]);
    if (pthread_mutex_lock(&_ctx->mutex) != 0) continue;
    _ctx->fired = 1;
    pthread_cond_signal(&_ctx->cond);
    check_zero(pthread_mutex_unlock(&_ctx->mutex),
               "0 == pthread_mutex_unlock(&_ctx->mutex)", 116,
               "unlock_notify_cb");
  }
}

// Waits for the shared-cache lock that blocked the last statement of `db`
// to be released. Returns 0 after the notification fired, otherwise the
// code of sqlite3_unlock_notify (SQLITE_LOCKED when SQLite sees a deadlock).
// Aborts the process, with the failed expression, when a pthread call fails.
int wait_for_unlock_notify(sqlite3* db) {
  static const char kFunction[] = "wait_for_unlock_notify";
  unlock_notify_ctx _ctx;
  _ctx.fired = 0;
  check_zero(pthread_mutex_init(&_ctx.mutex, nullptr),
             "0 == pthread_mutex_init(&_ctx.mutex, 0)", 127, kFunction);
  check_zero(pthread_cond_init(&_ctx.cond, nullptr),
             "0 == pthread_cond_init(&_ctx.cond, 0)", 128, kFunction);

  const int rc = sqlite3_unlock_notify(db, unlock_notify_cb, &_ctx);
  if (rc == SQLITE_OK && pthread_mutex_lock(&_ctx.mutex) == 0) {
    while (_ctx.fired == 0) {
      check_zero(pthread_cond_wait(&_ctx.cond, &_ctx.mutex),
                 "0 == pthread_cond_wait(&_ctx.cond, &_ctx.mutex)", 133,
                 kFunction);
    }
    check_zero(pthread_mutex_unlock(&_ctx.mutex),
               "0 == pthread_mutex_unlock(&_ctx.mutex)", 135, kFunction);
  }

  check_zero(pthread_cond_destroy(&_ctx.cond),
             "0 == pthread_cond_destroy(&_ctx.cond)", 138, kFunction);
  check_zero(pthread_mutex_destroy(&_ctx.mutex),
             "0 == pthread_mutex_destroy(&_ctx.mutex)", 139, kFunction);
  return rc;
}

}  // namespace

int metadb_step(sqlite3_stmt* stmt) {
  for (;;) {
    const int rc = sqlite3_step(stmt);
    if (rc != SQLITE_LOCKED) return rc;
    sqlite3* db = sqlite3_db_handle(stmt);
    if (!lock_can_be_waited_out(db)) return rc;
    const int wait = wait_for_unlock_notify(db);
    if (wait != SQLITE_OK) return wait;
    sqlite3_reset(stmt);
  }
}

int metadb_prepare(sqlite3* db, const char* sql, int bytes,
                   sqlite3_stmt** stmt) {
  for (;;) {
    const int rc = sqlite3_prepare_v2(db, sql, bytes, stmt, nullptr);
    if (rc != SQLITE_LOCKED) return rc;
    if (!lock_can_be_waited_out(db)) return rc;
    const int wait = wait_for_unlock_notify(db);
    if (wait != SQLITE_OK) return wait;
  }
}

int metadb_busy_handler(void* /*unused*/, int /*count*/) {
  usleep(10000);
  return 1;
}

namespace tevul {

int own_lock_aware_busy_handler(void* db, int /*count*/) {
  if (blocked_by_own_thread(static_cast<sqlite3*>(db))) return 0;
  usleep(10000);
  return 1;
}

// The columns that would hide Meta's row id, and a read that needs one.
constexpr char kRowidColumnsSql[] =
    "SELECT count(*) FROM pragma_table_info('Meta')"
    " WHERE lower(name) IN ('rowid','oid','_rowid_')";
constexpr char kReadsRowidSql[] = "SELECT rowid FROM Meta LIMIT 0";

int meta_rowid_plain(sqlite3* db) {
  stmt_ptr count;
  int rc = prepare(db, kRowidColumnsSql, sizeof kRowidColumnsSql, count);
  if (rc != SQLITE_OK) return rc;
  rc = metadb_step(count.get());
  if (rc != SQLITE_ROW) return rc;
  if (sqlite3_column_int(count.get(), 0) != 0) return SQLITE_IOERR;
  count.reset();
  // A WITHOUT ROWID table has none to read.
  stmt_ptr reads;
  rc = prepare(db, kReadsRowidSql, sizeof kReadsRowidSql, reads);
  if (rc == SQLITE_ERROR) return SQLITE_IOERR;
  return rc;
}

int prepare(sqlite3* db, const char* sql, int bytes, stmt_ptr& slot) {
  sqlite3_stmt* stmt = nullptr;
  const int rc = metadb_prepare(db, sql, bytes, &stmt);
  slot.reset(stmt);
  return rc;
}

int run_stmt(sqlite3_stmt* stmt, metadb_row_callback callback, void* user) {
  int budget = 10;
  int columns = 0;
  c_ptr<char*> array;
  for (;;) {
    const int rc = metadb_step(stmt);
    if (rc == SQLITE_DONE) return SQLITE_OK;
    if (rc == SQLITE_BUSY || rc == SQLITE_LOCKED) {
      if (budget == 0) return rc;
      --budget;
      usleep(50000);
      continue;
    }
    if (rc != SQLITE_ROW) return rc;
    if (user == nullptr) continue;  // executed for its effect only

    if (!array) {
      columns = sqlite3_column_count(stmt);
      array.reset(static_cast<char**>(
          std::calloc(2 * static_cast<std::size_t>(columns) + 1,
                      sizeof(char*))));
      if (!array) return SQLITE_NOMEM;
      for (int i = 0; i < columns; ++i) {
        array.get()[i] = const_cast<char*>(sqlite3_column_name(stmt, i));
      }
    }
    char** names = array.get();
    char** values = names + columns;
    for (int i = 0; i < columns; ++i) {
      values[i] = reinterpret_cast<char*>(
          const_cast<unsigned char*>(sqlite3_column_text(stmt, i)));
    }
    if (callback != nullptr && callback(user, columns, values, names) != 0) {
      return SQLITE_ROW;
    }
  }
}

int stmt_cache::get(sqlite3* db, const char* sql, sqlite3_stmt** stmt) {
  ++clock_;
  slot* victim = &slots_[0];
  for (slot& s : slots_) {
    if (s.stmt && std::strcmp(sqlite3_sql(s.stmt.get()), sql) == 0) {
      s.used = clock_;
      *stmt = s.stmt.get();
      return SQLITE_OK;
    }
    // An empty slot is taken before any kept statement is given up; the
    // clock's wrap-around only makes an older statement look recent.
    if (!victim->stmt) continue;
    if (!s.stmt || s.used < victim->used) victim = &s;
  }
  victim->stmt.reset();
  const int rc = prepare(db, sql, -1, victim->stmt);
  victim->used = clock_;
  *stmt = victim->stmt.get();
  if (rc != SQLITE_OK) {
    victim->stmt.reset();
    *stmt = nullptr;
  }
  return rc;
}

void stmt_cache::clear() {
  for (slot& s : slots_) s.stmt.reset();
}

}  // namespace tevul

int metadb_exec_query(sqlite3* db, const char* sql,
                      metadb_row_callback callback, void* user) {
  sqlite3_stmt* raw = nullptr;
  const int rc = metadb_prepare(db, sql, -1, &raw);
  tevul::stmt_ptr stmt(raw);
  if (rc != SQLITE_OK) return rc;
  if (!stmt) return SQLITE_OK;  // the text holds no statement
  return tevul::run_stmt(stmt.get(), callback, user);
}

namespace {

// The three transaction statements, each cached in its slot of the handle,
// by operation code (metadb_txn_begin, _commit, _rollback), with the byte
// count (terminator included) it is prepared with.
struct txn_statement {
  tevul::stmt_ptr metadb_tagdb::*slot;
  const char* text;
  int bytes;
};
const txn_statement kTxnStatements[] = {
    {&metadb_tagdb::stmt_begin, "BEGIN IMMEDIATE", sizeof "BEGIN IMMEDIATE"},
    {&metadb_tagdb::stmt_commit, "COMMIT", sizeof "COMMIT"},
    {&metadb_tagdb::stmt_rollback, "ROLLBACK", sizeof "ROLLBACK"},
};

}  // namespace

int metadb_transaction_op(metadb_tagdb* tagdb, int op) {
  if (op < metadb_txn_begin || op > metadb_txn_rollback) return -1;
  const txn_statement& txn = kTxnStatements[op - metadb_txn_begin];
  tevul::stmt_ptr& slot = tagdb->*txn.slot;
  if (tevul::prepare_once(tagdb->db.get(), txn.text, txn.bytes, slot) !=
      SQLITE_OK) {
    sqlite3_reset(slot.get());
    return -1;
  }
  // The thread that uses a handle owns its locks: a handle handed to
  // another thread in the middle of a transaction takes them along.
  tevul::owner_claim(&tagdb->owner);
  // The result stays 0 whatever the statement gave: the daemon's callers
  // have always been told success, also for a COMMIT that a full disk
  // refused, and a bulk context issues a COMMIT with no transaction open
  // (a second commit, a commit after a rollback) as a matter of course.
  // What a COMMIT that had a transaction to end gave is kept in the handle,
  // so that a bulk context can report lost writes by other means.
  const bool ends_transaction =
      op == metadb_txn_commit && !sqlite3_get_autocommit(tagdb->db.get());
  const int rc = metadb_step(slot.get());
  if (ends_transaction && rc != SQLITE_DONE) tagdb->failed_commit = rc;
  sqlite3_reset(slot.get());
  return 0;
}

namespace {
// Shared by the three exported transaction functions.
int transaction_entry(metadb_tagdb* tagdb, int op) {
  if (tagdb == nullptr || !tagdb->db) return -1;
  if (op == metadb_txn_commit) tagdb->failed_commit = SQLITE_OK;
  if (op == metadb_txn_begin) {
    if (tagdb->modified) metadb_transaction_op(tagdb, metadb_txn_rollback);
  } else if (!tagdb->modified) {
    // A handle that never wrote has nothing to commit or roll back; this
    // skip is relied upon (its transaction simply continues).
    return 0;
  }
  return tevul::sqlite_errno(metadb_transaction_op(tagdb, op));
}
}  // namespace

extern "C" int metadb_tagdb_transaction_start(metadb_tagdb* tagdb) {
  return transaction_entry(tagdb, metadb_txn_begin);
}

extern "C" int metadb_tagdb_transaction_commit(metadb_tagdb* tagdb) {
  return transaction_entry(tagdb, metadb_txn_commit);
}

extern "C" int metadb_tagdb_transaction_rollback(metadb_tagdb* tagdb) {
  return transaction_entry(tagdb, metadb_txn_rollback);
}

int metadb_column_exists(metadb_tagdb* tagdb, const char* tag) {
  if (tag == nullptr || tag[0] == '\0') return -1;
  if (tagdb == nullptr || !tagdb->db) return 0;
  // Cut at 254 bytes like every earlier version; not SQL, so not refused.
  char column[255];
  sqlite3_snprintf(sizeof column, column, ".%s", tag);
  return sqlite3_table_column_metadata(tagdb->db.get(), nullptr, "Meta",
                                       column, nullptr, nullptr, nullptr,
                                       nullptr, nullptr) == SQLITE_OK
             ? 1
             : 0;
}

int metadb_copy_value_cb(void* user, int count, char** values,
                         char** /*names*/) {
  metadb_value_buf* out = static_cast<metadb_value_buf*>(user);
  if (out == nullptr || out->buffer == nullptr || count != 1 ||
      values[0] == nullptr) {
    return 1;
  }
  const std::size_t len = std::strlen(values[0]) + 1;
  if (out->capacity < len) return 1;
  out->found = 1;
  out->capacity = static_cast<uint32_t>(len);
  std::memcpy(out->buffer, values[0], len);
  return 0;
}
