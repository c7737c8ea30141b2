// Bulk contexts: many files tagged directly in the volumes' tag databases.
#ifndef TEVUL_TEVU_BULK_H
#define TEVUL_TEVU_BULK_H

#include <cstdint>

#include "common.h"
#include "metadb_tagdb.h"
#include "tevu_volume.h"
#include "tevul.h"

// One bulk context; see tevul.h. Made with tevul::make_object(), released
// by tevu_bulk_fini(). Invariant: `tagdb` and `volume` describe the same
// volume, and `path`, when not empty, lies on that volume as the lookup
// matched it: equal to volume.prefix after the first byte of each, or to the
// prefix without its trailing "/".
struct tevu_bulk_ctx {
  // The current file as realpath() gave it, copied with a limit of 4095
  // bytes including the terminator. Bytes behind the terminator keep what a
  // longer earlier path left (zero on a fresh context).
  char path[4096];
  tevul::tagdb_ptr tagdb;   // the current volume's database, or none
  tevu_volume volume;       // prefix_len 0 and prefix empty when none
  int32_t max_name_len;     // compared as unsigned: 0 (unknown) refuses all
  int32_t max_value_len;
  int32_t dirty;            // 1 after a change not yet committed
  tevul::trigger_fd trigger;  // event_trigger_init() result
  // The errno of the first COMMIT of this context that did not reach the
  // database, 0 while every one did; kept until the context is freed.
  int32_t error;
  // The meta directory, held open for the context's life (O_PATH: no file
  // of the daemon is opened), so that each path's volume check is one
  // request to the daemon; -1 when it could not be had.
  tevul::unique_fd meta;
};

// Makes ctx->tagdb the database of the volume holding `path` (absolute, used
// as it stands). Keeps the open database when path begins with the current
// prefix; otherwise commits and closes it first. Returns 0, or -1 when path
// is NULL or empty, lies on no volume or its database cannot be opened (the
// context then has no database).
int tevu_bulk_open_for_path(tevu_bulk_ctx* ctx, const char* path);

namespace tevul {

// The current file's path relative to its volume: a pointer into ctx->path.
const char* bulk_relative_path(const tevu_bulk_ctx* ctx);

}  // namespace tevul

#endif  // TEVUL_TEVU_BULK_H
