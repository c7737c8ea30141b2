// Waking the daemon: the FIFO path and no blocking. The bulk tests count
// the zero bytes that arrive, one per wake-up.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include "test_support.h"
#include "tevul.h"

using tevul_test::Sandbox;

namespace {

using EventTrigger = tevul_test::SandboxTest;

TEST_F(EventTrigger, NothingAtThePathMeansNoTrigger) {
  EXPECT_EQ(event_trigger_init("/no/such/mount"), 0);
  // Descriptor 0 means "no FIFO": nothing is written to it, nothing closed.
  int pipe_fds[2];
  ASSERT_EQ(pipe2(pipe_fds, O_NONBLOCK), 0);
  const int saved = dup(0);
  ASSERT_EQ(dup2(pipe_fds[1], 0), 0);
  event_trigger(0);
  event_trigger(-1);
  event_trigger_fini(0);
  event_trigger_fini(-1);
  char byte;
  EXPECT_EQ(read(pipe_fds[0], &byte, 1), -1) << "a byte reached descriptor 0";
  EXPECT_EQ(fcntl(0, F_GETFD), 0) << "descriptor 0 was closed";
  dup2(saved, 0);
  // A path longer than the buffer is cut and so names nothing.
  EXPECT_EQ(event_trigger_init(std::string(5000, 'x').c_str()), 0);
}

// Only a FIFO is ever written: a regular file, a directory or a link to a
// tag database at the FIFO's place cannot serve as the FIFO (-1, as a FIFO
// that cannot be opened) and stays as it was; nothing there is 0.
TEST_F(EventTrigger, AnythingButAFifoIsRefused) {
  tevul_test::write_file("/tmp/.tevu/plain/action_trigger", "data");
  tevul_test::make_dirs("/tmp/.tevu/dir/action_trigger");
  tevul_test::make_dirs("/tmp/.tevu/link");
  ASSERT_EQ(symlink(Sandbox::db_path("mnt").c_str(),
                    "/tmp/.tevu/link/action_trigger"), 0);
  const std::string db_before = tevul_test::read_file(Sandbox::db_path("mnt"));
  for (const char* name : {"plain", "dir", "link"}) {
    EXPECT_EQ(event_trigger_init(name), -1) << name;
  }
  EXPECT_EQ(event_trigger_init("nothing-there"), 0);
  EXPECT_EQ(tevul_test::read_file("/tmp/.tevu/plain/action_trigger"), "data");
  EXPECT_EQ(tevul_test::read_file(Sandbox::db_path("mnt")), db_before);
}

TEST_F(EventTrigger, AFullFifoDropsWakeUpsWithoutBlocking) {
  tevul_test::make_dirs("/tmp/.tevu/unread");
  ASSERT_EQ(mkfifo("/tmp/.tevu/unread/action_trigger", 0600), 0);
  const int fd = event_trigger_init("unread");
  ASSERT_GT(fd, 0) << "opens with nobody reading";
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 200000; ++i) event_trigger(fd);  // more than a pipe holds
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
  event_trigger_fini(fd);
  EXPECT_EQ(fcntl(fd, F_GETFD), -1) << "descriptor closed";
}

}  // namespace
