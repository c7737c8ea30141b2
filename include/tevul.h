/*
 * libtevul: tags (name=value metadata) on the files of tagged storage volumes.
 *
 * Every volume has its own SQLite tag database, shared with the tag file
 * system daemon. This header is the library's whole public surface. It
 * compiles as C and as C++; every function is callable from C, never throws,
 * and reports failures through its result only (nothing is logged).
 *
 * Ownership: a handle returned by an open or init function belongs to the
 * caller until it is given back to the matching close or fini function.
 * Result buffers are always the caller's. Strings passed in are borrowed for
 * the duration of the call only.
 *
 * Threads: the library starts none. A handle is used by one thread at a time.
 *
 * Error numbers in results are the platform's errno values (EIO, ENOSPC, ...);
 * compare them with the names from <errno.h>, never with literal numbers.
 */
#ifndef TEVUL_H
#define TEVUL_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define TEVUL_API __attribute__((visibility("default")))
#else
#define TEVUL_API
#endif

/* ------------------------------------------------------------------------ */
/* Tag database of one volume                                                */
/* ------------------------------------------------------------------------ */

/*
 * An open tag database. The file must already hold the table
 * Meta(Path, Data, ...); the library adds one column per tag (".name",
 * TEXT COLLATE NOCASE, with the index "Cidx_name") on first use, and never
 * creates the table itself. Paths given to the functions below are relative
 * to the volume root, without a leading "/" (for example "dir/file.jpg").
 */
typedef struct metadb_tagdb metadb_tagdb;

/*
 * Opens the tag database file `name` (a symbolic link to a regular file is
 * accepted). Switches SQLite's shared cache on for the process and installs a
 * busy handler that waits out file locks of other processes for ever.
 * Returns a new handle, or NULL when `name` is NULL or empty, does not name a
 * regular file, or cannot be opened. The caller owns the handle and gives it
 * back with metadb_tagdb_close().
 */
TEVUL_API metadb_tagdb *metadb_tagdb_open(const char *name);

/*
 * Closes a handle: commits when the handle has ever written (so work that
 * was neither committed nor rolled back is kept), finalises its statements,
 * closes the connection and frees the handle. NULL is ignored.
 */
TEVUL_API void metadb_tagdb_close(metadb_tagdb *tagdb);

/*
 * Begins a write transaction ("BEGIN IMMEDIATE"). When the handle has ever
 * written, a ROLLBACK is issued first (its outcome is ignored), so changes
 * still pending from an earlier transaction are dropped.
 * Returns 0 on success, -1 when the handle is NULL or has no connection, EIO
 * when the statement could not be prepared. The outcome of the BEGIN itself
 * is not examined: a BEGIN inside an open transaction still returns 0.
 */
TEVUL_API int metadb_tagdb_transaction_start(metadb_tagdb *tagdb);

/*
 * Commits. A handle that has never written skips the COMMIT entirely (and
 * its transaction stays open). Returns 0, -1 for a NULL handle or connection,
 * EIO when the statement could not be prepared.
 */
TEVUL_API int metadb_tagdb_transaction_commit(metadb_tagdb *tagdb);

/*
 * Rolls back, with the same rules and results as
 * metadb_tagdb_transaction_commit().
 */
TEVUL_API int metadb_tagdb_transaction_rollback(metadb_tagdb *tagdb);

/*
 * Sets tag `tag` of `path` to `value` (NULL stores the empty text; every
 * backslash of the value is dropped). Creates the path's row and the tag's
 * column when missing. The row's cached Data is not rebuilt: call
 * metadb_tagdb_sync() before committing.
 * Returns 0 when stored; 1 for a NULL handle, path or tag, an empty path or
 * tag, or a failed statement; EIO when the tag's column could not be created
 * (the path's row may have been created already).
 */
TEVUL_API int metadb_tagdb_settag(metadb_tagdb *tagdb, const char *path,
                                  const char *tag, const char *value);

/*
 * Copies the value of tag `tag` of `path`, with its terminating zero, into
 * `buf` of `size` bytes. Returns 0 when copied; -1 when an argument is NULL or
 * empty, size is 0, the tag has no column, the path has no row, the path does
 * not carry the tag, the buffer is too small (it is then left untouched), or
 * the query failed. `tagdb` must be an open handle.
 */
TEVUL_API int metadb_tagdb_gettag(metadb_tagdb *tagdb, const char *path,
                                  const char *tag, char *buf, size_t size);

/*
 * Removes tag `tag` from `path` (the row stays). Data is not rebuilt.
 * Returns 0 when done, also when no row matched or no path ever had the tag;
 * 1 for a NULL handle, path or tag, an empty path or tag, or a failed
 * statement on an existing column.
 */
TEVUL_API int metadb_tagdb_deltag(metadb_tagdb *tagdb, const char *path,
                                  const char *tag);

/*
 * Sets tag `tag` to `value` on `path` and on every row below it (the empty
 * path means every row of the volume), then rebuilds Data of every changed
 * row. Only existing rows change. The characters "*", "?" and "[" in `path`
 * act as patterns when selecting the rows below it.
 * Returns 0 when done; 1 for a NULL handle or a failed statement; EIO when
 * the tag's column could not be created (also for a NULL or empty tag).
 * `path` must not be NULL.
 */
TEVUL_API int metadb_tagdb_settag_recursive(metadb_tagdb *tagdb,
                                            const char *path, const char *tag,
                                            const char *value);

/*
 * Rebuilds the cached Data column of `path` from its tag columns. Does
 * nothing (and returns 0) on a handle that has never written, for a NULL
 * path and for a path without a row.
 * Returns 0 on success, -1 for a NULL handle or connection or when the row
 * could not be written.
 */
TEVUL_API int metadb_tagdb_sync(metadb_tagdb *tagdb, const char *path);

/*
 * Rebuilds Data of every row whose Data is NULL. Does nothing (and returns 0)
 * on a handle that has never written. Returns 0, or -1 for a NULL handle or
 * connection, an unusable selection, or the first row that could not be
 * written (the rows after it keep a NULL Data).
 */
TEVUL_API int metadb_tagdb_sync_all(metadb_tagdb *tagdb);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* TEVUL_H */
