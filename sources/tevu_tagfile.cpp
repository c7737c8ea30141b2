// Single tags through the mount: each tag of a file is the small file
// <mount>/meta/<canonical path without its leading "/">/<tag>, whose content
// is the value byte for byte. The daemon does the database work; the library
// only creates, reads, truncates or removes that file, and never creates the
// directories along the path.
// The module's functions are declared in tevul.h.
//
// The family's results: 0, ENOENT (no mount, a missing argument), EINVAL (a
// name that would leave its tag directory, or a tag directory that a planted
// link leads outside the mount), ENAMETOOLONG, or the errno of the failing
// system call. open_tag_dir() decides all but the last for every function
// of the family.
#include "tevul.h"

#include <errno.h>
#include <fcntl.h>
#include <glob.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "common.h"
#include "tevu_volume.h"

namespace {

// True when `name` (a tag name or a pattern over tag names) stays inside a
// file's tag directory: it holds no "/" and is neither "." nor "..". Any
// other name would address the daemon's own files (a volume's database
// link, the limits file) or another file's tags.
bool stays_in_tag_dir(const char* name) {
  return std::strchr(name, '/') == nullptr && std::strcmp(name, ".") != 0 &&
         std::strcmp(name, "..") != 0;
}

// Writes `text` into `out`, with "\\" before every character that glob()
// would take for a pattern, so that it matches only itself. Returns the
// length written, or -1 when it does not fit in `size` bytes.
int glob_quote(char* out, std::size_t size, const char* text) {
  std::size_t n = 0;
  for (const char* p = text; *p != '\0'; ++p) {
    const bool special = std::strchr("*?[]\\", *p) != nullptr;
    if (n + (special ? 2 : 1) >= size) return -1;
    if (special) out[n++] = '\\';
    out[n++] = *p;
  }
  out[n] = '\0';
  return static_cast<int>(n);
}

// The common start of the tag-file functions: the mount, the arguments, the
// canonical path, and the file's tag directory opened into *dir, its path in
// `dir_path` (tevul::kPathSize bytes). The tag directory is opened beneath
// the mount, every component from the descriptor of the one before and
// every link resolved by the library (tevul::open_dir_beneath()): a link
// planted in the daemon's tree, or swapped in while the call runs, never
// leads a read, write or removal outside the mount, and the tag file
// itself is then reached from that descriptor. Returns 0, ENOENT (no mount,
// a missing argument), EINVAL (a name that would leave the file's tag
// directory, the root directory, whose tag directory is the meta directory
// itself, or a tag directory outside the mount), ENAMETOOLONG, or the errno
// of realpath() or of the directory's open.
int open_tag_dir(const char* path, const char* tag, tevul::unique_fd* dir, char* dir_path) {
  const char* mount = tevu_find_mount();
  if (mount == nullptr) return ENOENT;
  if (tevul::is_empty(path) || tevul::is_empty(tag)) return ENOENT;
  if (!stays_in_tag_dir(tag)) return EINVAL;
  char canonical[tevul::kPathSize];
  if (realpath(path, canonical) == nullptr) return errno;
  if (std::strcmp(canonical, "/") == 0) return EINVAL;
  char rel[tevul::kPathSize];
  if (!tevul::format_whole(rel, sizeof rel, "meta/%s", canonical + 1)) return ENAMETOOLONG;
  const int rc = tevul::open_dir_beneath(-1, mount, rel, false, 0, dir, dir_path);
  // A tag name beside the directory's path must fit the daemon's buffer.
  if (rc == 0 && std::strlen(dir_path) + 1 + std::strlen(tag) >= tevul::kPathSize) {
    return ENAMETOOLONG;
  }
  return rc == ELOOP ? EINVAL : rc;
}

// Opens the tag file `tag` of the directory `dir` as a stream in `mode`
// ("r", or "w": created or truncated), never through a link at its place.
// Returns none with errno set when it cannot.
tevul::file_ptr open_tag_file(int dir, const char* tag, const char* mode) {
  const int flags = mode[0] == 'w' ? O_WRONLY | O_CREAT | O_TRUNC : O_RDONLY;
  tevul::unique_fd fd(openat(dir, tag, flags | O_NOFOLLOW | O_CLOEXEC, 0666));
  if (!fd.valid()) return nullptr;
  tevul::file_ptr file(fdopen(fd.get(), mode));
  if (file) fd.release();
  return file;
}

// True for a glob match that names the tag directory itself or its parent
// (a pattern such as ".*" matches "." and ".."): never a tag.
bool is_dot_entry(const char* match) {
  const char* base = std::strrchr(match, '/');
  base = base != nullptr ? base + 1 : match;
  return std::strcmp(base, ".") == 0 || std::strcmp(base, "..") == 0;
}

}  // namespace

extern "C" int tevu_settag(const char* path, const char* tag, const char* value) {
  tevul::unique_fd dir;
  char dir_path[tevul::kPathSize];
  if (const int rc = open_tag_dir(path, tag, &dir, dir_path)) return rc;
  tevul::file_ptr file = open_tag_file(dir.get(), tag, "w");
  if (!file) return errno;
  // What the daemon does with the value is its business: a value it refuses
  // on write or close still counts as written here.
  if (value != nullptr) std::fputs(value, file.get());
  return 0;
}

extern "C" int tevu_gettag(const char* path, const char* tag, char* buf,
                           size_t size) {
  if (buf == nullptr) return ENOENT;
  tevul::unique_fd dir;
  char dir_path[tevul::kPathSize];
  if (const int rc = open_tag_dir(path, tag, &dir, dir_path)) return rc;
  if (size == 0) return 0;  // room for nothing, not even the terminator
  tevul::file_ptr file = open_tag_file(dir.get(), tag, "r");
  if (!file) return errno;
  memset(buf, 0, size);
  // A shorter value leaves zeros behind it; a longer one is cut.
  const size_t ignored = std::fread(buf, size - 1, 1, file.get());
  (void)ignored;
  return 0;
}

extern "C" int tevu_deltag(const char* path, const char* tag) {
  tevul::unique_fd dir;
  char dir_path[tevul::kPathSize];
  if (const int rc = open_tag_dir(path, tag, &dir, dir_path)) return rc;
  return unlinkat(dir.get(), tag, 0) == 0 ? 0 : errno;
}

extern "C" int tevu_deltag_glob(const char* path, const char* pattern) {
  tevul::unique_fd dir;
  char dir_path[tevul::kPathSize];
  if (const int rc = open_tag_dir(path, pattern, &dir, dir_path)) return rc;
  // Only the pattern matches by pattern: the directory's path is quoted.
  char tag_file[tevul::kPathSize];
  const int len = glob_quote(tag_file, sizeof tag_file - 1, dir_path);
  if (len < 0 || static_cast<std::size_t>(len) + 1 + std::strlen(pattern) >= sizeof tag_file) {
    return ENAMETOOLONG;
  }
  tag_file[len] = '/';
  std::memcpy(tag_file + len + 1, pattern, std::strlen(pattern) + 1);
  glob_t matches;
  const int rc = glob(tag_file, GLOB_NOSORT, nullptr, &matches);
  tevul::glob_ptr release(&matches);
  // glob's own code is never returned: with no match the result is errno as
  // it stands, as callers have always seen it.
  if (rc != 0) return errno;
  for (size_t i = 0; i < matches.gl_pathc; ++i) {
    if (is_dot_entry(matches.gl_pathv[i])) continue;
    // The names glob() listed are removed from the directory opened above,
    // whatever the path leads to by now.
    const char* name = std::strrchr(matches.gl_pathv[i], '/');
    if (unlinkat(dir.get(), name != nullptr ? name + 1 : matches.gl_pathv[i], 0) != 0) {
      return errno;
    }
  }
  return 0;
}
