// The commands of `tevu` that change one tag on every file of every volume:
// del --all and rename.
#include <errno.h>
#include <strings.h>

#include <functional>
#include <string>
#include <vector>

#include "cli.h"
#include "tevul.h"

namespace tevu_cli {

namespace {

// Collects, through the tag columns' indexes and without a write lock, the
// files on every volume that carry tag `name` (letter case ignored, as the
// columns are named). Reports a failure for `where` and returns its exit
// status, or -1 when the search went through.
int find_carriers(const std::string& name, const std::vector<std::string>& where,
                  std::vector<std::string>* found) {
  const int rc = tevu_find_files(
      name.c_str(), nullptr,
      [](void* user, const char* path) {
        static_cast<std::vector<std::string>*>(user)->push_back(path);
        return 0;
      },
      found);
  if (rc == 0) return -1;
  if (!tag_fs_mounted()) return report_not_mounted();
  // A volume that cannot be read is named, and nothing is changed: the tag
  // would stay there.
  if (!report_unread_volumes()) {
    report(where, rc == EINVAL ? "tag name contains a double quote"
                               : "tag database could not be read: " + errno_reason(rc));
  }
  return kExitFailed;
}

// Applies `change` to the file of every carrier through one bulk context,
// each file in a transaction of its own: committed when `change` returns
// true, rolled back otherwise (it reports why). Returns the number of
// files changed; sets *failed when any file failed. A file that vanished
// keeps its row: only `tevu cleanup` may drop it.
unsigned long change_each(
    const std::vector<std::string>& carriers,
    const std::function<bool(tevu_bulk_ctx*, const std::string&)>& change,
    bool* failed) {
  bulk_ptr ctx = open_bulk();
  if (!ctx) {
    *failed = true;
    return 0;
  }
  unsigned long changed = 0;
  for (const std::string& carrier : carriers) {
    if (tevu_bulk_setpath(ctx.get(), carrier.c_str()) != 0) {
      const std::string reason = setpath_reason(carrier);
      report({carrier}, reason == errno_reason(ENOENT)
                                 ? reason + " (its tags stay until 'tevu cleanup')"
                                 : reason);
      *failed = true;
      continue;
    }
    if (!change(ctx.get(), carrier)) {
      tevu_bulk_rollback(ctx.get());
      *failed = true;
      continue;
    }
    if (!commit_file(ctx, {carrier})) {
      *failed = true;
      if (!ctx) {
        report_not_mounted();
        break;
      }
      continue;
    }
    ++changed;
  }
  return changed;
}

}  // namespace

int delete_everywhere(const std::vector<std::string>& names) {
  bool failed = false;
  for (const std::string& name : names) {
    std::vector<std::string> carriers;
    const int status = find_carriers(name, {"del", name}, &carriers);
    if (status == kExitNotMounted) return status;
    if (status >= 0) {
      failed = true;
      continue;
    }
    const unsigned long removed = change_each(
        carriers,
        [&name](tevu_bulk_ctx* ctx, const std::string& carrier) {
          const int rc = tevu_bulk_deltag(ctx, name.c_str());
          if (rc != 0) report({carrier, name}, bulk_reason(rc, name));
          return rc == 0;
        },
        &failed);
    report({"del", name}, "removed from " + counted(removed, "file", "files"));
  }
  return failed ? kExitFailed : kExitOk;
}

int cmd_rename(int argc, char** argv) {
  bool strip = false;
  const int status = parse_options(
      argc, argv, "", {{kStripOptionName, no_argument, nullptr, kStripOption}},
      [&strip](int, const char*) { return strip = true; });
  if (status >= 0) return status;
  if (argc - optind != 2) return usage_error(argv[0], "expected OLD NEW");
  const std::string from = argv[optind];
  const std::string to = argv[optind + 1];
  if (from.empty() || to.empty()) return usage_error(argv[0], "empty tag name");
  // Both would name one column: setting NEW and removing OLD would lose it.
  if (strcasecmp(from.c_str(), to.c_str()) == 0) {
    return usage_error(argv[0],
                       "OLD and NEW differ only in letter case, which tag "
                       "names do not tell apart");
  }
  const std::vector<std::string> where = {"rename", from, to};
  std::vector<std::string> carriers;
  const int found = find_carriers(from, where, &carriers);
  if (found >= 0) return found;
  if (carriers.empty()) {
    report(where, "no file has this tag");
    return kExitNotFound;
  }

  // Room for any value the database format can store (its statement buffer
  // holds far less), and for older values up to this size.
  std::vector<char> value(4096 + 1);
  bool failed = false;
  const unsigned long renamed = change_each(
      carriers,
      [&](tevu_bulk_ctx* ctx, const std::string& carrier) {
        // Read inside the file's own transaction: the value renamed is the
        // value stored now.
        if (tevu_bulk_gettag(ctx, from.c_str(), value.data(),
                             static_cast<unsigned int>(value.size())) != 0) {
          report({carrier, from}, "value not readable (gone, or longer than " +
                                      std::to_string(value.size() - 1) + " bytes)");
          return false;
        }
        const std::string refusal = backslash_refusal(value.data(), strip);
        if (!refusal.empty()) {
          report({carrier, from}, refusal);
          return false;
        }
        int rc = tevu_bulk_settag(ctx, to.c_str(), value.data());
        if (rc != 0) {
          report({carrier, to}, bulk_reason(rc, to));
          return false;
        }
        rc = tevu_bulk_deltag(ctx, from.c_str());
        if (rc != 0) report({carrier, from}, bulk_reason(rc, from));
        return rc == 0;
      },
      &failed);
  report(where, "renamed on " + counted(renamed, "file", "files"));
  return failed ? kExitFailed : kExitOk;
}

}  // namespace tevu_cli
