// Event trigger: wakes the tag file system daemon through its FIFO.
//
// One zero byte per wake-up, written to "/tmp/.tevu/<mount point>/action_trigger"
// (the mount point's own leading slash makes the doubled slash, kept as the
// daemon creates it). The library never creates, removes or reads the FIFO.
// The module's functions are declared in tevul.h.
#include "tevul.h"

#include <errno.h>
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
  // Only a FIFO is a trigger. Nothing at the path is 0; anything else there
  // (a directory, a regular file, a device, a link to a database) cannot
  // serve as the FIFO, is -1 like a FIFO that cannot be opened, and is never
  // opened for writing.
  struct stat st;
  if (stat(path, &st) != 0) return 0;
  if (!S_ISFIFO(st.st_mode)) {
    errno = ENXIO;
    return -1;
  }
  // Read-write so that the open succeeds whether or not the daemon holds the
  // FIFO; non-blocking so that a full FIFO never stalls a commit.
  const int fd = open(path, O_RDWR | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) return -1;
  // What was opened is checked again: the path may have changed meanwhile.
  if (fstat(fd, &st) != 0 || !S_ISFIFO(st.st_mode)) {
    close(fd);
    errno = ENXIO;
    return -1;
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
