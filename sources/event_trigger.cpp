// Event trigger. See event_trigger.h.
#include "event_trigger.h"

#include <fcntl.h>
#include <unistd.h>

#include "common.h"

namespace {
constexpr char kFifoFormat[] = "/tmp/.tevu/%s/action_trigger";
constexpr std::size_t kFifoPathSize = 4097;
}  // namespace

extern "C" int event_trigger_init(const char* name) {
  char path[kFifoPathSize];
  tevul::format_cut(path, sizeof path, kFifoFormat, name);
  if (access(path, F_OK) != 0) return 0;
  // Read-write so that the open succeeds whether or not the daemon holds the
  // FIFO; non-blocking so that a full FIFO never stalls a commit.
  return open(path, O_RDWR | O_NONBLOCK | O_CLOEXEC);
}

extern "C" void event_trigger(int fd) {
  if (fd <= 0) return;  // 0 is "no FIFO", never a trigger
  static const char kWakeUp = '\0';
  // A failed write (a full FIFO) only drops this wake-up.
  ssize_t ignored = write(fd, &kWakeUp, 1);
  (void)ignored;
}

extern "C" void event_trigger_fini(int fd) {
  if (fd > 0) close(fd);
}
