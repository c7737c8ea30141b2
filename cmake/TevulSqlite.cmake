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
