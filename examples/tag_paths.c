/*
 * Tags a few paths of one tag database inside a transaction and prints the
 * rows with their encoded Data.
 *
 *   tag_paths [DATABASE]
 *
 * Without an argument a fresh database is made in a temporary directory.
 * The daemon normally creates the table Meta; this example creates it
 * itself when the file is new, since the library never does.
 */
#include <sqlite3.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "tevul.h"

static int create_database(const char *file) {
  sqlite3 *db = NULL;
  int rc = sqlite3_open(file, &db);
  if (rc == SQLITE_OK)
    rc = sqlite3_exec(db,
                      "CREATE TABLE IF NOT EXISTS Meta(Path TEXT UNIQUE, "
                      "Data TEXT)",
                      NULL, NULL, NULL);
  sqlite3_close(db);
  return rc == SQLITE_OK ? 0 : -1;
}

static int print_row(void *unused, int n, char **values, char **names) {
  (void)unused;
  (void)names;
  (void)n;
  printf("%-24s %s\n", values[0], values[1] ? values[1] : "(NULL)");
  return 0;
}

int main(int argc, char **argv) {
  char file[4096];
  char dir[] = "/tmp/tag_paths.XXXXXX";
  if (argc > 1) {
    snprintf(file, sizeof file, "%s", argv[1]);
  } else {
    if (mkdtemp(dir) == NULL) {
      perror("mkdtemp");
      return 1;
    }
    snprintf(file, sizeof file, "%s/volume@@db", dir);
  }
  if (create_database(file) != 0) {
    fprintf(stderr, "cannot create %s\n", file);
    return 1;
  }

  metadb_tagdb *db = metadb_tagdb_open(file);
  if (db == NULL) {
    fprintf(stderr, "cannot open %s\n", file);
    return 1;
  }

  static const struct {
    const char *path, *tag, *value;
  } tags[] = {
      {"music/a.mp3", "artist", "AC/DC"},
      {"music/a.mp3", "title", "Live | Loud"},
      {"music/a.mp3", "year", "1992"},
      {"photos/beach.jpg", "place", "Sylt"},
      {"photos/beach.jpg", "rating", "5"},
      {"docs/notes.txt", "lang", "de"},
  };
  int failures = 0;
  metadb_tagdb_transaction_start(db);
  for (size_t i = 0; i < sizeof tags / sizeof tags[0]; ++i) {
    int rc = metadb_tagdb_settag(db, tags[i].path, tags[i].tag, tags[i].value);
    if (rc != 0) {
      fprintf(stderr, "%s: %s: failed (%d)\n", tags[i].path, tags[i].tag, rc);
      ++failures;
    }
  }
  metadb_tagdb_sync(db, "music/a.mp3");
  metadb_tagdb_sync(db, "photos/beach.jpg");
  metadb_tagdb_sync(db, "docs/notes.txt");
  metadb_tagdb_transaction_commit(db);

  char value[64];
  if (metadb_tagdb_gettag(db, "photos/beach.jpg", "place", value,
                          sizeof value) == 0)
    printf("photos/beach.jpg place=%s\n\n", value);
  metadb_tagdb_close(db);

  sqlite3 *raw = NULL;
  if (sqlite3_open(file, &raw) == SQLITE_OK) {
    printf("%-24s %s\n", "Path", "Data");
    sqlite3_exec(raw, "SELECT Path, Data FROM Meta ORDER BY Path", print_row,
                 NULL, NULL);
  }
  sqlite3_close(raw);

  if (argc <= 1) {
    unlink(file);
    rmdir(dir);
  }
  return failures == 0 ? 0 : 1;
}
