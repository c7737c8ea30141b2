// The `tevu` command-line tool: what its commands share.
//
// Every command is a function taking its own argument vector (argv[0] is
// "tevu COMMAND") and returning the process's exit status. Commands use only
// the library's public functions, except where they read what the daemon
// shows under the mount (`list -m`, `view list`, `view show`). Like the
// library, the tool needs no C++ runtime: no exceptions, no RTTI, no
// standard containers or strings; text that grows lives in tevul::text, the
// library's own growable buffer, compiled into the tool too.
#ifndef TEVU_CLI_H
#define TEVU_CLI_H

#include <getopt.h>
#include <stddef.h>
#include <stdio.h>
#include <unistd.h>

#include <initializer_list>

#include "common.h"
#include "tevul.h"

namespace tevu_cli {

using tevul::array;
using tevul::text;

// Exit statuses, stable for scripts.
enum Exit {
  kExitOk = 0,             // everything asked for was done
  kExitFailed = 1,         // something failed (each failure was reported)
  kExitUsage = 2,          // unknown command, bad option or argument
  kExitNotMounted = 3,     // the tag file system is not mounted
  kExitNotFound = 4,       // get: a tag is not set; find, rename, del
                           // --all, deleted: nothing carries it; repair:
                           // rows stay whose file was not found
  kExitInterrupted = 130,  // import: stopped by an interrupt (128 + SIGINT)
};

// One command of the tool.
struct Command {
  const char* name;
  const char* summary;  // one line for `tevu --help`
  const char* help;     // the whole text of `tevu COMMAND --help`
  int (*run)(int argc, char** argv);
};

// The command table, in the order of `tevu --help`.
extern const Command kCommands[];
extern const std::size_t kCommandCount;

// The commands, one group per file of this directory.
int cmd_set(int argc, char** argv);
int cmd_get(int argc, char** argv);
int cmd_list(int argc, char** argv);
int cmd_del(int argc, char** argv);
int cmd_find(int argc, char** argv);
int cmd_tags(int argc, char** argv);
int cmd_values(int argc, char** argv);
int cmd_rename(int argc, char** argv);
int cmd_import(int argc, char** argv);
int cmd_export(int argc, char** argv);
int cmd_deleted(int argc, char** argv);
int cmd_moved(int argc, char** argv);
int cmd_cleanup(int argc, char** argv);
int cmd_view(int argc, char** argv);
int cmd_limits(int argc, char** argv);
int cmd_watch(int argc, char** argv);
int cmd_repair(int argc, char** argv);
// `tevu del --all NAME...`, given the names.
int delete_everywhere(const char* command, char** names, int count, bool dry_run, bool nul);

// ---------------------------------------------------------------------------
// Options.

// Receives each option character and its argument (NULL when it takes
// none); returns false after reporting a bad value.
typedef bool (*option_fn)(void* user, int c, const char* arg);

// Parses the options of a command with getopt_long. `shortopts` must not
// name 'h'; -h and --help are added here and print the command's help.
// `longopts` ends with a zero entry. Returns -1 when parsing may go on with
// the operands from `optind`, otherwise the exit status to return (kExitOk
// after --help, kExitUsage after a bad option).
int parse_options(int argc, char** argv, const char* shortopts,
                  const option* longopts, option_fn on_option, void* user);

// Sets the bool that `user` points at; an option_fn for commands whose
// options are all flags, told apart by their own tables.
struct flag {
  int c;
  bool* value;
};
// An option_fn over a table of flags ended by {0, nullptr}.
bool set_flag(void* flags, int c, const char* arg);

// Prints the help of the named command on standard output (the overview
// for an unknown name).
void print_help(const char* command);

// ---------------------------------------------------------------------------
// Messages and records.

// Reports one failure on standard error as a single line
// "tevu: PART: PART: REASON". NULL and empty parts are left out.
void report(std::initializer_list<const char*> parts, const char* reason);
__attribute__((format(printf, 2, 3))) void reportf(
    std::initializer_list<const char*> parts, const char* format, ...);

// Reports a usage error of `command` ("tevu" or "tevu NAME") and points to
// its help. Returns kExitUsage.
__attribute__((format(printf, 2, 3))) int usage_error(const char* command,
                                                      const char* format, ...);

// Writes one record of output for scripts: `n` bytes of `text` followed by
// a line feed, or by a NUL byte when `nul` is set.
void emit(const char* text, std::size_t n, bool nul);
inline void emit(const text& t, bool nul) { emit(t.c_str(), t.size(), nul); }

// Writes a path (or a name or value) as a record of its own: its TABs, line
// feeds, carriage returns and backslashes escaped as in every record, so
// that each line is one path; with `nul`, as it is with a NUL byte after it.
void emit_field(const char* field, bool nul);

// The closing count line of a command that changes tags, on standard error:
// "tevu: COMMAND: N files, M tags, K failures" (files counted once), with
// " (dry run: nothing changed)" after a dry run.
void summary(const char* command, unsigned long files, unsigned long tags,
             unsigned long failures, bool dry_run);

// Appends `n` with the noun that fits it: "1 file", "2 files".
void counted(text* out, unsigned long n, const char* one, const char* many);

// Reports that the tag file system is not mounted; returns kExitNotMounted.
int report_not_mounted();

// True when the library finds the tag file system mounted.
bool tag_fs_mounted();

// Reports each volume that the library's last query or change could not
// read (tevu_query_failure()), one line each. Returns true when there was
// one.
bool report_unread_volumes();

// The reason in words for a positive errno value.
const char* errno_reason(int error);
// The reason in words why a tag database could not be read: as
// errno_reason(), but EROFS (a reader without write access facing an
// interrupted change) says that a writer must roll the change back.
const char* read_reason(int error);

// ---------------------------------------------------------------------------
// Tag names, values, paths.

// Why `name`, given by the user, cannot be a tag name, or NULL when it can:
// empty; holding "/", "=", a double quote or a control character; a blank at
// either end; "." or ".."; longer than the smaller of the published limit
// and what the tag database can hold. The reason is a static text or is
// built in `scratch`.
const char* name_refusal(const char* name, text* scratch);

// Why `name`, restored from an export, cannot be stored: only what the
// database cannot hold (a double quote, a length beyond the limits).
const char* restore_refusal(const char* name, text* scratch);

// Why `value` cannot be stored under tag `name` as it is, or NULL: longer
// than the published value limit or than the database's update statement
// holds beside the name, or holding a backslash (the database strips
// backslashes) unless `strip`.
const char* value_refusal(const char* name, const char* value, bool strip,
                          text* scratch);

// The option --strip-backslashes, as the commands that store values take it.
constexpr int kStripOption = 0x100;

// `arg` made canonical against the disk into `out` (tevul::kPathSize
// bytes): realpath() for a path that exists; for one that does not, its
// deepest existing ancestor made canonical and the missing components kept
// (what does not exist cannot be a link), so that ".." and "." never reach
// past what the disk shows. Returns 0, or an errno (EINVAL for an empty
// path, or a missing component "." or "..").
int disk_path(const char* arg, char* out);

// True when `path` exists (a dangling link counts: lstat()).
bool exists(const char* path);

// Appends a field of the import and export records with its TAB, line
// feed, carriage return and backslash written as "\t", "\n", "\r" and
// "\\" (and, in a name, "=" as "\="), so that a record is one line and a
// name's "=" never ends it.
void escape_field(const char* field, bool name, text* out);

// Appends a field of a record printed for scripts: escaped as
// escape_field() does, or as it is when `raw` (records that -0 ends with a
// NUL byte).
inline void append_field(const char* field, bool name, bool raw, text* out) {
  if (raw) {
    out->append(field);
  } else {
    escape_field(field, name, out);
  }
}

// The reverse of escape_field(): appends the field's bytes to `out`.
// Returns false, with the offending escape in `bad`, for a backslash
// followed by anything else or by nothing.
bool unescape_field(const char* field, std::size_t n, text* out, text* bad);

// Appends `value` as a JSON string: quotes, backslashes and control
// characters escaped; bytes that are not valid UTF-8 written as "\udcXX"
// (XX the byte), as Python's "surrogateescape" does, so that every string
// is valid JSON and `tevu import --json` gets the bytes back.
void json_string(const char* value, text* out);

// Appends the record of one file as export prints it: the path and each
// NAME=VALUE, TAB-separated and escaped, or with `json` one JSON object
// {"path":...,"tags":{NAME:VALUE,...}}.
// `tags` has count(), name(i) and value(i): get's and list's own store, or
// the library's arrays through TagArrays.
template <typename Tags>
void file_record(const char* path, const Tags& tags, bool json, text* out) {
  if (json) {
    out->append("{\"path\":");
    json_string(path, out);
    out->append(",\"tags\":{");
    for (std::size_t i = 0; i < tags.count(); ++i) {
      if (i > 0) out->push(',');
      json_string(tags.name(i), out);
      out->push(':');
      json_string(tags.value(i), out);
    }
    out->append("}}");
    return;
  }
  escape_field(path, false, out);
  for (std::size_t i = 0; i < tags.count(); ++i) {
    out->push('\t');
    escape_field(tags.name(i), true, out);
    out->push('=');
    escape_field(tags.value(i), false, out);
  }
}

// The tags a callback of the library hands over, as file_record() reads them.
class TagArrays {
 public:
  TagArrays(std::size_t n, const char* const* names, const char* const* values)
      : n_(n), names_(names), values_(values) {}
  std::size_t count() const { return n_; }
  const char* name(std::size_t i) const { return names_[i]; }
  const char* value(std::size_t i) const { return values_[i]; }

 private:
  std::size_t n_;
  const char* const* names_;
  const char* const* values_;
};

// A bulk context for a command, or none after reporting that the tag file
// system is not mounted.
tevul::bulk_ptr open_bulk();

// Commits the current file of `ctx` and tells whether its tags reached the
// database (the library reports a refused COMMIT only through
// tevu_bulk_error()). When they did not, reports it for `where` and gives
// `ctx` a fresh context, since a context keeps its first error; `ctx` is
// empty when no context can be had.
bool commit_file(tevul::bulk_ptr& ctx, const char* where);

// The reason for a result of the bulk tag functions for tag `name`.
const char* bulk_reason(int result, const char* name, text* scratch);

// The reason for a failed tevu_bulk_setpath() on `path`.
const char* setpath_reason(const char* path);

// The errno for which the library's last query could not read the volume
// that holds `path` (tevu_query_failure()), or 0: a file on a volume whose
// database is missing is on a tagged volume all the same.
int failed_volume_of(const char* path);

// Seconds since an arbitrary fixed point, from the monotonic clock.
double now_seconds();

class Progress;
// The progress line drawn now, if any: report() clears it first.
extern Progress* g_progress;

// The progress line on standard error of a command that can run long:
// files done, rate, and, when the
// number of records is known (standard input is a file), done/total, the
// percentage and the time left. The time left is the records still to come
// at the rate of the last few seconds: each file costs a little more as the
// database grows, so the rate since the start would promise too much.
class Progress {
 public:
  // A progress line for `command` (the tool's command name), drawn only
  // when `enabled`; `total` records when known, else 0. While it is drawn,
  // report() clears it before a message.
  Progress(const char* command, bool enabled, unsigned long total)
      : command_(command),
        enabled_(enabled),
        stdout_tty_(enabled && isatty(STDOUT_FILENO)),
        total_(total),
        start_(now_seconds()) {
    if (enabled_) g_progress = this;
  }
  ~Progress() {
    clear();
    if (g_progress == this) g_progress = nullptr;
  }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  double elapsed() const { return now_seconds() - start_; }

  // Called after each record; redraws at most four times a second.
  void update(unsigned long records, unsigned long files) {
    if (!enabled_) return;
    const double now = now_seconds();
    if (now - last_draw_ < 0.25) return;
    last_draw_ = now;
    samples_[next_ % kSamples] = Sample{now, records};
    ++next_;
    // The oldest sample no older than the window, in the ring.
    const Sample* from = nullptr;
    for (unsigned i = next_ > kSamples ? next_ - kSamples : 0; i + 1 < next_; ++i) {
      const Sample& s = samples_[i % kSamples];
      if (now - s.at <= kWindow) {
        from = &s;
        break;
      }
    }
    const double seconds = now - start_;
    text line;
    line.append("\rtevu: ").append(command_).append(": ");
    counted(&line, files, "file", "files");
    if (total_ > 0) {
      const unsigned long done = records < total_ ? records : total_;
      const Sample since = from != nullptr ? *from : Sample{start_, 0};
      const double rate =
          (done - (since.records < done ? since.records : done)) / (now - since.at);
      const double left = rate > 0 ? (total_ - done) / rate : 0;
      line.appendf(" (%lu/%lu records, %lu%%), %.0f files/s, %.*f s left", done, total_,
                   done * 100 / total_, files / seconds, left < 10 ? 1 : 0, left);
    } else {
      line.appendf(", %.0f files/s", files / seconds);
    }
    line.append("\033[K");
    fputs(line.c_str(), stderr);
    drawn_ = true;
  }

  // Removes the progress line before anything else is printed.
  void clear() {
    if (drawn_) fputs("\r\033[K", stderr);
    drawn_ = false;
  }

  // Removes the progress line before a line on standard output when both
  // reach the same terminal (the next update() draws it again under it).
  void make_way() {
    if (stdout_tty_) clear();
  }

 private:
  // How far back the rate of the time left looks, in seconds, and the
  // samples kept for it (four a second).
  static constexpr double kWindow = 5;
  static constexpr unsigned kSamples = 32;
  struct Sample {
    double at;
    unsigned long records;
  };
  const char* command_;
  bool enabled_;
  bool stdout_tty_;
  unsigned long total_;
  double start_;
  double last_draw_ = 0;
  Sample samples_[kSamples];
  unsigned next_ = 0;
  bool drawn_ = false;
};

}  // namespace tevu_cli

#endif  // TEVU_CLI_H
