// `tevu import`: tags for many files from standard input, through one bulk
// context.
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
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

// The progress line on standard error: files done, rate and time left. The
// time left is estimated from the bytes read when standard input is a file
// of known size, and shown as "?" otherwise.
class Progress {
 public:
  explicit Progress(bool enabled) : enabled_(enabled), start_(now_seconds()) {
    struct stat st;
    if (fstat(STDIN_FILENO, &st) == 0 && S_ISREG(st.st_mode)) {
      total_bytes_ = st.st_size;
      // Reading may start at an offset, as in `(head -1; tevu import) < f`.
      const off_t at = lseek(STDIN_FILENO, 0, SEEK_CUR);
      if (at > 0) total_bytes_ -= at;
    }
  }

  double elapsed() const { return now_seconds() - start_; }

  // Called after each record; redraws at most four times a second.
  void update(unsigned long files, unsigned long long bytes_read) {
    if (!enabled_) return;
    const double now = now_seconds();
    if (now - last_draw_ < 0.25) return;
    last_draw_ = now;
    const double seconds = now - start_;
    const double rate = seconds > 0 ? files / seconds : 0;
    std::string left = "?";
    if (total_bytes_ > 0 && bytes_read > 0 && seconds > 0) {
      const double bytes_per_second = bytes_read / seconds;
      const double remaining =
          total_bytes_ > static_cast<long long>(bytes_read)
              ? (total_bytes_ - static_cast<long long>(bytes_read)) /
                    bytes_per_second
              : 0;
      left = std::to_string(static_cast<long>(remaining + 0.5));
    }
    std::fprintf(stderr, "\rtevu: import: %lu files, %.0f files/s, %s s left\033[K",
                 files, rate, left.c_str());
    drawn_ = true;
  }

  // Removes the progress line before anything else is printed.
  void clear() {
    if (drawn_) std::fputs("\r\033[K", stderr);
    drawn_ = false;
  }

 private:
  bool enabled_;
  double start_;
  double last_draw_ = 0;
  long long total_bytes_ = 0;
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

// Imports one record; reports and counts its failures. The file is
// committed at once, so that its tags are counted only once stored, and a
// later failing path never leaves it pending.
void import_record(bulk_ptr& ctx, const std::string& record,
                   unsigned long line, Totals* totals, Progress* progress) {
  const std::string where = "line " + std::to_string(line);
  const std::vector<std::string> fields = split_fields(record);
  std::vector<std::pair<std::string, std::string>> tags;
  for (std::size_t i = 1; i < fields.size(); ++i) {
    std::pair<std::string, std::string> tag;
    if (!split_assignment(fields[i], &tag.first, &tag.second)) {
      tags.clear();
      break;
    }
    tags.push_back(tag);
  }
  if (fields[0].empty() || tags.empty()) {
    progress->clear();
    report({"import", where},
           "malformed line (expected PATH<TAB>NAME=VALUE[<TAB>NAME=VALUE...])");
    ++totals->failures;
    return;
  }
  const std::string& path = fields[0];
  if (tevu_bulk_setpath(ctx.get(), path.c_str()) != 0) {
    progress->clear();
    report({"import", where, path}, setpath_reason(path));
    ++totals->failures;
    return;
  }
  unsigned long stored = 0;
  for (const auto& tag : tags) {
    const int rc =
        tevu_bulk_settag(ctx.get(), tag.first.c_str(), tag.second.c_str());
    if (rc == 0) {
      ++stored;
      continue;
    }
    progress->clear();
    report({"import", where, path, tag.first}, bulk_reason(rc, tag.first));
    ++totals->failures;
  }
  if (!commit_file(ctx, {"import", where, path}, [progress] { progress->clear(); })) {
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
  const int status = parse_options(
      argc, argv, "0q",
      {{"null", no_argument, nullptr, '0'},
       {"quiet", no_argument, nullptr, 'q'}},
      [&](int c, const char*) {
        (c == '0' ? nul : quiet) = true;
        return true;
      });
  if (status >= 0) return status;
  if (optind != argc) return usage_error(argv[0], "no arguments expected");

  bulk_ptr ctx = open_bulk();
  if (!ctx) return kExitNotMounted;

  // An interrupt ends the import after the current record; the records
  // done so far stay committed.
  catch_interrupts(on_interrupt);

  Progress progress(!quiet && isatty(STDERR_FILENO));
  Totals totals;
  unsigned long line = 0;
  unsigned long long bytes_read = 0;
  malloc_ptr buf;
  std::size_t capacity = 0;
  const int delimiter = nul ? '\0' : '\n';
  while (!g_interrupted) {
    char* raw = buf.release();
    const ssize_t len = getdelim(&raw, &capacity, delimiter, stdin);
    buf.reset(raw);
    if (len < 0) break;
    ++line;
    bytes_read += static_cast<unsigned long long>(len);
    std::string record(buf.get(), static_cast<std::size_t>(len));
    if (!record.empty() && record.back() == delimiter) record.pop_back();
    if (record.empty()) continue;  // blank lines are allowed
    import_record(ctx, record, line, &totals, &progress);
    if (!ctx) return report_not_mounted();
    progress.update(totals.files, bytes_read);
  }
  const bool read_error = ferror(stdin) != 0;
  ctx.reset();  // commits the last file
  progress.clear();
  if (read_error) {
    report({"import"}, "cannot read standard input");
    ++totals.failures;
  }
  if (g_interrupted) {
    report({"import", "line " + std::to_string(line)}, "interrupted");
    ++totals.failures;
  }
  if (!quiet) {
    std::fprintf(stderr, "tevu: import: %lu files, %lu tags, %lu failures, %.2f s\n",
                 totals.files, totals.tags, totals.failures, progress.elapsed());
  }
  return totals.failures == 0 ? kExitOk : kExitFailed;
}

}  // namespace tevu_cli
