#ifndef HALVARINE_TOOLS_FETCH_RETRY_H
#define HALVARINE_TOOLS_FETCH_RETRY_H

// When a stream's connection ends before the stream does, what comes next:
// the fetch's connection as a small state machine. Pure code: the caller
// says what happened and when, and does what the plan says.
//
//   READING --drop--> WAITING (a retry, after a delay) --> REOPENING
//   REOPENING --opened--> READING        REOPENING --failed--> WAITING
//   any --no new byte for maxTime, or retries in a row used up--> GAVE_UP
//
// A retry that brings bytes not had before starts the count of retries in
// a row again; the time bound counts from the last new byte, so a stream
// that stalls at the same place on every connection ends within it,
// whatever --retry says.

#include <stdint.h>

#include <string>

namespace fetch {

// How a connection ended early.
enum class Drop {
  ENDED_EARLY,  // the stream ended before its announced length
  STALLED,      // the server stopped sending and the worker's wait ran out
  READ_FAILED,  // the worker could not read on (READ answered ERR)
  LIVE,         // a live stream's connection ended
};

class RetryPlan {
 public:
  enum class State { READING, WAITING, REOPENING, GAVE_UP };

  // `retries` in a row without new bytes; the first wait `firstDelayMs`,
  // doubled for each further one up to `maxDelayMs` (or `firstDelayMs` when
  // larger); `maxTimeMs` without a new byte (0: no bound).
  RetryPlan(int retries, int64_t firstDelayMs, int64_t maxDelayMs, int64_t maxTimeMs);

  State state() const { return state_; }
  // New bytes came at `nowMs`.
  void progressed(int64_t nowMs);
  // The connection ended early at `nowMs` (or a reopening failed): WAITING
  // with the delay to wait, or GAVE_UP.
  State dropped(Drop why, int64_t nowMs);
  void reopening() { state_ = State::REOPENING; }
  void reopened() { state_ = State::READING; }

  Drop lastDrop() const { return lastDrop_; }
  int64_t delayMs() const { return delayMs_; }
  int retryNumber() const { return inARow_; }  // the retry being waited for, from 1
  int retriesDone() const { return done_; }
  // It gave up because the time bound was reached, not for --retry.
  bool outOfTime() const { return outOfTime_; }
  int64_t silentSinceMs() const { return lastNewMs_; }

  // "stalled, retry 2 of 5" for the status line while WAITING.
  std::string waitText() const;

 private:
  const int retries_;
  const int64_t firstDelayMs_;
  const int64_t maxDelayMs_;
  const int64_t maxTimeMs_;
  State state_ = State::READING;
  Drop lastDrop_ = Drop::ENDED_EARLY;
  int inARow_ = 0;
  int done_ = 0;
  int64_t delayMs_ = 0;
  int64_t lastNewMs_ = -1;
  bool outOfTime_ = false;
};

}  // namespace fetch

#endif
