#ifndef HALVARINE_BASE_CLOCK_H
#define HALVARINE_BASE_CLOCK_H

// The one clock for time-outs and durations: monotonic, in milliseconds from
// an arbitrary start, never set back.

#include <stdint.h>

int64_t nowMs();

// Milliseconds since `startMs`, a reading of nowMs().
inline int64_t msSince(int64_t startMs) {
  return nowMs() - startMs;
}

#endif
