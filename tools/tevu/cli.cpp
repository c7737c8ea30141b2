// Helpers shared by the commands of the `tevu` tool.
#include "cli.h"

#include <errno.h>
#include <signal.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <algorithm>
#include <cstring>
#include <memory>

#include "tevul.h"

namespace tevu_cli {

int parse_options(int argc, char** argv, const std::string& shortopts,
                  std::vector<option> longopts,
                  const std::function<bool(int, const char*)>& on_option) {
  // A leading "+" would stop at the first operand; commands take options
  // anywhere, as GNU tools do, and "--" ends them.
  const std::string shorts = ":h" + shortopts;
  longopts.push_back({"help", no_argument, nullptr, 'h'});
  longopts.push_back({nullptr, 0, nullptr, 0});
  optind = 0;  // a full reset, also of getopt's hidden state
  opterr = 0;  // the messages are ours, in the tool's one-line form
  for (;;) {
    const int c = getopt_long(argc, argv, shorts.c_str(), longopts.data(),
                              nullptr);
    if (c == -1) return -1;
    if (c == 'h') {
      print_help(argv[0] + std::strlen("tevu "));
      return kExitOk;
    }
    // An unknown long option (optopt 0) and an option missing its value
    // (always the last word) are shown as written, without "=VALUE"; an
    // unknown short option by its letter.
    const std::string last = argv[optind - 1];
    const bool as_written =
        (c == '?' && optopt == 0) || (c == ':' && last.compare(0, 2, "--") == 0);
    const std::string shown = as_written
                                  ? last.substr(0, last.find('='))
                                  : std::string("-") + static_cast<char>(optopt);
    if (c == '?') return usage_error(argv[0], "unknown option " + shown);
    if (c == ':') return usage_error(argv[0], "option " + shown + " needs a value");
    if (!on_option(c, optarg)) return kExitUsage;
  }
}

int parse_null_option(int argc, char** argv, bool* nul) {
  return parse_options(argc, argv, "0", {{"null", no_argument, nullptr, '0'}},
                       [nul](int, const char*) { return *nul = true; });
}

void catch_interrupts(void (*handler)(int)) {
  struct sigaction action;
  std::memset(&action, 0, sizeof action);
  action.sa_handler = handler;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

void report(const std::vector<std::string>& parts, const std::string& reason) {
  std::string line = "tevu";
  for (const std::string& part : parts) {
    if (!part.empty()) line += ": " + part;
  }
  line += ": " + reason + "\n";
  std::fputs(line.c_str(), stderr);
}

int usage_error(const char* command, const std::string& what) {
  // `command` is "tevu" or "tevu NAME".
  std::fprintf(stderr, "%s: %s (see '%s --help')\n", command, what.c_str(),
               command);
  return kExitUsage;
}

void emit(const std::string& text, bool nul) {
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fputc(nul ? '\0' : '\n', stdout);
}

bulk_ptr open_bulk() {
  bulk_ptr ctx(tevu_bulk_init());
  if (!ctx) report_not_mounted();
  return ctx;
}

bool commit_file(bulk_ptr& ctx, const std::vector<std::string>& where,
                 const std::function<void()>& before_report) {
  tevu_bulk_commit(ctx.get());
  const int error = tevu_bulk_error(ctx.get());
  if (error <= 0) return true;
  if (before_report) before_report();
  report(where, "tags not stored: " + errno_reason(error));
  ctx.reset(tevu_bulk_init());
  return false;
}

bool report_unread_volumes() {
  char volume[4096];
  unsigned i = 0;
  for (int error; (error = tevu_query_failure(i, volume, sizeof volume)) != 0; ++i) {
    report({volume}, "tag database could not be read: " + errno_reason(error));
  }
  return i > 0;
}

int report_not_mounted() {
  report({}, "tag file system is not mounted");
  return kExitNotMounted;
}

bool tag_fs_mounted() { return tevu_mount_point() != nullptr; }

std::string errno_reason(int error) {
  switch (error) {
    case ENOENT:
      return "no such file";
    case ENOSPC:
      return "no space left on the device";
    case EDEADLK:
      return "locked by this process";
    case EBADF:
      return "not a database";
    default:
      return std::strerror(error);
  }
}

namespace {

// The longest tag name whose column statements fit the database format's
// 147-byte buffer: "CREATE INDEX 'Cidx_%q' ON Meta (\".%s\")" holds the
// name twice, its single quotes doubled once.
constexpr std::size_t kColumnNameMax = 56;

std::size_t column_name_length(const std::string& name) {
  std::size_t len = name.size();
  for (char c : name) len += c == '\'' ? 1 : 0;
  return len;
}

}  // namespace

const char kStripOptionName[] = "strip-backslashes";

std::string backslash_refusal(const std::string& value, bool strip) {
  if (strip || value.find('\\') == std::string::npos) return "";
  return "value holds a backslash, which the tag database would strip "
         "(--strip-backslashes stores it without)";
}

std::string bulk_reason(int result, const std::string& name) {
  if (result == -ENAMETOOLONG || result == -EFBIG) {
    const bool is_name = result == -ENAMETOOLONG;
    // Read once per process, as each bulk context reads them once: an
    // import with many refused tags does not reread the limits file.
    static const int name_limit = tevu_getmaxnamelen();
    static const int value_limit = tevu_getmaxvaluelen();
    const int limit = is_name ? name_limit : value_limit;
    const char* what = is_name ? "tag name too long" : "tag value too long";
    if (limit <= 0) {
      return std::string(what) + " (the tag file system publishes no limit)";
    }
    // A length must stay below the published maximum.
    return std::string(what) + " (limit " + std::to_string(limit - 1) + ")";
  }
  if (result == -1) return "tag database not available";
  if (name.find('"') != std::string::npos) {
    return "tag name contains a double quote";
  }
  if (result > 0 && column_name_length(name) > kColumnNameMax) {
    // The limits file allows longer names than the database's column
    // statements can hold; the smaller limit is the real one.
    static const int published = tevu_getmaxnamelen();
    const std::size_t limit =
        published > 0 ? std::min<std::size_t>(kColumnNameMax, published - 1)
                      : kColumnNameMax;
    return "tag name too long for the tag database (limit " +
           std::to_string(limit) + ")";
  }
  if (result == 1) return "tag database statement failed";
  return "tag database failed: " + errno_reason(result);
}

std::string setpath_reason(const std::string& path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return errno_reason(errno);
  return "file is not on a tagged volume";
}

std::string counted(unsigned long n, const char* one, const char* many) {
  return std::to_string(n) + " " + (n == 1 ? one : many);
}

std::string mount_point() {
  const char* mount = tevu_mount_point();
  return mount != nullptr ? mount : "";
}

std::string escape_field(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    switch (c) {
      case '\t': out += "\\t"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\\': out += "\\\\"; break;
      default: out += c;
    }
  }
  return out;
}

bool unescape_field(const std::string& text, std::string* out,
                    std::string* bad) {
  out->clear();
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\') {
      *out += text[i];
      continue;
    }
    const char next = i + 1 < text.size() ? text[i + 1] : '\0';
    switch (next) {
      case 't': *out += '\t'; break;
      case 'n': *out += '\n'; break;
      case 'r': *out += '\r'; break;
      case '\\': *out += '\\'; break;
      default:
        *bad = text.substr(i, next != '\0' ? 2 : 1);
        return false;
    }
    ++i;
  }
  return true;
}

std::string absolute_path(const std::string& path) {
  std::string joined = path;
  if (path.empty() || path[0] != '/') {
    std::vector<char> cwd(4096);
    if (getcwd(cwd.data(), cwd.size()) == nullptr) return path;
    joined = std::string(cwd.data()) + "/" + path;
  }
  std::vector<std::string> parts;
  std::size_t start = 0;
  while (start <= joined.size()) {
    std::size_t end = joined.find('/', start);
    if (end == std::string::npos) end = joined.size();
    const std::string part = joined.substr(start, end - start);
    if (part == "..") {
      if (!parts.empty()) parts.pop_back();
    } else if (!part.empty() && part != ".") {
      parts.push_back(part);
    }
    start = end + 1;
  }
  std::string result;
  for (const std::string& part : parts) result += "/" + part;
  return result.empty() ? "/" : result;
}

bool split_assignment(const std::string& text, std::string* name,
                      std::string* value) {
  const std::size_t eq = text.find('=');
  if (eq == std::string::npos || eq == 0) return false;
  *name = text.substr(0, eq);
  *value = text.substr(eq + 1);
  return true;
}

double now_seconds() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

}  // namespace tevu_cli
