// `tevu import` and `tevu export`: tags of many files as records, one file
// per line, "PATH<TAB>NAME=VALUE[<TAB>NAME=VALUE...]", each field escaped by
// escape_field() (see cli.h) so that values may hold any byte but NUL, or as
// JSON lines.
#include <errno.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "cli.h"

namespace tevu_cli {

namespace {

volatile sig_atomic_t g_interrupted = 0;

void on_interrupt(int) { g_interrupted = 1; }

// The longest record read: a path (4,094 bytes) and the tags of one file
// fit many times over; a longer one (a file that is no record list, a
// missing line feed) is skipped and reported, so that no input makes the
// import hold more than this of it.
constexpr std::size_t kMaxRecord = 1024 * 1024;

// Reads the next record up to `delimiter` (not kept) into `out`. Returns
// false at the end of the input. A record longer than kMaxRecord is read to
// its end but not kept: *too_long is set and `out` is left empty.
bool read_record(int delimiter, tevul::text* out, bool* too_long) {
  out->clear();
  *too_long = false;
  bool any = false;
  flockfile(stdin);
  for (int c; (c = getc_unlocked(stdin)) != EOF;) {
    any = true;
    if (c == delimiter) break;
    if (*too_long) continue;
    if (out->size() >= kMaxRecord) {
      *too_long = true;
      out->clear();
      continue;
    }
    out->push(static_cast<char>(c));
  }
  funlockfile(stdin);
  return any;
}

// The records left to read on standard input when it is a regular file
// (read from its current offset without moving it), or 0 when unknown.
// Comment lines are no records.
unsigned long count_records(int delimiter) {
  struct stat st;
  if (fstat(STDIN_FILENO, &st) != 0 || !S_ISREG(st.st_mode)) return 0;
  off_t at = lseek(STDIN_FILENO, 0, SEEK_CUR);
  if (at < 0) return 0;
  unsigned long records = 0;
  bool open_record = false, comment = false;
  char buf[65536];
  for (;;) {
    const ssize_t n = pread(STDIN_FILENO, buf, sizeof buf, at);
    if (n <= 0) break;
    at += n;
    for (ssize_t i = 0; i < n; ++i) {
      if (buf[i] == delimiter) {
        records += open_record && !comment ? 1 : 0;
        open_record = comment = false;
      } else {
        if (!open_record) comment = delimiter == '\n' && buf[i] == '#';
        open_record = true;
      }
    }
  }
  return records + (open_record && !comment ? 1 : 0);
}

// The paths imported so far, to count each file once however many records
// name it: a set of their hashes (a collision would count a file too few).
class PathSet {
 public:
  ~PathSet() { free(slots_); }
  // Adds `path`; true when it was not there yet.
  bool add(const char* path) {
    uint64_t hash = 1469598103934665603ull;
    for (const char* p = path; *p != '\0'; ++p) {
      hash = (hash ^ static_cast<unsigned char>(*p)) * 1099511628211ull;
    }
    if (hash == 0) hash = 1;
    if (2 * (size_ + 1) > capacity_ && !grow()) return true;
    for (std::size_t i = hash & (capacity_ - 1);; i = (i + 1) & (capacity_ - 1)) {
      if (slots_[i] == hash) return false;
      if (slots_[i] == 0) {
        slots_[i] = hash;
        ++size_;
        return true;
      }
    }
  }

 private:
  bool grow() {
    const std::size_t capacity = capacity_ == 0 ? 1024 : 2 * capacity_;
    uint64_t* slots = static_cast<uint64_t*>(calloc(capacity, sizeof(uint64_t)));
    if (slots == nullptr) return false;
    for (std::size_t i = 0; i < capacity_; ++i) {
      if (slots_[i] == 0) continue;
      std::size_t j = slots_[i] & (capacity - 1);
      while (slots[j] != 0) j = (j + 1) & (capacity - 1);
      slots[j] = slots_[i];
    }
    free(slots_);
    slots_ = slots;
    capacity_ = capacity;
    return true;
  }
  uint64_t* slots_ = nullptr;
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;
};

// One record, decoded: the path and the tags, each a terminated string.
struct Record {
  text path;
  text arena;
  array<std::size_t> offsets;  // per tag: name, value
  std::size_t tags() const { return offsets.size() / 2; }
  const char* name(std::size_t i) const { return arena.c_str() + offsets[2 * i]; }
  const char* value(std::size_t i) const { return arena.c_str() + offsets[2 * i + 1]; }
  void clear() {
    path.clear();
    arena.clear();
    offsets.clear();
  }
};

// What an import keeps across records.
struct Import {
  bool nul = false, quiet = false, dry_run = false, json = false, strip = false;
  tevul::bulk_ptr ctx;
  // A dry run asks through a reader what the run's bulk context would
  // find: the file, its volume, the volume's database.
  tevul::reader_ptr reader;
  Progress* progress = nullptr;
  PathSet seen;
  unsigned long line = 0, files = 0, tags = 0, failures = 0;
  char where[32];

  void fail(const char* path, const char* field, const char* reason) {
    progress->clear();
    report({"import", where, path, field}, reason);
    ++failures;
  }
};

constexpr char kKnownEscapes[] = " (known: \\t \\n \\r \\\\ \\=)";

// Decodes a text record into `r`. Returns false after reporting.
bool decode_text(Import* im, const char* line, std::size_t len, Record* r) {
  text bad, scratch;
  const char* tab = static_cast<const char*>(memchr(line, '\t', len));
  const std::size_t path_len = tab != nullptr ? static_cast<std::size_t>(tab - line) : len;
  if (!unescape_field(line, path_len, &r->path, &bad)) {
    scratch.append(line, path_len);
    scratch.appendf(": bad escape '%s' in the path%s", bad.c_str(), kKnownEscapes);
    im->fail(nullptr, nullptr, scratch.c_str());
    return false;
  }
  if (r->path.empty()) {
    im->fail(nullptr, nullptr, "malformed line (empty path)");
    return false;
  }
  if (tab == nullptr) {
    im->fail(r->path.c_str(), nullptr,
             "malformed line (no tags: expected PATH<TAB>NAME=VALUE[<TAB>NAME=VALUE...])");
    return false;
  }
  for (const char* field = tab + 1; field <= line + len;) {
    const char* end = static_cast<const char*>(memchr(field, '\t', line + len - field));
    if (end == nullptr) end = line + len;
    text shown;
    shown.append(field, static_cast<std::size_t>(end - field));
    // The name ends at the first "=" that no backslash escapes.
    const char* eq = nullptr;
    for (const char* p = field; p < end && eq == nullptr; ++p) {
      if (*p == '\\') {
        ++p;
      } else if (*p == '=') {
        eq = p;
      }
    }
    if (eq == nullptr || eq == field) {
      im->fail(r->path.c_str(), shown.c_str(), "malformed field (expected NAME=VALUE)");
      return false;
    }
    r->offsets.push(r->arena.size());
    if (!unescape_field(field, static_cast<std::size_t>(eq - field), &r->arena, &bad)) {
      scratch.clear();
      scratch.appendf("bad escape '%s'%s", bad.c_str(), kKnownEscapes);
      im->fail(r->path.c_str(), shown.c_str(), scratch.c_str());
      return false;
    }
    r->arena.push('\0');
    r->offsets.push(r->arena.size());
    if (!unescape_field(eq + 1, static_cast<std::size_t>(end - eq - 1), &r->arena, &bad)) {
      scratch.clear();
      scratch.appendf("bad escape '%s'%s", bad.c_str(), kKnownEscapes);
      im->fail(r->path.c_str(), shown.c_str(), scratch.c_str());
      return false;
    }
    r->arena.push('\0');
    field = end + 1;
  }
  return true;
}

// A JSON line as `tevu export --json` writes it.
class JsonReader {
 public:
  JsonReader(const char* s, std::size_t n) : s_(s), end_(s + n) {}
  std::size_t offset(const char* base) const { return static_cast<std::size_t>(at_ - base); }
  const char* at() const { return at_; }

  void blank() {
    while (at_ < end_ && (*at_ == ' ' || *at_ == '\t' || *at_ == '\r' || *at_ == '\n')) ++at_;
  }
  bool literal(char c) {
    blank();
    if (at_ >= end_ || *at_ != c) return false;
    ++at_;
    return true;
  }
  // Reads a number into `out` as its JSON text stands ("stars":5 stores
  // "5", 1e2 stores "1e2"): RFC 8259's grammar, nothing else.
  bool number(text* out) {
    blank();
    const char* start = at_;
    if (at_ < end_ && *at_ == '-') ++at_;
    if (at_ < end_ && *at_ == '0') {
      ++at_;
    } else if (!digits()) {
      at_ = start;
      return false;
    }
    if (at_ < end_ && *at_ == '.') {
      ++at_;
      if (!digits()) return false;
    }
    if (at_ < end_ && (*at_ == 'e' || *at_ == 'E')) {
      ++at_;
      if (at_ < end_ && (*at_ == '+' || *at_ == '-')) ++at_;
      if (!digits()) return false;
    }
    out->append(start, static_cast<std::size_t>(at_ - start));
    return true;
  }
  // True when an array starts here (a tag takes one value).
  bool array_ahead() {
    blank();
    return at_ < end_ && *at_ == '[';
  }
  // Reads a string into `out`: "\udcXX" gives back the byte XX.
  bool string(text* out) {
    blank();
    if (at_ >= end_ || *at_ != '"') return false;
    for (++at_; at_ < end_ && *at_ != '"'; ++at_) {
      if (static_cast<unsigned char>(*at_) < 0x20) return false;
      if (*at_ != '\\') {
        out->push(*at_);
        continue;
      }
      if (++at_ >= end_) return false;
      switch (*at_) {
        case '"': case '\\': case '/': out->push(*at_); break;
        case 'b': out->push('\b'); break;
        case 'f': out->push('\f'); break;
        case 'n': out->push('\n'); break;
        case 'r': out->push('\r'); break;
        case 't': out->push('\t'); break;
        case 'u': {
          unsigned code = 0;
          if (!hex4(&code)) return false;
          if (code >= 0xDC80 && code <= 0xDCFF) {
            out->push(static_cast<char>(code - 0xDC00));  // a raw byte
            break;
          }
          if (code >= 0xD800 && code <= 0xDBFF) {
            unsigned low = 0;
            if (end_ - at_ < 7 || at_[1] != '\\' || at_[2] != 'u') return false;
            at_ += 2;
            if (!hex4(&low) || low < 0xDC00 || low > 0xDFFF) return false;
            code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
          } else if (code >= 0xDC00 && code <= 0xDFFF) {
            return false;
          }
          if (code == 0) return false;  // no NUL in a name or value
          utf8(code, out);
          break;
        }
        default:
          return false;
      }
    }
    if (at_ >= end_) return false;
    ++at_;
    return true;
  }

 private:
  bool hex4(unsigned* code) {
    if (end_ - at_ < 5) return false;
    for (int i = 1; i <= 4; ++i) {
      const char c = at_[i];
      const int digit = c >= '0' && c <= '9' ? c - '0'
                        : c >= 'a' && c <= 'f' ? c - 'a' + 10
                        : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                               : -1;
      if (digit < 0) return false;
      *code = *code * 16 + static_cast<unsigned>(digit);
    }
    at_ += 4;
    return true;
  }
  static void utf8(unsigned code, text* out) {
    if (code < 0x80) {
      out->push(static_cast<char>(code));
    } else if (code < 0x800) {
      out->push(static_cast<char>(0xC0 | (code >> 6))).push(static_cast<char>(0x80 | (code & 0x3F)));
    } else if (code < 0x10000) {
      out->push(static_cast<char>(0xE0 | (code >> 12)))
          .push(static_cast<char>(0x80 | ((code >> 6) & 0x3F)))
          .push(static_cast<char>(0x80 | (code & 0x3F)));
    } else {
      out->push(static_cast<char>(0xF0 | (code >> 18)))
          .push(static_cast<char>(0x80 | ((code >> 12) & 0x3F)))
          .push(static_cast<char>(0x80 | ((code >> 6) & 0x3F)))
          .push(static_cast<char>(0x80 | (code & 0x3F)));
    }
  }

  bool digits() {
    const char* start = at_;
    while (at_ < end_ && *at_ >= '0' && *at_ <= '9') ++at_;
    return at_ > start;
  }

  const char* s_;
  const char* at_ = s_;
  const char* end_;
};

// Decodes a JSON record into `r`. Returns false after reporting.
bool decode_json(Import* im, const char* line, std::size_t len, Record* r) {
  JsonReader json(line, len);
  bool path = false, tags = false, array = false;
  text key;
  bool ok = json.literal('{');
  while (ok) {
    key.clear();
    ok = json.string(&key) && json.literal(':');
    if (!ok) break;
    if (strcmp(key.c_str(), "path") == 0 && !path) {
      ok = json.string(&r->path);
      path = true;
    } else if (strcmp(key.c_str(), "tags") == 0 && !tags) {
      tags = true;
      ok = json.literal('{');
      if (ok && !json.literal('}')) {
        do {
          r->offsets.push(r->arena.size());
          ok = json.string(&r->arena) && json.literal(':');
          r->arena.push('\0');
          r->offsets.push(r->arena.size());
          // A value is a string or a number, taken as its text.
          if (ok && json.array_ahead()) {
            ok = false;
            array = true;
          }
          ok = ok && (json.string(&r->arena) || json.number(&r->arena));
          r->arena.push('\0');
        } while (ok && json.literal(','));
        ok = ok && json.literal('}');
      }
    } else {
      ok = false;
      break;
    }
    if (json.literal('}')) break;
    ok = ok && json.literal(',');
  }
  json.blank();
  if (ok && path && tags && json.at() == line + len && !r->path.empty() && r->tags() > 0) {
    return true;
  }
  text reason;
  if (ok && path && tags && r->tags() == 0) {
    reason.append("malformed record (no tags)");
  } else if (array) {
    reason.appendf("an array at character %zu: a tag takes one value (a string or a number)",
                   json.offset(line) + 1);
  } else {
    reason.appendf("malformed JSON at character %zu (expected {\"path\":...,\"tags\":{...}})",
                   json.offset(line) + 1);
  }
  im->fail(r->path.empty() ? nullptr : r->path.c_str(), nullptr, reason.c_str());
  return false;
}

int ignore_tag(void*, const char*, const char*) { return 0; }

// Imports one record. A record with a malformed field sets nothing; a tag
// that cannot be stored is reported and the others are stored. The file
// is committed at once, so that its tags are counted only once stored.
void import_record(Import* im, const char* line, std::size_t len) {
  tevul::format_cut(im->where, sizeof im->where, "line %lu", im->line);
  if (memchr(line, '\0', len) != nullptr) {
    im->fail(nullptr, nullptr, "the line holds a NUL byte");
    return;
  }
  Record r;
  if (!(im->json ? decode_json(im, line, len, &r) : decode_text(im, line, len, &r))) return;
  const char* path = r.path.c_str();
  text scratch;
  array<std::size_t> storable;
  for (std::size_t i = 0; i < r.tags(); ++i) {
    const char* refusal = restore_refusal(r.name(i), &scratch);
    if (refusal == nullptr) refusal = value_refusal(r.name(i), r.value(i), im->strip, &scratch);
    if (refusal != nullptr) {
      im->fail(path, r.name(i), refusal);
    } else {
      storable.push(i);
    }
  }
  if (im->dry_run) {
    if (!im->reader) im->reader.reset(tevu_reader_open());
    const int rc = im->reader
                       ? tevu_reader_file_tags(im->reader.get(), path, ignore_tag, nullptr)
                       : ENOMEM;
    const int unread = rc == ENOENT ? failed_volume_of(path) : rc;
    if (unread != 0) {
      text reason;
      reason.appendf("tag database could not be read: %s", errno_reason(unread));
      im->fail(path, nullptr, reason.c_str());
      return;
    }
    if (rc == ENOENT) {
      im->fail(path, nullptr, setpath_reason(path));
      return;
    }
    if (storable.empty()) return;
    emit_field(path, im->nul);
    im->files += im->seen.add(path) ? 1 : 0;
    im->tags += storable.size();
    return;
  }
  if (storable.empty()) return;
  if (tevu_bulk_setpath(im->ctx.get(), path) != 0) {
    im->fail(path, nullptr, setpath_reason(path));
    return;
  }
  unsigned long stored = 0;
  for (std::size_t k = 0; k < storable.size(); ++k) {
    const std::size_t i = storable[k];
    const int rc = tevu_bulk_settag(im->ctx.get(), r.name(i), r.value(i));
    if (rc != 0) {
      im->fail(path, r.name(i), bulk_reason(rc, r.name(i), &scratch));
      continue;
    }
    ++stored;
  }
  im->progress->clear();
  if (!commit_file(im->ctx, path)) {
    ++im->failures;
    return;
  }
  if (stored > 0) im->files += im->seen.add(path) ? 1 : 0;
  im->tags += stored;
}

bool import_option(void* user, int c, const char*) {
  Import* im = static_cast<Import*>(user);
  switch (c) {
    case '0': im->nul = true; break;
    case 'q': im->quiet = true; break;
    case 'n': im->dry_run = true; break;
    case 'j': im->json = true; break;
    case kStripOption: im->strip = true; break;
    default: break;
  }
  return true;
}

}  // namespace

int cmd_import(int argc, char** argv) {
  Import im;
  static const option kOptions[] = {
      {"null", no_argument, nullptr, '0'},    {"quiet", no_argument, nullptr, 'q'},
      {"dry-run", no_argument, nullptr, 'n'}, {"json", no_argument, nullptr, 'j'},
      {"strip-backslashes", no_argument, nullptr, kStripOption},
      {nullptr, 0, nullptr, 0}};
  const int status = parse_options(argc, argv, "0qn", kOptions, import_option, &im);
  if (status >= 0) return status;
  if (optind != argc) return usage_error(argv[0], "no arguments expected");
  if (im.nul && im.json) return usage_error(argv[0], "--json reads lines; -0 goes without it");
  if (!tag_fs_mounted()) return report_not_mounted();
  if (!im.dry_run) {
    im.ctx = open_bulk();
    if (!im.ctx) return kExitNotMounted;
  }
  // An interrupt ends the import after the current record; the records
  // done so far stay committed.
  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_handler = on_interrupt;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);

  const int delimiter = im.nul ? '\0' : '\n';
  const bool show = !im.quiet && !im.dry_run && isatty(STDERR_FILENO);
  Progress progress("import", show, show ? count_records(delimiter) : 0);
  im.progress = &progress;
  unsigned long records = 0;
  tevul::text record;
  bool too_long = false;
  while (!g_interrupted && read_record(delimiter, &record, &too_long)) {
    ++im.line;
    if (too_long || !record.ok()) {
      ++records;
      tevul::format_cut(im.where, sizeof im.where, "line %lu", im.line);
      report({"import", im.where}, too_long ? "record longer than 1 MiB, skipped"
                                            : errno_reason(ENOMEM));
      ++im.failures;
      continue;
    }
    char* buf = const_cast<char*>(record.c_str());
    std::size_t len = record.size();
    // A line of a file written on another system ends in CR LF.
    if (!im.nul && len > 0 && buf[len - 1] == '\r') --len;
    // Blank lines and comments are allowed.
    if (len == 0 || (!im.nul && buf[0] == '#')) continue;
    ++records;
    import_record(&im, buf, len);
    if (!im.dry_run && !im.ctx) return report_not_mounted();
    progress.update(records, im.files);
  }
  const bool read_error = ferror(stdin) != 0 && !g_interrupted;
  im.ctx.reset();  // commits the last file
  progress.clear();
  if (read_error) {
    report({"import"}, "cannot read standard input");
    ++im.failures;
  }
  // An interrupt is what the user asked for, not a failure: it is said
  // once, and the exit status tells a script (128 + SIGINT).
  if (g_interrupted) {
    char where[32];
    tevul::format_cut(where, sizeof where, "line %lu", im.line);
    report({"import", where}, "interrupted; the files before it are stored");
  }
  if (!im.quiet) summary("import", im.files, im.tags, im.failures, im.dry_run);
  if (g_interrupted) return kExitInterrupted;
  return im.failures == 0 ? kExitOk : kExitFailed;
}

namespace {

struct Exporter {
  bool json = false, nul = false;
};

int export_file(void* user, const char* path, size_t count, const char* const* names,
                const char* const* values) {
  const Exporter* e = static_cast<const Exporter*>(user);
  text record;
  file_record(path, TagArrays(count, names, values), e->json, &record);
  emit(record, e->nul);
  return 0;
}

bool export_option(void* user, int c, const char*) {
  Exporter* e = static_cast<Exporter*>(user);
  if (c == '0') e->nul = true;
  if (c == 'j') e->json = true;
  return true;
}

}  // namespace

int cmd_export(int argc, char** argv) {
  Exporter e;
  static const option kOptions[] = {{"null", no_argument, nullptr, '0'},
                                    {"json", no_argument, nullptr, 'j'},
                                    {nullptr, 0, nullptr, 0}};
  const int status = parse_options(argc, argv, "0", kOptions, export_option, &e);
  if (status >= 0) return status;
  if (argc - optind > 1) return usage_error(argv[0], "expected at most one DIR");
  const char* dir = optind < argc ? argv[optind] : nullptr;
  if (dir != nullptr && dir[0] == '\0') return usage_error(argv[0], "empty DIR");
  if (!tag_fs_mounted()) return report_not_mounted();
  const int rc = tevu_tagged_files(dir, export_file, &e);
  if (rc == 0) return kExitOk;
  if (report_unread_volumes()) return kExitFailed;
  if (dir != nullptr && rc == ENOENT) {
    report({dir}, setpath_reason(dir));
  } else {
    reportf({"export"}, "tag database could not be read: %s", errno_reason(rc));
  }
  return kExitFailed;
}

}  // namespace tevu_cli
