/* A program built against the installed library, as a user builds one. */
#include <stdio.h>
#include <tevul.h>

int main(void) {
  /* Without a mounted tag file system there is no bulk context and no limit. */
  tevu_bulk_ctx *ctx = tevu_bulk_init();
  printf("libtevul linked: %s, name limit %d\n", ctx ? "mounted" : "not mounted",
         tevu_getmaxnamelen());
  tevu_bulk_fini(ctx);
  return 0;
}
