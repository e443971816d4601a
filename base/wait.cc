#include "base/wait.h"

#include <errno.h>
#include <poll.h>

#include "base/clock.h"

namespace {

SafePointHooks g_hooks;

short eventsFor(WaitFor what) {
  return what == WAIT_READABLE ? POLLIN : POLLOUT;
}

// One poll as a safe point, between the hooks.
int pollAsleep(pollfd* fds, nfds_t n, int timeoutMs) {
  if (g_hooks.enterWait != nullptr) g_hooks.enterWait();
  const int rc = poll(fds, n, timeoutMs);
  if (g_hooks.leaveWait != nullptr) {
    const int err = errno;
    g_hooks.leaveWait();
    errno = err;
  }
  return rc;
}

// A descriptor poll cannot watch is a failed wait, as select reports it.
WaitResult judge(short revents) {
  if (revents & POLLNVAL) {
    errno = EBADF;
    return WAIT_ERROR;
  }
  return WAIT_READY;
}

}  // namespace

void setSafePointHooks(const SafePointHooks& hooks) {
  g_hooks = hooks;
}

void safePoint() {
  if (g_hooks.atSafePoint != nullptr) g_hooks.atSafePoint();
}

WaitResult waitFd(int fd, WaitFor what, int seconds) {
  pollfd p = {fd, eventsFor(what), 0};
  const int rc = pollAsleep(&p, 1, seconds * 1000);
  if (rc < 0) return WAIT_ERROR;
  if (rc == 0) return WAIT_TIMEOUT;
  return judge(p.revents);
}

void sleepUntil(int64_t deadlineMs) {
  for (int64_t left = deadlineMs - nowMs(); left > 0; left = deadlineMs - nowMs()) {
    pollAsleep(nullptr, 0, left > 0x7FFFFFFF ? 0x7FFFFFFF : static_cast<int>(left));
  }
}

WaitResult waitFdUntil(int fd, WaitFor what, int64_t deadlineMs, int stopFd) {
  pollfd p[2] = {{fd, eventsFor(what), 0}, {stopFd, POLLIN, 0}};
  const nfds_t n = stopFd >= 0 ? 2 : 1;
  for (;;) {
    int timeoutMs = -1;
    if (deadlineMs >= 0) {
      const int64_t left = deadlineMs - nowMs();
      timeoutMs = left <= 0 ? 0 : (left > 0x7FFFFFFF ? 0x7FFFFFFF : static_cast<int>(left));
    }
    const int rc = pollAsleep(p, n, timeoutMs);
    if (rc < 0 && errno == EINTR) continue;
    if (rc < 0) return WAIT_ERROR;
    if (n == 2 && p[1].revents != 0) return WAIT_STOPPED;
    if (p[0].revents != 0) return judge(p[0].revents);
    if (deadlineMs >= 0 && nowMs() >= deadlineMs) return WAIT_TIMEOUT;
  }
}
