// The tag commands of `tevu`: set, get, list and del.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <glob.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include "cli.h"

namespace tevu_cli {

namespace {

// A tag given on the command line: its name and value, split in place.
struct Tag {
  const char* name;
  const char* value;
};

// The longest path the library takes (its bulk context keeps 4094 bytes).
constexpr std::size_t kPathMax = 4094;

// The reason for a tag-file function's errno result on `path`. ENOENT means
// a missing file, or a file the tag file system does not show.
const char* tagfile_reason(int error, const char* path) {
  if (error == ENOENT && exists(path)) return "file is not on a tagged volume";
  return errno_reason(error);
}

// True when `canonical` is the root of a tagged volume ("/N", N a volume
// link of the meta directory): a volume's root has no row of its own.
bool is_volume_root(const char* canonical) {
  const char* mount = tevu_mount_point();
  if (mount == nullptr || canonical[0] != '/' || canonical[1] == '\0' ||
      strchr(canonical + 1, '/') != nullptr) {
    return false;
  }
  char link[PATH_MAX];
  struct stat st;
  return tevul::format_whole(link, sizeof link, "%s/meta%s", mount, canonical) &&
         lstat(link, &st) == 0 && S_ISLNK(st.st_mode);
}

// What a walk of a tree on disk visits, and the entries it could not.
struct Walk {
  void (*visit)(void* user, const char* path);
  void* user;
  unsigned long failures = 0;
};

int compare_names(const void* a, const void* b) {
  return strcmp(*static_cast<const char* const*>(a), *static_cast<const char* const*>(b));
}

// Visits `root` and, when it is a directory, everything below it, each
// directory's entries in name order, parents before what they hold, through
// descriptors (a tree deeper than a path can name is walked all the same)
// and without recursion. Symbolic links are left out (a link would tag its
// target, which may lie anywhere).
void walk_tree(const char* root, Walk* walk) {
  walk->visit(walk->user, root);
  struct stat st;
  if (stat(root, &st) != 0 || !S_ISDIR(st.st_mode)) return;
  const int rc = tevul::walk_below(
      root,
      [](void* user, const char* path, const struct stat& entry) {
        if (S_ISLNK(entry.st_mode)) return tevul::walk_skip;
        Walk* w = static_cast<Walk*>(user);
        w->visit(w->user, path);
        return tevul::walk_enter;
      },
      [](void* user, const char* path, int error) {
        reportf({path}, "cannot read the directory: %s", errno_reason(error));
        ++static_cast<Walk*>(user)->failures;
      },
      walk);
  if (rc != 0) {
    reportf({root}, "cannot read the directory: %s", errno_reason(rc));
    ++walk->failures;
  }
}

// The state of one `set`.
struct Setting {
  array<Tag> tags;
  bool recursive = false, via_mount = false, dry_run = false, nul = false,
       strip = false;
  tevul::bulk_ptr ctx;
  unsigned long files = 0, tags_stored = 0, failures = 0, visited = 0;
  bool lost_context = false;
  bool told_root = false;
  Progress* progress = nullptr;  // set -r on a terminal
};

// Tags one file through the bulk context; counts and reports.
void set_one(void* user, const char* file) {
  Setting* s = static_cast<Setting*>(user);
  if (s->lost_context) return;
  if (s->progress != nullptr) s->progress->update(++s->visited, s->files);
  if (strlen(file) > kPathMax) {
    reportf({file}, "path too long to tag (limit %zu bytes)", kPathMax);
    ++s->failures;
    return;
  }
  if (s->dry_run) {
    emit_field(file, s->nul);
    ++s->files;
    s->tags_stored += s->tags.size();
    return;
  }
  char canonical[PATH_MAX];
  if (realpath(file, canonical) != nullptr && is_volume_root(canonical)) {
    if (!s->told_root) report({file}, "a volume's root carries no tags of its own");
    s->told_root = true;
    return;
  }
  if (tevu_bulk_setpath(s->ctx.get(), file) != 0) {
    report({file}, setpath_reason(file));
    ++s->failures;
    return;
  }
  unsigned long stored = 0;
  text scratch;
  for (std::size_t i = 0; i < s->tags.size(); ++i) {
    const Tag& tag = s->tags[i];
    const int rc = tevu_bulk_settag(s->ctx.get(), tag.name, tag.value);
    if (rc != 0) {
      report({file, tag.name}, bulk_reason(rc, tag.name, &scratch));
      ++s->failures;
      continue;
    }
    ++stored;
  }
  if (!commit_file(s->ctx, file)) {
    ++s->failures;
    s->lost_context = !s->ctx;
    return;
  }
  if (stored > 0) ++s->files;
  s->tags_stored += stored;
}

void set_through_mount(Setting* s, char** files, int count) {
  for (int f = 0; f < count; ++f) {
    unsigned long stored = 0;
    for (std::size_t i = 0; i < s->tags.size(); ++i) {
      const int rc = tevu_settag(files[f], s->tags[i].name, s->tags[i].value);
      if (rc != 0) {
        report({files[f], s->tags[i].name}, tagfile_reason(rc, files[f]));
        ++s->failures;
        continue;
      }
      ++stored;
    }
    if (stored > 0) ++s->files;
    s->tags_stored += stored;
  }
}

bool set_option(void* user, int c, const char* arg) {
  Setting* s = static_cast<Setting*>(user);
  switch (c) {
    case 'r': s->recursive = true; return true;
    case 'm': s->via_mount = true; return true;
    case 'n': s->dry_run = true; return true;
    case '0': s->nul = true; return true;
    case kStripOption: s->strip = true; return true;
    default: break;
  }
  // -t NAME=VALUE: split at the first "=", in the argument itself.
  char* eq = strchr(const_cast<char*>(arg), '=');
  if (eq == nullptr || eq == arg) {
    usage_error("tevu set", "'%s' is not NAME=VALUE", arg);
    return false;
  }
  *eq = '\0';
  return s->tags.push(Tag{arg, eq + 1});
}

}  // namespace

int cmd_set(int argc, char** argv) {
  Setting s;
  static const option kOptions[] = {
      {"tag", required_argument, nullptr, 't'},   {"recursive", no_argument, nullptr, 'r'},
      {"mount", no_argument, nullptr, 'm'},       {"dry-run", no_argument, nullptr, 'n'},
      {"null", no_argument, nullptr, '0'},
      {"strip-backslashes", no_argument, nullptr, kStripOption},
      {nullptr, 0, nullptr, 0}};
  const int status = parse_options(argc, argv, "t:rmn0", kOptions, set_option, &s);
  if (status >= 0) return status;
  if (s.tags.empty()) return usage_error(argv[0], "no tag given (-t NAME=VALUE)");
  if (optind >= argc) return usage_error(argv[0], "no file given");
  if (s.recursive && s.via_mount) return usage_error(argv[0], "-r and -m cannot be combined");
  for (int i = optind; i < argc; ++i) {
    if (argv[i][0] == '\0') return usage_error(argv[0], "empty file name");
  }
  if (!tag_fs_mounted()) return report_not_mounted();

  // A name or value that cannot be stored is refused for every file, once;
  // the other tags are still set.
  array<Tag> storable;
  text scratch;
  for (std::size_t i = 0; i < s.tags.size(); ++i) {
    const Tag& tag = s.tags[i];
    const char* refusal = name_refusal(tag.name, &scratch);
    if (refusal == nullptr) refusal = value_refusal(tag.name, tag.value, s.strip, &scratch);
    if (refusal != nullptr) {
      report({tag.name}, refusal);
      ++s.failures;
      continue;
    }
    storable.push(tag);
  }
  s.tags.clear();
  for (std::size_t i = 0; i < storable.size(); ++i) s.tags.push(storable[i]);
  if (!s.tags.empty()) {
    if (s.via_mount) {
      set_through_mount(&s, argv + optind, argc - optind);
    } else {
      if (!s.dry_run) {
        s.ctx = open_bulk();
        if (!s.ctx) return kExitNotMounted;
      }
      // A recursive set can run long: it shows the same progress line as
      // import while standard error is a terminal.
      Progress progress("set", s.recursive && !s.dry_run && isatty(STDERR_FILENO), 0);
      s.progress = &progress;
      Walk walk{set_one, &s};
      for (int i = optind; i < argc && !s.lost_context; ++i) {
        if (s.recursive) {
          walk_tree(argv[i], &walk);
        } else {
          set_one(&s, argv[i]);
        }
      }
      s.failures += walk.failures;
      s.ctx.reset();
      progress.clear();
      s.progress = nullptr;
      if (s.lost_context) return report_not_mounted();
    }
  }
  summary("set", s.files, s.tags_stored, s.failures, s.dry_run);
  return s.failures == 0 ? kExitOk : kExitFailed;
}

// ---------------------------------------------------------------------------
// get and list.

namespace {

// Every tag of one file, read into one arena.
struct FileTags {
  text arena;
  array<std::size_t> offsets;  // per tag: name, value
  std::size_t count() const { return offsets.size() / 2; }
  const char* name(std::size_t i) const { return arena.c_str() + offsets[2 * i]; }
  const char* value(std::size_t i) const { return arena.c_str() + offsets[2 * i + 1]; }
  bool short_of_memory = false;
  void add(const char* name, const char* value) {
    short_of_memory |= !offsets.push(arena.size());
    arena.append(name).push('\0');
    short_of_memory |= !offsets.push(arena.size());
    arena.append(value).push('\0');
  }
  // False when memory ran short: then the tags are not all there.
  bool ok() const { return arena.ok() && !short_of_memory; }
  void clear() {
    arena.clear();
    offsets.clear();
    short_of_memory = false;
  }
  // The value of tag `name` (letter case ignored, as the database names
  // columns), or NULL.
  const char* find(const char* wanted) const {
    for (std::size_t i = 0; i < count(); ++i) {
      if (strcasecmp(name(i), wanted) == 0) return value(i);
    }
    return nullptr;
  }
};

int add_tag(void* user, const char* name, const char* value) {
  static_cast<FileTags*>(user)->add(name, value);
  return 0;
}

// Reads tag `name` of `file` through the mount. Returns 0 or an errno.
int read_through_mount(const char* file, const char* name, FileTags* tags) {
  const int limit = tevu_getmaxvaluelen();
  const std::size_t size = static_cast<std::size_t>(limit > 4096 ? limit : 4096) + 1;
  tevul::c_ptr<char> buf(static_cast<char*>(malloc(size)));
  if (!buf) return ENOMEM;
  const int rc = tevu_gettag(file, name, buf.get(), size);
  if (rc == 0) tags->add(name, buf.get());
  return rc;
}

// Lists the tags of `file` as the tag file system shows them: the regular
// files of its tag directory, sorted by name.
bool list_through_mount(const char* file, FileTags* tags) {
  char canonical[PATH_MAX];
  if (realpath(file, canonical) == nullptr) {
    report({file}, errno_reason(errno));
    return false;
  }
  char tag_dir[PATH_MAX];
  tevul::format_cut(tag_dir, sizeof tag_dir, "%s/meta%s", tevu_mount_point(), canonical);
  tevul::dir_ptr dir(opendir(tag_dir));
  if (!dir) {
    if (errno != ENOENT) {
      report({file}, errno_reason(errno));
      return false;
    }
    // No tag directory: a file without tags, or a file on no tagged volume.
    if (!exists(canonical) || tevu_file_tags(file, add_tag, tags) != ENOENT) return true;
    report({file}, setpath_reason(file));
    return false;
  }
  text arena;
  array<std::size_t> offsets;
  while (const dirent* entry = readdir(dir.get())) {
    struct stat st;
    if (fstatat(dirfd(dir.get()), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0 ||
        !S_ISREG(st.st_mode)) {
      continue;
    }
    offsets.push(arena.size());
    arena.append(entry->d_name).push('\0');
  }
  array<const char*> names;
  for (std::size_t i = 0; i < offsets.size(); ++i) names.push(arena.c_str() + offsets[i]);
  names.sort(compare_names);
  bool ok = true;
  for (std::size_t i = 0; i < names.size(); ++i) {
    const int rc = read_through_mount(file, names[i], tags);
    if (rc != 0) {
      report({file, names[i]}, errno_reason(rc));
      ok = false;
    }
  }
  return ok;
}

// The options of the reading commands.
struct ReadOptions {
  bool via_mount = false, nul = false, json = false;
};

bool read_option(void* user, int c, const char*) {
  ReadOptions* o = static_cast<ReadOptions*>(user);
  if (c == 'm') o->via_mount = true;
  if (c == '0') o->nul = true;
  if (c == 'j') o->json = true;
  return true;
}

const option kReadOptions[] = {{"mount", no_argument, nullptr, 'm'},
                               {"null", no_argument, nullptr, '0'},
                               {"json", no_argument, nullptr, 'j'},
                               {nullptr, 0, nullptr, 0}};

// Writes the record of one file: JSON, or the import form (with the path
// when `with_path`), or each tag on a line of its own.
void emit_file(const char* file, const FileTags& tags, const ReadOptions& o,
               bool with_path, bool one_line) {
  text record;
  if (o.json || one_line) {
    file_record(file, tags, o.json, &record);
    emit(record, o.nul);
    return;
  }
  // A line per tag: its fields escaped as every record of the tool is
  // (a line feed or TAB inside one stays inside), raw with -0.
  for (std::size_t i = 0; i < tags.count(); ++i) {
    record.clear();
    if (with_path) {
      append_field(file, false, o.nul, &record);
      record.push('\t');
    }
    append_field(tags.name(i), true, o.nul, &record);
    record.push('=');
    append_field(tags.value(i), false, o.nul, &record);
    emit(record, o.nul);
  }
}

// What get and list do with every file named: `each` handles one file,
// with its tags in `tags` when `read` (and reports why not otherwise).
struct Reading {
  const ReadOptions* o;
  char** files;
  FileTags tags;
  bool failed = false;
  void (*each)(Reading* r, const char* file, bool read);
  // get: the names asked for.
  char** names = nullptr;
  int name_count = 0, file_count = 0;
  bool not_set = false;
};

int read_one(void* user, size_t index, int error, size_t count, const char* const* names,
             const char* const* values) {
  Reading* r = static_cast<Reading*>(user);
  const char* file = r->files[index];
  r->tags.clear();
  for (size_t i = 0; i < count; ++i) r->tags.add(names[i], values[i]);
  if (error == 0 && !r->tags.ok()) error = ENOMEM;
  // A file on a volume whose database is missing is on a tagged volume.
  const int unread = error == ENOENT ? failed_volume_of(file) : error;
  if (unread != 0) {
    reportf({file}, "tag database could not be read: %s", read_reason(unread));
  } else if (error == ENOENT) {
    report({file}, setpath_reason(file));
  }
  r->each(r, file, error == 0);
  return 0;
}

// Hands the `count` files of `r` to r->each, their tags read through one
// reader (many files per read transaction), or through the mount (`get`
// reads there each name itself). Returns an exit status for a reader that
// could not be had, else -1.
int read_files(Reading* r, int count) {
  if (r->o->via_mount) {
    for (int f = 0; f < count; ++f) {
      r->tags.clear();
      const bool read = r->names != nullptr || list_through_mount(r->files[f], &r->tags);
      r->each(r, r->files[f], read);
    }
    return -1;
  }
  std::unique_ptr<tevu_reader, void (*)(tevu_reader*)> reader(tevu_reader_open(),
                                                              tevu_reader_close);
  if (!reader) return report_not_mounted();
  const int rc = tevu_reader_files(reader.get(), r->files, static_cast<size_t>(count),
                                   read_one, r);
  if (rc != 0) {
    // Not one file's failure (those went through read_one): the rest of
    // the files are not read.
    reportf({}, "tags not read: %s", errno_reason(rc));
    r->failed = true;
  }
  return -1;
}

// get's handling of one file: the values of the names asked for.
void get_one(Reading* r, const char* file, bool read) {
  if (!read) {
    r->failed = true;
    return;
  }
  FileTags wanted;
  for (int n = 0; n < r->name_count; ++n) {
    const char* name = r->names[n];
    if (r->o->via_mount) {
      const int rc = read_through_mount(file, name, &wanted);
      if (rc != 0 && !(rc == ENOENT && exists(file))) {
        report({file, name}, tagfile_reason(rc, file));
        r->failed = true;
        continue;
      }
      if (rc == 0) continue;
    } else if (const char* value = r->tags.find(name)) {
      wanted.add(name, value);
      continue;
    }
    report({file, name}, "tag not set");
    r->not_set = true;
  }
  if (wanted.count() == 0) return;
  if (r->o->json || r->name_count > 1) {
    emit_file(file, wanted, *r->o, true, true);
  } else {
    // The value alone is printed as it is; PATH<TAB>VALUE lines are
    // records, escaped as every record (raw with -0).
    text record;
    if (r->file_count > 1) {
      append_field(file, false, r->o->nul, &record);
      record.push('\t');
      append_field(wanted.value(0), false, r->o->nul, &record);
    } else {
      record.append(wanted.value(0));
    }
    emit(record, r->o->nul);
  }
}

// list's handling of one file: every tag it carries.
void list_one(Reading* r, const char* file, bool read) {
  r->failed |= !read;
  if (read || r->tags.count() > 0) emit_file(file, r->tags, *r->o, r->file_count > 1, false);
}

// True when the operand `arg` of `get` names a file: it holds a "/" (no
// tag name does) or exists.
bool names_file(const char* arg) { return strchr(arg, '/') != nullptr || exists(arg); }

}  // namespace

int cmd_get(int argc, char** argv) {
  ReadOptions o;
  const int status = parse_options(argc, argv, "m0", kReadOptions, read_option, &o);
  if (status >= 0) return status;
  // The files come first, then the names.
  int first_name = optind;
  while (first_name < argc && names_file(argv[first_name])) ++first_name;
  for (int i = first_name; i < argc; ++i) {
    if (strchr(argv[i], '/') != nullptr) {
      return usage_error(argv[0], "'%s' comes after a tag name: the files come first "
                         "(tevu get FILE... NAME...)", argv[i]);
    }
  }
  if (first_name == optind) {
    if (first_name < argc) {
      return usage_error(argv[0], "'%s' is no file: the files come first "
                         "(tevu get FILE... NAME...)", argv[optind]);
    }
    return usage_error(argv[0], "expected FILE... NAME...");
  }
  if (first_name == argc) {
    // The last file named could have been meant as the name.
    return usage_error(argv[0], "no tag name given after the files "
                       "(tevu get FILE... NAME...)");
  }
  text scratch;
  for (int i = first_name; i < argc; ++i) {
    if (const char* refusal = name_refusal(argv[i], &scratch)) {
      return usage_error(argv[0], "%s: %s", argv[i], refusal);
    }
  }
  if (!tag_fs_mounted()) return report_not_mounted();
  Reading r;
  r.o = &o;
  r.files = argv + optind;
  r.each = get_one;
  r.names = argv + first_name;
  r.name_count = argc - first_name;
  r.file_count = first_name - optind;
  const int status_now = read_files(&r, r.file_count);
  if (status_now >= 0) return status_now;
  return r.failed ? kExitFailed : r.not_set ? kExitNotFound : kExitOk;
}

int cmd_list(int argc, char** argv) {
  ReadOptions o;
  const int status = parse_options(argc, argv, "m0", kReadOptions, read_option, &o);
  if (status >= 0) return status;
  if (argc - optind < 1) return usage_error(argv[0], "expected FILE...");
  for (int i = optind; i < argc; ++i) {
    if (argv[i][0] == '\0') return usage_error(argv[0], "empty file name");
  }
  if (!tag_fs_mounted()) return report_not_mounted();
  Reading r;
  r.o = &o;
  r.files = argv + optind;
  r.each = list_one;
  r.file_count = argc - optind;
  const int status_now = read_files(&r, r.file_count);
  if (status_now >= 0) return status_now;
  return r.failed ? kExitFailed : kExitOk;
}

// ---------------------------------------------------------------------------
// del.

namespace {

struct Deleting {
  array<const char*> names;
  const char* pattern = nullptr;
  bool via_mount = false, everywhere = false, dry_run = false, nul = false;
};

bool del_option(void* user, int c, const char* arg) {
  Deleting* d = static_cast<Deleting*>(user);
  switch (c) {
    case 'm': d->via_mount = true; break;
    case 'a': d->everywhere = true; break;
    case 'n': d->dry_run = true; break;
    case '0': d->nul = true; break;
    case 'g': d->pattern = arg; break;
    case 't': d->names.push(arg); break;
    default: break;
  }
  return true;
}

// True when `file` still has a tag file whose name matches `pattern`.
bool any_tag_matches(const char* file, const char* pattern) {
  char canonical[PATH_MAX];
  char tag_files[PATH_MAX];
  if (realpath(file, canonical) == nullptr ||
      !tevul::format_whole(tag_files, sizeof tag_files, "%s/meta%s/%s",
                           tevu_mount_point(), canonical, pattern)) {
    return true;  // cannot tell: keep the failure
  }
  glob_t found;
  const int rc = glob(tag_files, GLOB_NOSORT, nullptr, &found);
  globfree(&found);
  return rc != GLOB_NOMATCH;
}

}  // namespace

int cmd_del(int argc, char** argv) {
  Deleting d;
  static const option kOptions[] = {
      {"tag", required_argument, nullptr, 't'}, {"glob", required_argument, nullptr, 'g'},
      {"mount", no_argument, nullptr, 'm'},     {"all", no_argument, nullptr, 'a'},
      {"dry-run", no_argument, nullptr, 'n'},   {"null", no_argument, nullptr, '0'},
      {nullptr, 0, nullptr, 0}};
  const int status = parse_options(argc, argv, "t:g:mn0", kOptions, del_option, &d);
  if (status >= 0) return status;
  text scratch;
  if (d.everywhere) {
    if (!d.names.empty() || d.pattern != nullptr || d.via_mount) {
      return usage_error(argv[0], "--all takes tag names only");
    }
    if (optind >= argc) return usage_error(argv[0], "expected --all NAME...");
    for (int i = optind; i < argc; ++i) {
      if (const char* refusal = name_refusal(argv[i], &scratch)) {
        return usage_error(argv[0], "%s: %s", argv[i], refusal);
      }
    }
    return delete_everywhere(argv[0], argv + optind, argc - optind, d.dry_run, d.nul);
  }
  if (d.dry_run || d.nul) return usage_error(argv[0], "-n and -0 go with --all");
  if (d.names.empty() == (d.pattern == nullptr)) {
    return usage_error(argv[0], "give either -t NAME or -g PATTERN");
  }
  for (std::size_t i = 0; i < d.names.size(); ++i) {
    if (const char* refusal = name_refusal(d.names[i], &scratch)) {
      return usage_error(argv[0], "%s: %s", d.names[i], refusal);
    }
  }
  if (optind >= argc) return usage_error(argv[0], "no file given");
  if (!tag_fs_mounted()) return report_not_mounted();

  unsigned long files = 0, removed = 0, failures = 0;
  if (d.pattern != nullptr || d.via_mount) {
    for (int f = optind; f < argc; ++f) {
      const char* file = argv[f];
      if (!exists(file)) {
        report({file}, errno_reason(ENOENT));
        ++failures;
        continue;
      }
      if (d.pattern != nullptr) {
        // A pattern that matches nothing gives whatever errno the search
        // left, so a failure counts only while a matching tag remains.
        const int rc = tevu_deltag_glob(file, d.pattern);
        if (rc != 0 && any_tag_matches(file, d.pattern)) {
          report({file, d.pattern}, errno_reason(rc));
          ++failures;
        } else {
          ++files;
        }
        continue;
      }
      unsigned long here = 0;
      for (std::size_t i = 0; i < d.names.size(); ++i) {
        const int rc = tevu_deltag(file, d.names[i]);
        if (rc == 0) ++here;
        if (rc != 0 && rc != ENOENT) {  // a tag not set counts as removed
          report({file, d.names[i]}, tagfile_reason(rc, file));
          ++failures;
        }
      }
      files += here > 0 ? 1 : 0;
      removed += here;
    }
    summary("del", files, removed, failures, false);
    return failures == 0 ? kExitOk : kExitFailed;
  }

  tevul::bulk_ptr ctx = open_bulk();
  if (!ctx) return kExitNotMounted;
  char value[4096 + 1];  // more than any stored value
  for (int f = optind; f < argc; ++f) {
    const char* file = argv[f];
    if (tevu_bulk_setpath(ctx.get(), file) != 0) {
      report({file}, setpath_reason(file));
      ++failures;
      continue;
    }
    unsigned long here = 0;
    for (std::size_t i = 0; i < d.names.size(); ++i) {
      // Counted only when it was set.
      const bool set = tevu_bulk_gettag(ctx.get(), d.names[i], value, sizeof value) == 0;
      const int rc = tevu_bulk_deltag(ctx.get(), d.names[i]);
      if (rc != 0) {
        report({file, d.names[i]}, bulk_reason(rc, d.names[i], &scratch));
        ++failures;
        continue;
      }
      here += set ? 1 : 0;
    }
    if (!commit_file(ctx, file)) {
      ++failures;
      if (!ctx) return report_not_mounted();
      continue;
    }
    files += here > 0 ? 1 : 0;
    removed += here;
  }
  ctx.reset();
  summary("del", files, removed, failures, false);
  return failures == 0 ? kExitOk : kExitFailed;
}

}  // namespace tevu_cli
