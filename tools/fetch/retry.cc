#include "tools/fetch/retry.h"

#include <algorithm>

namespace fetch {

RetryPlan::RetryPlan(int retries, int64_t firstDelayMs, int64_t maxDelayMs, int64_t maxTimeMs)
    : retries_(retries),
      firstDelayMs_(firstDelayMs),
      maxDelayMs_(std::max(maxDelayMs, firstDelayMs)),
      maxTimeMs_(maxTimeMs) {}

void RetryPlan::progressed(int64_t nowMs) {
  lastNewMs_ = nowMs;
  inARow_ = 0;
}

RetryPlan::State RetryPlan::dropped(Drop why, int64_t nowMs) {
  if (lastNewMs_ < 0) lastNewMs_ = nowMs;
  lastDrop_ = why;
  if (inARow_ >= retries_) {
    state_ = State::GAVE_UP;
    return state_;
  }
  int64_t delay = firstDelayMs_;
  for (int i = 0; i < inARow_ && delay < maxDelayMs_; ++i) delay *= 2;
  delay = std::min(delay, maxDelayMs_);
  // A retry that could not begin within the bound is not tried.
  if (maxTimeMs_ > 0 && nowMs + delay - lastNewMs_ >= maxTimeMs_) {
    outOfTime_ = true;
    state_ = State::GAVE_UP;
    return state_;
  }
  ++inARow_;
  ++done_;
  delayMs_ = delay;
  state_ = State::WAITING;
  return state_;
}

std::string RetryPlan::waitText() const {
  const char* what = lastDrop_ == Drop::STALLED ? "stalled"
                     : lastDrop_ == Drop::LIVE  ? "connection lost"
                                                : "cut short";
  return std::string(what) + ", retry " + std::to_string(inARow_) + " of " +
         std::to_string(retries_);
}

}  // namespace fetch
