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
 * Threads: the library starts none. A handle (a tag database, a bulk
 * context) is used by one thread at a time; different handles may be used by
 * different threads at once. A handle may pass to another thread, also in
 * the middle of a transaction: its locks belong to the thread that used it
 * last, so that this thread's own queries say EDEADLK at once and other
 * threads' queries wait for its commit. The process-wide state the library keeps is
 * filled on first use and never changes after: the mount point and the meta
 * directory path (found once per process; a tag file system mounted
 * elsewhere later is not noticed), SQLite's shared cache (switched on by
 * metadb_tagdb_open()), a registry of the library's open connections (which
 * lets a wait tell a lock of its own thread from one that will end) and the
 * default time of the stat templates (fsutil_setdeftime()). All of it is
 * safe to fill from several threads at once. The read-only queries keep
 * what they could not read per thread (tevu_query_failure()).
 *
 * Stack: every function runs on a thread with musl's default stack (128
 * KiB, OpenWrt's C library; glibc gives 8 MiB) and leaves more than half of
 * it to the caller. Measured with the worst inputs the functions take (the
 * longest paths, a file of 300 tags of 150 bytes, the deepest and the
 * longest condition, the checked move across volumes), the most any call
 * needs is about 46 KiB: the repair and the watcher 46 KiB, the tag-file
 * and view functions 45 KiB, moves, deletions, renames and cleanups 43 KiB,
 * the queries, the reader and the conditions 31 KiB, bulk contexts 28 KiB,
 * the metadb_ and fsutil_ functions 23 KiB (musl on 32-bit MIPS; glibc on
 * x86-64 within 6 KiB of these). Callbacks run on the caller's stack below
 * these frames. No function recurses with its input.
 *
 * Fork: a process must not fork while another of its threads is inside the
 * library, or holds a bulk context with an open transaction (from
 * tevu_bulk_setpath() until the file's commit: the next tevu_bulk_setpath(),
 * tevu_bulk_commit() or tevu_bulk_fini()), even while that thread runs
 * outside the library: SQLite's own locks and the database's file lock may
 * be held at that moment, and the child would wait on them for ever. A
 * child forked at such a moment may only call exec() or _exit(). Fork
 * before the threads start, or when no other thread is inside the library
 * or in the middle of a bulk context's file.
 *
 * Error numbers in results are the platform's errno values (EIO, ENOSPC, ...);
 * compare them with the names from <errno.h>, never with literal numbers.
 *
 * Memory running short is a result, never a crash, and leaves nothing
 * half-made: the open and init functions return NULL; a metadb_tagdb_
 * operation fails as for a failed statement (1, -1 or EIO, as its contract
 * says); the lookup by value finds nothing (ENOENT); the tag-file, view and
 * read-only query functions and tevu_move_checked() return ENOMEM; the
 * limits and runtime files count as unreadable (a limit of 0).
 *
 * Memory does not grow with the data: the walks, the searches, the
 * conditions and the reader hold at most 256 rows and 256 KiB of row text
 * at a time (and one row beyond, however wide), plus SQLite's page cache of
 * 512 KiB per volume connection; tree walks hold one directory's names per
 * level. Measured with the tool: an export of 100 MB of rows of 1,997 tags
 * of 170 bytes peaks at 6.5 MB resident, 2.7 MB above its start-up, and
 * one of 100,000 one-tag rows at 0.4 MB above it (glibc, x86-64).
 */
#ifndef TEVUL_H
#define TEVUL_H

#include <stddef.h>
#include <stdint.h>

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
 * when the statement could not be prepared. What the BEGIN itself gave is
 * not reported: the daemon's tools begin inside an open transaction as a
 * matter of course (the earlier transaction then simply goes on), and have
 * always been told success.
 */
TEVUL_API int metadb_tagdb_transaction_start(metadb_tagdb *tagdb);

/*
 * Commits. A handle that has never written skips the COMMIT entirely (and
 * its transaction stays open). Returns 0, -1 for a NULL handle or connection,
 * EIO when the statement could not be prepared. A COMMIT that the database
 * refuses (a full disk) still gives 0, as it always has: the changes are
 * then lost when the next transaction begins. A bulk context reports such a
 * loss through tevu_bulk_error().
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
 * (the path's row may have been created already), and EIO for a tag name
 * holding a double quote (nothing is changed).
 *
 * In every function of this family, a tag name holding a double quote is
 * never put into a statement (it could name other columns), and a statement
 * whose text would not fit its fixed buffer is never run (a cut text could
 * address other rows): the function gives what it gives for a failed
 * statement. The update of a value holds 228 characters: 51 of its own, so
 * tag name, value (single quotes doubled) and row number share 177.
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
 * row. Only existing rows change. `path` is literal: "*", "?" and "[" in it
 * match only themselves.
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

/* ------------------------------------------------------------------------ */
/* Path maintenance: tags follow deleted, moved and vanished files           */
/* ------------------------------------------------------------------------ */

/*
 * The filter of a cleanup: receives the absolute path of one tagged file and
 * an int that is always 0; returns non-zero when the file is gone and its
 * row is to be deleted, 0 to keep it. Called once per row, on the caller's
 * thread.
 */
typedef int (*metadb_cleanup_filter)(const char *path, int unused);

/*
 * In the functions below a path names itself and everything below it. A
 * sibling that only shares a prefix ("a/bc" for "a/b") is never selected,
 * and paths are literal: "*", "?" and "[" in them match only themselves, so
 * a folder "[2019] Trip" selects its own files, never those of "2 Trip".
 */

/*
 * Deletes the rows of `path` and below (the empty path: every row of the
 * volume), inside the caller's transaction. Returns 0, or 1 for a NULL
 * handle or path or a failed statement.
 */
TEVUL_API int metadb_tagdb_delete_path(metadb_tagdb *tagdb, const char *path);

/*
 * Gives the rows of `old_path` and below the prefix `new_path` instead
 * ("a/b" -> "x/y" turns "a/b/c" into "x/y/c"), keeping their tags and Data,
 * all or none. Returns 0, or 1 for a NULL handle, a NULL or empty path, or a
 * failed statement (for instance a target path that already has a row).
 */
TEVUL_API int metadb_tagdb_rename_path(metadb_tagdb *tagdb,
                                       const char *old_path,
                                       const char *new_path);

/*
 * Copies the rows of `old_path` and below from `src` into `dst` under
 * `new_path`, with every tag that is set (their Data is left to be encoded
 * again), then deletes them from `src` inside src's transaction. The
 * deletion is committed only if `src` has written otherwise: this operation
 * does not mark `src` as written. Returns 0, or EIO for a NULL handle, a
 * NULL or empty path, an unusable selection, or a destination row that could
 * not be created (the move then stops: rows copied so far stay in `dst`,
 * nothing is deleted from `src`).
 */
TEVUL_API int metadb_tagdb_move_path(metadb_tagdb *src, const char *old_path,
                                     metadb_tagdb *dst, const char *new_path);

/*
 * Deletes the rows of files that `filter` reports gone, in one statement
 * after scanning every row of the database file `db_file`; `root` (without a
 * trailing "/") is put before each stored path for the filter. Opens a
 * connection of its own, outside any transaction. `*cancel` is read before
 * each row and ends the scan when non-zero; the rows collected until then are
 * still deleted. A NULL `cancel` never cancels; a NULL filter keeps every
 * row. Returns 0 after a complete scan; 1 when *cancel is already non-zero
 * on entry (nothing is opened); EIO when the database cannot be used (a
 * missing file is left behind empty); after a cancelled scan the flag's
 * value mapped like an SQLite result (1 gives EIO).
 */
TEVUL_API int metadb_tagdb_cleanup(const char *db_file, const char *root,
                                   int *cancel, metadb_cleanup_filter filter);

/*
 * Removes the rows of `path` (absolute, used as given, not made canonical)
 * and of everything below it from its volume's database, commits and wakes
 * the daemon. A volume root ("/usb1" or "/usb1/") removes every row of the
 * volume. Returns 0, or -1 on any failure.
 */
TEVUL_API int tevu_delete(const char *path);

/*
 * Makes the rows of `src` and below follow a move to `dst` (both absolute,
 * used as given). Within one volume the rows are renamed. To another volume
 * they are copied into that volume's database, and the source rows stay
 * where they were (the tags then stand in both). To a place on no tagged
 * volume the source rows are deleted. Returns -1 for a NULL or empty path,
 * no tag file system, or no database for `src`; otherwise the result of the
 * rename (0 or 1), the copy (0 or EIO) or the delete (0 or 1).
 */
TEVUL_API int tevu_move(const char *src, const char *dst);

/*
 * Runs metadb_tagdb_cleanup() on the database file `db_path`, whose stored
 * paths belong below the directory `dir`. Returns -1 when db_path or dir is
 * NULL or empty, otherwise metadb_tagdb_cleanup()'s result.
 */
TEVUL_API int tevu_cleanup(const char *db_path, const char *dir, int *cancel,
                           metadb_cleanup_filter filter);

/*
 * Runs tevu_cleanup() on the database of the volume holding `path`: every
 * row of that volume is handed to `filter` with its file's real absolute
 * path (the volume's root, "/", the stored path), whichever directory of the
 * volume `path` names. Returns -1 when path does not exist, the tag file
 * system is not mounted or the path lies on no tagged volume; otherwise
 * tevu_cleanup()'s result.
 */
TEVUL_API int tevu_cleanup_attached(const char *path, int *cancel,
                                    metadb_cleanup_filter filter);

/* ------------------------------------------------------------------------ */
/* Lookup by tag value                                                       */
/* ------------------------------------------------------------------------ */

/*
 * Finds the first row, in the volume databases linked under <mount>/meta (in
 * directory order), whose tag `tag` equals `value` (ignoring the case of
 * ASCII letters), and writes that row's tags into `dest` of `size` bytes as
 * text lines "name=value", each ended by a line feed (an escaped "\|" in the
 * stored list comes back as "|"; a row without tags gives one line feed).
 * Rows whose cached Data is not yet encoded are never found. Only reads.
 * Returns 0 (found), ENOSPC (found, but cut to size-1 bytes and terminated),
 * or ENOENT (nothing found, no meta directory, or a NULL argument or size 0).
 */
TEVUL_API int metadb_tagsfile_get_for_tagvalue(const char *mount,
                                               const char *tag,
                                               const char *value, char *dest,
                                               size_t size);

/*
 * metadb_tagsfile_get_for_tagvalue() on the mounted tag file system
 * (ENOENT when none is mounted).
 */
TEVUL_API int tevu_metadata_for_tagvalue(const char *tag, const char *value,
                                         char *dest, size_t size);

/* ------------------------------------------------------------------------ */
/* Single tags through the mount                                             */
/* ------------------------------------------------------------------------ */

/*
 * Each tag of a file is the file <mount>/meta/<canonical path without its
 * leading "/">/<tag>, holding the value byte for byte; the daemon does the
 * database work. `path` may be relative or hold symbolic links, but must
 * exist. Results: 0 for success, ENOENT when no tag file system is mounted
 * or an argument is NULL or empty, otherwise the errno of the failing call
 * (ENOENT for a missing file or tag). Never negative.
 *
 * Names never leave the file's tag directory. Refused with EINVAL, touching
 * nothing: a tag name or pattern that holds "/" or is "." or "..", a path
 * whose canonical form is "/" (its tag directory would be the meta
 * directory itself, with the volumes' database links and the limits file),
 * and a file whose tag directory, every link followed, lies outside the
 * mount (a link planted in the daemon's tree). Tag files are opened without
 * following a link at their own place (ELOOP). A tag file path longer than
 * 4095 bytes is refused with ENAMETOOLONG rather than cut to another file's
 * name. Memory running short is ENOMEM.
 */

/* Writes `value` (NULL: empty) as the whole content of the tag file. The
 * outcome of the write itself is not reported. */
TEVUL_API int tevu_settag(const char *path, const char *tag, const char *value);

/* Reads the value into `buf` as a string of at most size-1 bytes (a longer
 * value is cut). With size 0 nothing is read and 0 is returned. */
TEVUL_API int tevu_gettag(const char *path, const char *tag, char *buf,
                          size_t size);

/* Removes one tag. */
TEVUL_API int tevu_deltag(const char *path, const char *tag);

/* Removes every tag of the file whose name matches the glob `pattern`. Only
 * the pattern is a pattern: wildcards in the file's own path match
 * themselves, so "[x].jpg" never reaches the tags of "x.jpg". With no match,
 * the result is errno as it stands. Stops at the first tag that cannot be
 * removed. */
TEVUL_API int tevu_deltag_glob(const char *path, const char *pattern);

/* ------------------------------------------------------------------------ */
/* Views                                                                     */
/* ------------------------------------------------------------------------ */

/*
 * A view V is configured by files under <mount>/view/.config/V/: cond.ini
 * (condition), group.ini (grouping) and events.ini ("1" or "0"), written
 * whole, without a line end; the daemon shows its files under <mount>/view/V.
 * A name with slashes names a nested view ("a/b"); a name with a "." or ".."
 * component, or an empty one ("", "/", "a//b", "a/"), is refused like a
 * missing one, so that no view function reaches outside <mount>/view/.config.
 * Links planted there cannot lead outside either: a view whose configuration
 * directory, every link followed, lies outside <mount>/view/.config is
 * refused (-1) before anything is read, written or removed; the
 * configuration files are never written through a link at their place (-1);
 * and a link at a view's own place is deleted as a link, never its target.
 * Results: 0, -1 for a NULL or empty argument or a refused name or place
 * (errno then EINVAL; a failed mkdir, rmdir or unlink also gives -1, with
 * its own errno), ENOENT when no tag file system is mounted, ENAMETOOLONG when the view's
 * paths would be longer than 4095 bytes, otherwise an errno value or the
 * fsutil_ result.
 */

/* Creates the view's configuration directory (0 also when it exists). */
TEVUL_API int tevu_view_create(const char *name);

/* Formats <mount>/view/<name> into `buf` of `size` bytes and returns buf;
 * NULL when an argument is missing or refused, nothing is mounted or the view
 * does not exist. */
TEVUL_API char *tevu_view_get_path(const char *name, char *buf, size_t size);

/* Removes the view's configuration directory with everything in it. */
TEVUL_API int tevu_view_delete(const char *name);

/* Writes the condition (creating the view first). */
TEVUL_API int tevu_view_set_cond(const char *name, const char *cond);

/* Writes the grouping (creating the view first). */
TEVUL_API int tevu_view_set_group(const char *name, const char *group);

/* Switches the view's events on or off; the view must exist (ENOENT). */
TEVUL_API int tevu_view_enable_events(const char *name);
TEVUL_API int tevu_view_disable_events(const char *name);

/* ------------------------------------------------------------------------ */
/* File-system utilities                                                     */
/* ------------------------------------------------------------------------ */

/* The platform's stat record with 64-bit offsets (from <sys/stat.h> with
 * large-file support). glibc names it struct stat64 (and struct stat is the
 * same record under _FILE_OFFSET_BITS=64). musl's struct stat always has
 * 64-bit offsets, and musl names it stat64 only as a macro under
 * _LARGEFILE64_SOURCE, which its newer versions are dropping: there, pass
 * the address of a struct stat converted to struct stat64 *. */
struct stat64;

/* Sets the process-wide default time used by the stat templates. */
TEVUL_API void fsutil_setdeftime(int32_t t);

/* 1 when `path` is a regular file (links followed), else 0. */
TEVUL_API int fsutil_isfile(const char *path);

/* 1 when `path` is a directory (links followed), else 0. */
TEVUL_API int fsutil_isdir(const char *path);

/* 1 when statfs() succeeds on `path` (any existing path), else 0 (also for
 * NULL). */
TEVUL_API int fsutil_isactivedir(const char *path);

/*
 * Stat templates: fill `st` for a synthetic regular file (0100664, or
 * 0100444 read-only, 1 link), directory (040775 / 040555, link count left
 * alone) or symbolic link (0120775 / 0120555, 1 link). Writable: owner and
 * group of the process; read-only: 0 and 0. Access, modification and change
 * seconds: the default time. `clear` non-zero zeroes the record first. A NULL `st` is
 * ignored.
 */
TEVUL_API void fsutil_stat_setreg(struct stat64 *st, int clear, int writable);
TEVUL_API void fsutil_stat_setdir(struct stat64 *st, int clear, int writable);
TEVUL_API void fsutil_stat_setsymlink(struct stat64 *st, int clear,
                                      int writable);

/*
 * Makes directory `path` (with `recursive`, its missing parents too) and
 * raises its permission bits to `mode` when they are numerically lower.
 * Returns 0; -1 with errno set when mkdir, stat or chmod fails; ENAMETOOLONG
 * (positive) when recursive and path is 4097 bytes or longer.
 */
TEVUL_API int fsutil_mkdir(const char *path, unsigned int mode, int recursive);

/*
 * fsutil_mkdir() on the part of `path` before its last "/". Returns 1 when
 * path holds no "/", ENAMETOOLONG when it is 4097 bytes or longer.
 */
TEVUL_API int fsutil_mkdir_forfile(const char *path, unsigned int mode,
                                   int recursive);

/*
 * Removes directory `path`; with `recursive`, everything in it first
 * (symbolic links are removed, never followed). Returns 0; -1 with errno set
 * when rmdir or unlink fails; ENOENT when recursive and the directory cannot
 * be opened. Work done before a failure stays done.
 */
TEVUL_API int fsutil_rmdir(const char *path, int recursive);

/* The last component of `s`: a pointer just past its last "/", "." for NULL
 * or empty, NULL when s holds no "/". */
TEVUL_API const char *fsutil_basename(const char *s);

/* The number of bytes before the first "/" or the end of `s`; 0 for NULL. */
TEVUL_API size_t fsutil_dentrylen(const char *s);

/* 1 when `path` after its first byte equals `name` (exact) or begins with
 * it (not exact), else 0 (also when either is NULL). No component boundary
 * is required. */
TEVUL_API int fsutil_prefix_match(const char *path, const char *name,
                                  int exact);

/* 1 when the first n bytes of `name` and of `path` after its first byte are
 * equal, else 0 (also when either is NULL). */
TEVUL_API int fsutil_prefix_match_len(const char *path, const char *name,
                                      size_t n);

/* 1 when `s` ends with `suffix`; 0 also when either is NULL. */
TEVUL_API int fsutil_suffix_match(const char *s, const char *suffix);

/* 1 when `needle` occurs in `haystack`, else 0 (also when either is NULL). */
TEVUL_API int fsutil_infix_match(const char *haystack, const char *needle);

/* Replaces every occurrence of `from` in `str`, in place, by `to`. Returns 1,
 * or 0 (str untouched) when `to` is longer than `from` or any argument is
 * NULL. `from` must not be empty. */
TEVUL_API int fsutil_string_replace(char *str, const char *from,
                                    const char *to);

/* ------------------------------------------------------------------------ */
/* Mount and limits                                                          */
/* ------------------------------------------------------------------------ */

/*
 * The longest tag name the tag file system accepts is one byte less than
 * this (key TAG_NAME_MAX of <mount>/meta/.info/limits.txt, read on every
 * call). Returns 0 when the file system is not mounted or the limit cannot
 * be read. The limits file is read only when it is a regular file of at
 * most 64 KiB, without waiting on it; anything else at its place (a FIFO, a
 * device, a larger file) counts as no file. The same holds for the runtime
 * file /tmp/.tevu/tevu.ini.
 */
TEVUL_API int tevu_getmaxnamelen(void);

/*
 * The same for tag values (key TAG_VALUE_MAX). Returns 0 when unknown.
 */
TEVUL_API int tevu_getmaxvaluelen(void);

/* ------------------------------------------------------------------------ */
/* Bulk contexts: many files, directly in the volumes' tag databases         */
/* ------------------------------------------------------------------------ */

/*
 * A bulk context. It keeps the tag database of the current volume open
 * across files, runs the changes to one file inside one transaction, brings
 * the file's Data up to date before committing, and wakes the daemon after
 * every commit that followed a change.
 *
 * Calling order: tevu_bulk_init(); for each file tevu_bulk_setpath() and any
 * number of tag calls; optionally tevu_bulk_commit() or tevu_bulk_rollback();
 * finally tevu_bulk_fini(), which commits what is pending.
 *
 * Results: 0 for success; -1 for a bad argument or when no database is
 * open; -ENAMETOOLONG and -EFBIG for names and values that are not shorter
 * than the limits; positive values are the database layer's results (see
 * the metadb_tagdb_ functions).
 */
typedef struct tevu_bulk_ctx tevu_bulk_ctx;

/*
 * Creates a context. Reads both limits once and opens the daemon's FIFO (a
 * FIFO that cannot be opened is not a failure: the daemon is then not
 * woken). Returns NULL when the tag file system is not mounted or memory is
 * short. The caller owns the context until tevu_bulk_fini().
 *
 * Every context holds its volume's write lock from its first
 * tevu_bulk_setpath() until tevu_bulk_fini(), also when it only reads
 * (each file begins "BEGIN IMMEDIATE"); other writers, the daemon
 * included, wait meanwhile. Waits for locks of other processes never give
 * up (the busy handler retries every 10 ms for ever). A context also holds
 * the tag file system's meta directory open (without opening any of the
 * daemon's files), so that each path's volume check is one request to the
 * daemon: an unmount of the tag file system waits for the context's end, a
 * lazy unmount does not.
 */
TEVUL_API tevu_bulk_ctx *tevu_bulk_init(void);

/*
 * Makes `path` (an existing file or directory on a tagged volume, relative
 * paths and symbolic links allowed) the current file: commits the previous
 * file's changes, switches to the database of the path's volume when needed
 * and begins a transaction. Returns 0, or -1 when the context or path is
 * NULL or empty, the path does not exist, its canonical form is 4095 bytes
 * or longer (the context would have to cut it, and the tags would land on
 * another file), no tag file system is mounted, the path lies on no tagged
 * volume or its database cannot be opened.
 * A path refused before the previous file was committed (not found, too
 * long, on no tagged volume) leaves that file's changes pending: they are
 * committed by the next successful tevu_bulk_setpath(), tevu_bulk_commit()
 * or tevu_bulk_fini(). Commit first where a later failure must not keep
 * them waiting.
 */
TEVUL_API int tevu_bulk_setpath(tevu_bulk_ctx *ctx, const char *path);

/*
 * Sets tag `name` of the current file to `value` (NULL stores the empty
 * text). Returns 0, -1 (NULL context, no current file, NULL or empty name),
 * -ENAMETOOLONG (strlen(name) not below the name limit; checked first),
 * -EFBIG (strlen(value) not below the value limit), or the result of
 * metadb_tagdb_settag().
 */
TEVUL_API int tevu_bulk_settag(tevu_bulk_ctx *ctx, const char *name,
                               const char *value);

/*
 * Sets tag `name` to `value` on the current path and every row below it;
 * on a volume root, on every row of the volume. Same checks and results as
 * tevu_bulk_settag(), except that an empty name is passed on (and refused by
 * the database layer with EIO).
 */
TEVUL_API int tevu_bulk_settag_recursive(tevu_bulk_ctx *ctx, const char *name,
                                         const char *value);

/*
 * Copies the value of tag `name` of the current file into `buf` of `size`
 * bytes. Returns 0 when found, -1 otherwise (also for a NULL argument, an
 * empty name or size 0). The length limits do not apply.
 */
TEVUL_API int tevu_bulk_gettag(tevu_bulk_ctx *ctx, const char *name, char *buf,
                               unsigned int size);

/*
 * Removes tag `name` from the current file. Returns 0, -1 (NULL context, no
 * current file, NULL or empty name) or the result of metadb_tagdb_deltag().
 */
TEVUL_API int tevu_bulk_deltag(tevu_bulk_ctx *ctx, const char *name);

/*
 * Commits the current file's changes: rebuilds its Data when anything
 * changed, commits, and then wakes the daemon (only when anything changed).
 * Begins no new transaction. Returns -1 without a database, otherwise the
 * result of metadb_tagdb_transaction_commit().
 */
TEVUL_API int tevu_bulk_commit(tevu_bulk_ctx *ctx);

/*
 * Rolls the current file's changes back. Begins no new transaction: later
 * changes before the next tevu_bulk_setpath() are not inside one. Returns -1
 * without a database, otherwise the result of
 * metadb_tagdb_transaction_rollback().
 */
TEVUL_API int tevu_bulk_rollback(tevu_bulk_ctx *ctx);

/*
 * Commits what is pending, closes the database and the FIFO and frees the
 * context. NULL is ignored.
 */
TEVUL_API void tevu_bulk_fini(tevu_bulk_ctx *ctx);

/* ------------------------------------------------------------------------ */
/* Event trigger: waking the daemon through its FIFO                         */
/* ------------------------------------------------------------------------ */

/*
 * Opens the daemon's FIFO "/tmp/.tevu/<name>/action_trigger" (name is the
 * mount point, so the path holds a doubled slash). Returns a descriptor
 * greater than 0; 0 when nothing is at the path; -1 (errno set) when
 * something is there that cannot serve as the FIFO: a FIFO that cannot be
 * opened, or anything that is no FIFO (a directory, a regular file, a
 * device, a link to one of them: never opened, so no wake-up byte can
 * overwrite a file). Only a result greater than 0 is a trigger.
 */
TEVUL_API int event_trigger_init(const char *name);

/*
 * Wakes the daemon: writes one zero byte to `fd` when it is greater than 0.
 * Never blocks; a full FIFO drops the wake-up.
 */
TEVUL_API void event_trigger(int fd);

/*
 * Closes `fd` when it is greater than 0.
 */
TEVUL_API void event_trigger_fini(int fd);

/* ======================================================================== */
/* Extensions                                                                */
/*                                                                           */
/* Functions beyond the daemon's interface. They only add information: no    */
/* result of a function above depends on whether they are called.            */
/* ======================================================================== */

/*
 * Whether every COMMIT of the context reached the database. The functions
 * above report a COMMIT that the database refused (a full disk under the
 * volume's database, an I/O error) as success, as the daemon's interface
 * always has; those changes are lost. This tells a caller that it happened.
 * Counts the COMMITs of tevu_bulk_commit(), of tevu_bulk_setpath() (the
 * previous file's) and of a switch to another volume; a COMMIT issued with
 * no transaction open is not one.
 * Returns -1 for a NULL context; 0 while every COMMIT reached the database;
 * otherwise the positive errno of the first that did not (ENOSPC for a full
 * file system, EIO for an I/O error, the SQLite-to-errno mapping of the
 * metadb_tagdb_ functions otherwise), kept until tevu_bulk_fini(). Check it
 * after a tevu_bulk_commit() to know whether that file's tags were stored.
 */
TEVUL_API int tevu_bulk_error(const tevu_bulk_ctx *ctx);

/*
 * The mount point of the tag file system as every function of the library
 * finds it (the first /etc/mtab entry whose type begins with "fuse" and
 * whose source begins with "tevu", looked up once per process and kept), or
 * NULL when none is mounted. The string belongs to the library.
 */
TEVUL_API const char *tevu_mount_point(void);

/*
 * Read-only queries, straight from the volumes' tag databases. Each opens
 * connections of its own (no shared cache, so a bulk context of another
 * thread never stands in the way), begins no transaction, writes to no
 * database and never touches the daemon's FIFO. A database left with a hot
 * journal by a writer that died inside its transaction is rolled back first,
 * as any of the daemon's connections would. Rows are copied out before a
 * callback runs, so no lock is held during the caller's code; locks of
 * other processes and threads are waited out as elsewhere. A lock held by a
 * connection of the calling thread itself (its own bulk context in the
 * middle of a large transaction) would never end: the query returns EDEADLK
 * at once instead.
 *
 * No volume is passed over in silence. A volume whose database cannot be
 * opened or read (missing, not a database, without the table Meta, locked
 * by the calling thread) and a tag file system that cannot be listed make
 * the call return that errno, after every other volume was walked, so that
 * the caller still gets what can be read; tevu_query_failure() names them.
 * The volumes' database links are read before the first database is, so a
 * tag file system unmounted or restarted in the middle of a walk loses none
 * of them. A crafted table cannot steer the walks: every row comes once,
 * whatever columns the table has (one named "rowid", "oid" or "_rowid_",
 * as many tag columns as SQLite allows), or the volume fails with EIO.
 *
 * A callback returns 0 to go on and anything else to stop; the walk then
 * returns that value. Strings handed to it are valid only during the call.
 *
 * Results: 0 when the walk ended; the callback's non-zero value when it
 * stopped the walk; ENOENT when no tag file system is mounted or an
 * argument is NULL or empty; ENOMEM when memory ran short; otherwise a
 * positive errno.
 */
typedef int (*tevu_tag_cb)(void *user, const char *name, const char *value);
typedef int (*tevu_file_cb)(void *user, const char *path);

/*
 * Calls `cb` with every tag of the file at `path` (made canonical; it must
 * exist), in the column order of its volume's database: each name without
 * the leading "." of its column, each value as stored (not the encoded Data
 * list: values with "|", "/" or line feeds come back whole). A file without
 * tags gives no call. ENOENT also for a file that lies on no tagged volume.
 */
TEVUL_API int tevu_file_tags(const char *path, tevu_tag_cb cb, void *user);

/*
 * Calls `cb` with the absolute path ("/<volume>/" and the stored path) of
 * every file, on every tagged volume, whose tag `name` equals `value`
 * (ignoring the case of ASCII letters, as the tag column compares), or that
 * carries the tag at all when `value` is NULL. The search by value uses the
 * tag column's index. A tag that no file ever carried gives no call. A name
 * holding a double quote gives EINVAL (it is never put into a statement).
 * Files come in the order of the volume links, and within a volume in the
 * order their rows were made.
 */
TEVUL_API int tevu_find_files(const char *name, const char *value,
                              tevu_file_cb cb, void *user);

/*
 * One tagged file of tevu_tagged_files(): its absolute path and its `count`
 * tags, names[i] = values[i] (names without the leading "." of their
 * column, values as stored), in the column order of its volume's database.
 */
typedef int (*tevu_row_cb)(void *user, const char *path, size_t count,
                           const char *const *names,
                           const char *const *values);

/*
 * Calls `cb` once with every file that carries at least one tag: on every
 * tagged volume when `dir` is NULL, otherwise the file or directory `dir`
 * (made canonical; it must exist) and every file below it on its volume.
 * Files vanished from the disk are included: only the database is read.
 * Paths below `dir` are matched literally ("*", "?" and "[" in them match
 * only themselves). Files come in the order of the volume links, and within
 * a volume in the order their rows were made. ENOENT also for an empty
 * `dir` and for a `dir` that lies on no tagged volume.
 */
TEVUL_API int tevu_tagged_files(const char *dir, tevu_row_cb cb, void *user);

/*
 * Like tevu_tagged_files() for the file or directory `path` taken as it is
 * written, which need not exist (a tree already deleted or moved on the
 * disk): an absolute path, repeated and trailing slashes ignored, without
 * "." or ".." components (EINVAL; make it canonical first). A volume's
 * root stands for every file of the volume. ENOENT also for a path on no
 * tagged volume.
 */
TEVUL_API int tevu_tagged_below(const char *path, tevu_row_cb cb, void *user);

/*
 * The tags of many files, through read-only connections kept between
 * calls: open a reader once, ask for the tags of any number of files on any
 * volumes, close it. Each volume is looked up and its database opened the
 * first time one of its files is asked for; after that a file costs its
 * realpath() and one row read, in a read transaction of its own
 * (tevu_reader_file_tags()) or shared by many (tevu_reader_files()). The
 * guarantees are the queries' (no write
 * lock, rows copied out before a callback, hot journals rolled back, no
 * wait for a lock of the calling thread, a volume that cannot be read
 * reported and named by tevu_query_failure()). A reader is used by one
 * thread at a time.
 * What it holds: between calls, an open connection to the database of
 * every volume it has met, and where each volume's root and database were
 * found. Each call first looks again at the volumes met (the meta
 * directory's links, and the database file's identity): a volume whose
 * links were removed, whose database link changed, or whose disk or
 * database was replaced is forgotten, its connection closed, and its
 * files looked up afresh. A disk whose database lies on it cannot be
 * unmounted while a reader that met it is open (umount says EBUSY): close
 * a reader when a disk may be unplugged (a long-lived application: when
 * the mount table changes, or after each batch of work).
 */
typedef struct tevu_reader tevu_reader;

/* Returns a new reader, or NULL when no tag file system is mounted or
 * memory is short. */
TEVUL_API tevu_reader *tevu_reader_open(void);

/* tevu_file_tags() of `path` through the reader, with the same results
 * (ENOENT also for a NULL reader). */
TEVUL_API int tevu_reader_file_tags(tevu_reader *reader, const char *path,
                                    tevu_tag_cb cb, void *user);

/*
 * One file of tevu_reader_files(): its index in the caller's array, 0 or
 * the errno for which its tags could not be read (as
 * tevu_reader_file_tags() gives it), and its `count` tags as tevu_row_cb
 * has them (none when it carries no tag or could not be read). Returns 0
 * to go on, anything else to stop.
 */
typedef int (*tevu_reader_cb)(void *user, size_t index, int error,
                              size_t count, const char *const *names,
                              const char *const *values);

/*
 * The tags of the `count` files `paths`, handed to `cb` one by one in the
 * order given, each with its own result. Up to 256 files at a time are
 * made canonical and then read in one read transaction per volume, so that
 * a file costs its realpath() and one row read, without a transaction of
 * its own; the transaction ends before `cb` runs, so a writer waits at most
 * for one such batch. Returns 0 when every file was handed to `cb`, the
 * callback's value when it stopped, ENOENT for a NULL reader or `cb` (or
 * NULL `paths` with a count), ENOMEM when memory is short (the files of the
 * batch not yet handed on are not).
 */
TEVUL_API int tevu_reader_files(tevu_reader *reader, const char *const *paths,
                                size_t count, tevu_reader_cb cb, void *user);

/* Closes the reader's connections and frees it. NULL is ignored. */
TEVUL_API void tevu_reader_close(tevu_reader *reader);

/*
 * A tag name or value with the number of files that carry it. Returns 0
 * to go on, anything else to stop.
 */
typedef int (*tevu_count_cb)(void *user, const char *text,
                             unsigned long count);

/*
 * Every tag name with the number of files that carry it: on every tagged
 * volume when `under` is NULL, otherwise below the literal path `under`
 * (as tevu_tagged_below() takes it; a volume's root is the whole volume).
 * Names that differ only in the case of ASCII letters are one name (one
 * column), counted together and given in the spelling that sorts first.
 * The names come sorted, letter case ignored. Each count is read through
 * the tag column's index; tags without one (a crafted or an old table) are
 * counted together, in one read of the table per 500 of them. Results as
 * the other queries.
 */
TEVUL_API int tevu_tag_names(const char *under, tevu_count_cb cb, void *user);

/*
 * Every value of tag `name` with the number of files that carry it, as
 * tevu_tag_names() counts names: values that differ only in the case of
 * ASCII letters are one value (the tag column compares so), sorted, letter
 * case ignored. EINVAL for a name holding a double quote.
 */
TEVUL_API int tevu_tag_values(const char *name, const char *under,
                              tevu_count_cb cb, void *user);

/*
 * Calls `cb` with the absolute path of every file, on every tagged volume
 * (or below the literal path `under`, as tevu_tagged_below() takes it),
 * that satisfies `condition`:
 *
 *   NAME              the file carries tag NAME
 *   NAME = VALUE      its value is VALUE (letter case ignored, as the tag
 *                     column compares; the column's index serves it)
 *   NAME != VALUE     it carries NAME with another value
 *   NAME < VALUE      also <=, >, >=: as the tag column compares text
 *
 * With a number as VALUE (decimal, optionally signed, with a fraction or an
 * exponent of any size), every operator compares numbers, exactly and of
 * any size, and only a stored value that is a number matches: "size=100"
 * finds 100, 1e2 and 100.0; "rating>4" finds 5 and 1e400, never "unrated"
 * nor an empty value; "rating!=5" finds 4 and 6, never "unrated";
 * 9223372036854775808 > 9223372036854775807, 1e309 > 1e308. Such a
 * comparison reads every row of a volume (the column's index orders text).
 * A quoted number ('5') is a number too; words compare as text.
 *   not C, C and C, C or C, ( C )
 *                     "not" binds tightest, then "and", then "or"; the
 *                     keywords may be written in any letter case
 *
 * NAME and VALUE are words (anything up to a blank or one of ( ) = ! < >
 * and quotes) or quoted with '...' or "..." (a backslash takes the next
 * character as it is). A name that a volume has no column for is false
 * there, so "not NAME" holds for every file of that volume. The condition
 * is parsed once; every name is checked against each volume's columns and
 * every value is bound, never put into a statement's text.
 * A condition holds at most 128 terms (NAME, NAME op VALUE) and at most 16
 * levels of parentheses and "not"; the search runs within a 128 KiB thread
 * stack at both bounds.
 * Results as tevu_find_files(), and EINVAL for a condition that does not
 * parse, with the byte offset of the fault in *error_offset (the offset of
 * its end when it stops too early, of the term or level too many past a
 * bound; error_offset may be NULL). A name holding a double quote is such a
 * fault.
 */
TEVUL_API int tevu_find_where(const char *condition, const char *under,
                              tevu_file_cb cb, void *user,
                              size_t *error_offset);

/*
 * Like tevu_find_where(), but hands `cb` each file that satisfies
 * `condition` with all its tags, as tevu_tagged_files() does: read with the
 * search itself, through one connection per volume.
 */
TEVUL_API int tevu_find_rows_where(const char *condition, const char *under,
                                   tevu_row_cb cb, void *user,
                                   size_t *error_offset);

/*
 * What the calling thread's last query (tevu_file_tags(), tevu_find_files(),
 * tevu_tagged_files(), tevu_tagged_below(), tevu_reader_file_tags(),
 * tevu_reader_files(), tevu_tag_names(), tevu_tag_values(), tevu_find_where(),
 * tevu_find_rows_where()) or change of a tag everywhere (tevu_rename_tag(),
 * tevu_delete_tag()) could not read or change: the errno of its `index`-th
 * failure (counted from 0, at most 8 are kept), or 0 when there are not
 * that many.
 * When `volume` is not NULL, the root of the volume that failed ("/mnt"),
 * or the meta directory when the volumes could not be listed, is copied
 * into it (size bytes, cut to fit, terminated).
 */
TEVUL_API int tevu_query_failure(unsigned index, char *volume, size_t size);

/*
 * How many volumes (or listings) the calling thread's last query or change
 * everywhere could not read or change, also beyond the 8 that
 * tevu_query_failure() keeps; a volume that failed twice in one call counts
 * once.
 */
TEVUL_API unsigned tevu_query_failure_count(void);

/*
 * Makes the tags of `src` and of everything below it follow a move to `dst`
 * (absolute paths; repeated and trailing slashes are ignored), and says
 * whether it happened. Unlike tevu_move(), it never reports success while a
 * tag was lost or left behind:
 *   - within one volume the rows are renamed in one transaction; where the
 *     destination already has rows, the source rows are merged into them
 *     (a tag the source carries wins, the destination's other tags stay)
 *     and then deleted, in the same transaction;
 *   - across volumes every row of the tree is copied into the destination's
 *     database with every tag that is set, merged the same way into rows
 *     already there, with Data rebuilt for every row written; that database
 *     is committed and the COMMIT checked, and only then are the source rows
 *     deleted and that COMMIT checked too;
 *   - to a place on no tagged volume, the source rows are deleted.
 * The daemon is woken once for each database changed.
 * Returns 0 when every tag of the tree stands at `dst` and none at `src`
 * (also when nothing below `src` was tagged, and when src and dst are the
 * same); otherwise a positive errno and every tag still at `src` (some may
 * already stand at `dst` too): ENOSPC for a full file system, EDEADLK when
 * a database is locked by the calling thread itself, EIO for a tag whose
 * column cannot be made at the destination or a database that cannot be
 * opened, EBADF for a database file that is no SQLite database, ENOENT
 * when no tag file system is mounted or `src` lies on no tagged volume,
 * EINVAL for a path that is NULL, relative or holds a "." or
 * ".." component (make it canonical first), for a volume root as either
 * path, and for a tree moved into itself; ENAMETOOLONG for a path of 4096
 * bytes or more. Running it again after any failure or interruption
 * converges: the tags already copied are merged once more, so that a tag
 * of the tree changed at `dst` in between takes the value it has at `src`
 * again (the source's tags win, as in every merge).
 */
TEVUL_API int tevu_move_checked(const char *src, const char *dst);

/*
 * Deletes the rows of `path` and of everything below it (a literal path as
 * tevu_tagged_below() takes it; a volume's root deletes every row of the
 * volume), commits, checks the COMMIT and wakes the daemon when anything
 * changed. Returns 0, or a positive errno with nothing deleted: ENOSPC for
 * a full file system, EINVAL and ENAMETOOLONG for a path it does not take,
 * ENOENT when nothing is mounted or the path lies on no tagged volume, EIO
 * when the database cannot be opened, EBADF when its file is no SQLite
 * database.
 */
TEVUL_API int tevu_delete_checked(const char *path);

/*
 * Renames tag `old_name` to `new_name` on every file of every volume: each
 * file that carries the old name gets the new one with the same value and
 * loses the old one; Data is rebuilt. Files that vanished from the disk are
 * included (only the databases are read). Every volume is read first: when
 * one cannot be read, or when a file carries both names and `merge` is 0,
 * nothing is changed anywhere (EEXIST, with the number of such files in
 * *kept). With `merge`, files that carry both names keep the new name's
 * value and lose the old name (*kept counts them). Then each volume
 * changes in a checked transaction of its own and the daemon is woken once
 * per volume changed; *renamed counts the files that lost the old name
 * (those that carried both among them). A file that carries only the new name keeps it, so
 * that a rename that was interrupted finishes when run again.
 * Returns 0, ENOENT for a NULL or empty name or when nothing is mounted,
 * EINVAL for names that hold a double quote or differ only in letter case
 * (one column), EEXIST as above, EIO when the new name's column cannot be
 * made, otherwise the errno of a volume that failed (the others are done;
 * tevu_query_failure() names it). renamed and kept may be NULL.
 */
TEVUL_API int tevu_rename_tag(const char *old_name, const char *new_name,
                              int merge, unsigned long *renamed,
                              unsigned long *kept);

/*
 * Removes tag `name` from every file of every volume, each volume in a
 * checked transaction of its own, Data rebuilt; *removed (may be NULL)
 * counts the files. Results as tevu_rename_tag() (no EEXIST).
 */
TEVUL_API int tevu_delete_tag(const char *name, unsigned long *removed);

/*
 * Renames value `old_value` of tag `name` to `new_value` on every file of
 * every volume (vanished files included): each file whose value equals
 * `old_value` (letter case ignored, as the tag column compares) gets
 * `new_value`, backslashes stripped as every set strips them. Renaming a
 * value to one that other files carry already merges the two. Every volume
 * is read first, and when one cannot be read nothing changes anywhere;
 * then each volume changes in a checked transaction of its own, Data
 * rebuilt, the daemon woken once per volume changed. With `dry_run`
 * nothing changes. *renamed (may be NULL) counts the files (that would
 * be) renamed. Results as tevu_rename_tag() (no EEXIST); ENOENT also for a
 * NULL value.
 */
TEVUL_API int tevu_rename_value(const char *name, const char *old_value,
                                const char *new_value, int dry_run,
                                unsigned long *renamed);

/* ------------------------------------------------------------------------ */
/* Extensions: tags that follow files moved by any program                   */
/* ------------------------------------------------------------------------ */

/*
 * Fingerprints. While a file is tagged, the repair and the watcher keep its
 * fingerprint: whether it is a file or a directory, its size (files only)
 * and its modification time to the nanosecond, which a rename, coreutils
 * `mv` and Samba keep. They live in a database of their own beside each
 * volume's tag database (its file name with ".fingerprints" appended); the
 * tag databases keep exactly the daemon's tables, columns and rows. Inode
 * numbers are not used: they are not stable on FAT.
 */

/* What tevu_repair() found for one tagged row whose file is gone. */
enum {
  TEVU_REPAIR_MOVED = 1,     /* the file it became: `to` (of `candidates`);
                                the tags moved there (or would, in a dry
                                run) */
  TEVU_REPAIR_AMBIGUOUS = 2, /* `candidates` files match; left alone */
  TEVU_REPAIR_UNMATCHED = 3, /* no file matches, or no fingerprint was ever
                                kept for it; left alone */
  TEVU_REPAIR_FAILED = 4     /* the move to `to` failed with `error`; every
                                tag is still at `from` */
};

/*
 * One finding of tevu_repair(): `from` is the row's absolute path, `to` the
 * file it became (NULL unless kind is TEVU_REPAIR_MOVED or
 * TEVU_REPAIR_FAILED). Strings are valid only during the call. Returns 0
 * to go on, anything else to stop the repair (which then returns it).
 */
typedef int (*tevu_repair_cb)(void *user, int kind, const char *from,
                              const char *to, unsigned long candidates,
                              int error);

/* The counts of one tevu_repair(): rows whose file was found in place,
 * rows moved (or that would move), ambiguous, unmatched, failed. */
struct tevu_repair_counts {
  unsigned long in_place;
  unsigned long moved;
  unsigned long ambiguous;
  unsigned long unmatched;
  unsigned long failed;
};

/*
 * Finds where the files of tagged rows went while no watcher ran, and moves
 * their tags there. For every row below `dir` (an existing directory or
 * file on a tagged volume, made canonical; NULL: every row of every
 * volume) whose file is still there, the fingerprint is recorded. For every
 * row whose file is gone, every file and directory of the same volume (the
 * volume's own file system only, without following links) is compared with
 * the fingerprint kept for the row; a file that carries tags of its own is
 * no candidate. The tags move (tevu_move_checked(), whose rules hold) only
 * to a file that is decided: the only candidate, or of several the only one
 * with the row's own file name (files written together may share a size
 * and, on coarse clocks and FAT, a time; a moved tree keeps its names), and
 * that no other row decided on too; ambiguous and unmatched rows are handed
 * to `cb` and never guessed. The decided rows move up to 256 at a time in
 * one transaction of the tag database; a batch that cannot be made is moved
 * row by row, so that only a row that fails alone is reported. A stop by
 * `cb` takes effect after the moves already made, each of which is still
 * handed to `cb`. With
 * `dry_run` nothing changes anywhere, fingerprints included.
 * Memory: at most 4096 rows whose file is gone, holding at most 1 MiB of
 * paths, are matched per walk of the volume (more take more walks), and
 * the absolute paths of 256 moves are held at a time.
 * `cb` and `counts` may be NULL.
 * Returns 0 when every volume concerned was read and every move that was
 * found succeeded (ambiguous and unmatched rows are not failures; the
 * counts say them); the callback's value when it stopped; ENOENT when
 * nothing is mounted or `dir` lies on no tagged volume or does not exist;
 * EIO for a tag database that cannot be read (tevu_query_failure() names
 * the volumes), the errno of the first failed move otherwise, or of a
 * fingerprint database that cannot be written (tags are never touched
 * without one).
 */
TEVUL_API int tevu_repair(const char *dir, int dry_run, tevu_repair_cb cb,
                          void *user, struct tevu_repair_counts *counts);

/*
 * A watcher: follows the tagged volumes through the kernel's inotify
 * interface and makes the tags follow every move and deletion, whoever
 * makes it. It starts no thread: the caller polls one descriptor
 * (tevu_watch_fd(), readable when there is work) in its own event loop and
 * calls tevu_watch_process(), which does the pending work without waiting
 * and says how long the caller may sleep before a deferred decision is due.
 * Between calls the watcher holds no database and no file of a volume open
 * (a disk can be unmounted), only its inotify watches.
 *
 * What it follows, on the volumes' own file systems (a file system mounted
 * below a volume and the tag file system's mount are not entered):
 *   - a rename or move within a volume, of a file or a tree, at any depth,
 *     also into directories created after the start: the rows of the file
 *     or tree take the new path (tevu_move_checked()), within the call that
 *     sees the rename;
 *   - a rename over an existing file: it keeps its tags; a tagged file
 *     renamed over it brings its tags, merged in as tevu_move_checked()
 *     merges;
 *   - a copy onto another place followed by the unlink of the source (`mv`
 *     across file systems, Samba): the tags go to the copy when it is
 *     recognised (same name and, when a fingerprint was kept, same size;
 *     written before the source's unlink; of several, the one whose path
 *     ends most like the source's, and only when that one is unique);
 *   - a tagged file or tree deleted (or moved where nothing watches): its
 *     rows are dropped only when the path has not come back within the
 *     grace period; a program that unlinks and re-creates a file keeps the
 *     tags;
 *   - a volume mounted (its link in the meta directory, its file system in
 *     the mount table) or removed while watching: taken up or released.
 *     Nothing of a volume whose disk went away is taken for deleted.
 * Files without rows cost one read of the database's index and no write.
 * The tag databases' own files and the fingerprint databases are never
 * taken for a user's file.
 *
 * Nothing is lost in silence: an overflow of the kernel's event queue
 * rebuilds the watches and repairs every volume (tevu_repair()'s rules); a
 * directory that cannot be watched (the per-user limit
 * fs.inotify.max_user_watches) is counted, reported and its volume
 * repaired every 15 minutes while it stays unwatched; the watcher repairs
 * every volume when it starts, so that moves made while none ran are found.
 *
 * Memory: about 70 bytes per watched directory (and the kernel's own, about
 * 1 KiB per watch on 64-bit systems, half that on 32-bit ones); besides
 * that a fixed amount: the 64 KiB event buffer, at most 4096 recent
 * arrivals holding at most 512 KiB of paths, at most 1000 renames waiting
 * for one transaction, and the repair's bound (tevu_repair()). Deletions
 * waiting for their grace period take their path each; a tree's deletion
 * replaces those below it.
 */
typedef struct tevu_watch tevu_watch;

/* What a watcher reports to its callback. */
enum {
  TEVU_WATCH_MOVED = 1,     /* the tags of `from` (and below) now stand at
                               `to`; count: 0 after a rename seen, 1 after
                               a recognised copy, 2 found by a repair */
  TEVU_WATCH_DELETED,       /* the rows of `from` and below were dropped */
  TEVU_WATCH_FAILED,        /* following `from` (to `to`, or NULL for a
                               deletion) failed with `error`; every tag is
                               still at `from`; a repair finishes it */
  TEVU_WATCH_VOLUME_ADDED,  /* the volume `from` is watched */
  TEVU_WATCH_VOLUME_REMOVED,/* the volume `from` is no longer watched */
  TEVU_WATCH_OVERFLOW,      /* the kernel's queue overflowed: events were
                               lost; the watches are rebuilt and every
                               volume repaired */
  TEVU_WATCH_UNWATCHED,     /* `count` directories cannot be watched
                               (`error` ENOSPC: raise the limit
                               fs.inotify.max_user_watches) */
  TEVU_WATCH_AMBIGUOUS,     /* a repair found `count` candidates for `from` */
  TEVU_WATCH_UNMATCHED      /* a repair found no file for `from` */
};

/* One report of a watcher; strings are valid only during the call. */
typedef void (*tevu_watch_cb)(void *user, int event, const char *from,
                              const char *to, int error, unsigned long count);

/*
 * Starts watching every tagged volume (`count` 0) or the `count`
 * directories `dirs` (each an existing directory on a tagged volume, made
 * canonical) and everything below them. `grace_ms` is the grace period of
 * a deletion (0: 5000 ms). `cb` (may be NULL) receives the reports.
 * Returns the watcher, or NULL with errno set: ENOENT when nothing is
 * mounted or a directory lies on no tagged volume, ENOTDIR, EMFILE when no
 * inotify instance can be had, ENOMEM. Call tevu_watch_process() once
 * right away: it runs the start's repair.
 */
TEVUL_API tevu_watch *tevu_watch_open(const char *const *dirs, size_t count,
                                      unsigned grace_ms, tevu_watch_cb cb,
                                      void *user);

/* The descriptor to poll for reading (an epoll descriptor; -1 for NULL). */
TEVUL_API int tevu_watch_fd(const tevu_watch *watch);

/*
 * Does what is pending: reads the events, follows moves, drops the rows of
 * deletions whose grace period ended, takes volumes up and releases them,
 * repairs. Never waits for an event. Sets *timeout_ms (may be NULL) to how
 * long the caller may sleep before calling again when the descriptor stays
 * quiet: -1 when nothing is deferred. Returns 0, or the errno of the first
 * move or deletion that failed in this call (reported to the callback too;
 * the watcher goes on), EINVAL for NULL.
 */
TEVUL_API int tevu_watch_process(tevu_watch *watch, int *timeout_ms);

/* Asks for a repair of every watched volume and a new look at the volumes
 * in the next tevu_watch_process() (which runs at once: the timeout becomes
 * 0). Safe to call only from the watcher's thread, not from a signal
 * handler. */
TEVUL_API void tevu_watch_repair(tevu_watch *watch);

/* The numbers of directories watched, volumes watched and directories that
 * could not be watched. Any pointer may be NULL. */
TEVUL_API void tevu_watch_counts(const tevu_watch *watch, unsigned long *dirs,
                                 unsigned long *volumes,
                                 unsigned long *unwatched);

/* Stops watching and frees the watcher; deletions still in their grace
 * period are not made (their rows stay, and a later repair or cleanup sees
 * them). NULL is ignored. */
TEVUL_API void tevu_watch_close(tevu_watch *watch);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* TEVUL_H */
