#include "sandbox.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <chrono>
#include <cstring>
#include <fstream>
#include <sstream>
#include <algorithm>
#include <filesystem>
#include <thread>
#include <vector>

namespace tevul_test {

namespace {

constexpr const char* kFuseOptions =
    "allow_other,minfreespace=0,category.create=ff,cache.files=off,"
    "cache.attr=0,cache.entry=0,cache.negative_entry=0";

std::string errno_text(const std::string& what) { return what + ": " + std::strerror(errno); }

// Whether a file system is mounted at `dir`: it lies on another device than
// its parent.
bool is_mounted(const std::string& dir) {
  struct stat here, parent;
  return stat(dir.c_str(), &here) == 0 && stat((dir + "/..").c_str(), &parent) == 0 &&
         here.st_dev != parent.st_dev;
}

}  // namespace

std::string create_tag_db(const std::string& file) {
  std::remove(file.c_str());
  sqlite3* db = nullptr;
  const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_PRIVATECACHE;
  int rc = sqlite3_open_v2(file.c_str(), &db, flags, nullptr);
  if (rc == SQLITE_OK) {
    rc = sqlite3_exec(db, "CREATE TABLE Meta(Path TEXT UNIQUE, Data TEXT)", nullptr, nullptr,
                      nullptr);
  }
  sqlite3_close(db);
  return rc == SQLITE_OK ? "" : "cannot create " + file;
}

bool write_file(const std::string& file, const std::string& text) {
  const std::size_t slash = file.rfind('/');
  if (slash != std::string::npos && slash > 0 && !make_dirs(file.substr(0, slash))) return false;
  std::ofstream out(file, std::ios::binary | std::ios::trunc);
  out << text;
  return static_cast<bool>(out);
}

std::string read_file(const std::string& file) {
  std::ifstream in(file, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

bool make_dirs(const std::string& dir) {
  std::error_code ec;
  std::filesystem::create_directories(dir, ec);
  return !ec;
}

std::string Sandbox::unavailable_reason() {
  if (geteuid() != 0) {
    return "needs root: the tests build a private mount namespace with tmpfs "
           "and FUSE mounts";
  }
  if (std::system("command -v mergerfs >/dev/null") != 0) {
    return "needs mergerfs (Debian package mergerfs)";
  }
  if (access("/dev/fuse", R_OK | W_OK) != 0) return "needs /dev/fuse";
  return "";
}

std::string Sandbox::start(const std::vector<std::string>& volumes,
                           bool mount_tag_fs) {
  if (std::string why = unavailable_reason(); !why.empty()) return why;
  if (unshare(CLONE_NEWNS) != 0) return errno_text("unshare(CLONE_NEWNS)");
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    return errno_text("making / private");
  }
  // The directories the sandbox covers with fresh tmpfs mounts would hide
  // a checkout or build tree that lies below them (the tool, the shared
  // library, a sysroot): such trees are held open now and mounted back in
  // place once the tmpfs mounts stand.
  std::vector<std::string> covered = {"/tmp"};
  for (const auto& v : volumes) covered.push_back(volume_root(v));
  std::vector<std::pair<std::string, int>> kept;
  // TEVUL_KEPT_TREES, set by the build: the checkout and the build tree.
  std::stringstream trees(TEVUL_KEPT_TREES);
  for (std::string tree; std::getline(trees, tree, ':');) {
    for (const std::string& dir : covered) {
      if (tree.empty() || tree.compare(0, dir.size() + 1, dir + "/") != 0) continue;
      const int fd = open(tree.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
      if (fd < 0) return errno_text("holding " + tree);
      kept.emplace_back(tree, fd);
    }
  }
  if (mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777") != 0) {
    return errno_text("mounting tmpfs on /tmp");
  }
  // The library reads /etc/mtab. A full system has it as a link to the
  // kernel's table; a minimal root file system may not, so supply the same
  // link privately, through an overlay on /etc, leaving the host as it is.
  if (access("/etc/mtab", F_OK) != 0) {
    if (!make_dirs("/tmp/.etc-upper") || !make_dirs("/tmp/.etc-work") ||
        mount("overlay", "/etc", "overlay", 0,
              "lowerdir=/etc,upperdir=/tmp/.etc-upper,workdir=/tmp/.etc-work") != 0 ||
        symlink("../proc/self/mounts", "/etc/mtab") != 0) {
      return errno_text("providing /etc/mtab");
    }
  }
  for (const auto& v : volumes) {
    const std::string root = volume_root(v);
    if (mount("tmpfs", root.c_str(), "tmpfs", 0, "mode=755") != 0) {
      return errno_text("mounting tmpfs on " + root);
    }
  }

  for (const auto& [tree, fd] : kept) {
    const std::string held = "/proc/self/fd/" + std::to_string(fd);
    const bool back = make_dirs(tree) &&
                      mount(held.c_str(), tree.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0;
    close(fd);
    if (!back) return errno_text("mounting " + tree + " back");
  }

  const std::string backing = kBacking;
  if (!make_dirs(backing + "/meta/.info") || !make_dirs(backing + "/.tagfiles") ||
      !make_dirs(backing + "/view/.config") || !make_dirs(kMount)) {
    return errno_text("creating the backing directory");
  }
  for (const auto& v : volumes) {
    if (!make_dirs(backing + "/.tagfiles/" + v)) return errno_text("tag file dir");
    if (symlink(("../.tagfiles/" + v).c_str(), (meta_backing() + "/" + v).c_str()) != 0 ||
        symlink(db_path(v).c_str(), (meta_backing() + "/" + v + "@@db").c_str()) != 0) {
      return errno_text("volume links of " + v);
    }
    if (std::string err = create_tag_db(db_path(v)); !err.empty()) return err;
  }
  write_limits("TAG_NAME_MAX=64\nTAG_VALUE_MAX=160\n");

  const std::string fifo = std::string("/tmp/.tevu/") + kMount + "/action_trigger";
  if (!make_dirs(fifo.substr(0, fifo.rfind('/'))) || mkfifo(fifo.c_str(), 0666) != 0) {
    return errno_text("creating the FIFO");
  }
  fifo_reader_ = open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fifo_reader_ < 0) return errno_text("opening the FIFO");

  return mount_tag_fs ? mount_fuse(backing, kMount, "tevu") : "";
}

std::string Sandbox::mount_fuse(const std::string& backing,
                                const std::string& mount_point,
                                const std::string& fsname) {
  if (!make_dirs(mount_point)) return errno_text("creating " + mount_point);
  const std::string options = "fsname=" + fsname + "," + kFuseOptions;
  const pid_t pid = fork();
  if (pid < 0) return errno_text("fork");
  if (pid == 0) {
    // The daemon dies with the test process, which ends the namespace.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int null = open("/dev/null", O_WRONLY);
    if (null >= 0) {
      dup2(null, STDOUT_FILENO);
      dup2(null, STDERR_FILENO);
    }
    execlp("mergerfs", "mergerfs", "-f", "-o", options.c_str(),
           backing.c_str(), mount_point.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  fuse_daemons_.push_back(pid);
  fuse_mounts_.push_back(mount_point);
  for (int i = 0; i < 1000; ++i) {
    if (is_mounted(mount_point)) return "";
    int status;
    if (waitpid(pid, &status, WNOHANG) == pid) {
      return "mergerfs exited before mounting " + mount_point;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return "mergerfs did not mount " + mount_point + " within 10 s";
}

void Sandbox::unmount_tag_fs() {
  umount2(kMount, MNT_DETACH);
}

Sandbox::~Sandbox() {
  for (auto it = fuse_mounts_.rbegin(); it != fuse_mounts_.rend(); ++it) {
    umount2(it->c_str(), MNT_DETACH);
  }
  for (pid_t pid : fuse_daemons_) {
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
  }
  if (fifo_reader_ >= 0) close(fifo_reader_);
}

void Sandbox::write_limits(const std::string& text) {
  write_file(meta_backing() + "/.info/limits.txt", text);
}

void Sandbox::remove_limits() {
  unlink((meta_backing() + "/.info/limits.txt").c_str());
}

void Sandbox::write_ini(const std::string& text) {
  write_file("/tmp/.tevu/tevu.ini", text);
}

std::string Sandbox::replace_mtab(const std::string& text) {
  // An overlay on /etc, so the file (or link) below stays as it is.
  const std::string dir = "/tmp/.mtab";
  if (!make_dirs(dir + "/upper") || !make_dirs(dir + "/work") ||
      mount("overlay", "/etc", "overlay", 0,
            ("lowerdir=/etc,upperdir=" + dir + "/upper,workdir=" + dir + "/work")
                .c_str()) != 0) {
    return errno_text("overlay on /etc");
  }
  unlink("/etc/mtab");  // never write through the link to the kernel's table
  return write_file("/etc/mtab", text) ? "" : errno_text("writing /etc/mtab");
}

int Sandbox::drain_fifo() {
  int count = 0;
  bool all_zero = true;
  char buf[256];
  for (ssize_t n; (n = read(fifo_reader_, buf, sizeof buf)) > 0;) {
    for (ssize_t i = 0; i < n; ++i) all_zero &= buf[i] == '\0';
    count += static_cast<int>(n);
  }
  return all_zero ? count : -1;
}

int exit_status(pid_t pid) {
  int status = 0;
  if (waitpid(pid, &status, 0) != pid) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string tree_snapshot(const std::string& dir) {
  namespace fs = std::filesystem;
  std::vector<std::string> entries;
  std::error_code ec;
  for (fs::recursive_directory_iterator it(dir, ec), end; !ec && it != end;
       it.increment(ec)) {
    const fs::path& p = it->path();
    std::string line = p.string();
    if (it->is_symlink()) {
      line += " -> " + fs::read_symlink(p, ec).string();
    } else if (it->is_regular_file()) {
      line += " = " + read_file(p.string());
    } else if (it->is_directory()) {
      line += "/";
    }
    entries.push_back(line);
  }
  std::sort(entries.begin(), entries.end());
  std::string text;
  for (const std::string& e : entries) text += e + "\n";
  return text;
}

}  // namespace tevul_test
