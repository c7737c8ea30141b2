// `tevu import` and `tevu export`: tags of many files as records, one file
// per line, "PATH<TAB>NAME=VALUE[<TAB>NAME=VALUE...]", each field escaped
// by escape_field() (see cli.h) so that values may hold any byte but NUL.
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <errno.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "cli.h"
#include "tevul.h"

namespace tevu_cli {

namespace {

volatile sig_atomic_t g_interrupted = 0;

void on_interrupt(int) { g_interrupted = 1; }

struct Totals {
  unsigned long files = 0;
  unsigned long tags = 0;
  unsigned long failures = 0;
};

// The records left to read on standard input when it is a regular file
// (read from its current offset without moving it), or 0 when unknown.
unsigned long count_records(int delimiter) {
  struct stat st;
  if (fstat(STDIN_FILENO, &st) != 0 || !S_ISREG(st.st_mode)) return 0;
  off_t at = lseek(STDIN_FILENO, 0, SEEK_CUR);
  if (at < 0) return 0;
  unsigned long records = 0;
  bool open_record = false;
  char buf[65536];
  for (;;) {
    const ssize_t n = pread(STDIN_FILENO, buf, sizeof buf, at);
    if (n <= 0) break;
    at += n;
    for (ssize_t i = 0; i < n; ++i) {
      if (buf[i] == delimiter) {
        records += open_record ? 1 : 0;
        open_record = false;
      } else {
        open_record = true;
      }
    }
  }
  return records + (open_record ? 1 : 0);
}

// The progress line on standard error: files done, rate, and, when the
// number of records is known (standard input is a file), done/total, the
// percentage and the time left. The time left is the records still to come
// at the rate of the last few seconds: each file costs a little more as
// the database grows, so the rate since the start would promise too much.
class Progress {
 public:
  Progress(bool enabled, unsigned long total)
      : enabled_(enabled), total_(total), start_(now_seconds()) {}

  double elapsed() const { return now_seconds() - start_; }

  // Called after each record (`records` of them read, `files` stored);
  // redraws at most four times a second.
  void update(unsigned long records, unsigned long files) {
    if (!enabled_) return;
    const double now = now_seconds();
    if (now - last_draw_ < 0.25) return;
    last_draw_ = now;
    samples_.push_back({now, records});
    while (samples_.size() > 2 && now - samples_[1].at >= kWindow) {
      samples_.pop_front();
    }
    const double seconds = now - start_;
    std::string line = "\rtevu: import: " + counted(files, "file", "files");
    char numbers[128];
    if (total_ > 0) {
      const unsigned long done = std::min(records, total_);
      // Until a second sample exists, the rate since the start.
      const Sample& from = samples_.size() > 1 ? samples_.front() : Sample{start_, 0};
      const double rate = (done - std::min(done, from.records)) / (now - from.at);
      const double left = rate > 0 ? (total_ - done) / rate : 0;
      std::snprintf(numbers, sizeof numbers,
                    " (%lu/%lu records, %lu%%), %.0f files/s, %.*f s left", done,
                    total_, done * 100 / total_, files / seconds,
                    left < 10 ? 1 : 0, left);
    } else {
      std::snprintf(numbers, sizeof numbers, ", %.0f files/s", files / seconds);
    }
    std::fputs((line + numbers + "\033[K").c_str(), stderr);
    drawn_ = true;
  }

  // Removes the progress line before anything else is printed.
  void clear() {
    if (drawn_) std::fputs("\r\033[K", stderr);
    drawn_ = false;
  }

 private:
  // How far back the rate of the time left looks, in seconds.
  static constexpr double kWindow = 5;
  struct Sample {
    double at;
    unsigned long records;
  };
  bool enabled_;
  unsigned long total_;
  double start_;
  double last_draw_ = 0;
  std::deque<Sample> samples_;
  bool drawn_ = false;
};

std::vector<std::string> split_fields(const std::string& record) {
  std::vector<std::string> fields;
  std::size_t start = 0;
  for (;;) {
    const std::size_t tab = record.find('\t', start);
    fields.push_back(record.substr(start, tab - start));
    if (tab == std::string::npos) return fields;
    start = tab + 1;
  }
}

// Reports one failure of a record, after clearing the progress line.
using FailFn = std::function<void(const std::vector<std::string>&,
                                  const std::string&)>;

constexpr char kKnownEscapes[] = " (known: \\t \\n \\r \\\\)";

// The tags of one record, unescaped. Returns false after reporting the
// first field that is not NAME=VALUE or holds a bad escape.
bool parse_tags(const std::vector<std::string>& fields,
                const std::vector<std::string>& where, const FailFn& fail,
                std::vector<std::pair<std::string, std::string>>* tags) {
  for (std::size_t i = 1; i < fields.size(); ++i) {
    std::vector<std::string> at = where;
    at.push_back(fields[i]);
    std::string name, value, bad;
    if (!split_assignment(fields[i], &name, &value)) {
      fail(at, "malformed field (expected NAME=VALUE)");
      return false;
    }
    std::pair<std::string, std::string> tag;
    if (!unescape_field(name, &tag.first, &bad) ||
        !unescape_field(value, &tag.second, &bad)) {
      fail(at, "bad escape '" + bad + "'" + kKnownEscapes);
      return false;
    }
    tags->push_back(tag);
  }
  return true;
}

// Imports one record; reports and counts its failures. A malformed record
// sets nothing. The file is committed at once, so that its tags are
// counted only once stored, and a later failing path never leaves it
// pending.
void import_record(bulk_ptr& ctx, const std::string& record,
                   unsigned long line, bool strip, Totals* totals,
                   Progress* progress) {
  const FailFn fail = [&](const std::vector<std::string>& at,
                          const std::string& reason) {
    progress->clear();
    report(at, reason);
    ++totals->failures;
  };
  std::vector<std::string> at = {"import", "line " + std::to_string(line)};
  const std::vector<std::string> fields = split_fields(record);
  std::string path, bad;
  if (!unescape_field(fields[0], &path, &bad)) {
    at.push_back(fields[0]);
    return fail(at, "bad escape '" + bad + "' in the path" + kKnownEscapes);
  }
  if (path.empty()) return fail(at, "malformed line (empty path)");
  at.push_back(path);
  if (fields.size() < 2) {
    return fail(at, "malformed line (no tags: expected "
                    "PATH<TAB>NAME=VALUE[<TAB>NAME=VALUE...])");
  }
  std::vector<std::pair<std::string, std::string>> tags;
  if (!parse_tags(fields, at, fail, &tags)) return;
  if (tevu_bulk_setpath(ctx.get(), path.c_str()) != 0) {
    return fail(at, setpath_reason(path));
  }
  unsigned long stored = 0;
  for (const auto& tag : tags) {
    std::vector<std::string> tag_at = at;
    tag_at.push_back(tag.first);
    const std::string refusal = backslash_refusal(tag.second, strip);
    if (!refusal.empty()) {
      fail(tag_at, refusal);
      continue;
    }
    const int rc =
        tevu_bulk_settag(ctx.get(), tag.first.c_str(), tag.second.c_str());
    if (rc != 0) {
      fail(tag_at, bulk_reason(rc, tag.first));
      continue;
    }
    ++stored;
  }
  if (!commit_file(ctx, at, [progress] { progress->clear(); })) {
    ++totals->failures;
    return;
  }
  ++totals->files;
  totals->tags += stored;
}

}  // namespace

int cmd_import(int argc, char** argv) {
  bool nul = false;
  bool quiet = false;
  bool strip = false;
  const int status = parse_options(
      argc, argv, "0q",
      {{"null", no_argument, nullptr, '0'},
       {"quiet", no_argument, nullptr, 'q'},
       {kStripOptionName, no_argument, nullptr, kStripOption}},
      [&](int c, const char*) {
        (c == '0' ? nul : c == 'q' ? quiet : strip) = true;
        return true;
      });
  if (status >= 0) return status;
  if (optind != argc) return usage_error(argv[0], "no arguments expected");

  bulk_ptr ctx = open_bulk();
  if (!ctx) return kExitNotMounted;

  // An interrupt ends the import after the current record; the records
  // done so far stay committed.
  catch_interrupts(on_interrupt);

  const int delimiter = nul ? '\0' : '\n';
  const bool show = !quiet && isatty(STDERR_FILENO);
  Progress progress(show, show ? count_records(delimiter) : 0);
  Totals totals;
  unsigned long line = 0;
  unsigned long records = 0;
  malloc_ptr buf;
  std::size_t capacity = 0;
  while (!g_interrupted) {
    char* raw = buf.release();
    const ssize_t len = getdelim(&raw, &capacity, delimiter, stdin);
    buf.reset(raw);
    if (len < 0) break;
    ++line;
    std::string record(buf.get(), static_cast<std::size_t>(len));
    if (!record.empty() && record.back() == delimiter) record.pop_back();
    // A line of a file written on another system ends in CR LF.
    if (!nul && !record.empty() && record.back() == '\r') record.pop_back();
    if (record.empty()) continue;  // blank lines are allowed
    ++records;
    import_record(ctx, record, line, strip, &totals, &progress);
    if (!ctx) return report_not_mounted();
    progress.update(records, totals.files);
  }
  const bool read_error = ferror(stdin) != 0 && !g_interrupted;
  ctx.reset();  // commits the last file
  progress.clear();
  if (read_error) {
    report({"import"}, "cannot read standard input");
    ++totals.failures;
  }
  // An interrupt is what the user asked for, not a failure: it is said
  // once, and the exit status tells a script (128 + SIGINT).
  if (g_interrupted) {
    report({"import", "line " + std::to_string(line)},
           "interrupted; the files before it are stored");
  }
  if (!quiet) {
    std::fprintf(stderr, "tevu: import: %s, %s, %s, %.2f s\n",
                 counted(totals.files, "file", "files").c_str(),
                 counted(totals.tags, "tag", "tags").c_str(),
                 counted(totals.failures, "failure", "failures").c_str(),
                 progress.elapsed());
  }
  if (g_interrupted) return kExitInterrupted;
  return totals.failures == 0 ? kExitOk : kExitFailed;
}

namespace {

struct Exporter {
  bool json = false;
  bool nul = false;
  unsigned long files = 0;
};

// `text` as a JSON string: quotes, backslashes and control characters
// escaped; other bytes as they are (tags are UTF-8 as stored).
std::string json_string(const std::string& text) {
  std::string out = "\"";
  for (unsigned char c : text) {
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (c < 0x20 || c == 0x7f) {
          char escaped[8];
          std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
          out += escaped;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  return out + "\"";
}

int export_file(void* user, const char* path, size_t count,
                const char* const* names, const char* const* values) {
  Exporter* e = static_cast<Exporter*>(user);
  ++e->files;
  std::string record;
  if (e->json) {
    record = "{\"path\":" + json_string(path) + ",\"tags\":{";
    for (size_t i = 0; i < count; ++i) {
      if (i > 0) record += ",";
      record += json_string(names[i]) + ":" + json_string(values[i]);
    }
    record += "}}";
  } else {
    record = escape_field(path);
    for (size_t i = 0; i < count; ++i) {
      record += "\t" + escape_field(names[i]) + "=" + escape_field(values[i]);
    }
  }
  emit(record, e->nul);
  return 0;
}

}  // namespace

int cmd_export(int argc, char** argv) {
  Exporter exporter;
  const int status = parse_options(
      argc, argv, "0j",
      {{"null", no_argument, nullptr, '0'},
       {"json", no_argument, nullptr, 'j'}},
      [&](int c, const char*) {
        (c == '0' ? exporter.nul : exporter.json) = true;
        return true;
      });
  if (status >= 0) return status;
  if (argc - optind > 1) return usage_error(argv[0], "expected at most one DIR");
  const char* dir = optind < argc ? argv[optind] : nullptr;
  if (dir != nullptr && dir[0] == '\0') return usage_error(argv[0], "empty DIR");
  if (!tag_fs_mounted()) return report_not_mounted();
  const int rc = tevu_tagged_files(dir, export_file, &exporter);
  if (rc == 0) return kExitOk;
  if (report_unread_volumes()) return kExitFailed;
  if (dir != nullptr && rc == ENOENT) {
    report({dir}, setpath_reason(dir));
  } else {
    report({"export"}, "tag database could not be read: " + errno_reason(rc));
  }
  return kExitFailed;
}

}  // namespace tevu_cli
