// Event trigger. See event_trigger.h.
#include "event_trigger.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common.h"

namespace {
constexpr char kFifoFormat[] = "/tmp/.tevu/%s/action_trigger";
}  // namespace

extern "C" int event_trigger_init(const char* name) {
  char path[tevul::kLongPathSize];
  tevul::format_cut(path, sizeof path, kFifoFormat, name);
  // Only a FIFO is a trigger; anything else at the path (a link to a
  // database, a regular file, a device) counts as absent and is never
  // opened for writing.
  struct stat st;
  if (stat(path, &st) != 0 || !S_ISFIFO(st.st_mode)) return 0;
  // Read-write so that the open succeeds whether or not the daemon holds the
  // FIFO; non-blocking so that a full FIFO never stalls a commit.
  const int fd = open(path, O_RDWR | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) return -1;
  // What was opened is checked again: the path may have changed meanwhile.
  if (fstat(fd, &st) != 0 || !S_ISFIFO(st.st_mode)) {
    close(fd);
    return 0;
  }
  return fd;
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
