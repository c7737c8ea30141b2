// The tag commands of `tevu`: set, get, list, del and find.
#include <dirent.h>
#include <errno.h>
#include <glob.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>

#include <algorithm>
#include <functional>
#include <cstdio>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "cli.h"
#include "tevul.h"

namespace tevu_cli {

namespace {

using Tag = std::pair<std::string, std::string>;

// The largest value a read is prepared for. Reads start with room for the
// published value limit and grow to this only for longer, older values.
constexpr std::size_t kValueCeiling = 1u << 20;

std::size_t value_buffer_size() {
  const int limit = tevu_getmaxvaluelen();
  return static_cast<std::size_t>(std::max(limit, 4096)) + 1;
}

bool file_exists(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

// The reason for a tag-file function's errno result on `path`. ENOENT means
// a missing file, or a file the tag file system does not show.
std::string tagfile_reason(int error, const std::string& path) {
  if (error == ENOENT && file_exists(path)) {
    return "file is not on a tagged volume";
  }
  return errno_reason(error);
}

// Calls `visit` with `root` and, when `root` is a directory, with every
// file and directory below it: parents before what they hold, the entries
// of each directory in name order. Symbolic links below `root` are left
// out (a link would tag its target, which may lie anywhere). Reports each
// directory that cannot be read and returns false when there was one.
bool walk_tree(const std::string& root,
               const std::function<void(const std::string&)>& visit) {
  visit(root);
  struct stat st;
  if (stat(root.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return true;
  std::vector<std::string> dirs{root};
  bool complete = true;
  while (!dirs.empty()) {
    const std::string dir = dirs.back();
    dirs.pop_back();
    std::unique_ptr<DIR, int (*)(DIR*)> stream(opendir(dir.c_str()), closedir);
    if (!stream) {
      report({dir}, "cannot read the directory: " + errno_reason(errno));
      complete = false;
      continue;
    }
    std::vector<std::string> names;
    while (const struct dirent* entry = readdir(stream.get())) {
      const std::string name = entry->d_name;
      if (name != "." && name != "..") names.push_back(name);
    }
    stream.reset();
    std::sort(names.begin(), names.end());
    std::vector<std::string> subdirs;
    const std::string base = dir == "/" ? "" : dir;
    for (const std::string& name : names) {
      const std::string path = base + "/" + name;
      if (lstat(path.c_str(), &st) != 0 || S_ISLNK(st.st_mode)) continue;
      if (S_ISDIR(st.st_mode)) {
        // Visited in order, walked after the files of this directory.
        subdirs.push_back(path);
      }
      visit(path);
    }
    // Depth first, in name order: the stack takes them reversed.
    dirs.insert(dirs.end(), subdirs.rbegin(), subdirs.rend());
  }
  return complete;
}

// Sets `tags` on every file through one bulk context, one transaction per
// file; with `recursive`, on every file and directory of each tree.
int set_in_databases(const std::vector<std::string>& files,
                     const std::vector<Tag>& tags, bool recursive) {
  bulk_ptr ctx = open_bulk();
  if (!ctx) return kExitNotMounted;
  bool failed = false;
  bool lost_context = false;
  const auto set_one = [&](const std::string& file) {
    if (lost_context) return;
    if (tevu_bulk_setpath(ctx.get(), file.c_str()) != 0) {
      report({file}, setpath_reason(file));
      failed = true;
      return;
    }
    for (const Tag& tag : tags) {
      const int rc =
          tevu_bulk_settag(ctx.get(), tag.first.c_str(), tag.second.c_str());
      if (rc != 0) {
        report({file, tag.first}, bulk_reason(rc, tag.first));
        failed = true;
      }
    }
    if (!commit_file(ctx, {file})) {
      failed = true;
      lost_context = !ctx;
    }
  };
  for (const std::string& file : files) {
    if (recursive) {
      failed |= !walk_tree(file, set_one);
    } else {
      set_one(file);
    }
    if (lost_context) return report_not_mounted();
  }
  return failed ? kExitFailed : kExitOk;
}

// Prints what a recursive set would tag, one path per record.
int list_targets(const std::vector<std::string>& files, bool recursive,
                 bool nul) {
  bool failed = false;
  for (const std::string& file : files) {
    const auto print = [nul](const std::string& path) { emit(path, nul); };
    if (recursive) {
      failed |= !walk_tree(file, print);
    } else {
      print(file);
    }
  }
  return failed ? kExitFailed : kExitOk;
}

int set_through_mount(const std::vector<std::string>& files,
                      const std::vector<Tag>& tags) {
  bool failed = false;
  for (const std::string& file : files) {
    for (const Tag& tag : tags) {
      const int rc = tevu_settag(file.c_str(), tag.first.c_str(),
                                 tag.second.c_str());
      if (rc != 0) {
        report({file, tag.first}, tagfile_reason(rc, file));
        failed = true;
      }
    }
  }
  return failed ? kExitFailed : kExitOk;
}

// Reads every tag of `file` from its volume's database, in column order,
// without a write lock. Returns 0, or tevu_file_tags()'s errno (ENOENT for a
// file that does not exist or lies on no tagged volume).
int file_tags(const std::string& file, std::vector<Tag>* tags) {
  return tevu_file_tags(
      file.c_str(),
      [](void* user, const char* name, const char* value) {
        static_cast<std::vector<Tag>*>(user)->emplace_back(name, value);
        return 0;
      },
      tags);
}

// Reads tag `name` of `file` through the mount into a buffer of `size`
// bytes (tevu_gettag() clears all of it, so callers size it to the limit,
// value_buffer_size()). Returns 0 or an errno value.
int read_through_mount(const std::string& file, const std::string& name,
                       std::size_t size, std::string* value) {
  malloc_ptr buf(static_cast<char*>(malloc(size)));
  if (!buf) return ENOMEM;
  const int rc = tevu_gettag(file.c_str(), name.c_str(), buf.get(), size);
  if (rc == 0) value->assign(buf.get());
  return rc;
}

// True when `file` still has a tag file whose name matches `pattern`.
bool any_tag_matches(const std::string& file, const std::string& pattern) {
  char canonical[PATH_MAX];
  const std::string mount = mount_point();
  if (mount.empty() || realpath(file.c_str(), canonical) == nullptr) {
    return true;  // cannot tell: keep the failure
  }
  const std::string tag_files = mount + "/meta" + canonical + "/" + pattern;
  glob_t found;
  const int rc = glob(tag_files.c_str(), GLOB_NOSORT, nullptr, &found);
  globfree(&found);
  return rc != GLOB_NOMATCH;
}

bool is_regular_entry(const std::string& dir, const struct dirent* entry) {
  if (entry->d_type == DT_REG) return true;
  if (entry->d_type != DT_UNKNOWN) return false;
  struct stat st;
  return lstat((dir + "/" + entry->d_name).c_str(), &st) == 0 &&
         S_ISREG(st.st_mode);
}

// Emits the lines of a lookup result, each as one record.
void emit_lines(const std::string& text, bool nul) {
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    if (end > start) emit(text.substr(start, end - start), nul);
    start = end + 1;
  }
}

}  // namespace

int cmd_set(int argc, char** argv) {
  std::vector<Tag> tags;
  bool recursive = false;
  bool via_mount = false;
  bool dry_run = false;
  bool nul = false;
  bool strip = false;
  const int status = parse_options(
      argc, argv, "t:rmn0",
      {{"tag", required_argument, nullptr, 't'},
       {"recursive", no_argument, nullptr, 'r'},
       {"mount", no_argument, nullptr, 'm'},
       {"dry-run", no_argument, nullptr, 'n'},
       {"null", no_argument, nullptr, '0'},
       {kStripOptionName, no_argument, nullptr, kStripOption}},
      [&](int c, const char* arg) {
        if (c == 'r') recursive = true;
        if (c == 'm') via_mount = true;
        if (c == 'n') dry_run = true;
        if (c == '0') nul = true;
        if (c == kStripOption) strip = true;
        if (c != 't') return true;
        Tag tag;
        if (!split_assignment(arg, &tag.first, &tag.second)) {
          usage_error(argv[0], "'" + std::string(arg) + "' is not NAME=VALUE");
          return false;
        }
        tags.push_back(tag);
        return true;
      });
  if (status >= 0) return status;
  if (tags.empty()) return usage_error(argv[0], "no tag given (-t NAME=VALUE)");
  if (optind >= argc) return usage_error(argv[0], "no file given");
  if (recursive && via_mount) {
    return usage_error(argv[0], "-r and -m cannot be combined");
  }
  if (!tag_fs_mounted()) return report_not_mounted();
  const std::vector<std::string> files(argv + optind, argv + argc);
  if (dry_run) return list_targets(files, recursive, nul);

  // A value the database would change is refused for every file; the
  // other tags are still set.
  std::vector<Tag> storable;
  for (const Tag& tag : tags) {
    const std::string refusal = backslash_refusal(tag.second, strip);
    if (refusal.empty()) {
      storable.push_back(tag);
    } else {
      report({tag.first}, refusal);
    }
  }
  const bool refused = storable.size() != tags.size();
  if (storable.empty()) return kExitFailed;
  const int result = via_mount ? set_through_mount(files, storable)
                               : set_in_databases(files, storable, recursive);
  return result == kExitOk && refused ? kExitFailed : result;
}

namespace {

// The results of reading one file, for commands that read several.
enum class Read { kOk, kNotSet, kFailed };

// The worst of the files' results: any failure, else any tag not set.
int read_status(bool failed, bool not_set) {
  return failed ? kExitFailed : not_set ? kExitNotFound : kExitOk;
}

// Reads every tag of `file` from its volume's database, and reports a file
// that cannot be read.
Read tags_from_database(const std::string& file, std::vector<Tag>* tags) {
  const int rc = file_tags(file, tags);
  if (rc == 0) return Read::kOk;
  if (rc == ENOENT || !report_unread_volumes()) {
    report({file}, rc == ENOENT ? setpath_reason(file)
                                : "tag database could not be read: " + errno_reason(rc));
  }
  return Read::kFailed;
}

// Reads tag `name` of `file` into `value`, from the database or through the
// mount, and reports what went wrong.
Read get_one(const std::string& file, const std::string& name, bool via_mount,
             std::string* value) {
  if (via_mount) {
    const int rc = read_through_mount(file, name, value_buffer_size(), value);
    if (rc == 0) return Read::kOk;
    if (rc == ENOENT && file_exists(file)) {
      report({file, name}, "tag not set");
      return Read::kNotSet;
    }
    report({file, name}, errno_reason(rc));
    return Read::kFailed;
  }
  std::vector<Tag> tags;
  if (tags_from_database(file, &tags) != Read::kOk) return Read::kFailed;
  // Tag columns are named without regard to letter case, as the database
  // names them.
  for (const Tag& tag : tags) {
    if (strcasecmp(tag.first.c_str(), name.c_str()) == 0) {
      *value = tag.second;
      return Read::kOk;
    }
  }
  report({file, name}, "tag not set");
  return Read::kNotSet;
}

// Lists the tags of `file` as the tag file system shows them: the regular
// files of its tag directory, sorted by name.
Read list_through_mount(const std::string& file, std::vector<Tag>* tags) {
  const std::string mount = mount_point();
  char canonical[PATH_MAX];
  if (realpath(file.c_str(), canonical) == nullptr) {
    report({file}, errno_reason(errno));
    return Read::kFailed;
  }
  const std::string tag_dir = mount + "/meta" + canonical;
  std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir(tag_dir.c_str()), closedir);
  if (!dir && errno == ENOENT) {
    // No tag directory: a file without tags, or a file on no tagged volume.
    std::vector<Tag> ignored;
    return tags_from_database(file, &ignored);
  }
  if (!dir) {
    report({file}, errno_reason(errno));
    return Read::kFailed;
  }
  std::vector<std::string> names;
  while (const struct dirent* entry = readdir(dir.get())) {
    if (is_regular_entry(tag_dir, entry)) names.push_back(entry->d_name);
  }
  dir.reset();
  std::sort(names.begin(), names.end());
  const std::size_t value_size = value_buffer_size();
  Read result = Read::kOk;
  for (const std::string& name : names) {
    std::string value;
    const int rc = read_through_mount(file, name, value_size, &value);
    if (rc != 0) {
      report({file, name}, errno_reason(rc));
      result = Read::kFailed;
      continue;
    }
    tags->emplace_back(name, value);
  }
  return result;
}

// The options -m and -0 of the reading commands.
int parse_read_options(int argc, char** argv, bool* via_mount, bool* nul) {
  return parse_options(argc, argv, "m0",
                       {{"mount", no_argument, nullptr, 'm'},
                        {"null", no_argument, nullptr, '0'}},
                       [=](int c, const char*) {
                         *(c == 'm' ? via_mount : nul) = true;
                         return true;
                       });
}

}  // namespace

int cmd_get(int argc, char** argv) {
  bool via_mount = false;
  bool nul = false;
  const int status = parse_read_options(argc, argv, &via_mount, &nul);
  if (status >= 0) return status;
  if (argc - optind < 2) return usage_error(argv[0], "expected FILE... NAME");
  const std::vector<std::string> files(argv + optind, argv + argc - 1);
  const std::string name = argv[argc - 1];
  if (name.empty()) return usage_error(argv[0], "empty tag name");
  if (!tag_fs_mounted()) return report_not_mounted();

  bool failed = false;
  bool not_set = false;
  for (const std::string& file : files) {
    std::string value;
    const Read read = get_one(file, name, via_mount, &value);
    failed |= read == Read::kFailed;
    not_set |= read == Read::kNotSet;
    if (read != Read::kOk) continue;
    emit(files.size() > 1 ? file + "\t" + value : value, nul);
  }
  return read_status(failed, not_set);
}

int cmd_list(int argc, char** argv) {
  bool via_mount = false;
  bool nul = false;
  const int status = parse_read_options(argc, argv, &via_mount, &nul);
  if (status >= 0) return status;
  if (argc - optind < 1) return usage_error(argv[0], "expected FILE...");
  const std::vector<std::string> files(argv + optind, argv + argc);
  if (!tag_fs_mounted()) return report_not_mounted();

  bool failed = false;
  for (const std::string& file : files) {
    std::vector<Tag> tags;
    const Read read = via_mount ? list_through_mount(file, &tags)
                                : tags_from_database(file, &tags);
    failed |= read == Read::kFailed;
    const std::string prefix = files.size() > 1 ? file + "\t" : "";
    for (const Tag& tag : tags) emit(prefix + tag.first + "=" + tag.second, nul);
  }
  return failed ? kExitFailed : kExitOk;
}

int cmd_del(int argc, char** argv) {
  std::vector<std::string> names;
  std::string pattern;
  bool via_mount = false;
  bool everywhere = false;
  const int status = parse_options(
      argc, argv, "t:g:m",
      {{"tag", required_argument, nullptr, 't'},
       {"glob", required_argument, nullptr, 'g'},
       {"mount", no_argument, nullptr, 'm'},
       {"all", no_argument, nullptr, 'a'}},
      [&](int c, const char* arg) {
        if (c == 'm') via_mount = true;
        if (c == 'a') everywhere = true;
        if (c == 'g') pattern = arg;
        if (c == 't') names.push_back(arg);
        return true;
      });
  if (status >= 0) return status;
  if (everywhere) {
    if (!names.empty() || !pattern.empty() || via_mount) {
      return usage_error(argv[0], "--all takes tag names only");
    }
    names.assign(argv + optind, argv + argc);
    if (names.empty()) return usage_error(argv[0], "expected --all NAME...");
    for (const std::string& name : names) {
      if (name.empty()) return usage_error(argv[0], "empty tag name");
    }
    return delete_everywhere(names);
  }
  if (names.empty() == pattern.empty()) {
    return usage_error(argv[0], "give either -t NAME or -g PATTERN");
  }
  for (const std::string& name : names) {
    if (name.empty()) return usage_error(argv[0], "empty tag name");
  }
  if (optind >= argc) return usage_error(argv[0], "no file given");
  const std::vector<std::string> files(argv + optind, argv + argc);

  bool failed = false;
  if (!pattern.empty() || via_mount) {
    if (!tag_fs_mounted()) return report_not_mounted();
    for (const std::string& file : files) {
      if (!file_exists(file)) {
        report({file}, errno_reason(ENOENT));
        failed = true;
        continue;
      }
      if (!pattern.empty()) {
        // A pattern that matches nothing gives whatever errno the search
        // left, so a failure counts only while a matching tag remains.
        const int rc = tevu_deltag_glob(file.c_str(), pattern.c_str());
        if (rc != 0 && any_tag_matches(file, pattern)) {
          report({file, pattern}, errno_reason(rc));
          failed = true;
        }
        continue;
      }
      for (const std::string& name : names) {
        const int rc = tevu_deltag(file.c_str(), name.c_str());
        if (rc != 0 && rc != ENOENT) {  // a tag not set counts as removed
          report({file, name}, errno_reason(rc));
          failed = true;
        }
      }
    }
    return failed ? kExitFailed : kExitOk;
  }

  bulk_ptr ctx = open_bulk();
  if (!ctx) return kExitNotMounted;
  for (const std::string& file : files) {
    if (tevu_bulk_setpath(ctx.get(), file.c_str()) != 0) {
      report({file}, setpath_reason(file));
      failed = true;
      continue;
    }
    for (const std::string& name : names) {
      const int rc = tevu_bulk_deltag(ctx.get(), name.c_str());
      if (rc != 0) {
        report({file, name}, bulk_reason(rc, name));
        failed = true;
      }
    }
    if (!commit_file(ctx, {file})) {
      failed = true;
      if (!ctx) return report_not_mounted();
    }
  }
  return failed ? kExitFailed : kExitOk;
}

namespace {

// The old lookup: all tags of the first file whose tag `name` has `value`.
int find_first(const std::string& name, const std::string& value, bool nul) {
  for (std::size_t size = 4096;; size *= 4) {
    malloc_ptr buf(static_cast<char*>(malloc(size)));
    if (!buf) {
      report({name + "=" + value}, errno_reason(ENOMEM));
      return kExitFailed;
    }
    const int rc = tevu_metadata_for_tagvalue(name.c_str(), value.c_str(),
                                              buf.get(), size);
    if (rc == 0) {
      emit_lines(buf.get(), nul);
      return kExitOk;
    }
    if (rc == ENOSPC && size < kValueCeiling) continue;
    if (!tag_fs_mounted()) return report_not_mounted();
    if (rc == ENOSPC) {
      report({name + "=" + value}, "the file's tags are too long to show");
      return kExitFailed;
    }
    report({name + "=" + value}, "no file has this tag value");
    return kExitNotFound;
  }
}

struct FoundFiles {
  bool nul = false;
  bool with_tags = false;
  unsigned long count = 0;
};

// Prints one found file: its path, with -l followed by its tags as
// TAB-separated NAME=VALUE fields (the form `tevu import` reads).
int print_found(void* user, const char* path) {
  FoundFiles* found = static_cast<FoundFiles*>(user);
  ++found->count;
  std::string record = path;
  std::vector<Tag> tags;
  if (found->with_tags) file_tags(path, &tags);
  for (const Tag& tag : tags) record += "\t" + tag.first + "=" + tag.second;
  emit(record, found->nul);
  return 0;
}

}  // namespace

int cmd_find(int argc, char** argv) {
  FoundFiles found;
  bool first = false;
  const int status = parse_options(
      argc, argv, "0l",
      {{"null", no_argument, nullptr, '0'},
       {"long", no_argument, nullptr, 'l'},
       {"first", no_argument, nullptr, 'f'}},
      [&](int c, const char*) {
        (c == '0' ? found.nul : c == 'l' ? found.with_tags : first) = true;
        return true;
      });
  if (status >= 0) return status;
  const int operands = argc - optind;
  if (operands < 1 || operands > 2 || (first && operands != 2)) {
    return usage_error(argv[0], first ? "expected NAME VALUE" : "expected NAME [VALUE]");
  }
  const std::string name = argv[optind];
  if (name.empty()) return usage_error(argv[0], "empty tag name");
  if (first) return find_first(name, argv[optind + 1], found.nul);

  const char* value = operands == 2 ? argv[optind + 1] : nullptr;
  const std::string what = value != nullptr ? name + "=" + value : name;
  const int rc = tevu_find_files(name.c_str(), value, print_found, &found);
  if (rc == ENOENT && !tag_fs_mounted()) return report_not_mounted();
  if (rc == EINVAL) {
    report({what}, "tag name contains a double quote");
    return kExitFailed;
  }
  if (rc != 0) {
    if (!report_unread_volumes()) report({what}, "tag database failed: " + errno_reason(rc));
    return kExitFailed;
  }
  if (found.count == 0) {
    report({what}, value != nullptr ? "no file has this tag value"
                                    : "no file has this tag");
    return kExitNotFound;
  }
  return kExitOk;
}

}  // namespace tevu_cli
