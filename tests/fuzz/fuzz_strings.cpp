// Fuzzes the string utilities against plain reference versions. The input
// is split at its first two NUL bytes into a string, a pattern and a
// replacement.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "tevul.h"

namespace {

std::string replace_all(const std::string& s, const std::string& from,
                        const std::string& to) {
  std::string out;
  for (size_t i = 0; i < s.size();) {
    if (s.compare(i, from.size(), from) == 0) {
      out += to;
      i += from.size();
    } else {
      out += s[i++];
    }
  }
  return out;
}

bool ends_with(const std::string& s, const std::string& x) {
  return s.size() >= x.size() && s.compare(s.size() - x.size(), x.size(), x) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  const size_t a = input.find('\0');
  const size_t b = a == std::string::npos ? a : input.find('\0', a + 1);
  const std::string s = input.substr(0, a);
  const std::string p = a == std::string::npos ? "" : input.substr(a + 1, b - a - 1);
  std::string r = b == std::string::npos ? "" : input.substr(b + 1);
  r = r.substr(0, r.find('\0'));
  // Exact-size copies, so that any read past a terminator is caught.
  std::vector<char> sv(s.c_str(), s.c_str() + s.size() + 1);
  std::vector<char> pv(p.c_str(), p.c_str() + p.size() + 1);
  const char* sc = sv.data();
  const char* pc = pv.data();

  if (fsutil_infix_match(sc, pc) != (s.find(p) != std::string::npos)) abort();
  if (fsutil_suffix_match(sc, pc) != ends_with(s, p)) abort();
  const std::string rest = s.empty() ? "" : s.substr(1);
  if (fsutil_prefix_match(sc, pc, 1) != (rest == p)) abort();
  if (fsutil_prefix_match(sc, pc, 0) != (rest.compare(0, p.size(), p) == 0)) abort();
  if (fsutil_prefix_match_len(sc, pc, r.size()) !=
      (rest.substr(0, r.size()) == p.substr(0, r.size()))) {
    abort();
  }
  if (fsutil_dentrylen(sc) != std::min(s.find('/'), s.size())) abort();
  const char* base = fsutil_basename(sc);
  const size_t slash = s.rfind('/');
  if (s.empty() ? std::strcmp(base, ".") != 0
                : slash == std::string::npos ? base != nullptr
                                             : base != sc + slash + 1) {
    abort();
  }

  if (!p.empty()) {
    std::vector<char> buf(sv);
    const int rc = fsutil_string_replace(buf.data(), pc, r.c_str());
    if (r.size() > p.size()) {
      if (rc != 0 || std::strcmp(buf.data(), sc) != 0) abort();
    } else if (rc != 1 || buf.data() != replace_all(s, p, r)) {
      abort();
    }
  }
  return 0;
}
