#include "channel/wait.h"

#include <errno.h>
#include <signal.h>
#include <sys/select.h>

namespace {
bool g_haveWaitMask = false;
sigset_t g_waitMask;
}  // namespace

void setWaitSignalMask(const void* sigset) {
  g_waitMask = *static_cast<const sigset_t*>(sigset);
  g_haveWaitMask = true;
}

WaitResult waitFd(int fd, WaitFor what, int seconds) {
  // select cannot watch these; report them as a failed wait rather than
  // write outside the descriptor set.
  if (fd < 0 || fd >= FD_SETSIZE) {
    errno = EBADF;
    return WAIT_ERROR;
  }
  for (;;) {
    fd_set set;
    FD_ZERO(&set);
    FD_SET(fd, &set);
    struct timespec timeout;
    timeout.tv_sec = seconds;
    timeout.tv_nsec = 0;
    fd_set* readSet = what == WAIT_READABLE ? &set : nullptr;
    fd_set* writeSet = what == WAIT_WRITABLE ? &set : nullptr;
    // pselect swaps in the wait mask atomically, so a SIGTERM that arrived
    // while it was blocked is taken here and nowhere else.
    const int rc = pselect(fd + 1, readSet, writeSet, nullptr, &timeout,
                           g_haveWaitMask ? &g_waitMask : nullptr);
    if (rc < 0) return WAIT_ERROR;
    if (rc == 0) return WAIT_TIMEOUT;
    if (FD_ISSET(fd, &set)) return WAIT_READY;
  }
}
