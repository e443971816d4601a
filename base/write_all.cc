#include "base/write_all.h"

#include <errno.h>
#include <limits.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/clock.h"

WaitResult writeAll(int fd, const char* p, size_t n, int stallMs, size_t& written, int stopFd) {
  written = 0;
  struct stat st;
  if (fstat(fd, &st) != 0) return WAIT_ERROR;
  const bool socket = S_ISSOCK(st.st_mode);
  const bool plain = S_ISREG(st.st_mode);
  while (written < n) {
    const size_t left = n - written;
    ssize_t put;
    if (socket) {
      put = ::send(fd, p + written, left, MSG_DONTWAIT | MSG_NOSIGNAL);
    } else if (plain) {
      put = ::write(fd, p + written, left);
    } else if (waitFdUntil(fd, WAIT_WRITABLE, 0) == WAIT_READY) {
      // A pipe that says it has room takes PIPE_BUF bytes without blocking;
      // more might block.
      put = ::write(fd, p + written, left < PIPE_BUF ? left : PIPE_BUF);
    } else {
      put = -1;
      errno = EAGAIN;
    }
    if (put >= 0) {
      written += static_cast<size_t>(put);
      continue;
    }
    if (errno == EINTR) continue;
    if (errno != EAGAIN && errno != EWOULDBLOCK) return WAIT_ERROR;
    if (stallMs == 0) return WAIT_TIMEOUT;
    const WaitResult w =
        waitFdUntil(fd, WAIT_WRITABLE, stallMs < 0 ? -1 : nowMs() + stallMs, stopFd);
    if (w != WAIT_READY) return w;
  }
  return WAIT_READY;
}
