// The `tevu` command-line tool: what its commands share.
//
// Every command is a function taking its own argument vector (argv[0] is
// "tevu COMMAND") and returning the process's exit status. Commands use only
// the library's public functions, except `list`, which reads the tag
// directory that the daemon shows under the mount.
#ifndef TEVU_CLI_H
#define TEVU_CLI_H

#include <getopt.h>
#include <stdlib.h>

#include "tevul.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace tevu_cli {

// Exit statuses, stable for scripts.
enum Exit {
  kExitOk = 0,          // everything asked for was done
  kExitFailed = 1,      // at least one file or tag failed (each was reported)
  kExitUsage = 2,       // unknown command, bad option or missing argument
  kExitNotMounted = 3,  // the tag file system is not mounted
  kExitNotFound = 4,    // get: the tag is not set; find: no file has the value
  kExitInterrupted = 130,  // import: stopped by an interrupt (128 + SIGINT)
};

// One command of the tool.
struct Command {
  const char* name;
  const char* summary;  // one line for `tevu --help`
  const char* help;     // the whole text of `tevu COMMAND --help`
  int (*run)(int argc, char** argv);
};

// Memory from malloc() (or getdelim()), released with free().
struct free_deleter {
  void operator()(void* p) const { free(p); }
};
using malloc_ptr = std::unique_ptr<char, free_deleter>;

// A bulk context released (and committed) with tevu_bulk_fini().
struct bulk_fini {
  void operator()(tevu_bulk_ctx* ctx) const { tevu_bulk_fini(ctx); }
};
using bulk_ptr = std::unique_ptr<tevu_bulk_ctx, bulk_fini>;

// A bulk context for a command, or NULL after reporting that the tag file
// system is not mounted.
bulk_ptr open_bulk();

// Commits the current file of `ctx` and tells whether its tags reached the
// database (the library reports a refused COMMIT only through
// tevu_bulk_error()). When they did not, reports it for `where` and gives
// `ctx` a fresh context, since a context keeps its first error and the next
// file's fate must be told apart; `ctx` is empty when no context can be had.
// `before_report`, when given, runs before the report is printed.
bool commit_file(bulk_ptr& ctx, const std::vector<std::string>& where,
                 const std::function<void()>& before_report = nullptr);

// Removes each tag of `names` from every file of every volume that carries
// it (`tevu del --all`); reports the count of each. Returns the exit status.
int delete_everywhere(const std::vector<std::string>& names);

// The command table, in the order of `tevu --help`.
const std::vector<Command>& commands();

// The commands, one per file of this directory.
int cmd_set(int argc, char** argv);
int cmd_get(int argc, char** argv);
int cmd_list(int argc, char** argv);
int cmd_del(int argc, char** argv);
int cmd_find(int argc, char** argv);
int cmd_import(int argc, char** argv);
int cmd_deleted(int argc, char** argv);
int cmd_moved(int argc, char** argv);
int cmd_cleanup(int argc, char** argv);
int cmd_rename(int argc, char** argv);
int cmd_export(int argc, char** argv);
int cmd_view(int argc, char** argv);
int cmd_limits(int argc, char** argv);

// Parses the options of a command with getopt_long. `shortopts` must not
// name 'h'; -h and --help are added here and print the command's help.
// `on_option` receives each option character and its argument (NULL when it
// takes none) and returns false to reject it. Returns -1 when parsing may
// go on with the operands from `optind`, otherwise the exit status to return
// (kExitOk after --help, kExitUsage after a bad option).
int parse_options(int argc, char** argv, const std::string& shortopts,
                  std::vector<option> longopts,
                  const std::function<bool(int, const char*)>& on_option);

// parse_options() for a command whose only option is -0/--null.
int parse_null_option(int argc, char** argv, bool* nul);

// Calls `handler` on SIGINT and SIGTERM (interrupted calls are not
// restarted).
void catch_interrupts(void (*handler)(int));

// Prints the help of the named command on standard output.
void print_help(const char* command);

// Reports one failure on standard error as a single line
// "tevu: PART: PART: REASON". Empty parts are left out.
void report(const std::vector<std::string>& parts, const std::string& reason);

// Reports a usage error of `command` and points to its help. Returns
// kExitUsage.
int usage_error(const char* command, const std::string& what);

// Writes one record of output for scripts: `text` followed by a line feed,
// or by a NUL byte when `nul` is set.
void emit(const std::string& text, bool nul);

// Reports each volume that the last read-only query of the library could not
// read (tevu_query_failure()), one line each. Returns true when there was
// one.
bool report_unread_volumes();

// Reports that the tag file system is not mounted; returns kExitNotMounted.
int report_not_mounted();

// True when the library finds the tag file system mounted.
bool tag_fs_mounted();

// The reason in words for a result of the bulk tag functions, for tag
// `name` (the library's negated ENAMETOOLONG and EFBIG, -1, or a positive
// result of the database layer).
std::string bulk_reason(int result, const std::string& name);

// The reason why `value` cannot be stored as it is, or "" when it can: the
// tag database strips every backslash from a stored value, so a value
// holding one is refused unless `strip` allows the loss.
std::string backslash_refusal(const std::string& value, bool strip);

// The option --strip-backslashes, as the commands that store values take it.
constexpr int kStripOption = 0x100;
extern const char kStripOptionName[];

// The reason for a failed tevu_bulk_setpath() on `path`: "no such file"
// when it does not exist, otherwise "file is not on a tagged volume".
std::string setpath_reason(const std::string& path);

// The reason for a positive errno value.
std::string errno_reason(int error);

// `n` with the noun that fits it: counted(1, "file", "files") is "1 file".
std::string counted(unsigned long n, const char* one, const char* many);

// The mount point of the tag file system as the library finds it; "" when
// there is none.
std::string mount_point();

// A field of the import and export records with its TAB, line feed,
// carriage return and backslash written as "\t", "\n", "\r" and "\\", so
// that a record is one line whatever its values hold.
std::string escape_field(const std::string& text);

// The reverse of escape_field(). Returns false, with the offending escape
// in *bad, for a backslash followed by anything else or by nothing.
bool unescape_field(const std::string& text, std::string* out,
                    std::string* bad);

// `path` made absolute against the working directory without touching the
// file system beyond getcwd(): ".", ".." and repeated slashes are resolved
// by their text, and a trailing slash is dropped. For paths of files that
// may be gone already.
std::string absolute_path(const std::string& path);

// Splits "NAME=VALUE" at its first "=". Returns false when there is no "="
// or the name is empty.
bool split_assignment(const std::string& text, std::string* name,
                      std::string* value);

// Seconds since an arbitrary fixed point, from the monotonic clock.
double now_seconds();

}  // namespace tevu_cli

#endif  // TEVU_CLI_H
