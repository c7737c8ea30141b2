// Bulk contexts. See tevu_bulk.h and tevul.h.
#include "tevu_bulk.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <cstdio>

#include "common.h"
#include "metadb_tagdb.h"

namespace {

// The meta directory as tevu_bulk_setpath() sees it: its own process-wide
// cache, independent of the volume module's, filled once and never reset.
tevul::meta_dir_cache g_setpath_meta_dir;

// True when `len` bytes are not below `limit`, compared as unsigned numbers:
// an unknown limit (0) refuses everything, a negative one accepts everything.
bool too_long(std::size_t len, int32_t limit) {
  return len >= static_cast<uint32_t>(limit);
}

// The length checks of the setting calls: the name first, then a value
// that is not NULL. Returns 0, -ENAMETOOLONG or -EFBIG.
int check_lengths(const tevu_bulk_ctx* ctx, const char* name,
                  const char* value) {
  if (too_long(strlen(name), ctx->max_name_len)) return -ENAMETOOLONG;
  if (value != nullptr && too_long(strlen(value), ctx->max_value_len)) {
    return -EFBIG;
  }
  return 0;
}

// The context's invariant: a context with a database has the volume that
// database belongs to (a prefix of its own, ending in "/"), a current path
// lies on that volume as the lookup matched it (the volume root may stand
// without its final "/"), and only a context with a database has changes
// pending. The first bytes of path and prefix are not compared: the lookup
// deliberately does not compare them for a root of the runtime file.
void check_invariant(const tevu_bulk_ctx* ctx) {
  TEVUL_INVARIANT(ctx->dirty == 0 || ctx->tagdb);
  if (!ctx->tagdb) return;
  const int32_t n = ctx->volume.prefix_len;
  static_cast<void>(n);
  TEVUL_INVARIANT(n >= 2 && static_cast<std::size_t>(n) < sizeof ctx->volume.prefix);
  TEVUL_INVARIANT(ctx->volume.prefix[n - 1] == '/');
  TEVUL_INVARIANT(ctx->volume.db_path[0] != '\0');
  TEVUL_INVARIANT(ctx->path[0] == '\0' ||
                  (strncmp(ctx->path + 1, ctx->volume.prefix + 1, n - 2) == 0 &&
                   (ctx->path[n - 1] == '/' || ctx->path[n - 1] == '\0')));
}

// Marks the context dirty after a successful change; returns `rc`.
int note_change(tevu_bulk_ctx* ctx, int rc) {
  if (rc == 0) ctx->dirty = 1;
  check_invariant(ctx);
  return rc;
}

// Whether `path` lies on a known volume: a matching volume link (its
// database link is not needed here) or the runtime file's root.
bool on_known_volume(const tevu_bulk_ctx* ctx, const char* path) {
  char name[256];
  const int found =
      tevul::find_volume_link(g_setpath_meta_dir.path, ctx->meta.get(), path, name);
  if (found < 0) return false;
  if (found == 1) return true;
  char root[tevul::kPathSize];
  return tevul::runtime_root_holds(path, root);
}

// The relative path for recursive tagging: the empty string, the whole
// volume, when the current path is a volume root "/N" without its slash.
const char* subtree_path(const tevu_bulk_ctx* ctx) {
  const char* rel = tevul::bulk_relative_path(ctx);
  return rel > ctx->path && rel[-1] == '\0' ? "" : rel;
}

}  // namespace

const char* tevul::bulk_relative_path(const tevu_bulk_ctx* ctx) {
  // A prefix cut by its buffer is longer than any path it could begin;
  // the last byte of `path` is always its terminator.
  int32_t skip = ctx->volume.prefix_len;
  if (skip < 0) skip = 0;
  if (static_cast<std::size_t>(skip) >= sizeof ctx->path) {
    skip = sizeof ctx->path - 1;
  }
  return ctx->path + skip;
}

int tevu_bulk_open_for_path(tevu_bulk_ctx* ctx, const char* path) {
  if (tevul::is_empty(path)) return -1;
  const std::size_t n = static_cast<std::size_t>(ctx->volume.prefix_len);
  if (n != 0 && strncmp(path, ctx->volume.prefix, n) == 0) return 0;
  if (ctx->tagdb) {
    tevu_bulk_commit(ctx);
    ctx->tagdb.reset();  // closes; a failed switch leaves no closed handle
    ctx->volume.prefix[0] = '\0';
    ctx->volume.prefix_len = 0;
  }
  if (tevu_locate_volume(&ctx->volume, path) == 0) return -1;
  ctx->tagdb.reset(metadb_tagdb_open(ctx->volume.db_path));
  return ctx->tagdb ? 0 : -1;
}

extern "C" tevu_bulk_ctx* tevu_bulk_init(void) {
  const char* mount = tevu_find_mount();
  if (mount == nullptr) return nullptr;
  tevul::object_ptr<tevu_bulk_ctx> ctx = tevul::make_object<tevu_bulk_ctx>();
  if (!ctx) return nullptr;
  ctx->max_name_len = tevu_getmaxnamelen();
  ctx->max_value_len = tevu_getmaxvaluelen();
  ctx->trigger.reset(event_trigger_init(mount));
  char meta[tevul::kPathSize];
  if (tevul::format_whole(meta, sizeof meta, "%s/meta", mount)) {
    ctx->meta.reset(open(meta, O_PATH | O_DIRECTORY | O_CLOEXEC));
  }
  return ctx.release();
}

extern "C" int tevu_bulk_setpath(tevu_bulk_ctx* ctx, const char* path) {
  if (ctx == nullptr || tevul::is_empty(path)) return -1;
  char canonical[tevul::kPathSize];
  if (realpath(path, canonical) == nullptr || canonical[0] == '\0') return -1;
  const char* mount = tevu_find_mount();
  if (mount == nullptr) return -1;
  tevul::fill_meta_dir(&g_setpath_meta_dir, mount);
  if (canonical[0] != '/') return -1;
  // The context keeps at most sizeof path - 2 bytes of a path: a longer one
  // would be cut to another file's name, and its tags land there.
  if (strlen(canonical) >= sizeof ctx->path - 1) return -1;
  if (!on_known_volume(ctx, canonical)) return -1;

  // The previous file's changes are synced, committed and signalled before
  // anything else changes.
  tevu_bulk_commit(ctx);
  if (tevu_bulk_open_for_path(ctx, canonical) != 0) return -1;
  tevul::format_cut(ctx->path, sizeof ctx->path - 1, "%s", canonical);
  // When the previous file changed nothing, its transaction was not
  // committed and simply continues; this BEGIN then fails harmlessly.
  metadb_tagdb_transaction_start(ctx->tagdb.get());
  check_invariant(ctx);
  return 0;
}

extern "C" int tevu_bulk_settag(tevu_bulk_ctx* ctx, const char* name,
                                const char* value) {
  if (ctx == nullptr || !ctx->tagdb || tevul::is_empty(name)) return -1;
  if (const int rc = check_lengths(ctx, name, value)) return rc;
  return note_change(ctx, metadb_tagdb_settag(ctx->tagdb.get(),
                                              tevul::bulk_relative_path(ctx),
                                              name, value));
}

extern "C" int tevu_bulk_settag_recursive(tevu_bulk_ctx* ctx, const char* name,
                                          const char* value) {
  if (ctx == nullptr || !ctx->tagdb || name == nullptr) return -1;
  if (const int rc = check_lengths(ctx, name, value)) return rc;
  return note_change(ctx, metadb_tagdb_settag_recursive(
                              ctx->tagdb.get(), subtree_path(ctx), name, value));
}

extern "C" int tevu_bulk_gettag(tevu_bulk_ctx* ctx, const char* name,
                                char* buf, unsigned int size) {
  if (ctx == nullptr || !ctx->tagdb || tevul::is_empty(name) ||
      buf == nullptr || size == 0) {
    return -1;
  }
  return metadb_tagdb_gettag(ctx->tagdb.get(), tevul::bulk_relative_path(ctx),
                             name, buf, size);
}

extern "C" int tevu_bulk_deltag(tevu_bulk_ctx* ctx, const char* name) {
  if (ctx == nullptr || !ctx->tagdb || tevul::is_empty(name)) return -1;
  return note_change(ctx, metadb_tagdb_deltag(ctx->tagdb.get(),
                                              tevul::bulk_relative_path(ctx), name));
}

extern "C" int tevu_bulk_commit(tevu_bulk_ctx* ctx) {
  if (ctx == nullptr || !ctx->tagdb) return -1;
  check_invariant(ctx);
  if (ctx->dirty) {
    metadb_tagdb_sync(ctx->tagdb.get(), tevul::bulk_relative_path(ctx));
  }
  const int rc = metadb_tagdb_transaction_commit(ctx->tagdb.get());
  const int lost = ctx->tagdb->failed_commit;
  if (lost != SQLITE_OK && ctx->error == 0) ctx->error = tevul::sqlite_errno(lost);
  if (ctx->dirty) {
    ctx->trigger.wake();  // whatever the commit gave
    ctx->dirty = 0;
  }
  return rc;
}

extern "C" int tevu_bulk_rollback(tevu_bulk_ctx* ctx) {
  if (ctx == nullptr || !ctx->tagdb) return -1;
  const int rc = metadb_tagdb_transaction_rollback(ctx->tagdb.get());
  if (rc == 0) ctx->dirty = 0;
  return rc;
}

extern "C" void tevu_bulk_fini(tevu_bulk_ctx* ctx) {
  if (ctx == nullptr) return;
  tevul::object_ptr<tevu_bulk_ctx> owned(ctx);
  tevu_bulk_commit(ctx);
  tevu_bulk_commit(ctx);  // kept: finds nothing dirty and only repeats the commit
  ctx->tagdb.reset();
  ctx->volume.prefix[0] = '\0';
  ctx->volume.prefix_len = 0;
  ctx->trigger.reset();
  ctx->meta.reset();
}

extern "C" int tevu_bulk_error(const tevu_bulk_ctx* ctx) {
  return ctx == nullptr ? -1 : ctx->error;
}
