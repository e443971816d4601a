#ifndef HALVARINE_BASE_CLOCK_H
#define HALVARINE_BASE_CLOCK_H

// The one clock for time-outs and durations: monotonic, in milliseconds from
// an arbitrary start, never set back.

#include <stdint.h>

int64_t nowMs();

// The same clock in microseconds, for durations too short for milliseconds.
int64_t nowUs();

// Milliseconds since `startMs`, a reading of nowMs().
inline int64_t msSince(int64_t startMs) {
  return nowMs() - startMs;
}

// The same in seconds, one millisecond at least: a rate never divides by 0.
inline double secondsSince(int64_t startMs) {
  const int64_t ms = msSince(startMs);
  return static_cast<double>(ms > 0 ? ms : 1) / 1000;
}

#endif
