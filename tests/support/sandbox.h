// The library's real setting, built privately for one process.
//
// The library reads fixed paths ("/etc/mtab", "/tmp/.tevu/tevu.ini",
// "/tmp/.tevu/<mount>/action_trigger") and finds volumes as top-level
// directories "/<name>". A Sandbox gives the calling process a private mount
// namespace in which:
//   - /tmp and each volume directory (/mnt, /srv, ...) are fresh tmpfs
//     mounts, so nothing of the host is touched; the checkout and the build
//     tree stay reachable where they are, also when they lie below one of
//     these directories;
//   - the tag file system is a real FUSE mount (mergerfs over a backing
//     directory) at kMount, listed in /etc/mtab with source "tevu" and type
//     "fuse.mergerfs";
//   - the backing directory holds what the daemon would show: meta/ with a
//     link per volume (meta/<v> -> ../.tagfiles/<v>) and its database link
//     (meta/<v>@@db -> /<v>/.tags.db), meta/.info/limits.txt (names up to
//     64 bytes, values up to 160), and view/.config/;
//   - each volume has a real tag database holding the table Meta;
//   - the daemon's FIFO exists, and the sandbox reads what arrives on it.
// Everything disappears with the process. Building it needs root.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace tevul_test {

class Sandbox {
 public:
  static constexpr const char* kMount = "/tmp/tevu";
  static constexpr const char* kBacking = "/tmp/tevu-backing";

  Sandbox() = default;
  ~Sandbox();
  Sandbox(const Sandbox&) = delete;
  Sandbox& operator=(const Sandbox&) = delete;

  // Why a sandbox cannot be built here ("" when it can).
  static std::string unavailable_reason();

  // Enters a private mount namespace and builds the setting with the given
  // volumes (top-level directory names that exist on the host). Without
  // `mount_tag_fs` everything is built except the FUSE mount itself.
  // Returns "" on success, otherwise what failed.
  std::string start(const std::vector<std::string>& volumes = {"mnt", "srv"},
                    bool mount_tag_fs = true);

  // Mounts another mergerfs file system over `backing` at `mount_point`
  // with the given fsname. Returns "" on success.
  std::string mount_fuse(const std::string& backing,
                         const std::string& mount_point,
                         const std::string& fsname);

  // Unmounts the tag file system (the library's cached mount point stays).
  void unmount_tag_fs();

  static std::string volume_root(const std::string& volume) { return "/" + volume; }
  static std::string db_path(const std::string& volume) { return "/" + volume + "/.tags.db"; }
  static std::string meta_backing() { return std::string(kBacking) + "/meta"; }

  // Replaces the limits file with `text`; remove_limits() deletes it.
  static void write_limits(const std::string& text);
  static void remove_limits();
  // Replaces the runtime file "/tmp/.tevu/tevu.ini".
  static void write_ini(const std::string& text);

  // Makes /etc/mtab, for this namespace only, a plain file holding `text`
  // (as on systems with a static mount table), once per process. Returns ""
  // on success.
  static std::string replace_mtab(const std::string& text);

  // Reads every byte waiting on the FIFO. Returns how many arrived, or -1 if
  // any of them was not a zero byte.
  int drain_fifo();

 private:
  std::vector<pid_t> fuse_daemons_;
  std::vector<std::string> fuse_mounts_;
  int fifo_reader_ = -1;
};

// Writes `text` to `file`, replacing it and creating its missing parent
// directories; returns false on failure.
bool write_file(const std::string& file, const std::string& text);
// Creates the tag database `file` (replacing any file there) with an empty
// table Meta, as the daemon does for a new volume. Returns "" on success, otherwise what failed.
std::string create_tag_db(const std::string& file);
// The whole content of `file` ("" when it cannot be read).
std::string read_file(const std::string& file);
// Creates `dir` and its missing parents; returns false on failure.
bool make_dirs(const std::string& dir);
// Waits for the child `pid`: its exit status, 128 + the signal that ended
// it, or -1 when it cannot be waited for.
int exit_status(pid_t pid);
// Every entry below `dir` (not following links) with its type, link target
// or content, as one text, for "nothing changed" checks.
std::string tree_snapshot(const std::string& dir);

}  // namespace tevul_test
