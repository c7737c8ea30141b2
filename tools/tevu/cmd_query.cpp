// The questions `tevu` asks the databases: find, tags and values.
#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include <sys/stat.h>

#include "cli.h"

namespace tevu_cli {

namespace {

// The files that `find` found, and how it prints them.
struct Finding {
  bool nul = false, long_form = false, json = false, count_only = false, first = false;
  const char* under = nullptr;
  char under_path[PATH_MAX];
  unsigned long count = 0;
};

// Prints one found file's path.
int print_found(void* user, const char* path) {
  Finding* f = static_cast<Finding*>(user);
  ++f->count;
  if (f->count_only) return 0;
  if (f->json) {
    text record;
    record.append("{\"path\":");
    json_string(path, &record);
    record.push('}');
    emit(record, f->nul);
  } else {
    emit_field(path, f->nul);
  }
  return 0;
}

// Prints one found file with its tags (-l), read with the search itself.
int print_found_row(void* user, const char* path, size_t count, const char* const* names,
                    const char* const* values) {
  Finding* f = static_cast<Finding*>(user);
  ++f->count;
  if (f->count_only) return 0;
  text record;
  file_record(path, TagArrays(count, names, values), f->json, &record);
  emit(record, f->nul);
  return 0;
}

bool find_option(void* user, int c, const char* arg) {
  Finding* f = static_cast<Finding*>(user);
  switch (c) {
    case '0': f->nul = true; break;
    case 'l': f->long_form = true; break;
    case 'j': f->json = true; break;
    case 'c': f->count_only = true; break;
    case 'f': f->first = true; break;
    case 'u': f->under = arg; break;
    default: break;
  }
  return true;
}

// The old lookup: all tags of the first file whose tag `name` has `value`.
int find_first(const char* name, const char* value, bool nul) {
  for (std::size_t size = 4096;; size *= 4) {
    tevul::c_ptr<char> buf(static_cast<char*>(malloc(size)));
    if (!buf) {
      reportf({name, value}, "%s", errno_reason(ENOMEM));
      return kExitFailed;
    }
    const int rc = tevu_metadata_for_tagvalue(name, value, buf.get(), size);
    if (rc == 0) {
      for (const char* line = buf.get(); *line != '\0';) {
        const std::size_t len = strcspn(line, "\n");
        if (len > 0) emit(line, len, nul);
        line += len + (line[len] == '\n' ? 1 : 0);
      }
      return kExitOk;
    }
    if (rc == ENOSPC && size < (1u << 20)) continue;
    if (!tag_fs_mounted()) return report_not_mounted();
    if (rc == ENOSPC) {
      report({name, value}, "the file's tags are too long to show");
      return kExitFailed;
    }
    report({name, value}, "no file has this tag value");
    return kExitNotFound;
  }
}

// Shows where a condition failed to parse: the condition and a caret.
int malformed(const char* command, const char* condition, std::size_t at, int operands) {
  fprintf(stderr, "%s: malformed condition at character %zu:\n  %s\n  %*s^\n", command,
          at + 1, condition, static_cast<int>(at), "");
  if (operands > 1) {
    // The operands were joined with blanks; say so, and how to write what
    // two words most often mean.
    fprintf(stderr,
            "%s: (the %d operands were joined into one condition: write NAME=VALUE for a "
            "value, 'NAME and NAME' for both, and quote a word that holds a blank)\n",
            command, operands);
  }
  fprintf(stderr,
          "%s: (see '%s --help' for conditions; at most 128 terms and 16 levels of "
          "parentheses and 'not')\n",
          command, command);
  return kExitUsage;
}

}  // namespace

int cmd_find(int argc, char** argv) {
  Finding f;
  static const option kOptions[] = {
      {"null", no_argument, nullptr, '0'},  {"long", no_argument, nullptr, 'l'},
      {"json", no_argument, nullptr, 'j'},  {"count", no_argument, nullptr, 'c'},
      {"first", no_argument, nullptr, 'f'}, {"under", required_argument, nullptr, 'u'},
      {nullptr, 0, nullptr, 0}};
  const int status = parse_options(argc, argv, "0l", kOptions, find_option, &f);
  if (status >= 0) return status;
  const int operands = argc - optind;
  if (operands < 1 || (f.first && operands != 2)) {
    return usage_error(argv[0], f.first ? "expected NAME VALUE" : "expected CONDITION");
  }
  if (f.first && (f.count_only || f.long_form || f.json || f.under != nullptr)) {
    return usage_error(argv[0], "--first prints one file's tags: no --count, -l, --json "
                                "or --under with it");
  }
  text scratch;
  if (f.first) {
    if (const char* refusal = name_refusal(argv[optind], &scratch)) {
      return usage_error(argv[0], "%s: %s", argv[optind], refusal);
    }
    return find_first(argv[optind], argv[optind + 1], f.nul);
  }
  if (f.under != nullptr) {
    if (const int rc = disk_path(f.under, f.under_path)) {
      if (rc == EINVAL) return usage_error(argv[0], "--under needs a directory");
      report({f.under}, errno_reason(rc));
      return kExitFailed;
    }
    // A directory to search below must be there (disk_path() takes the
    // paths of deleted files too).
    struct stat st;
    if (lstat(f.under_path, &st) != 0) {
      report({f.under}, errno_reason(errno));
      return kExitFailed;
    }
    f.under = f.under_path;
  }
  if (!tag_fs_mounted()) return report_not_mounted();

  // The operands are one condition, joined with blanks, as users type
  // them: tevu find year '>' 2000 and not draft.
  text condition;
  for (int i = optind; i < argc; ++i) {
    if (i > optind) condition.push(' ');
    condition.append(argv[i]);
  }
  std::size_t at = 0;
  const int rc = f.long_form
                     ? tevu_find_rows_where(condition.c_str(), f.under, print_found_row, &f, &at)
                     : tevu_find_where(condition.c_str(), f.under, print_found, &f, &at);
  if (rc == EINVAL) return malformed(argv[0], condition.c_str(), at, operands);
  if (f.count_only && rc == 0) {
    // The count is the answer, 0 too; the status still tells a script.
    printf("%lu\n", f.count);
    return f.count == 0 ? kExitNotFound : kExitOk;
  }
  if (rc != 0) {
    if (rc == ENOENT && f.under != nullptr) {
      // As `tevu tags DIR` says it.
      report({f.under}, "not on a tagged volume");
    } else if (!report_unread_volumes()) {
      reportf({condition.c_str()}, "tag database failed: %s", errno_reason(rc));
    }
    return kExitFailed;
  }
  if (f.count == 0) {
    report({condition.c_str()}, "no file matches");
    return kExitNotFound;
  }
  return kExitOk;
}

// ---------------------------------------------------------------------------
// tags and values.

namespace {

struct Counting {
  bool nul = false, json = false;
  const char* key = "name";
  unsigned long count = 0;
};

bool count_option(void* user, int c, const char*) {
  Counting* o = static_cast<Counting*>(user);
  if (c == '0') o->nul = true;
  if (c == 'j') o->json = true;
  return true;
}

const option kCountOptions[] = {{"null", no_argument, nullptr, '0'},
                                {"json", no_argument, nullptr, 'j'},
                                {nullptr, 0, nullptr, 0}};

int print_count(void* user, const char* text_value, unsigned long count) {
  Counting* o = static_cast<Counting*>(user);
  ++o->count;
  text record;
  if (o->json) {
    record.appendf("{\"%s\":", o->key);
    json_string(text_value, &record);
    record.appendf(",\"files\":%lu}", count);
  } else {
    escape_field(text_value, false, &record);
    record.appendf("\t%lu", count);
  }
  emit(record, o->nul);
  return 0;
}

// Runs a count query below the optional DIR operand `dir`.
int run_count(const char* command, const char* name, const char* dir, Counting* o) {
  char under[PATH_MAX];
  if (dir != nullptr) {
    if (const int rc = disk_path(dir, under)) {
      if (rc == EINVAL) return usage_error(command, "empty DIR");
      report({dir}, errno_reason(rc));
      return kExitFailed;
    }
  }
  if (!tag_fs_mounted()) return report_not_mounted();
  const char* below = dir != nullptr ? under : nullptr;
  const int rc = name != nullptr ? tevu_tag_values(name, below, print_count, o)
                                 : tevu_tag_names(below, print_count, o);
  if (rc == 0) {
    if (name != nullptr && o->count == 0) {
      report({name}, "no file has this tag");
      return kExitNotFound;
    }
    return kExitOk;
  }
  if (!report_unread_volumes()) {
    report({dir != nullptr ? dir : name}, rc == ENOENT && dir != nullptr
                                              ? "not on a tagged volume"
                                              : errno_reason(rc));
  }
  return kExitFailed;
}

}  // namespace

int cmd_tags(int argc, char** argv) {
  Counting o;
  const int status = parse_options(argc, argv, "0", kCountOptions, count_option, &o);
  if (status >= 0) return status;
  if (argc - optind > 1) return usage_error(argv[0], "expected at most one DIR");
  return run_count(argv[0], nullptr, optind < argc ? argv[optind] : nullptr, &o);
}

int cmd_values(int argc, char** argv) {
  Counting o;
  o.key = "value";
  const int status = parse_options(argc, argv, "0", kCountOptions, count_option, &o);
  if (status >= 0) return status;
  const int operands = argc - optind;
  if (operands < 1 || operands > 2) return usage_error(argv[0], "expected NAME [DIR]");
  text scratch;
  if (const char* refusal = name_refusal(argv[optind], &scratch)) {
    return usage_error(argv[0], "%s: %s", argv[optind], refusal);
  }
  return run_count(argv[0], argv[optind], operands == 2 ? argv[optind + 1] : nullptr, &o);
}

}  // namespace tevu_cli
