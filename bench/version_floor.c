/* The floor of a tool's start-up: a C program that links SQLite and prints
 * its version, nothing else. `tevu --version` is measured against it
 * (bench/RESULTS.md). */
#include <sqlite3.h>
#include <stdio.h>

int main(void) {
  puts(sqlite3_libversion());
  return 0;
}
