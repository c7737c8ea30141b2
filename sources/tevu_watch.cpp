// The watcher: tags follow files moved and deleted by any program. Exported
// as an extension (tevu_watch_*, see tevul.h).
//
// One inotify instance watches every directory of the watched trees; the
// caller polls one epoll descriptor that holds it and /proc/self/mountinfo
// (readable when the mount table changes: a disk plugged in or pulled).
// Directories are kept as a tree of nodes (watch descriptor, parent, name),
// so that a renamed directory changes one node and every path below it
// follows. Nothing runs between calls; the work of one call is bounded by
// what the kernel queued.
//
// How a user's action shows up, and what is made of it:
//   rename within the watched trees   IN_MOVED_FROM + IN_MOVED_TO with one
//                                     cookie: the rows follow at once;
//   unlink (or a move out of sight)   IN_DELETE, or a first half that finds
//                                     no second: a pending deletion, decided
//                                     when the grace period ends, unless a
//                                     copy is recognised or the path comes
//                                     back;
//   copy elsewhere, then unlink       the copy was an arrival (closed after
//                                     writing, created, moved in, found in a
//                                     new directory): the unlink finds it;
//   mount table change, IN_UNMOUNT    the volumes are looked at again.
#include "tevul.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "common.h"
#include "metadb_bulk.h"
#include "tevu_maint.h"
#include "tevu_query.h"
#include "tevu_repair.h"
#include "tevu_volume.h"

namespace tevul {
namespace {

// What the directories are watched for. IN_EXCL_UNLINK: an unlinked file
// that a program still holds open reports nothing more.
constexpr uint32_t kDirMask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO |
                              IN_CLOSE_WRITE | IN_ATTRIB | IN_ONLYDIR | IN_DONT_FOLLOW |
                              IN_EXCL_UNLINK;
// A tag database changed: rows may have been tagged since the last look.
// Only writes count: a connection that opens the file read-write and reads
// (the watcher's own, every call) must not wake it again.
constexpr uint32_t kDbMask = IN_MODIFY | IN_DONT_FOLLOW;

constexpr unsigned kDefaultGraceMs = 5000;
// How long the first half of a rename waits for its second.
constexpr int64_t kPairMs = 50;
// How long after a change of a tag database its new rows get fingerprints.
constexpr int64_t kSyncDelayMs = 1000;
// Looks at the volumes after a change of the mount table: at once, and
// again when the daemon may have made the new volume's links.
constexpr int64_t kRescanDelaysMs[] = {0, 1000, 5000};
constexpr int kRescans = sizeof kRescanDelaysMs / sizeof kRescanDelaysMs[0];
// How often a volume with unwatched directories is repaired.
constexpr int64_t kDegradedRepairMs = 15 * 60 * 1000;
// Arrivals kept for recognising copies: the newest, by count, bytes and age.
constexpr std::size_t kArrivals = 4096;
constexpr std::size_t kArrivalBytes = 512 * 1024;
constexpr int64_t kArrivalAgeMs = 10 * 60 * 1000;
// The buffer one read() of the inotify descriptor fills.
constexpr std::size_t kEventBuffer = 64 * 1024;

constexpr int64_t kNever = -1;

int64_t now_ms() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Keeps the earlier of two due times (kNever is later than any).
void earliest(int64_t* due, int64_t at) {
  if (at != kNever && (*due == kNever || at < *due)) *due = at;
}

const char* base_name(const char* path) {
  const char* slash = strrchr(path, '/');
  return slash != nullptr ? slash + 1 : path;
}

// True when `path` is `dir` or lies below it.
bool at_or_below(const char* path, const char* dir) {
  const std::size_t n = strlen(dir);
  return strncmp(path, dir, n) == 0 && (path[n] == '\0' || path[n] == '/');
}

// ---------------------------------------------------------------------------
// Watch descriptor to node: open addressing, linear probing.
class wd_map {
 public:
  ~wd_map() { std::free(slots_); }
  int find(int wd) const {
    if (capacity_ == 0) return -1;
    for (std::size_t i = hash(wd);; i = (i + 1) & (capacity_ - 1)) {
      if (slots_[i].wd == kEmpty) return -1;
      if (slots_[i].wd == wd) return slots_[i].node;
    }
  }
  bool put(int wd, int node) {
    if ((used_ + 1) * 4 > capacity_ * 3 && !grow()) return false;
    std::size_t i = hash(wd);
    for (;; i = (i + 1) & (capacity_ - 1)) {
      if (slots_[i].wd == wd) {
        slots_[i].node = node;
        return true;
      }
      if (slots_[i].wd == kEmpty || slots_[i].wd == kErased) break;
    }
    if (slots_[i].wd == kEmpty) ++used_;
    slots_[i] = slot{wd, node};
    return true;
  }
  void erase(int wd) {
    if (capacity_ == 0) return;
    for (std::size_t i = hash(wd);; i = (i + 1) & (capacity_ - 1)) {
      if (slots_[i].wd == kEmpty) return;
      if (slots_[i].wd == wd) {
        slots_[i].wd = kErased;
        return;
      }
    }
  }


 private:
  static constexpr int kEmpty = -1;
  static constexpr int kErased = -2;
  struct slot {
    int wd;
    int node;
  };
  std::size_t hash(int wd) const {
    return (static_cast<uint32_t>(wd) * 2654435761u) & (capacity_ - 1);
  }
  bool grow() {
    const std::size_t bigger = capacity_ == 0 ? 64 : capacity_ * 2;
    slot* fresh = static_cast<slot*>(std::malloc(bigger * sizeof(slot)));
    if (fresh == nullptr) return false;
    for (std::size_t i = 0; i < bigger; ++i) fresh[i].wd = kEmpty;
    slot* old = slots_;
    const std::size_t old_capacity = capacity_;
    slots_ = fresh;
    capacity_ = bigger;
    used_ = 0;
    for (std::size_t i = 0; i < old_capacity; ++i) {
      if (old[i].wd >= 0) put(old[i].wd, old[i].node);
    }
    std::free(old);
    return true;
  }

  slot* slots_ = nullptr;
  std::size_t capacity_ = 0;
  std::size_t used_ = 0;
};

// A watched directory: a root (parent -1, name its whole path) or an entry
// of its parent.
struct dir_node {
  int wd;  // -1 for a free slot
  int parent;
  int volume;
  char* name;
};

// A volume as the watcher follows it.
struct volume_state {
  char root[kPathSize];  // "/N", no final slash
  char db[kPathSize];    // the tag database, as its link names it
  char db_dir[kPathSize];  // the real directory of the database file
  char db_base[NAME_MAX + 1];  // its name: every file beginning so is the database's
  bool in_roots = false;  // a configured directory lies on it
  bool active = false;
  bool mounted = false;  // its root was a mount point when taken up
  dev_t dev = 0;
  int db_wd = -1;
  unsigned long unwatched = 0;
  bool repair_due = false;
  int64_t degraded_repair = kNever;
  int64_t sync_due = kNever;
  sqlite3_int64 synced_rowid = 0;
  // Held only during one tevu_watch_process() call.
  query_db read;
  bool read_tried = false;
  stmt_ptr any_row;   // a row at the path or below
  stmt_ptr this_row;  // a row at the path
  fingerprint_store fps;
  bool fps_tried = false;
  bool fps_in_transaction = false;
};

// A deletion waiting for its grace period.
struct pending_deletion {
  char* path;
  int volume;
  int64_t due;
};

// The first half of a rename, waiting for its second.
struct half_move {
  uint32_t cookie;
  char* path;
  int volume;
  int node;  // the node of a directory, or -1
  bool dir;
  int64_t due;
};

// A rename whose tags are still to follow: renames seen together follow in
// one transaction per volume.
struct queued_move {
  char* from;
  char* to;
  int from_volume;
  int to_volume;
};
// The most renames that follow in one transaction.
constexpr std::size_t kMovesPerTransaction = 1000;

// Removes from `items` (each with a malloc()ed `path`) those for which
// `drop(item)` holds, keeping the others in their order.
template <typename T, typename Drop>
void remove_where(array<T>& items, Drop drop) {
  std::size_t kept = 0;
  for (std::size_t i = 0; i < items.size(); ++i) {
    if (drop(items[i])) {
      std::free(items[i].path);
    } else {
      items[kept++] = items[i];
    }
  }
  items.truncate(kept);
}

// A file or directory that appeared: a copy, perhaps, of one deleted next.
struct arrival {
  char* path;
  int volume;
  bool dir;
  int64_t at;
};

}  // namespace
}  // namespace tevul

using namespace tevul;

struct tevu_watch {
  unique_fd epoll;
  unique_fd inotify;
  unique_fd mounts;
  tevu_watch_cb cb = nullptr;
  void* user = nullptr;
  int64_t grace = kDefaultGraceMs;
  bool all_volumes = false;
  text roots;  // the configured directories, each terminated
  array<volume_state*> volumes;
  array<dir_node> nodes;
  array<int> free_nodes;
  wd_map wds;
  unsigned long watched = 0;
  unsigned long unwatched_reported = 0;
  array<pending_deletion> pending;
  array<half_move> halves;
  array<queued_move> moves;
  // Arrivals, a ring of kArrivals: the oldest is at `ring_head`.
  c_ptr<arrival> ring;
  std::size_t ring_head = 0;
  std::size_t ring_count = 0;
  std::size_t ring_bytes = 0;
  bool overflow = false;
  bool repair_all = false;
  int64_t rescan[kRescans] = {kNever, kNever, kNever};
  c_ptr<char> buffer;
  int first_error = 0;

  tevu_watch() = default;
  tevu_watch(const tevu_watch&) = delete;
  tevu_watch& operator=(const tevu_watch&) = delete;
  ~tevu_watch();

  // --- reports
  void tell(int event, const char* from, const char* to, int error, unsigned long count) {
    if (cb != nullptr) cb(user, event, from, to, error, count);
  }
  void failed(const char* from, const char* to, int error) {
    if (first_error == 0) first_error = error;
    tell(TEVU_WATCH_FAILED, from, to, error, 0);
  }

  // --- nodes
  bool path_of(int node, char* out) const;
  bool child_path(int node, const char* name, char* out) const;
  int add_node(int wd, int parent, int volume, const char* name);
  void drop_node(int node, bool remove_watch);
  int find_child(int parent, const char* name) const;
  bool below(int node, int ancestor) const;
  void drop_subtree(int node);
  int watch_dir(const char* path, int parent, int volume, const char* name);
  void take_up_tree(int top, bool arrivals_too);

  // --- volumes
  int volume_of_root(const char* root) const;
  int add_volume(const char* root, const char* db);
  bool take_up(int v);
  void release(int v, bool report);
  void look_at_volumes();
  bool is_database_file(int volume, int node, const char* name) const;

  // --- databases, per call
  volume_state* db_ready(int v);
  int has_rows(int v, const char* path, bool subtree);
  fingerprint_store* fingerprints(int v);
  void refresh_fingerprint(int v, const char* path);
  void end_of_call();
  void sync_fingerprints(int v);
  void repair(int v);

  // --- events
  void read_events();
  void on_event(const inotify_event* e);
  void on_moved(half_move& half, int to_parent, const char* to_name, const char* to, int volume);
  void on_lost(const char* path, int volume, bool dir);
  void came_back(const char* path);
  void add_arrival(const char* path, int volume, bool dir);
  const char* recognised_copy(const char* lost, bool dir, const fingerprint* fp) const;
  bool follow(const char* from, const char* to, int from_volume, unsigned long how);
  void queue_move(const char* from, const char* to, int from_volume, int to_volume);
  void follow_many(std::size_t first, std::size_t end);
  void flush_moves();
  void settle_halves(int64_t now, bool all);
  void decide_deletions(int64_t now);
  void rebuild();
  int64_t next_due() const;
};

tevu_watch::~tevu_watch() {
  for (std::size_t i = 0; i < nodes.size(); ++i) std::free(nodes[i].name);
  for (std::size_t i = 0; i < volumes.size(); ++i) object_deleter<volume_state>()(volumes[i]);
  for (std::size_t i = 0; i < pending.size(); ++i) std::free(pending[i].path);
  for (std::size_t i = 0; i < halves.size(); ++i) std::free(halves[i].path);
  for (std::size_t i = 0; i < moves.size(); ++i) {
    std::free(moves[i].from);
    std::free(moves[i].to);
  }
  for (std::size_t i = 0; i < ring_count; ++i) std::free(ring.get()[(ring_head + i) % kArrivals].path);
}

// ---------------------------------------------------------------------------
// Nodes.

bool tevu_watch::path_of(int node, char* out) const {
  std::size_t len = 0;
  for (int i = node; i >= 0; i = nodes[i].parent) {
    len += strlen(nodes[i].name) + (nodes[i].parent >= 0 ? 1 : 0);
  }
  if (len >= kPathSize) return false;
  out[len] = '\0';
  std::size_t end = len;
  for (int i = node; i >= 0; i = nodes[i].parent) {
    const std::size_t n = strlen(nodes[i].name);
    end -= n;
    memcpy(out + end, nodes[i].name, n);
    if (nodes[i].parent >= 0) out[--end] = '/';
  }
  return true;
}

bool tevu_watch::child_path(int node, const char* name, char* out) const {
  char dir[kPathSize];
  return path_of(node, dir) && format_whole(out, kPathSize, "%s/%s", dir, name);
}

int tevu_watch::add_node(int wd, int parent, int volume, const char* name) {
  char* copy = strdup(name);
  if (copy == nullptr) return -1;
  int index;
  if (!free_nodes.empty()) {
    index = free_nodes[free_nodes.size() - 1];
    free_nodes.truncate(free_nodes.size() - 1);
    nodes[index] = dir_node{wd, parent, volume, copy};
  } else {
    if (!nodes.push(dir_node{wd, parent, volume, copy})) {
      std::free(copy);
      return -1;
    }
    index = static_cast<int>(nodes.size() - 1);
  }
  if (!wds.put(wd, index)) {
    std::free(copy);
    nodes[index].wd = -1;
    nodes[index].name = nullptr;
    free_nodes.push(index);
    return -1;
  }
  ++watched;
  return index;
}

void tevu_watch::drop_node(int node, bool remove_watch) {
  dir_node& n = nodes[node];
  if (n.wd < 0) return;
  if (remove_watch) inotify_rm_watch(inotify.get(), n.wd);
  wds.erase(n.wd);
  std::free(n.name);
  n.name = nullptr;
  n.wd = -1;
  n.parent = -1;
  --watched;
  free_nodes.push(node);
}

int tevu_watch::find_child(int parent, const char* name) const {
  for (std::size_t i = 0; i < nodes.size(); ++i) {
    const dir_node& n = nodes[i];
    if (n.wd >= 0 && n.parent == parent && strcmp(n.name, name) == 0) {
      return static_cast<int>(i);
    }
  }
  return -1;
}

bool tevu_watch::below(int node, int ancestor) const {
  for (int i = nodes[node].parent; i >= 0; i = nodes[i].parent) {
    if (i == ancestor) return true;
  }
  return false;
}

void tevu_watch::drop_subtree(int node) {
  // Descendants first: their parent links are needed to find them.
  for (std::size_t i = 0; i < nodes.size(); ++i) {
    if (nodes[i].wd >= 0 && static_cast<int>(i) != node && below(static_cast<int>(i), node)) {
      nodes[i].volume = -2;  // marked; dropped below
    }
  }
  for (std::size_t i = 0; i < nodes.size(); ++i) {
    if (nodes[i].wd >= 0 && nodes[i].volume == -2) drop_node(static_cast<int>(i), true);
  }
  drop_node(node, true);
}

// Watches the directory `path`, an entry `name` of node `parent` (or a root
// when parent is -1). Returns its node, or -1 when it cannot be watched
// (counted when the reason is the watch limit or memory).
int tevu_watch::watch_dir(const char* path, int parent, int volume, const char* name) {
  const int wd = inotify_add_watch(inotify.get(), path, kDirMask);
  if (wd < 0) {
    if (errno == ENOSPC || errno == ENOMEM) ++volumes[volume]->unwatched;
    return -1;
  }
  const int known = wds.find(wd);
  if (known >= 0) {  // the same directory, reached again
    if (nodes[known].parent != parent || strcmp(nodes[known].name, name) != 0) {
      char* copy = strdup(name);
      if (copy != nullptr) {
        std::free(nodes[known].name);
        nodes[known].name = copy;
        nodes[known].parent = parent;
        nodes[known].volume = volume;
      }
    }
    return known;
  }
  const int node = add_node(wd, parent, volume, name);
  if (node < 0) {
    inotify_rm_watch(inotify.get(), wd);
    ++volumes[volume]->unwatched;
  }
  return node;
}

// Watches every directory below node `top` on its volume's file system;
// with `arrivals_too`, what is found is taken for arrivals (a directory
// that appeared may already hold files moved or copied into it).
void tevu_watch::take_up_tree(int top, bool arrivals_too) {
  array<int> stack;
  if (!stack.push(top)) return;
  while (!stack.empty()) {
    const int node = stack[stack.size() - 1];
    stack.truncate(stack.size() - 1);
    if (nodes[node].wd < 0) continue;
    const int volume = nodes[node].volume;
    char dir[kPathSize];
    if (!path_of(node, dir)) continue;
    unique_fd fd(open(dir, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!fd.valid()) continue;
    dir_ptr stream(fdopendir(fd.get()));
    if (!stream) continue;
    const int dir_fd = fd.release();
    const dev_t dev = volumes[volume]->dev;
    while (const dirent* entry = readdir(stream.get())) {
      const char* name = entry->d_name;
      if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0) continue;
      if (is_database_file(volume, node, name)) continue;
      struct stat st;
      if (fstatat(dir_fd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
      char path[kPathSize];
      if (!format_whole(path, sizeof path, "%s/%s", dir, name)) continue;
      if (S_ISDIR(st.st_mode)) {
        // Another file system below the volume (the tag file system's own
        // mount among them) is not entered.
        if (st.st_dev != dev) continue;
        const int child = watch_dir(path, node, volume, name);
        if (arrivals_too) add_arrival(path, volume, true);
        if (child >= 0) stack.push(child);
      } else if (S_ISREG(st.st_mode) && arrivals_too) {
        add_arrival(path, volume, false);
      }
    }
  }
}

// ---------------------------------------------------------------------------
// Volumes.

int tevu_watch::volume_of_root(const char* root) const {
  for (std::size_t i = 0; i < volumes.size(); ++i) {
    if (strcmp(volumes[i]->root, root) == 0) return static_cast<int>(i);
  }
  return -1;
}

int tevu_watch::add_volume(const char* root, const char* db) {
  object_ptr<volume_state> v = make_object<volume_state>();
  if (!v) return -1;
  format_cut(v->root, sizeof v->root, "%s", root);
  format_cut(v->db, sizeof v->db, "%s", db);
  if (!volumes.push(v.get())) return -1;
  v.release();
  return static_cast<int>(volumes.size() - 1);
}

bool tevu_watch::is_database_file(int volume, int node, const char* name) const {
  const volume_state& v = *volumes[volume];
  if (v.db_base[0] == '\0' || strncmp(name, v.db_base, strlen(v.db_base)) != 0) return false;
  char dir[kPathSize];
  return path_of(node, dir) && strcmp(dir, v.db_dir) == 0;
}

bool tevu_watch::take_up(int index) {
  volume_state& v = *volumes[index];
  struct stat st, parent;
  if (lstat(v.root, &st) != 0 || !S_ISDIR(st.st_mode)) return false;
  char up[kPathSize];
  format_cut(up, sizeof up, "%s/..", v.root);
  v.mounted = stat(up, &parent) == 0 && parent.st_dev != st.st_dev;
  v.dev = st.st_dev;
  v.unwatched = 0;
  // The database's real place: its files are never a user's.
  char real[PATH_MAX];
  v.db_dir[0] = v.db_base[0] = '\0';
  if (realpath(v.db, real) != nullptr) {
    v.db_wd = inotify_add_watch(inotify.get(), real, kDbMask);
    char* slash = strrchr(real, '/');
    if (slash != nullptr) {
      format_cut(v.db_base, sizeof v.db_base, "%s", slash + 1);
      *slash = '\0';
      format_cut(v.db_dir, sizeof v.db_dir, "%s", slash == real ? "/" : real);
    }
  }
  if (all_volumes) {
    const int node = watch_dir(v.root, -1, index, v.root);
    if (node >= 0) take_up_tree(node, false);
  } else {
    for (std::size_t at = 0; at < roots.size();) {
      const char* root = roots.c_str() + at;
      at += strlen(root) + 1;
      if (!at_or_below(root, v.root)) continue;
      const int node = watch_dir(root, -1, index, root);
      if (node >= 0) take_up_tree(node, false);
    }
  }
  v.active = true;
  v.repair_due = true;
  v.degraded_repair = v.unwatched > 0 ? now_ms() + kDegradedRepairMs : kNever;
  return true;
}

void tevu_watch::release(int index, bool report) {
  flush_moves();
  volume_state& v = *volumes[index];
  for (std::size_t i = 0; i < nodes.size(); ++i) {
    if (nodes[i].wd >= 0 && nodes[i].volume == index) drop_node(static_cast<int>(i), true);
  }
  if (v.db_wd >= 0) inotify_rm_watch(inotify.get(), v.db_wd);
  v.db_wd = -1;
  // Nothing of a volume that went away is decided any more.
  remove_where(pending, [index](const pending_deletion& p) { return p.volume == index; });
  remove_where(halves, [index](const half_move& h) { return h.volume == index; });
  v.active = false;
  v.unwatched = 0;
  v.repair_due = false;
  v.sync_due = v.degraded_repair = kNever;
  if (report) tell(TEVU_WATCH_VOLUME_REMOVED, v.root, nullptr, 0, 0);
}

// Takes up the volumes that appeared and releases those that went: a link
// gone from the meta directory, or a disk gone from under a mount point
// (its root is then a plain directory of the file system above).
void tevu_watch::look_at_volumes() {
  if (all_volumes) {
    array<volume_link> links;
    forget_failures();
    if (list_volumes(&links) != 0) return;  // the tag file system is away: keep what is
    for (std::size_t i = 0; i < volumes.size(); ++i) volumes[i]->in_roots = false;
    for (std::size_t i = 0; i < links.size(); ++i) {
      if (links[i].error != 0) continue;
      char root[kPathSize];
      format_cut(root, sizeof root, "%s", links[i].root);
      const std::size_t n = strlen(root);
      if (n > 1) root[n - 1] = '\0';  // "/N/" -> "/N"
      int v = volume_of_root(root);
      if (v < 0) v = add_volume(root, links[i].db);
      if (v >= 0) {
        volumes[v]->in_roots = true;
        format_cut(volumes[v]->db, sizeof volumes[v]->db, "%s", links[i].db);
      }
    }
  } else {
    for (std::size_t i = 0; i < volumes.size(); ++i) {
      tevu_volume located;
      volumes[i]->in_roots = tevu_locate_volume(&located, volumes[i]->root) == 1;
    }
  }
  for (std::size_t i = 0; i < volumes.size(); ++i) {
    volume_state& v = *volumes[i];
    const int index = static_cast<int>(i);
    struct stat st, parent;
    char up[kPathSize];
    format_cut(up, sizeof up, "%s/..", v.root);
    const bool dir = lstat(v.root, &st) == 0 && S_ISDIR(st.st_mode);
    const bool mounted = dir && stat(up, &parent) == 0 && parent.st_dev != st.st_dev;
    if (v.active) {
      const bool disk_gone = !dir || (v.mounted && (!mounted || st.st_dev != v.dev));
      if (!v.in_roots || disk_gone) release(index, true);
    }
    if (!v.active && v.in_roots && dir) {
      // A volume whose disk went away comes back only with a disk.
      if (v.mounted && !mounted) continue;
      if (take_up(index)) tell(TEVU_WATCH_VOLUME_ADDED, v.root, nullptr, 0, 0);
    }
  }
}

// ---------------------------------------------------------------------------
// Databases, opened for one call.

// A call looks rows up one by one: a small page cache will do, and keeps
// the watcher's memory small on a router.
constexpr char kSmallCacheSql[] = "PRAGMA cache_size=-128";
constexpr char kAnyRowSql[] = "SELECT 1 FROM Meta WHERE Path=?1 OR Path GLOB ?2 LIMIT 1";
constexpr char kThisRowSql[] = "SELECT 1 FROM Meta WHERE Path=?1";
// New rows since the last look (row id order; "%s" the row id's name).
constexpr char kNewRowsSql[] =
    "SELECT %s, Path FROM Meta WHERE %s > ?1 ORDER BY %s LIMIT 256";
constexpr char kLastRowSql[] = "SELECT max(%s) FROM Meta";

volume_state* tevu_watch::db_ready(int index) {
  volume_state& v = *volumes[index];
  if (!v.read_tried) {
    v.read_tried = true;
    if (open_query_db(v.db, &v.read) == 0 &&
        (sqlite3_exec(v.read.db.get(), kSmallCacheSql, nullptr, nullptr, nullptr) != SQLITE_OK ||
         prepare(v.read.db.get(), kAnyRowSql, -1, v.any_row) != SQLITE_OK ||
         prepare(v.read.db.get(), kThisRowSql, -1, v.this_row) != SQLITE_OK)) {
      v.read.db.reset();
    }
  }
  return v.read.db ? &v : nullptr;
}

// 1 when the database of volume `index` has a row for `path` (with
// `subtree`, also below it), 0 when not, -1 when it cannot be read.
int tevu_watch::has_rows(int index, const char* path, bool subtree) {
  volume_state* v = db_ready(index);
  if (v == nullptr) return -1;
  const std::size_t n = strlen(v->root);
  if (strncmp(path, v->root, n) != 0 || path[n] != '/') return 0;
  const char* rel = path + n + 1;
  sqlite3_stmt* stmt = subtree ? v->any_row.get() : v->this_row.get();
  sqlite_text pattern;
  if (subtree) {
    pattern.reset(glob_escape(rel, "/*"));
    if (!pattern) return -1;
    sqlite3_bind_text(stmt, 2, pattern.get(), -1, SQLITE_STATIC);
  }
  sqlite3_bind_text(stmt, 1, rel, -1, SQLITE_STATIC);
  const int rc = metadb_step(stmt);
  sqlite3_reset(stmt);
  sqlite3_clear_bindings(stmt);
  return rc == SQLITE_ROW ? 1 : rc == SQLITE_DONE ? 0 : -1;
}

fingerprint_store* tevu_watch::fingerprints(int index) {
  volume_state& v = *volumes[index];
  if (!v.fps_tried) {
    v.fps_tried = true;
    if (v.fps.open(v.db, false) == 0) v.fps_in_transaction = v.fps.begin() == SQLITE_OK;
  }
  return v.fps.is_open() ? &v.fps : nullptr;
}

void tevu_watch::refresh_fingerprint(int index, const char* path) {
  if (has_rows(index, path, false) != 1) return;
  struct stat st;
  fingerprint fp;
  if (lstat(path, &st) != 0 || !fingerprint_of(st, &fp)) return;
  fingerprint_store* store = fingerprints(index);
  if (store != nullptr) store->put(path + strlen(volumes[index]->root) + 1, fp);
}

// Closes what the call opened: between calls no database, no file of a
// volume is held open.
void tevu_watch::end_of_call() {
  for (std::size_t i = 0; i < volumes.size(); ++i) {
    volume_state& v = *volumes[i];
    if (v.fps_in_transaction) v.fps.commit();
    v.fps_in_transaction = false;
    v.fps.close();
    v.fps_tried = false;
    v.any_row.reset();
    v.this_row.reset();
    v.read = query_db();
    v.read_tried = false;
  }
}

// Records the fingerprints of the rows made since the last look.
void tevu_watch::sync_fingerprints(int index) {
  volume_state* v = db_ready(index);
  if (v == nullptr || v->read.rowid == nullptr) return;
  fingerprint_store* store = fingerprints(index);
  if (store == nullptr) return;
  char sql[sizeof kNewRowsSql + 32];
  const char* id = v->read.rowid;
  format_cut(sql, sizeof sql, kNewRowsSql, id, id, id);
  stmt_ptr rows;
  if (prepare(v->read.db.get(), sql, -1, rows) != SQLITE_OK) return;
  text batch;
  for (;;) {
    batch.clear();
    int count = 0;
    sqlite3_bind_int64(rows.get(), 1, v->synced_rowid);
    int rc;
    while ((rc = metadb_step(rows.get())) == SQLITE_ROW) {
      ++count;
      v->synced_rowid = sqlite3_column_int64(rows.get(), 0);
      const char* rel = reinterpret_cast<const char*>(sqlite3_column_text(rows.get(), 1));
      if (rel != nullptr && rel[0] != '\0') batch.append(rel, strlen(rel) + 1);
    }
    sqlite3_reset(rows.get());
    if (rc != SQLITE_DONE || !batch.ok()) return;
    for (std::size_t at = 0; at < batch.size();) {
      const char* rel = batch.c_str() + at;
      at += strlen(rel) + 1;
      char path[kPathSize];
      struct stat st;
      fingerprint fp;
      if (format_whole(path, sizeof path, "%s/%s", v->root, rel) && lstat(path, &st) == 0 &&
          fingerprint_of(st, &fp)) {
        store->put(rel, fp);
      }
    }
    if (count < 256) return;
  }
}

// The repair of volume `index` below each directory watched on it; its
// findings are reported as the watcher's.
void tevu_watch::repair(int index) {
  volume_state& v = *volumes[index];
  v.repair_due = false;
  if (!v.active) return;
  // The repair opens what it needs itself.
  if (v.fps_in_transaction) v.fps.commit();
  v.fps_in_transaction = false;
  v.fps.close();
  v.fps_tried = false;
  struct report {
    static int found(void* user, int kind, const char* from, const char* to,
                     unsigned long candidates, int error) {
      tevu_watch* w = static_cast<tevu_watch*>(user);
      switch (kind) {
        case TEVU_REPAIR_MOVED: w->tell(TEVU_WATCH_MOVED, from, to, 0, 2); break;
        case TEVU_REPAIR_AMBIGUOUS: w->tell(TEVU_WATCH_AMBIGUOUS, from, nullptr, 0, candidates); break;
        case TEVU_REPAIR_UNMATCHED: w->tell(TEVU_WATCH_UNMATCHED, from, nullptr, 0, 0); break;
        default: w->failed(from, to, error); break;
      }
      return 0;
    }
  };
  repair_sink sink;
  sink.cb = report::found;
  sink.user = this;
  int rc = 0;
  if (all_volumes) {
    rc = repair_volume(v.root, v.db, "", false, &sink);
  } else {
    const std::size_t n = strlen(v.root);
    for (std::size_t at = 0; at < roots.size();) {
      const char* root = roots.c_str() + at;
      at += strlen(root) + 1;
      if (!at_or_below(root, v.root)) continue;
      const char* scope = root[n] == '/' ? root + n + 1 : "";
      const int one = repair_volume(v.root, v.db, scope, false, &sink);
      if (rc == 0) rc = one;
    }
  }
  // Failed moves were reported one by one; a volume that could not be read
  // is reported here.
  if (rc != 0 && sink.counts.failed == 0) failed(v.root, nullptr, rc);
  // Every row read by the repair has its fingerprint: later looks start
  // after the last of them.
  volume_state* ready = db_ready(index);
  if (ready != nullptr && ready->read.rowid != nullptr) {
    char sql[sizeof kLastRowSql + 16];
    format_cut(sql, sizeof sql, kLastRowSql, ready->read.rowid);
    stmt_ptr last;
    if (prepare(ready->read.db.get(), sql, -1, last) == SQLITE_OK &&
        metadb_step(last.get()) == SQLITE_ROW) {
      ready->synced_rowid = sqlite3_column_int64(last.get(), 0);
    }
  }
}

// ---------------------------------------------------------------------------
// Events.

void tevu_watch::add_arrival(const char* path, int volume, bool dir) {
  if (!ring) {
    ring.reset(static_cast<arrival*>(std::malloc(kArrivals * sizeof(arrival))));
    if (!ring) return;
  }
  const std::size_t bytes = strlen(path) + 1;
  // Full: the oldest make room.
  while (ring_count > 0 && (ring_count >= kArrivals || ring_bytes + bytes > kArrivalBytes)) {
    arrival& oldest = ring.get()[ring_head];
    ring_bytes -= strlen(oldest.path) + 1;
    std::free(oldest.path);
    ring_head = (ring_head + 1) % kArrivals;
    --ring_count;
  }
  char* copy = strdup(path);
  if (copy == nullptr) return;
  ring.get()[(ring_head + ring_count) % kArrivals] = arrival{copy, volume, dir, now_ms()};
  ++ring_count;
  ring_bytes += bytes;
  // A deletion waiting for its grace period may have been a copy's source.
  for (std::size_t i = 0; i < pending.size(); ++i) {
    if (strcmp(base_name(pending[i].path), base_name(path)) != 0) continue;
    fingerprint fp;
    const bool known = fingerprints(pending[i].volume) != nullptr &&
                       volumes[pending[i].volume]->fps.get(
                           pending[i].path + strlen(volumes[pending[i].volume]->root) + 1, &fp) == 1;
    const char* copy_path = recognised_copy(pending[i].path, dir, known ? &fp : nullptr);
    if (copy_path == nullptr) continue;
    char from[kPathSize];
    char to[kPathSize];
    format_cut(from, sizeof from, "%s", pending[i].path);
    format_cut(to, sizeof to, "%s", copy_path);
    const int from_volume = pending[i].volume;
    std::free(pending[i].path);
    pending[i] = pending[pending.size() - 1];
    pending.truncate(pending.size() - 1);
    follow(from, to, from_volume, 1);
    break;
  }
}

// The arrival that `lost` became, or NULL: same name, same kind, and, when
// its fingerprint is known, same size; of several, the one whose path ends
// in the most components like `lost`'s, when no other ends so.
const char* tevu_watch::recognised_copy(const char* lost, bool dir, const fingerprint* fp) const {
  const char* name = base_name(lost);
  const int64_t now = now_ms();
  const char* best = nullptr;
  int best_score = -1;
  bool tie = false;
  for (std::size_t i = 0; i < ring_count; ++i) {
    const arrival& a = ring.get()[(ring_head + i) % kArrivals];
    if (now - a.at > kArrivalAgeMs || strcmp(base_name(a.path), name) != 0 ||
        strcmp(a.path, lost) == 0) {
      continue;
    }
    const bool want_dir = fp != nullptr ? fp->kind == kFingerprintDir : dir;
    struct stat st;
    if (lstat(a.path, &st) != 0) continue;
    if (want_dir ? !S_ISDIR(st.st_mode) : !S_ISREG(st.st_mode)) continue;
    if (fp != nullptr && !want_dir && st.st_size != fp->size) continue;
    // Components in common from the end.
    int score = 0;
    const char* x = lost + strlen(lost);
    const char* y = a.path + strlen(a.path);
    while (x > lost && y > a.path && x[-1] == y[-1]) {
      --x;
      --y;
      if (*x == '/') ++score;
    }
    if (score > best_score) {
      best = a.path;
      best_score = score;
      tie = false;
    } else if (score == best_score && strcmp(best, a.path) != 0) {
      tie = true;
    }
  }
  return tie ? nullptr : best;
}

// Makes the tags of `from` follow to `to` and reports it; `how` is the
// count of TEVU_WATCH_MOVED. Returns true when they stand at `to`.
bool tevu_watch::follow(const char* from, const char* to, int from_volume, unsigned long how) {
  // Within the volume the fingerprints are copied to the new place and
  // committed before the tags move, and forgotten at the old one after:
  // an interruption anywhere leaves them where the rows may stand.
  fingerprint_store* store = fingerprints(from_volume);
  volume_state& v = *volumes[from_volume];
  const std::size_t n = strlen(v.root);
  const bool within = strncmp(to, v.root, n) == 0 && to[n] == '/';
  if (store != nullptr && within) {
    store->copy(from + n + 1, to + n + 1);
    if (v.fps_in_transaction) {
      store->commit();
      v.fps_in_transaction = store->begin() == SQLITE_OK;
    }
  }
  const int rc = tevu_move_checked(from, to);
  if (rc != 0) {
    failed(from, to, rc);
    return false;
  }
  if (store != nullptr) store->forget(from + n + 1);
  if (!within) {
    // Elsewhere the destination's fingerprints are recorded anew.
    for (std::size_t i = 0; i < volumes.size(); ++i) {
      const std::size_t m = strlen(volumes[i]->root);
      if (volumes[i]->active && strncmp(to, volumes[i]->root, m) == 0 && to[m] == '/') {
        refresh_fingerprint(static_cast<int>(i), to);
        earliest(&volumes[i]->sync_due, now_ms() + kSyncDelayMs);
      }
    }
  }
  tell(TEVU_WATCH_MOVED, from, to, 0, how);
  return true;
}

void tevu_watch::queue_move(const char* from, const char* to, int from_volume, int to_volume) {
  char* a = strdup(from);
  char* b = strdup(to);
  if (a == nullptr || b == nullptr || !moves.push(queued_move{a, b, from_volume, to_volume})) {
    std::free(a);
    std::free(b);
    flush_moves();
    follow(from, to, from_volume, 0);  // memory is short: one at a time
    return;
  }
  if (moves.size() >= kMovesPerTransaction) flush_moves();
}

// The queued renames [first, end), all within one volume, in one
// transaction; the fingerprints are copied and committed first, as
// follow() does. When the transaction fails, each follows alone, so that
// every failure is told with its own paths.
void tevu_watch::follow_many(std::size_t first, std::size_t end) {
  const int index = moves[first].from_volume;
  volume_state& v = *volumes[index];
  const std::size_t n = strlen(v.root);
  fingerprint_store* store = fingerprints(index);
  array<const char*> from;
  array<const char*> to;
  for (std::size_t i = first; i < end; ++i) {
    if (!from.push(moves[i].from) || !to.push(moves[i].to)) break;
  }
  if (from.size() != end - first) {
    for (std::size_t i = first; i < end; ++i) follow(moves[i].from, moves[i].to, index, 0);
    return;
  }
  if (store != nullptr) {
    for (std::size_t i = first; i < end; ++i) store->copy(moves[i].from + n + 1, moves[i].to + n + 1);
    if (v.fps_in_transaction) {
      store->commit();
      v.fps_in_transaction = store->begin() == SQLITE_OK;
    }
  }
  if (move_many_within(from.data(), to.data(), from.size()) != 0) {
    for (std::size_t i = first; i < end; ++i) follow(moves[i].from, moves[i].to, index, 0);
    return;
  }
  for (std::size_t i = first; i < end; ++i) {
    if (store != nullptr) store->forget(moves[i].from + n + 1);
    tell(TEVU_WATCH_MOVED, moves[i].from, moves[i].to, 0, 0);
  }
}

void tevu_watch::flush_moves() {
  std::size_t i = 0;
  while (i < moves.size()) {
    const int volume = moves[i].from_volume;
    std::size_t end = i;
    while (end < moves.size() && moves[end].from_volume == volume &&
           moves[end].to_volume == volume) {
      ++end;
    }
    if (end - i >= 2) {
      follow_many(i, end);
    } else {
      end = i + 1;
      follow(moves[i].from, moves[i].to, moves[i].from_volume, 0);
    }
    i = end;
  }
  for (std::size_t k = 0; k < moves.size(); ++k) {
    std::free(moves[k].from);
    std::free(moves[k].to);
  }
  moves.clear();
}

void tevu_watch::came_back(const char* path) {
  remove_where(pending,
               [path](const pending_deletion& p) { return strcmp(p.path, path) == 0; });
}

// `path` is gone (unlinked, or moved where nothing watches): its rows
// follow a recognised copy, or wait for the grace period.
void tevu_watch::on_lost(const char* path, int volume, bool dir) {
  // Untagged: nothing to do. A database that cannot be read now is asked
  // again when the grace period ends.
  if (has_rows(volume, path, true) == 0) return;
  fingerprint fp;
  const bool known = fingerprints(volume) != nullptr &&
                     volumes[volume]->fps.get(path + strlen(volumes[volume]->root) + 1, &fp) == 1;
  const char* copy = recognised_copy(path, dir, known ? &fp : nullptr);
  if (copy != nullptr) {
    char to[kPathSize];
    format_cut(to, sizeof to, "%s", copy);
    follow(path, to, volume, 1);
    return;
  }
  // A tree's deletion covers the deletions already waiting below it.
  remove_where(pending,
               [path](const pending_deletion& p) { return at_or_below(p.path, path); });
  char* copy_path = strdup(path);
  if (copy_path == nullptr || !pending.push(pending_deletion{copy_path, volume, now_ms() + grace})) {
    std::free(copy_path);
    failed(path, nullptr, ENOMEM);  // the rows stay; a cleanup sees them
  }
}

void tevu_watch::on_moved(half_move& half, int to_parent, const char* to_name, const char* to,
                          int volume) {
  if (half.dir) {
    int node = half.node;
    if (node >= 0 && nodes[node].wd >= 0) {
      char* name = strdup(to_name);
      if (name != nullptr) {
        std::free(nodes[node].name);
        nodes[node].name = name;
        nodes[node].parent = to_parent;
      }
      if (nodes[node].volume != volume) {
        for (std::size_t i = 0; i < nodes.size(); ++i) {
          if (nodes[i].wd >= 0 && below(static_cast<int>(i), node)) nodes[i].volume = volume;
        }
        nodes[node].volume = volume;
      }
    } else {
      node = watch_dir(to, to_parent, volume, to_name);
      if (node >= 0) take_up_tree(node, false);
    }
  }
  // Deletions waiting below the old place now wait below the new one.
  const std::size_t n = strlen(half.path);
  for (std::size_t i = 0; i < pending.size(); ++i) {
    if (!at_or_below(pending[i].path, half.path)) continue;
    char moved[kPathSize];
    if (!format_whole(moved, sizeof moved, "%s%s", to, pending[i].path + n)) continue;
    char* copy = strdup(moved);
    if (copy == nullptr) continue;
    std::free(pending[i].path);
    pending[i].path = copy;
    pending[i].volume = volume;
  }
  came_back(to);
  // A source below a queued rename's destination is tagged once that one
  // has followed.
  bool chained = false;
  for (std::size_t i = 0; i < moves.size() && !chained; ++i) {
    chained = at_or_below(half.path, moves[i].to);
  }
  const int tagged = chained ? 1 : has_rows(half.volume, half.path, true);
  if (tagged == 1) {
    queue_move(half.path, to, half.volume, volume);
  } else if (tagged < 0) {
    failed(half.path, to, EIO);  // a repair finds it later
  } else if (!half.dir) {
    refresh_fingerprint(volume, to);
  }
}

void tevu_watch::on_event(const inotify_event* e) {
  if (e->mask & IN_Q_OVERFLOW) {
    flush_moves();
    overflow = true;
    return;
  }
  for (std::size_t i = 0; i < volumes.size(); ++i) {
    volume_state& v = *volumes[i];
    if (v.db_wd < 0 || v.db_wd != e->wd) continue;

    if (e->mask & IN_IGNORED) {
      v.db_wd = -1;  // the database was replaced or removed: look again
      earliest(&rescan[0], now_ms());
    } else {
      earliest(&v.sync_due, now_ms() + kSyncDelayMs);
    }
    return;
  }
  const int node = wds.find(e->wd);
  if (node < 0) return;
  if (e->mask & IN_UNMOUNT) {
    earliest(&rescan[0], now_ms());
    return;
  }
  if (e->mask & IN_IGNORED) {
    drop_node(node, false);
    return;
  }
  if (e->len == 0 || e->name[0] == '\0') return;
  const int volume = nodes[node].volume;
  if (volume < 0 || !volumes[volume]->active) return;
  if (is_database_file(volume, node, e->name)) return;
  char path[kPathSize];
  if (!child_path(node, e->name, path)) return;
  const bool dir = (e->mask & IN_ISDIR) != 0;

  if (e->mask & IN_MOVED_FROM) {
    char* copy = strdup(path);
    if (copy == nullptr) return;
    const int child = dir ? find_child(node, e->name) : -1;
    // Its time to wait starts when the queue is seen empty (read_events()):
    // following other moves may take longer than the wait itself.
    if (!halves.push(half_move{e->cookie, copy, volume, child, dir, kNever})) {
      std::free(copy);
    }
    return;
  }
  if (e->mask & IN_MOVED_TO) {
    for (std::size_t i = 0; i < halves.size(); ++i) {
      if (halves[i].cookie != e->cookie) continue;
      // Renames seen together follow together (flush_moves()).
      half_move half = halves[i];
      for (std::size_t j = i; j + 1 < halves.size(); ++j) halves[j] = halves[j + 1];
      halves.truncate(halves.size() - 1);
      on_moved(half, node, e->name, path, volume);
      std::free(half.path);
      return;
    }
    // Moved in from where nothing watches.
    flush_moves();
    came_back(path);
    if (dir) {
      const int child = watch_dir(path, node, volume, e->name);
      if (child >= 0) take_up_tree(child, true);
    }
    add_arrival(path, volume, dir);
    return;
  }
  // Anything else reads or writes the databases: the renames seen before
  // it follow first.
  flush_moves();
  if (e->mask & IN_CREATE) {
    came_back(path);
    if (dir) {
      const int child = watch_dir(path, node, volume, e->name);
      if (child >= 0) take_up_tree(child, true);
      add_arrival(path, volume, true);
    }
    return;
  }
  if (e->mask & IN_CLOSE_WRITE) {
    add_arrival(path, volume, false);
    refresh_fingerprint(volume, path);
    return;
  }
  if (e->mask & IN_ATTRIB) {
    refresh_fingerprint(volume, path);
    return;
  }
  if (e->mask & IN_DELETE) on_lost(path, volume, dir);
}

void tevu_watch::read_events() {
  for (;;) {
    const ssize_t n = read(inotify.get(), buffer.get(), kEventBuffer);
    if (n < 0) {
      if (errno == EINTR) continue;
      // EAGAIN: all read. The renames seen follow; a first half still
      // alone now waits for its second.
      flush_moves();
      const int64_t due = now_ms() + kPairMs;
      for (std::size_t i = 0; i < halves.size(); ++i) {
        if (halves[i].due == kNever) halves[i].due = due;
      }
      return;
    }
    if (n == 0) return;
    for (ssize_t at = 0; at < n;) {
      const inotify_event* e = reinterpret_cast<const inotify_event*>(buffer.get() + at);
      at += static_cast<ssize_t>(sizeof(inotify_event) + e->len);
      on_event(e);
    }
  }
}

// The first halves of renames whose second half did not come: moved out
// of sight, which counts as lost.
void tevu_watch::settle_halves(int64_t now, bool all) {
  for (std::size_t i = 0; i < halves.size();) {
    if (!all && (halves[i].due == kNever || halves[i].due > now)) {
      ++i;
      continue;
    }
    half_move half = halves[i];
    for (std::size_t j = i; j + 1 < halves.size(); ++j) halves[j] = halves[j + 1];
    halves.truncate(halves.size() - 1);
    if (half.dir && half.node >= 0 && nodes[half.node].wd >= 0) drop_subtree(half.node);
    on_lost(half.path, half.volume, half.dir);
    std::free(half.path);
  }
}

void tevu_watch::decide_deletions(int64_t now) {
  for (std::size_t i = 0; i < pending.size();) {
    if (pending[i].due > now) {
      ++i;
      continue;
    }
    pending_deletion p = pending[i];
    pending[i] = pending[pending.size() - 1];
    pending.truncate(pending.size() - 1);
    volume_state& v = *volumes[p.volume];
    struct stat st;
    bool decide = v.active && lstat(p.path, &st) != 0 && (errno == ENOENT || errno == ENOTDIR);
    if (decide && v.mounted) {
      // Never for a volume whose disk went away: its root would be a plain
      // directory of the file system above by now.
      struct stat root;
      decide = stat(v.root, &root) == 0 && root.st_dev == v.dev;
      if (!decide) earliest(&rescan[0], now);
    }
    if (decide) {
      const int rc = tevu_delete_checked(p.path);
      if (rc == 0) {
        fingerprint_store* store = fingerprints(p.volume);
        if (store != nullptr) store->forget(p.path + strlen(v.root) + 1);
        tell(TEVU_WATCH_DELETED, p.path, nullptr, 0, 0);
      } else {
        failed(p.path, nullptr, rc);
      }
    }
    std::free(p.path);
  }
}

// After an overflow nothing of the tree of nodes can be trusted: every
// watch is made anew and every volume repaired.
void tevu_watch::rebuild() {
  flush_moves();
  overflow = false;
  tell(TEVU_WATCH_OVERFLOW, nullptr, nullptr, 0, 0);
  settle_halves(0, true);
  for (std::size_t i = 0; i < nodes.size(); ++i) {
    if (nodes[i].wd >= 0) drop_node(static_cast<int>(i), true);
  }
  for (std::size_t i = 0; i < volumes.size(); ++i) {
    if (volumes[i]->db_wd >= 0) inotify_rm_watch(inotify.get(), volumes[i]->db_wd);
    volumes[i]->db_wd = -1;
  }
  // Events queued before the rebuild describe the old watches.
  while (read(inotify.get(), buffer.get(), kEventBuffer) > 0) {
  }
  for (std::size_t i = 0; i < volumes.size(); ++i) {
    if (volumes[i]->active) take_up(static_cast<int>(i));
  }
}

int64_t tevu_watch::next_due() const {
  int64_t due = kNever;
  if (repair_all || overflow) return now_ms();
  for (std::size_t i = 0; i < pending.size(); ++i) earliest(&due, pending[i].due);
  for (std::size_t i = 0; i < halves.size(); ++i) earliest(&due, halves[i].due);
  for (int i = 0; i < kRescans; ++i) earliest(&due, rescan[i]);
  for (std::size_t i = 0; i < volumes.size(); ++i) {
    const volume_state& v = *volumes[i];
    if (!v.active) continue;
    if (v.repair_due) return now_ms();
    earliest(&due, v.sync_due);
    earliest(&due, v.degraded_repair);
  }
  return due;
}

// ---------------------------------------------------------------------------
// The exported functions.

extern "C" tevu_watch* tevu_watch_open(const char* const* dirs, size_t count,
                                       unsigned grace_ms, tevu_watch_cb cb, void* user) {
  if (count > 0 && dirs == nullptr) {
    errno = EINVAL;
    return nullptr;
  }
  if (tevu_find_mount() == nullptr) {
    errno = ENOENT;
    return nullptr;
  }
  object_ptr<tevu_watch> w = make_object<tevu_watch>();
  if (!w) {
    errno = ENOMEM;
    return nullptr;
  }
  w->cb = cb;
  w->user = user;
  w->grace = grace_ms == 0 ? kDefaultGraceMs : grace_ms;
  w->all_volumes = count == 0;
  w->buffer.reset(static_cast<char*>(std::malloc(kEventBuffer)));
  if (!w->buffer) {
    errno = ENOMEM;
    return nullptr;
  }
  for (std::size_t i = 0; i < count; ++i) {
    char resolved[PATH_MAX];
    struct stat st;
    if (dirs[i] == nullptr || realpath(dirs[i], resolved) == nullptr) {
      if (dirs[i] == nullptr) errno = EINVAL;
      return nullptr;
    }
    if (stat(resolved, &st) != 0) return nullptr;
    if (!S_ISDIR(st.st_mode)) {
      errno = ENOTDIR;
      return nullptr;
    }
    tevu_volume volume;
    if (tevu_locate_volume(&volume, resolved) != 1) {
      errno = ENOENT;
      return nullptr;
    }
    char root[kPathSize];
    format_cut(root, sizeof root, "%s", volume.prefix);
    const std::size_t n = strlen(root);
    if (n > 1) root[n - 1] = '\0';
    int v = w->volume_of_root(root);
    if (v < 0) v = w->add_volume(root, volume.db_path);
    if (v < 0) {
      errno = ENOMEM;
      return nullptr;
    }
    w->volumes[v]->in_roots = true;
    w->roots.append(resolved, strlen(resolved) + 1);
  }
  if (!w->roots.ok()) {
    errno = ENOMEM;
    return nullptr;
  }
  w->epoll.reset(epoll_create1(EPOLL_CLOEXEC));
  w->inotify.reset(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
  if (!w->epoll.valid() || !w->inotify.valid()) return nullptr;
  epoll_event ev = {};
  ev.events = EPOLLIN;
  ev.data.u32 = 1;
  if (epoll_ctl(w->epoll.get(), EPOLL_CTL_ADD, w->inotify.get(), &ev) != 0) return nullptr;
  // The mount table: readable (EPOLLPRI) when a file system comes or goes.
  w->mounts.reset(open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC));
  if (w->mounts.valid()) {
    ev.events = EPOLLPRI;
    ev.data.u32 = 2;
    if (epoll_ctl(w->epoll.get(), EPOLL_CTL_ADD, w->mounts.get(), &ev) != 0) w->mounts.reset();
  }
  if (w->all_volumes) {
    w->look_at_volumes();
  } else {
    for (std::size_t i = 0; i < w->volumes.size(); ++i) {
      if (w->take_up(static_cast<int>(i))) {
        w->tell(TEVU_WATCH_VOLUME_ADDED, w->volumes[i]->root, nullptr, 0, 0);
      }
    }
  }
  unsigned long unwatched = 0;
  for (std::size_t i = 0; i < w->volumes.size(); ++i) unwatched += w->volumes[i]->unwatched;
  if (unwatched > 0) {
    w->tell(TEVU_WATCH_UNWATCHED, nullptr, nullptr, ENOSPC, unwatched);
    w->unwatched_reported = unwatched;
  }
  return w.release();
}

extern "C" int tevu_watch_fd(const tevu_watch* watch) {
  return watch != nullptr ? watch->epoll.get() : -1;
}

extern "C" int tevu_watch_process(tevu_watch* w, int* timeout_ms) {
  if (w == nullptr) {
    if (timeout_ms != nullptr) *timeout_ms = -1;
    return EINVAL;
  }
  w->first_error = 0;
  epoll_event ready[4];
  const int n = epoll_wait(w->epoll.get(), ready, 4, 0);
  int64_t now = now_ms();
  for (int i = 0; i < n; ++i) {
    if (ready[i].data.u32 == 2) {
      for (int r = 0; r < kRescans; ++r) w->rescan[r] = now + kRescanDelaysMs[r];
    }
  }
  w->read_events();
  if (w->overflow) w->rebuild();
  now = now_ms();
  w->settle_halves(now, false);
  w->decide_deletions(now);
  bool look = false;
  for (int r = 0; r < kRescans; ++r) {
    if (w->rescan[r] != kNever && w->rescan[r] <= now) {
      w->rescan[r] = kNever;
      look = true;
    }
  }
  if (w->repair_all) {
    look = true;
    for (std::size_t i = 0; i < w->volumes.size(); ++i) w->volumes[i]->repair_due = true;
    w->repair_all = false;
  }
  if (look) w->look_at_volumes();
  unsigned long unwatched = 0;
  for (std::size_t i = 0; i < w->volumes.size(); ++i) {
    volume_state& v = *w->volumes[i];
    const int index = static_cast<int>(i);
    if (!v.active) continue;
    unwatched += v.unwatched;
    if (v.degraded_repair != kNever && v.degraded_repair <= now) {
      v.repair_due = true;
      v.degraded_repair = now + kDegradedRepairMs;
    }
    if (v.repair_due) {
      v.sync_due = kNever;
      w->repair(index);
    } else if (v.sync_due != kNever && v.sync_due <= now) {
      v.sync_due = kNever;
      w->sync_fingerprints(index);
    }
  }
  if (unwatched != w->unwatched_reported) {
    w->tell(TEVU_WATCH_UNWATCHED, nullptr, nullptr, unwatched > 0 ? ENOSPC : 0, unwatched);
    w->unwatched_reported = unwatched;
  }
  w->end_of_call();
  if (timeout_ms != nullptr) {
    const int64_t due = w->next_due();
    if (due == kNever) {
      *timeout_ms = -1;
    } else {
      const int64_t wait = due - now_ms();
      *timeout_ms = wait <= 0 ? 0 : wait > INT_MAX ? INT_MAX : static_cast<int>(wait);
    }
  }
  return w->first_error;
}

extern "C" void tevu_watch_repair(tevu_watch* watch) {
  if (watch != nullptr) watch->repair_all = true;
}

extern "C" void tevu_watch_counts(const tevu_watch* watch, unsigned long* dirs,
                                  unsigned long* volumes, unsigned long* unwatched) {
  unsigned long d = 0, v = 0, u = 0;
  if (watch != nullptr) {
    d = watch->watched;
    for (std::size_t i = 0; i < watch->volumes.size(); ++i) {
      if (!watch->volumes[i]->active) continue;
      ++v;
      u += watch->volumes[i]->unwatched;
    }
  }
  if (dirs != nullptr) *dirs = d;
  if (volumes != nullptr) *volumes = v;
  if (unwatched != nullptr) *unwatched = u;
}

extern "C" void tevu_watch_close(tevu_watch* watch) {
  if (watch != nullptr) object_deleter<tevu_watch>()(watch);
}
