// The growable text buffer. See common.h.
#include "common.h"

#include <errno.h>
#include <fcntl.h>

namespace tevul {

bool text::reserve(std::size_t extra) {
  if (failed_) return false;
  if (extra > SIZE_MAX / 2 - size_) {
    failed_ = true;
    return false;
  }
  const std::size_t need = size_ + extra + 1;
  if (need <= capacity_) return true;
  std::size_t grown = capacity_ < 64 ? 64 : capacity_;
  while (grown < need) grown *= 2;
  void* more = std::realloc(data_, grown);
  if (more == nullptr) {
    failed_ = true;
    return false;
  }
  data_ = static_cast<char*>(more);
  data_[size_] = '\0';
  capacity_ = grown;
  return true;
}

text& text::append(const char* bytes, std::size_t n) {
  if (!reserve(n)) return *this;
  std::memcpy(data_ + size_, bytes, n);
  size_ += n;
  data_[size_] = '\0';
  return *this;
}

text& text::appendf(const char* format, ...) {
  va_list args;
  va_start(args, format);
  char small[128];
  const int len = std::vsnprintf(small, sizeof small, format, args);
  va_end(args);
  if (len < 0) {
    failed_ = true;
    return *this;
  }
  if (static_cast<std::size_t>(len) < sizeof small) {
    return append(small, static_cast<std::size_t>(len));
  }
  if (!reserve(static_cast<std::size_t>(len))) return *this;
  va_start(args, format);
  std::vsnprintf(data_ + size_, static_cast<std::size_t>(len) + 1, format, args);
  va_end(args);
  size_ += static_cast<std::size_t>(len);
  return *this;
}

text& text::replace_all(const char* from, const char* to) {
  const std::size_t from_len = std::strlen(from);
  if (failed_ || from_len == 0 || size_ == 0) return *this;
  const std::size_t to_len = std::strlen(to);
  text out;
  std::size_t i = 0;
  while (i < size_) {
    if (size_ - i >= from_len && std::memcmp(data_ + i, from, from_len) == 0) {
      out.append(to, to_len);
      i += from_len;
    } else {
      out.push(data_[i++]);
    }
  }
  if (!out.ok()) {
    failed_ = true;
    return *this;
  }
  std::free(data_);
  data_ = out.data_;
  size_ = out.size_;
  capacity_ = out.capacity_;
  out.data_ = nullptr;
  return *this;
}

namespace {

int compare_entry_names(const void* a, const void* b) {
  return strcmp(*static_cast<const char* const*>(a), *static_cast<const char* const*>(b));
}

// One directory of a walk: its descriptor, its entries' names in name order
// and the next one to visit. Its stream is closed once the names are read
// (a stream holds a buffer of up to 32 KiB).
struct walk_dir {
  unique_fd fd;
  text arena;
  array<const char*> names;
  std::size_t next = 0;
  std::size_t base = 0;  // the length of the directory's own path
};

// Reads the directory `fd` (taken over) into a new walk_dir; null with
// errno when it cannot.
object_ptr<walk_dir> read_walk_dir(int fd, std::size_t base) {
  object_ptr<walk_dir> d = make_object<walk_dir>();
  if (!d) {
    close(fd);
    errno = ENOMEM;
    return nullptr;
  }
  d->fd.reset(fd);
  const int stream_fd = dup(fd);
  dir_ptr stream(stream_fd >= 0 ? fdopendir(stream_fd) : nullptr);
  if (!stream) {
    const int error = errno;
    if (stream_fd >= 0) close(stream_fd);
    errno = error;
    return nullptr;
  }
  array<std::size_t> offsets;
  while (const dirent* entry = readdir(stream.get())) {
    if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
    if (!offsets.push(d->arena.size())) return errno = ENOMEM, nullptr;
    d->arena.append(entry->d_name).push('\0');
  }
  if (!d->arena.ok()) return errno = ENOMEM, nullptr;
  for (std::size_t i = 0; i < offsets.size(); ++i) {
    if (!d->names.push(d->arena.c_str() + offsets[i])) return errno = ENOMEM, nullptr;
  }
  d->names.sort(compare_entry_names);
  d->base = base;
  return d;
}

}  // namespace

int walk_below(const char* root, walk_answer (*visit)(void* user, const char* path,
                                                      const struct stat& st),
               void (*unreadable)(void* user, const char* path, int error), void* user) {
  text path;
  path.append(root);
  while (path.size() > 1 && path.c_str()[path.size() - 1] == '/') path.truncate(path.size() - 1);
  if (!path.ok()) return ENOMEM;
  const int top = open(root, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (top < 0) return errno;
  array<walk_dir*> open_dirs;
  int rc = 0;
  {
    object_ptr<walk_dir> first = read_walk_dir(top, path.size());
    if (!first) return errno;
    if (!open_dirs.push(first.get())) return ENOMEM;
    first.release();
  }
  while (!open_dirs.empty()) {
    walk_dir* d = open_dirs[open_dirs.size() - 1];
    if (rc != 0 || d->next == d->names.size()) {
      open_dirs.truncate(open_dirs.size() - 1);
      object_ptr<walk_dir> done(d);
      continue;
    }
    const char* name = d->names[d->next++];
    path.truncate(d->base);
    if (d->base > 1) path.push('/');
    path.append(name);
    if (!path.ok()) {
      rc = ENOMEM;
      continue;
    }
    struct stat st;
    if (fstatat(d->fd.get(), name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
    const walk_answer answer = visit(user, path.c_str(), st);
    if (answer == walk_stop) {
      rc = -1;
      continue;
    }
    if (answer != walk_enter || !S_ISDIR(st.st_mode)) continue;
    const int child = openat(d->fd.get(), name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    object_ptr<walk_dir> sub = child >= 0 ? read_walk_dir(child, path.size()) : nullptr;
    if (!sub) {
      if (errno == ENOMEM) {
        rc = ENOMEM;
      } else if (unreadable != nullptr) {
        unreadable(user, path.c_str(), errno);
      }
      continue;
    }
    if (!open_dirs.push(sub.get())) {
      rc = ENOMEM;
      continue;
    }
    sub.release();
  }
  return rc;
}

}  // namespace tevul
