// The commands of `tevu` that change one tag on every file of every volume:
// del --all and rename. Both work on the databases alone, through the
// library's changes everywhere: files that vanished from the disk are
// included (their rows go with `tevu cleanup`), every volume is read
// before anything changes, and each volume changes in a checked
// transaction of its own.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "cli.h"

namespace tevu_cli {

namespace {

// The files that carry a tag, as tevu_find_files() hands them.
struct Carriers {
  text arena;
  array<std::size_t> offsets;
  array<const char*> sorted;

  static int add(void* user, const char* path) {
    Carriers* c = static_cast<Carriers*>(user);
    c->offsets.push(c->arena.size());
    c->arena.append(path).push('\0');
    return 0;
  }
  static int compare(const void* a, const void* b) {
    return strcmp(*static_cast<const char* const*>(a), *static_cast<const char* const*>(b));
  }
  // Sorts the paths, for has().
  void sort() {
    sorted.clear();
    for (std::size_t i = 0; i < offsets.size(); ++i) sorted.push(arena.c_str() + offsets[i]);
    sorted.sort(compare);
  }
  bool has(const char* path) const {
    return sorted.find(path, compare) != nullptr;
  }
};

// Collects the carriers of tag `name`; reports a failure for `where`.
bool find_carriers(const char* name, Carriers* out) {
  const int rc = tevu_find_files(name, nullptr, Carriers::add, out);
  if (rc == 0) return true;
  if (!report_unread_volumes()) {
    reportf({name}, "tag database could not be read: %s", errno_reason(rc));
  }
  return false;
}

struct Options {
  bool dry_run = false, merge = false, value = false, nul = false;
};

bool everywhere_option(void* user, int c, const char*) {
  Options* o = static_cast<Options*>(user);
  if (c == 'n') o->dry_run = true;
  if (c == 'm') o->merge = true;
  if (c == 'v') o->value = true;
  if (c == '0') o->nul = true;
  return true;
}

// rename --value NAME OLD NEW: every file whose tag NAME has value OLD gets
// NEW (onto a value other files carry, a merge of the two values).
int rename_value(const char* command, const char* name, const char* old, const char* value,
                 const Options& o) {
  text scratch;
  if (const char* refusal = restore_refusal(name, &scratch)) {
    return usage_error(command, "%s: %s", name, refusal);
  }
  if (!tag_fs_mounted()) return report_not_mounted();
  if (const char* refusal = value_refusal(name, value, false, &scratch)) {
    return usage_error(command, "%s: %s", value, refusal);
  }
  unsigned long renamed = 0;
  if (o.dry_run) {
    struct Listing {
      bool nul;
    } listing{o.nul};
    tevu_find_files(
        name, old,
        [](void* user, const char* path) {
          emit_field(path, static_cast<Listing*>(user)->nul);
          return 0;
        },
        &listing);
  }
  const int rc = tevu_rename_value(name, old, value, o.dry_run ? 1 : 0, &renamed);
  if (rc != 0) {
    if (!report_unread_volumes()) {
      reportf({"rename", name, old}, "not renamed: %s", errno_reason(rc));
    }
    summary("rename", 0, 0, 1, o.dry_run);
    return kExitFailed;
  }
  if (renamed == 0) {
    reportf({"rename", name, old}, "no file has this value");
    return kExitNotFound;
  }
  summary("rename", renamed, renamed, 0, o.dry_run);
  return kExitOk;
}

}  // namespace

int delete_everywhere(const char* command, char** names, int count, bool dry_run, bool nul) {
  if (!tag_fs_mounted()) return report_not_mounted();
  unsigned long tags = 0, failures = 0;
  bool nothing = false;
  // Each file is counted (and, in a dry run, printed) once, whatever names
  // it loses; a name given twice, or in another letter case (one column),
  // is one name: the run finds nothing the second time, nor does the dry
  // run.
  Carriers files;
  for (int i = 0; i < count; ++i) {
    const char* name = names[i];
    bool again = false;
    for (int k = 0; k < i && !again; ++k) again = strcasecmp(names[k], name) == 0;
    if (again) continue;
    Carriers carriers;
    if (!find_carriers(name, &carriers)) {
      ++failures;
      continue;
    }
    if (carriers.offsets.empty()) {
      report({name}, "no file has this tag");
      nothing = true;
      continue;
    }
    unsigned long removed = carriers.offsets.size();
    if (!dry_run) {
      if (const int rc = tevu_delete_tag(name, &removed)) {
        if (!report_unread_volumes()) reportf({name}, "not removed: %s", errno_reason(rc));
        ++failures;
      }
    }
    tags += removed;
    files.sort();
    for (std::size_t k = 0; k < carriers.offsets.size(); ++k) {
      const char* path = carriers.arena.c_str() + carriers.offsets[k];
      if (files.has(path)) continue;
      if (dry_run) emit_field(path, nul);
      Carriers::add(&files, path);
    }
  }
  (void)command;
  summary("del", files.offsets.size(), tags, failures, dry_run);
  return failures > 0 ? kExitFailed : nothing ? kExitNotFound : kExitOk;
}

int cmd_rename(int argc, char** argv) {
  Options o;
  static const option kOptions[] = {{"dry-run", no_argument, nullptr, 'n'},
                                    {"merge", no_argument, nullptr, 'm'},
                                    {"value", no_argument, nullptr, 'v'},
                                    {"null", no_argument, nullptr, '0'},
                                    {nullptr, 0, nullptr, 0}};
  const int status = parse_options(argc, argv, "n0", kOptions, everywhere_option, &o);
  if (status >= 0) return status;
  if (o.value) {
    if (argc - optind != 3) return usage_error(argv[0], "expected NAME OLD NEW");
    if (o.merge) return usage_error(argv[0], "--value merges by itself: no --merge");
    return rename_value(argv[0], argv[optind], argv[optind + 1], argv[optind + 2], o);
  }
  if (argc - optind != 2) return usage_error(argv[0], "expected OLD NEW");
  const char* from = argv[optind];
  const char* to = argv[optind + 1];
  text scratch;
  // OLD may be any name a database holds; NEW must be a good one.
  if (const char* refusal = restore_refusal(from, &scratch)) {
    return usage_error(argv[0], "%s: %s", from, refusal);
  }
  if (const char* refusal = name_refusal(to, &scratch)) {
    return usage_error(argv[0], "%s: %s", to, refusal);
  }
  // Both would name one column: setting NEW and removing OLD would lose it.
  if (strcasecmp(from, to) == 0) {
    return usage_error(argv[0], "OLD and NEW differ only in letter case, which tag names "
                       "do not tell apart");
  }
  if (!tag_fs_mounted()) return report_not_mounted();
  unsigned long renamed = 0, kept = 0;
  if (o.dry_run) {
    Carriers old_carriers, new_carriers;
    if (!find_carriers(from, &old_carriers) || !find_carriers(to, &new_carriers)) {
      return kExitFailed;
    }
    new_carriers.sort();
    for (std::size_t k = 0; k < old_carriers.offsets.size(); ++k) {
      const char* path = old_carriers.arena.c_str() + old_carriers.offsets[k];
      if (new_carriers.has(path)) {
        ++kept;
        continue;
      }
      emit_field(path, o.nul);
      ++renamed;
    }
    // With --merge, the files that carry both follow, each with the value
    // it loses.
    for (std::size_t k = 0; o.merge && k < old_carriers.offsets.size(); ++k) {
      const char* path = old_carriers.arena.c_str() + old_carriers.offsets[k];
      if (!new_carriers.has(path)) continue;
      struct Lost {
        const char* name;
        text value;
      } lost{from, {}};
      tevu_file_tags(
          path,
          [](void* user, const char* name, const char* value) {
            Lost* l = static_cast<Lost*>(user);
            if (strcasecmp(name, l->name) == 0) l->value.append(value);
            return 0;
          },
          &lost);
      text line;
      append_field(path, false, o.nul, &line);
      line.append("\tloses ");
      append_field(from, true, o.nul, &line);
      line.push('=');
      append_field(lost.value.c_str(), false, o.nul, &line);
      emit(line.c_str(), line.size(), o.nul);
    }
  } else {
    const int rc = tevu_rename_tag(from, to, o.merge ? 1 : 0, &renamed, &kept);
    if (rc == EEXIST) {
      reportf({"rename", from, to},
              "%lu file%s carr%s both: nothing renamed ('--merge' merges: those keep "
              "%s's value and lose %s)",
              kept, kept == 1 ? "" : "s", kept == 1 ? "ies" : "y", to, from);
      summary("rename", 0, 0, 1, false);
      return kExitFailed;
    }
    if (rc != 0) {
      if (!report_unread_volumes()) {
        reportf({"rename", from, to}, "not renamed: %s", errno_reason(rc));
      }
      summary("rename", renamed, renamed, 1, false);
      return kExitFailed;
    }
  }
  if (renamed == 0 && kept == 0) {
    report({"rename", from}, "no file has this tag");
    return kExitNotFound;
  }
  if (kept > 0) {
    if (o.dry_run && !o.merge) {
      reportf({"rename", from, to}, "%lu file%s carr%s both", kept, kept == 1 ? "" : "s",
              kept == 1 ? "ies" : "y");
      summary("rename", renamed, renamed, 0, true);
      report({"rename"}, "without --merge nothing would be renamed");
      return kExitFailed;
    }
    reportf({"rename", from, to}, "%lu file%s carr%s both: %s %s's value, %s %s", kept,
            kept == 1 ? "" : "s", kept == 1 ? "ies" : "y", o.dry_run ? "would keep" : "kept",
            to, o.dry_run ? "would lose" : "lost", from);
  }
  // Every file that loses the old name counts, those that carried both too.
  if (o.dry_run) renamed += o.merge ? kept : 0;
  summary("rename", renamed, renamed, 0, o.dry_run);
  return kExitOk;
}

}  // namespace tevu_cli
