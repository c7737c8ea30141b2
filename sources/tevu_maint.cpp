// Delete, move and cleanup. See tevu_maint.h.
#include "tevu_maint.h"

#include <stdlib.h>
#include <string.h>

#include "common.h"
#include "metadb_tagdb.h"
#include "tevu_bulk.h"

namespace {

struct bulk_finisher {
  void operator()(tevu_bulk_ctx* ctx) const { tevu_bulk_fini(ctx); }
};
// A bulk context that commits, wakes the daemon if it changed anything, and
// is freed when its owner lets go.
using bulk_ptr = std::unique_ptr<tevu_bulk_ctx, bulk_finisher>;

// `path` (the caller's string) relative to the context's volume.
const char* volume_relative(const tevu_bulk_ctx* ctx, const char* path) {
  return tevu_volume_relative(&ctx->volume, path);
}

metadb_tagdb* database(const bulk_ptr& ctx) { return ctx->tagdb.get(); }

}  // namespace

extern "C" int tevu_delete(const char* path) {
  if (tevul::is_empty(path)) return -1;
  bulk_ptr ctx(tevu_bulk_init());
  if (!ctx || tevu_bulk_open_for_path(ctx.get(), path) != 0) return -1;
  metadb_tagdb_transaction_start(database(ctx));
  if (metadb_tagdb_delete_path(database(ctx), volume_relative(ctx.get(), path)) != 0) {
    return -1;
  }
  ctx->dirty = 1;
  return 0;  // the context's end commits, syncs and wakes the daemon
}

extern "C" int tevu_move(const char* src, const char* dst) {
  if (tevul::is_empty(src) || tevul::is_empty(dst)) return -1;
  bulk_ptr from(tevu_bulk_init());
  if (!from || tevu_bulk_open_for_path(from.get(), src) != 0) return -1;
  metadb_tagdb_transaction_start(database(from));
  const char* old_rel = volume_relative(from.get(), src);

  int rc;
  const std::size_t n = static_cast<std::size_t>(from->volume.prefix_len);
  if (strncmp(dst, from->volume.prefix, n) == 0) {
    rc = metadb_tagdb_rename_path(database(from), old_rel,
                                  volume_relative(from.get(), dst));
  } else {
    bulk_ptr to(tevu_bulk_init());
    if (!to) return -1;
    if (tevu_bulk_open_for_path(to.get(), dst) == 0) {
      metadb_tagdb_transaction_start(database(to));
      // The copy's DELETE of the source rows runs in the source's open
      // transaction, which is never marked as written: the source context's
      // end skips its COMMIT and closing rolls the DELETE back. The tags then
      // stand on both volumes; applications rely on a cross-volume move
      // keeping the source rows.
      rc = metadb_tagdb_move_path(database(from), old_rel, database(to),
                                  volume_relative(to.get(), dst));
    } else {
      // Moved off the tagged volumes: the tree loses its rows.
      rc = metadb_tagdb_delete_path(database(from), old_rel);
    }
  }
  if (rc == 0) from->dirty = 1;
  return rc;
}

extern "C" int tevu_cleanup(const char* db_path, const char* dir, int* cancel,
                            metadb_cleanup_filter filter) {
  if (tevul::is_empty(db_path) || tevul::is_empty(dir)) return -1;
  return metadb_tagdb_cleanup(db_path, dir, cancel, filter);
}

extern "C" int tevu_cleanup_attached(const char* path, int* cancel,
                                     metadb_cleanup_filter filter) {
  char canonical[tevul::kPathSize];
  if (path == nullptr || realpath(path, canonical) == nullptr) return -1;
  bulk_ptr ctx(tevu_bulk_init());
  if (!ctx) return -1;
  if (tevu_locate_volume(&ctx->volume, canonical) != 1) return -1;
  // The stored paths are relative to the volume's root, whatever directory
  // of the volume was given: the filter gets root + "/" + stored path, the
  // file's real place. The root is the prefix without its final "/".
  const tevu_volume& volume = ctx->volume;
  if (volume.prefix_len < 2 ||
      static_cast<std::size_t>(volume.prefix_len) >= sizeof volume.prefix) {
    return -1;
  }
  char root[sizeof volume.prefix];
  memcpy(root, volume.prefix, static_cast<std::size_t>(volume.prefix_len) - 1);
  root[volume.prefix_len - 1] = '\0';
  return tevu_cleanup(volume.db_path, root, cancel, filter);
}
