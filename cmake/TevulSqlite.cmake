# Finds SQLite 3 and makes sure it was built with the two optional
# facilities the library depends on: unlock notification (to wait out
# shared-cache locks) and column metadata (to test for a tag's column).
find_package(SQLite3 REQUIRED)

include(CheckCSourceCompiles)
set(CMAKE_REQUIRED_INCLUDES ${SQLite3_INCLUDE_DIRS})
set(CMAKE_REQUIRED_LIBRARIES ${SQLite3_LIBRARIES})
check_c_source_compiles("
#include <sqlite3.h>
int main(void) {
  return sqlite3_unlock_notify(0, 0, 0) +
         sqlite3_table_column_metadata(0, 0, 0, 0, 0, 0, 0, 0, 0);
}" TEVUL_SQLITE_HAS_REQUIRED_API)
unset(CMAKE_REQUIRED_INCLUDES)
unset(CMAKE_REQUIRED_LIBRARIES)

if(NOT TEVUL_SQLITE_HAS_REQUIRED_API)
  message(FATAL_ERROR
    "The SQLite library found (${SQLite3_LIBRARIES}) does not provide "
    "sqlite3_unlock_notify and sqlite3_table_column_metadata. libtevul needs "
    "an SQLite built with SQLITE_ENABLE_UNLOCK_NOTIFY and "
    "SQLITE_ENABLE_COLUMN_METADATA.")
endif()

# What the test programs link: the same SQLite, or its static archive
# beside it where they are linked statically (TEVUL_STATIC_PROGRAMS).
set(TEVUL_PROGRAM_SQLITE SQLite::SQLite3)
set(TEVUL_PROGRAM_LINK_OPTIONS "")
if(TEVUL_STATIC_PROGRAMS)
  find_library(TEVUL_SQLITE_ARCHIVE NAMES libsqlite3.a REQUIRED)
  add_library(tevul_sqlite_archive STATIC IMPORTED)
  set_target_properties(tevul_sqlite_archive PROPERTIES
    IMPORTED_LOCATION ${TEVUL_SQLITE_ARCHIVE}
    INTERFACE_INCLUDE_DIRECTORIES "${SQLite3_INCLUDE_DIRS}")
  set(TEVUL_PROGRAM_SQLITE tevul_sqlite_archive)
  set(TEVUL_PROGRAM_LINK_OPTIONS -static)
endif()
