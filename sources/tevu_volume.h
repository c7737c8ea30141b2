// Mount and volume discovery.
//
// Answers, from the daemon's files, where the tag file system is mounted
// ("/etc/mtab"), how long tag names and values may be (the limits file
// <mount>/meta/.info/limits.txt), and which volume and tag database hold a
// given absolute path (the links <mount>/meta/<name> and <name>@@db, with
// the runtime file "/tmp/.tevu/tevu.ini" as fallback). The mount point and
// the meta directory are process-wide caches filled by the first successful
// lookup and never invalidated: a file system remounted elsewhere while the
// process runs is not noticed.
#ifndef TEVUL_TEVU_VOLUME_H
#define TEVUL_TEVU_VOLUME_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "common.h"
#include "tevul.h"

// Where a volume's tag database is and which path prefix the volume has.
// (The record of the daemon's interface: its name and layout stay.)
struct tevu_volume {
  char db_path[tevul::kPathSize];  // target of the link <meta>/<name>@@db
  char prefix[tevul::kPathSize];   // "/<name>/" or "<root>/", ending in "/"
  int32_t prefix_len;              // as the formatting call returned it
};

// The mount point of the tag file system: the mount directory of the first
// "/etc/mtab" entry whose type begins with "fuse" and whose source begins
// with "tevu" (4-byte prefix tests, deliberately). Returns a process-wide
// string that callers must not free, or NULL when none is mounted (a failed
// lookup is tried again by the next call). Safe from several threads.
const char* tevu_find_mount();

// The limit `key` of the limits file, or 0 when it cannot be had (no mount,
// no file, no such line before a malformed one, a value with anything but
// decimal digits).
int32_t tevu_get_limit(const char* key);

// Reads the volume root (the second ":"-separated field of the first line of
// the runtime file) into `dst` of tevul::kPathSize bytes. Returns 1 when a line
// was read (dst may be empty when the line had only its first field), 0
// otherwise.
int tevu_read_ini(char* dst);

// Fills `vol` for the volume holding the absolute path `path`. Returns 1 when
// db_path, prefix and prefix_len were filled, 0 otherwise (prefix and
// prefix_len may have been written already).
int tevu_locate_volume(tevu_volume* vol, const char* path);

// The scan behind tevu_locate_volume(); same arguments and results.
int tevu_match_volume(tevu_volume* vol, const char* path);

namespace tevul {

// A process-wide cache of the meta directory "<mount>/meta": empty until
// its first fill, never changed after it.
struct meta_dir_cache {
  std::atomic<bool> filled{false};
  char path[kPathSize];
};

// Fills `cache` with "<mount>/meta" unless it is filled already. Only the
// first fills take a lock (threads that get there together fill it one
// after the other, so that none reads a half-written text); later calls
// only read the flag.
void fill_meta_dir(meta_dir_cache* cache, const char* mount);

// The scan behind tevu_get_limit(): reads key=value lines from `file` up to
// the first line whose key is `key` and returns its value by the same rules.
int32_t scan_limit(FILE* file, const char* key);

// The scan behind tevu_read_ini(): reads the first line of `file`, with the
// same result and the same `dst`.
int scan_ini(FILE* file, char* dst);

// Finds the volume link of `path` in `meta_dir`: the symbolic link named
// after the path's first component N ("/N" or "/N/..."), the only name that
// can match, with one lstat() of "<meta_dir>/N" instead of a read of the
// whole directory (a directory or file of that name is no volume link).
// Returns 1 and copies N into `name` (256 bytes) when found, 0 when there
// is none, -1 when the meta directory itself cannot be reached.
// With `meta_fd` (the meta directory held open, or -1) the entry is looked
// up relative to it: one request to the daemon instead of one for each
// component of the meta directory's path; a descriptor that no longer
// reaches the daemon (the tag file system restarted) falls back to the path.
int find_volume_link(const char* meta_dir, int meta_fd, const char* path, char* name);

// Calls visit(user, N, db_file) for every volume link N of `meta_dir` (a
// symbolic link, in the order the directory yields them), with db_file the
// path of N's database link "<meta_dir>/N@@db". The "N@@db" links are
// visited too; the name they form ("N@@db@@db") names no file. Stops at the
// first non-zero result of visit. Returns false when the directory cannot be
// opened (nothing is visited), true otherwise.
bool each_volume(const char* meta_dir,
                 int (*visit)(void* user, const char* name, const char* db_file),
                 void* user);

// `path`, which lies on `vol`, with the volume's prefix skipped: the path as
// the volume's database stores it. A volume root given without its final
// "/" gives the empty string, the whole volume. Nothing past the terminator
// of `path` is read.
const char* volume_relative(const tevu_volume* vol, const char* path);

// True when the runtime file exists, yields a root (copied into `root`,
// kPathSize bytes) and `path` lies under it (root_matches()): the fallback
// of both volume checks, the volume module's and the bulk context's.
bool runtime_root_holds(const char* path, char* root);

// True when `path` lies under the volume root `root` of the runtime file:
// equal after the first byte of each (the first bytes are deliberately not
// compared), followed by "/" or the end. An empty root matches nothing.
bool root_matches(const char* root, const char* path);

// Opens the directory `rel` (a relative path) beneath the directory `base`
// into *dir, and its path (`base`, then the components walked, links
// resolved) into `resolved` (kPathSize bytes), resolving and using in one
// step: every component is opened from the descriptor of the directory
// reached so far, never following a link (O_NOFOLLOW); a link met on the
// way is read and resolved here, its ".." within the walk's own stack of
// descriptors, and an absolute one only when it names a place below
// `base`. Whatever is swapped for a link at any moment, nothing outside
// `base` is reached. With `make_missing`, a missing directory is made
// (mkdirat(), mode `mode`) before it is entered. Returns 0; EINVAL when the
// path or a link leads out of `base`; ELOOP after 40 links; ENAMETOOLONG;
// ENOMEM; otherwise the errno of the failing open or mkdirat (ENOENT,
// ENOTDIR, ...).
// `base_fd`, when not -1, is `base` already open (its descriptor is used,
// not the path).
int open_dir_beneath(int base_fd, const char* base, const char* rel, bool make_missing,
                     unsigned mode, unique_fd* dir, char* resolved);

}  // namespace tevul

#endif  // TEVUL_TEVU_VOLUME_H
