// Single tags through the mount. See tevu_tagfile.h.
#include "tevu_tagfile.h"

#include <errno.h>
#include <glob.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <cstdio>

#include "common.h"
#include "tevu_volume.h"

namespace {

// The common start of the tag-file functions: the mount, the arguments, the
// canonical path, the tag file path in `tag_file`. Returns 0, ENOENT (no
// mount, a missing argument) or realpath's errno.
int tag_file_path(const char* path, const char* tag, char* tag_file) {
  const char* mount = tevu_find_mount();
  if (mount == nullptr) return ENOENT;
  if (tevul::is_empty(path) || tevul::is_empty(tag)) return ENOENT;
  char canonical[tevu_path_size];
  if (realpath(path, canonical) == nullptr) return errno;
  tevul::format_cut(tag_file, tevu_path_size, "%s/meta/%s/%s", mount,
                    canonical + 1, tag);
  return 0;
}

struct glob_releaser {
  void operator()(glob_t* g) const { globfree(g); }
};

}  // namespace

extern "C" int tevu_settag(const char* path, const char* tag, const char* value) {
  char tag_file[tevu_path_size];
  if (const int rc = tag_file_path(path, tag, tag_file)) return rc;
  tevul::file_ptr file(std::fopen(tag_file, "w"));
  if (!file) return errno;
  // What the daemon does with the value is its business: a value it refuses
  // on write or close still counts as written here.
  if (value != nullptr) std::fputs(value, file.get());
  return 0;
}

extern "C" int tevu_gettag(const char* path, const char* tag, char* buf,
                           size_t size) {
  if (buf == nullptr) return ENOENT;
  char tag_file[tevu_path_size];
  if (const int rc = tag_file_path(path, tag, tag_file)) return rc;
  if (size == 0) return 0;  // room for nothing, not even the terminator
  tevul::file_ptr file(std::fopen(tag_file, "r"));
  if (!file) return errno;
  memset(buf, 0, size);
  // A shorter value leaves zeros behind it; a longer one is cut.
  const size_t ignored = std::fread(buf, size - 1, 1, file.get());
  (void)ignored;
  return 0;
}

extern "C" int tevu_deltag(const char* path, const char* tag) {
  char tag_file[tevu_path_size];
  if (const int rc = tag_file_path(path, tag, tag_file)) return rc;
  return unlink(tag_file) == 0 ? 0 : errno;
}

extern "C" int tevu_deltag_glob(const char* path, const char* pattern) {
  char tag_file[tevu_path_size];
  if (const int rc = tag_file_path(path, pattern, tag_file)) return rc;
  glob_t matches;
  // The whole tag file path is the pattern, the file's own path included.
  const int rc = glob(tag_file, GLOB_NOSORT, nullptr, &matches);
  std::unique_ptr<glob_t, glob_releaser> release(&matches);
  // glob's own code is never returned: with no match the result is errno as
  // it stands, as callers have always seen it.
  if (rc != 0) return errno;
  for (size_t i = 0; i < matches.gl_pathc; ++i) {
    if (unlink(matches.gl_pathv[i]) != 0) return errno;
  }
  return 0;
}

extern "C" int tevu_metadata_for_tagvalue(const char* tag, const char* value,
                                          char* dest, size_t size) {
  return metadb_tagsfile_get_for_tagvalue(tevu_find_mount(), tag, value, dest,
                                          size);
}
