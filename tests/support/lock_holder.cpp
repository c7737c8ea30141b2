#include "lock_holder.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tevul_test {

LockHolder::LockHolder(const std::string& file) {
  int to_child[2], to_parent[2];
  EXPECT_EQ(pipe(to_child), 0);
  EXPECT_EQ(pipe(to_parent), 0);
  pid_ = fork();
  if (pid_ == 0) {
    close(to_child[1]);
    close(to_parent[0]);
    serve(file, to_child[0], to_parent[1]);
  }
  close(to_child[0]);
  close(to_parent[1]);
  out_ = to_child[1];
  in_ = to_parent[0];
}

LockHolder::~LockHolder() {
  close(out_);  // end of input ends the child
  int status = 0;
  waitpid(pid_, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  close(in_);
}

void LockHolder::hold(int ms) {
  const unsigned char c = static_cast<unsigned char>(ms / 10);
  ASSERT_EQ(write(out_, &c, 1), 1);
  char reply = 0;
  ASSERT_EQ(read(in_, &reply, 1), 1);
  ASSERT_EQ(reply, 'y');
}

void LockHolder::wait_committed() {
  char reply = 0;
  ASSERT_EQ(read(in_, &reply, 1), 1);
  ASSERT_EQ(reply, 'c');
}

void LockHolder::serve(const std::string& file, int in, int out) {
  unsigned char tenths;
  int round = 0;
  while (read(in, &tenths, 1) == 1) {
    sqlite3* db = nullptr;
    sqlite3_open_v2(file.c_str(), &db,
                    SQLITE_OPEN_READWRITE | SQLITE_OPEN_PRIVATECACHE, nullptr);
    sqlite3_busy_timeout(db, 10000);
    const std::string sql = "BEGIN IMMEDIATE; INSERT INTO Meta(Path) VALUES "
                            "('other-process-" + std::to_string(round++) + "')";
    int rc = sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr);
    char c = rc == SQLITE_OK ? 'y' : 'n';
    if (write(out, &c, 1) != 1) _exit(3);
    usleep(tenths * 10000);
    rc = sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
    sqlite3_close(db);
    c = rc == SQLITE_OK ? 'c' : 'n';
    if (write(out, &c, 1) != 1) _exit(3);
  }
  _exit(0);
}

}  // namespace tevul_test
