#include "tools/controller/support.h"

#include <errno.h>
#include <string.h>
#include <time.h>

namespace controller {

double nowSeconds() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec + ts.tv_nsec / 1e9;
}

WaitResult waitUntil(int fd, WaitFor what, double deadline, int sliceS) {
  for (;;) {
    double left = deadline - nowSeconds();
    if (left < 0) left = 0;
    // waitFd counts whole seconds; rounding up keeps a short time-out from
    // becoming a mere poll.
    int seconds = static_cast<int>(left);
    if (seconds < left) ++seconds;
    if (seconds > sliceS) seconds = sliceS;
    WaitResult r = waitFd(fd, what, seconds);
    if (r == WAIT_ERROR && errno == EINTR) continue;
    return r;
  }
}

void sleepMs(int ms) {
  timespec ts = {ms / 1000, (ms % 1000) * 1000000L};
  while (nanosleep(&ts, &ts) == -1 && errno == EINTR) {
  }
}

std::string errnoText(const std::string& what) {
  return what + ": " + strerror(errno);
}

}  // namespace controller
