/* Compiled as strict C99: the public header must stay valid C. */
#include "tevul.h"

int tevul_header_check(void) {
  metadb_tagdb *db = metadb_tagdb_open("/nonexistent");
  metadb_tagdb_close(db);
  return 0;
}
