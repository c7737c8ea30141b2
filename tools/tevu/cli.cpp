// Helpers shared by the commands of the `tevu` tool. See cli.h.
#include "cli.h"

#include <errno.h>
#include <limits.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

namespace tevu_cli {

namespace {

// The longest tag name whose column statements fit the database format's
// 147-byte buffer: "CREATE INDEX 'Cidx_%q' ON Meta (\".%s\")" holds the
// name twice, its single quotes doubled once.
constexpr std::size_t kColumnNameMax = 56;
// What the database's value update holds for the tag name and the quoted
// value together (228 characters, 51 of them its own), less the ten digits
// of the largest row number a database of a device reaches.
constexpr std::size_t kUpdateRoom = 177 - 10;

// The published limits, read once per process as each bulk context reads
// them once: a run with many refused tags does not reread the limits file.
bool g_limits_read = false;
int g_name_max = 0;
int g_value_max = 0;

void read_limits() {
  if (g_limits_read) return;
  g_name_max = tevu_getmaxnamelen();
  g_value_max = tevu_getmaxvaluelen();
  g_limits_read = true;
}

// The length of `s` with every single quote counted twice, as the
// database's statements hold it.
std::size_t quoted_length(const char* s) {
  std::size_t n = 0;
  for (; *s != '\0'; ++s) n += *s == '\'' ? 2 : 1;
  return n;
}

void vreport(std::initializer_list<const char*> parts, const char* format,
             va_list args) {
  text line;
  line.append("tevu");
  for (const char* part : parts) {
    if (part == nullptr || part[0] == '\0') continue;
    // A TAB, line feed or carriage return of a path or name is shown
    // escaped, so that every message is one line.
    line.append(": ");
    for (const char* p = part; *p != '\0'; ++p) {
      if (*p == '\t' || *p == '\n' || *p == '\r') {
        line.push('\\').push(*p == '\t' ? 't' : *p == '\n' ? 'n' : 'r');
      } else {
        line.push(*p);
      }
    }
  }
  line.append(": ");
  char reason[1024];
  vsnprintf(reason, sizeof reason, format, args);
  line.append(reason).push('\n');
  fwrite(line.c_str(), 1, line.size(), stderr);
}

// The length of the valid UTF-8 sequence at `s`, or 0.
std::size_t utf8_length(const unsigned char* s) {
  const unsigned char c = s[0];
  auto cont = [&](int i) { return s[i] >= 0x80 && s[i] <= 0xBF; };
  if (c >= 0xC2 && c <= 0xDF) return cont(1) ? 2 : 0;
  if (c == 0xE0) return s[1] >= 0xA0 && s[1] <= 0xBF && cont(2) ? 3 : 0;
  if ((c >= 0xE1 && c <= 0xEC) || c == 0xEE || c == 0xEF) return cont(1) && cont(2) ? 3 : 0;
  if (c == 0xED) return s[1] >= 0x80 && s[1] <= 0x9F && cont(2) ? 3 : 0;
  if (c == 0xF0) return s[1] >= 0x90 && s[1] <= 0xBF && cont(2) && cont(3) ? 4 : 0;
  if (c >= 0xF1 && c <= 0xF3) return cont(1) && cont(2) && cont(3) ? 4 : 0;
  if (c == 0xF4) return s[1] >= 0x80 && s[1] <= 0x8F && cont(2) && cont(3) ? 4 : 0;
  return 0;
}

}  // namespace

int parse_options(int argc, char** argv, const char* shortopts,
                  const option* longopts, option_fn on_option, void* user) {
  // A leading "+" would stop at the first operand; commands take options
  // anywhere, as GNU tools do, and "--" ends them.
  char shorts[64];
  tevul::format_cut(shorts, sizeof shorts, ":h%s", shortopts);
  option all[24];
  std::size_t n = 0;
  for (; longopts[n].name != nullptr && n + 2 < sizeof all / sizeof all[0]; ++n) {
    all[n] = longopts[n];
  }
  all[n++] = option{"help", no_argument, nullptr, 'h'};
  all[n] = option{nullptr, 0, nullptr, 0};
  optind = 0;  // a full reset, also of getopt's hidden state
  opterr = 0;  // the messages are ours, in the tool's one-line form
  for (;;) {
    const int c = getopt_long(argc, argv, shorts, all, nullptr);
    if (c == -1) return -1;
    if (c == 'h') {
      print_help(argv[0] + strlen("tevu "));
      return kExitOk;
    }
    // An unknown long option (optopt 0) and an option missing its value
    // (always the last word) are shown as written, without "=VALUE"; an
    // unknown short option by its letter.
    const char* last = argv[optind - 1];
    const bool as_written = (c == '?' && optopt == 0) || (c == ':' && strncmp(last, "--", 2) == 0);
    char shown[64];
    if (as_written) {
      tevul::format_cut(shown, sizeof shown, "%.*s", static_cast<int>(strcspn(last, "=")), last);
    } else {
      tevul::format_cut(shown, sizeof shown, "-%c", optopt);
    }
    if (c == '?') return usage_error(argv[0], "unknown option %s", shown);
    if (c == ':') return usage_error(argv[0], "option %s needs a value", shown);
    if (!on_option(user, c, optarg)) return kExitUsage;
  }
}

bool set_flag(void* flags, int c, const char*) {
  for (flag* f = static_cast<flag*>(flags); f->value != nullptr; ++f) {
    if (f->c == c) *f->value = true;
  }
  return true;
}

void report(std::initializer_list<const char*> parts, const char* reason) {
  reportf(parts, "%s", reason);
}

Progress* g_progress = nullptr;

void reportf(std::initializer_list<const char*> parts, const char* format, ...) {
  if (g_progress != nullptr) g_progress->clear();
  va_list args;
  va_start(args, format);
  vreport(parts, format, args);
  va_end(args);
}

int usage_error(const char* command, const char* format, ...) {
  char what[512];
  va_list args;
  va_start(args, format);
  vsnprintf(what, sizeof what, format, args);
  va_end(args);
  // `command` is "tevu" or "tevu NAME".
  fprintf(stderr, "%s: %s (see '%s --help')\n", command, what, command);
  return kExitUsage;
}

void emit(const char* text, std::size_t n, bool nul) {
  if (g_progress != nullptr) g_progress->make_way();
  fwrite(text, 1, n, stdout);
  fputc(nul ? '\0' : '\n', stdout);
}

void emit_field(const char* field, bool nul) {
  text line;
  append_field(field, false, nul, &line);
  emit(line, nul);
}

void counted(text* out, unsigned long n, const char* one, const char* many) {
  out->appendf("%lu %s", n, n == 1 ? one : many);
}

void summary(const char* command, unsigned long files, unsigned long tags,
             unsigned long failures, bool dry_run) {
  if (g_progress != nullptr) g_progress->clear();
  text line;
  line.appendf("tevu: %s: ", command);
  counted(&line, files, "file", "files");
  line.append(", ");
  counted(&line, tags, "tag", "tags");
  line.append(", ");
  counted(&line, failures, "failure", "failures");
  if (dry_run) line.append(" (dry run: nothing changed)");
  line.push('\n');
  fwrite(line.c_str(), 1, line.size(), stderr);
}

int report_not_mounted() {
  report({}, "tag file system is not mounted");
  return kExitNotMounted;
}

bool tag_fs_mounted() { return tevu_mount_point() != nullptr; }

bool report_unread_volumes() {
  char volume[PATH_MAX];
  char meta[PATH_MAX];
  const char* mount = tevu_mount_point();
  tevul::format_cut(meta, sizeof meta, "%s/meta", mount != nullptr ? mount : "");
  unsigned i = 0;
  for (int error; (error = tevu_query_failure(i, volume, sizeof volume)) != 0; ++i) {
    if (strcmp(volume, meta) == 0) {
      // Not a database: the daemon's list of volumes (it stopped, say).
      reportf({volume}, "the tag file system's volumes cannot be listed: %s (is its daemon "
                        "running?)", errno_reason(error));
    } else if (error == ENOSPC || error == EDQUOT || error == EFBIG) {
      // Only a write fails so.
      reportf({volume}, "tag database could not be changed: %s", errno_reason(error));
    } else {
      reportf({volume}, "tag database could not be read: %s", read_reason(error));
    }
  }
  // Only the first ones are named; the others are counted.
  const unsigned total = tevu_query_failure_count();
  if (total > i) reportf({}, "%u more volumes could not be read", total - i);
  return i > 0;
}

const char* read_reason(int error) {
  // A reader that may not write meets a change interrupted in the middle
  // (a hot journal): only a writer can roll it back.
  if (error == EROFS) {
    return "an interrupted change must be rolled back first, by a user who may write "
           "the database (any tevu command that changes tags)";
  }
  return errno_reason(error);
}

const char* errno_reason(int error) {
  switch (error) {
    case ENOENT:
      return "no such file";
    case ENOSPC:
      return "no space left on the device";
    case EDEADLK:
      return "locked by this process";
    case EBADF:
      return "not a database";
    case ENOMEM:
      return "out of memory";
    default:
      return strerror(error);
  }
}

const char* name_refusal(const char* name, text* scratch) {
  if (name[0] == '\0') return "empty tag name";
  for (const char* p = name; *p != '\0'; ++p) {
    const unsigned char c = static_cast<unsigned char>(*p);
    if (c == '/') return "tag name holds a \"/\"";
    if (c == '=') return "tag name holds a \"=\"";
    if (c < 0x20 || c == 0x7f) return "tag name holds a control character";
  }
  if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0) {
    return "tag name is \".\" or \"..\"";
  }
  if (name[0] == ' ' || name[strlen(name) - 1] == ' ') {
    return "tag name begins or ends with a blank";
  }
  return restore_refusal(name, scratch);
}

const char* restore_refusal(const char* name, text* scratch) {
  if (name[0] == '\0') return "empty tag name";
  if (strchr(name, '"') != nullptr) return "tag name holds a double quote";
  // Without a mount there are no limits to check against; the command
  // says that the tag file system is not mounted.
  if (!tag_fs_mounted()) return nullptr;
  read_limits();
  if (g_name_max <= 0) return "tag name not storable: the tag file system publishes no limit";
  std::size_t limit = static_cast<std::size_t>(g_name_max) - 1;
  if (limit > kColumnNameMax) limit = kColumnNameMax;
  if (quoted_length(name) <= limit) return nullptr;
  scratch->clear();
  scratch->appendf("tag name too long (limit %zu%s)", limit,
                   strchr(name, '\'') != nullptr ? ", a ' counting twice" : "");
  return scratch->c_str();
}

const char* value_refusal(const char* name, const char* value, bool strip,
                          text* scratch) {
  if (!tag_fs_mounted()) return nullptr;
  read_limits();
  if (g_value_max <= 0) return "tag value not storable: the tag file system publishes no limit";
  std::size_t limit = static_cast<std::size_t>(g_value_max) - 1;
  const std::size_t room = kUpdateRoom > strlen(name) ? kUpdateRoom - strlen(name) : 0;
  if (room < limit) limit = room;
  if (quoted_length(value) > limit) {
    scratch->clear();
    scratch->appendf("tag value too long (limit %zu with this name%s)", limit,
                     strchr(value, '\'') != nullptr ? ", a ' counting twice" : "");
    return scratch->c_str();
  }
  if (!strip && strchr(value, '\\') != nullptr) {
    return "value holds a backslash, which the tag database would strip "
           "(--strip-backslashes stores it without)";
  }
  return nullptr;
}

int disk_path(const char* arg, char* out) {
  if (arg[0] == '\0') return EINVAL;
  if (realpath(arg, out) != nullptr) return 0;
  if (errno != ENOENT) return errno;
  // Gone (or not yet there), perhaps with directories above it: the
  // deepest ancestor that exists made canonical, the missing components
  // kept. What does not exist cannot be a link, so this is the canonical
  // form; "." and ".." among the missing components would need the disk to
  // mean anything and are refused.
  char copy[PATH_MAX];
  if (!tevul::format_whole(copy, sizeof copy, "%s", arg)) return ENAMETOOLONG;
  std::size_t tail = strlen(copy);  // copy[tail..] is what is missing
  char real[PATH_MAX];
  for (;;) {
    while (tail > 1 && copy[tail - 1] == '/') --tail;
    std::size_t start = tail;  // the last component of what is left
    while (start > 0 && copy[start - 1] != '/') --start;
    // "." and ".." are refused below, with the other missing components.
    if (tail == start) return EINVAL;
    std::size_t parent_end = start;
    while (parent_end > 1 && copy[parent_end - 1] == '/') --parent_end;
    char parent[PATH_MAX];
    if (start == 0) {
      tevul::format_cut(parent, sizeof parent, ".");
    } else {
      tevul::format_cut(parent, sizeof parent, "%.*s", static_cast<int>(parent_end), copy);
    }
    if (realpath(parent, real) != nullptr) {
      tail = start;
      break;
    }
    if (errno != ENOENT || start == 0 || parent_end <= 1) return errno;
    tail = parent_end;
  }
  // The canonical ancestor and each missing component, one slash apart.
  text result;
  result.append(strcmp(real, "/") == 0 ? "" : real);
  for (const char* p = copy + tail; *p != '\0';) {
    while (*p == '/') ++p;
    const char* end_of = p;
    while (*end_of != '\0' && *end_of != '/') ++end_of;
    const std::size_t n = static_cast<std::size_t>(end_of - p);
    if (n == 0) break;
    if ((n == 1 && p[0] == '.') || (n == 2 && p[0] == '.' && p[1] == '.')) return EINVAL;
    result.push('/').append(p, n);
    p = end_of;
  }
  if (!result.ok()) return ENOMEM;
  return tevul::format_whole(out, tevul::kPathSize, "%s", result.c_str()) ? 0 : ENAMETOOLONG;
}

bool exists(const char* path) {
  struct stat st;
  return lstat(path, &st) == 0;
}

void escape_field(const char* field, bool name, text* out) {
  for (const char* p = field; *p != '\0'; ++p) {
    switch (*p) {
      case '\t': out->append("\\t"); break;
      case '\n': out->append("\\n"); break;
      case '\r': out->append("\\r"); break;
      case '\\': out->append("\\\\"); break;
      case '=':
        if (name) {
          out->append("\\=");
          break;
        }
        out->push('=');
        break;
      default: out->push(*p);
    }
  }
}

bool unescape_field(const char* field, std::size_t n, text* out, text* bad) {
  for (std::size_t i = 0; i < n; ++i) {
    if (field[i] != '\\') {
      out->push(field[i]);
      continue;
    }
    const char next = i + 1 < n ? field[i + 1] : '\0';
    switch (next) {
      case 't': out->push('\t'); break;
      case 'n': out->push('\n'); break;
      case 'r': out->push('\r'); break;
      case '\\': out->push('\\'); break;
      case '=': out->push('='); break;
      default:
        bad->clear();
        bad->append(field + i, next != '\0' ? 2 : 1);
        return false;
    }
    ++i;
  }
  return true;
}

void json_string(const char* value, text* out) {
  out->push('"');
  const unsigned char* s = reinterpret_cast<const unsigned char*>(value);
  while (*s != '\0') {
    const unsigned char c = *s;
    if (c == '"' || c == '\\') {
      out->push('\\').push(static_cast<char>(c));
    } else if (c == '\n') {
      out->append("\\n");
    } else if (c == '\t') {
      out->append("\\t");
    } else if (c == '\r') {
      out->append("\\r");
    } else if (c < 0x20 || c == 0x7f) {
      out->appendf("\\u%04x", c);
    } else if (c < 0x80) {
      out->push(static_cast<char>(c));
    } else if (const std::size_t n = utf8_length(s)) {
      out->append(reinterpret_cast<const char*>(s), n);
      s += n;
      continue;
    } else {
      out->appendf("\\udc%02x", c);
    }
    ++s;
  }
  out->push('"');
}

tevul::bulk_ptr open_bulk() {
  tevul::bulk_ptr ctx(tevu_bulk_init());
  if (!ctx) report_not_mounted();
  return ctx;
}

bool commit_file(tevul::bulk_ptr& ctx, const char* where) {
  tevu_bulk_commit(ctx.get());
  const int error = tevu_bulk_error(ctx.get());
  if (error <= 0) return true;
  reportf({where}, "tags not stored: %s", errno_reason(error));
  ctx.reset(tevu_bulk_init());
  return false;
}

const char* bulk_reason(int result, const char* name, text* scratch) {
  if (result == -ENAMETOOLONG || result == -EFBIG) {
    read_limits();
    const bool is_name = result == -ENAMETOOLONG;
    const int limit = is_name ? g_name_max : g_value_max;
    scratch->clear();
    scratch->append(is_name ? "tag name too long" : "tag value too long");
    if (limit <= 0) {
      scratch->append(" (the tag file system publishes no limit)");
    } else {
      scratch->appendf(" (limit %d)", limit - 1);
    }
    return scratch->c_str();
  }
  if (result == -1) return "tag database not available";
  if (strchr(name, '"') != nullptr) return "tag name holds a double quote";
  if (result == 1) return "tag database statement failed";
  scratch->clear();
  scratch->appendf("tag database failed: %s", errno_reason(result));
  return scratch->c_str();
}

const char* setpath_reason(const char* path) {
  struct stat st;
  if (stat(path, &st) != 0) return errno_reason(errno);
  return "file is not on a tagged volume";
}

int failed_volume_of(const char* path) {
  char canonical[PATH_MAX];
  if (realpath(path, canonical) == nullptr) return 0;
  char volume[PATH_MAX];
  for (unsigned i = 0;; ++i) {
    const int error = tevu_query_failure(i, volume, sizeof volume);
    if (error == 0) return 0;
    const std::size_t n = strlen(volume);
    if (strncmp(canonical, volume, n) == 0 && (canonical[n] == '/' || canonical[n] == '\0')) {
      return error;
    }
  }
}

double now_seconds() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

}  // namespace tevu_cli
