#include "base/clock.h"

#include <time.h>

int64_t nowUs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

int64_t nowMs() {
  return nowUs() / 1000;
}
