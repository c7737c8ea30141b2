#pragma once

#include <sys/types.h>

#include <string>

namespace tevul_test {

// A separate process that, on request, holds a write transaction on a
// database file for a while, inserting one row ("other-process-N") meanwhile.
// Create it before the test process opens any database, so that the child
// inherits no SQLite state.
class LockHolder {
 public:
  explicit LockHolder(const std::string& file);
  ~LockHolder();
  LockHolder(const LockHolder&) = delete;
  LockHolder& operator=(const LockHolder&) = delete;

  // Returns once the other process holds the write lock; it keeps it for
  // `ms` milliseconds (at most 2550).
  void hold(int ms);
  // Waits until the other process has committed.
  void wait_committed();

 private:
  [[noreturn]] static void serve(const std::string& file, int in, int out);

  pid_t pid_ = -1;
  int out_ = -1;
  int in_ = -1;
};

}  // namespace tevul_test
