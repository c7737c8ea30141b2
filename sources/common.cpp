// The growable text buffer. See common.h.
#include "common.h"

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

}  // namespace tevul
