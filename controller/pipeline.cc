// The request pipeline: requests in flight, their replies in order, the
// watchdog, the keep-alive and the polite end.

#include <errno.h>
#include <halvarine/pipeline.h>
#include <string.h>

#include "base/clock.h"
#include "base/wait.h"

namespace halvarine {

namespace {

// "2 s", "0.5 s"
std::string secondsText(int ms) {
  std::string s = std::to_string(ms / 1000);
  if (ms % 1000 != 0) {
    std::string frac = std::to_string(1000 + ms % 1000).substr(1);
    frac.erase(frac.find_last_not_of('0') + 1);
    s += "." + frac;
  }
  return s + " s";
}

// How a failed receive ends the exchange; a time-out is not an end.
FetchStatus failureStatus(ControllerConnection::Failure f) {
  return f == ControllerConnection::Failure::LOST ? FetchStatus::LOST : FetchStatus::BAD_REPLY;
}

}  // namespace

int64_t monotonicMs() {
  return nowMs();
}

const char* statusText(FetchStatus status) {
  switch (status) {
    case FetchStatus::DONE:
      return "done";
    case FetchStatus::REFUSED:
      return "refused";
    case FetchStatus::TIMED_OUT:
      return "timed out";
    case FetchStatus::DEADLINE:
      return "out of time";
    case FetchStatus::LOST:
      return "connection lost";
    case FetchStatus::BAD_REPLY:
      return "bad reply";
    case FetchStatus::OUTPUT_FAILED:
      return "output failed";
    case FetchStatus::STOPPED:
      return "stopped";
  }
  return "?";
}

// ---- RequestPipeline

RequestPipeline::RequestPipeline(ControllerConnection& connection, const PipelineOptions& options,
                                 FetchObserver* observer)
    : connection_(connection), options_(options), observer_(observer), lastSent_(nowMs()) {}

bool RequestPipeline::fail(FetchStatus status, const std::string& why) {
  failure_ = status;
  error_ = why;
  return false;
}

bool RequestPipeline::deadlinePassed() const {
  return options_.deadlineMs > 0 && nowMs() >= options_.deadlineMs;
}

bool RequestPipeline::stopRequested() {
  return observer_ && observer_->stopRequested();
}

bool RequestPipeline::send(const std::string& word, const std::vector<std::string>& params) {
  Request request = Request::command(word, nextEcho_, params);
  if (!connection_.send(request)) return fail(FetchStatus::LOST, connection_.error());
  const int64_t now = nowMs();
  // A reply already overdue before this request must not be excused by it.
  if (inFlight_.empty()) lastReply_ = now;
  inFlight_.push_back(Pending{word, nextEcho_, now});
  lastSent_ = now;
  // Echo bytes only need to differ among the requests in flight.
  nextEcho_ = static_cast<unsigned char>(nextEcho_ + 1);
  if (observer_) observer_->sent(request);
  return true;
}

RequestPipeline::Received RequestPipeline::receive(Reply& out, std::string& word) {
  if (inFlight_.empty()) {
    fail(FetchStatus::BAD_REPLY, "nothing in flight to receive");
    return Received::FAILED;
  }
  const Pending head = inFlight_.front();
  // Asked before waiting too: a fast stream may never leave a slice unused.
  if (stopRequested()) {
    fail(FetchStatus::STOPPED, "stopped while waiting for " + head.word);
    return Received::FAILED;
  }
  if (connection_.receive(head.echo, WAIT_SLICE_MS, out)) {
    inFlight_.pop_front();
    lastReply_ = nowMs();
    word = head.word;
    if (observer_) {
      observer_->received(out);
      observer_->tick();
    }
    return Received::REPLY;
  }
  if (connection_.failure() != ControllerConnection::Failure::TIMED_OUT) {
    fail(failureStatus(connection_.failure()), connection_.error());
    return Received::FAILED;
  }
  if (observer_) observer_->tick();
  const int64_t waited = nowMs() - std::max(head.sentAt, lastReply_);
  if (waited >= options_.replyTimeoutMs) {
    fail(FetchStatus::TIMED_OUT,
         "no reply to " + head.word + " within " + secondsText(options_.replyTimeoutMs));
    return Received::FAILED;
  }
  if (deadlinePassed()) {
    fail(FetchStatus::DEADLINE,
         "the time for the whole run ran out while waiting for " + head.word);
    return Received::FAILED;
  }
  return Received::NOT_YET;
}

bool RequestPipeline::call(const std::string& word, const std::vector<std::string>& params,
                           Reply& out) {
  if (!send(word, params)) return false;
  const unsigned char echo = inFlight_.back().echo;
  for (;;) {
    std::string replied;
    switch (receive(out, replied)) {
      case Received::REPLY:
        if (out.echo == echo) return true;
        break;
      case Received::NOT_YET:
        break;
      case Received::FAILED:
        return false;
    }
  }
}

bool RequestPipeline::keepAlive() {
  if (options_.keepAliveMs <= 0 || !inFlight_.empty()) return true;
  if (nowMs() - lastSent_ < options_.keepAliveMs) return true;
  return send(WORD_CCHECK);
}

bool RequestPipeline::finish(int graceMs) {
  if (!send(WORD_PEND)) return false;
  const unsigned char echo = inFlight_.back().echo;
  const int64_t giveUp = nowMs() + graceMs;
  while (!inFlight_.empty()) {
    const Pending head = inFlight_.front();
    Reply reply;
    if (connection_.receive(head.echo, WAIT_SLICE_MS, reply)) {
      inFlight_.pop_front();
      if (observer_) observer_->received(reply);
      if (head.echo == echo) return reply.status() == STATUS_OK;
      continue;
    }
    if (connection_.failure() != ControllerConnection::Failure::TIMED_OUT) {
      return fail(failureStatus(connection_.failure()), connection_.error());
    }
    if (observer_) observer_->tick();
    if (nowMs() >= giveUp) {
      return fail(FetchStatus::TIMED_OUT, "PEND not answered within " + secondsText(graceMs));
    }
  }
  return fail(FetchStatus::BAD_REPLY, "PEND's reply went missing");
}

}  // namespace halvarine
