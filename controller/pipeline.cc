// The request pipeline and the READ loop.

#include <errno.h>
#include <halvarine/pipeline.h>
#include <limits.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "base/clock.h"
#include "base/wait.h"

namespace halvarine {

namespace {

std::string errnoText(const std::string& what) {
  return what + ": " + strerror(errno);
}

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

// The stream bytes on their way to the output, oldest first.
class OutputQueue {
 public:
  explicit OutputQueue(int fd) : fd_(fd) {
    struct stat st;
    // A file takes what it is given without making anyone wait long; only
    // pipes, terminals and sockets can hold the loop up.
    plainWrites_ = fd_ >= 0 && fstat(fd_, &st) == 0 && S_ISREG(st.st_mode);
  }

  void add(std::string bytes) {
    if (fd_ < 0) {
      written_ += bytes.size();
      return;
    }
    if (bytes.empty()) return;
    pending_ += bytes.size();
    chunks_.push_back(std::move(bytes));
  }

  size_t pending() const { return pending_; }
  uint64_t written() const { return written_; }
  const std::string& error() const { return error_; }

  // Writes what the descriptor takes now. False on a failed write.
  bool flush() {
    while (!chunks_.empty()) {
      if (!plainWrites_ && waitFdUntil(fd_, WAIT_WRITABLE, 0) != WAIT_READY) return true;
      const std::string& chunk = chunks_.front();
      size_t len = chunk.size() - offset_;
      // A pipe that says it is writable takes PIPE_BUF bytes without
      // blocking; more might block the loop and with it the replies.
      if (!plainWrites_) len = std::min<size_t>(len, PIPE_BUF);
      ssize_t n = ::write(fd_, chunk.data() + offset_, len);
      if (n < 0) {
        if (errno == EINTR || errno == EAGAIN) return true;
        error_ = errno == EPIPE ? "the output's reader went away" : errnoText("write");
        return false;
      }
      offset_ += static_cast<size_t>(n);
      pending_ -= static_cast<size_t>(n);
      written_ += static_cast<uint64_t>(n);
      if (offset_ == chunk.size()) {
        chunks_.pop_front();
        offset_ = 0;
      }
    }
    return true;
  }

  // Waits up to WAIT_SLICE_MS for the output to take more.
  bool wait() {
    if (chunks_.empty()) return true;
    if (waitFdUntil(fd_, WAIT_WRITABLE, nowMs() + WAIT_SLICE_MS) == WAIT_ERROR) {
      error_ = errnoText("waiting for the output");
      return false;
    }
    return true;
  }

 private:
  int fd_;
  bool plainWrites_ = false;
  std::deque<std::string> chunks_;
  size_t offset_ = 0;  // bytes of chunks_.front() already written
  size_t pending_ = 0;
  uint64_t written_ = 0;
  std::string error_;
};

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

FetchStatus RequestPipeline::call(const std::string& word, const std::vector<std::string>& params,
                                  Reply& out) {
  if (!send(word, params)) return failure_;
  const unsigned char echo = inFlight_.back().echo;
  for (;;) {
    std::string replied;
    switch (receive(out, replied)) {
      case Received::REPLY:
        if (out.echo == echo) return FetchStatus::DONE;
        break;
      case Received::NOT_YET:
        break;
      case Received::FAILED:
        return failure_;
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

// ---- the READ loop

StreamFetchResult fetchStream(RequestPipeline& pipeline, const StreamFetchOptions& options,
                              int outFd) {
  StreamFetchResult result;
  OutputQueue output(outFd);
  FetchObserver* observer = pipeline.observer();
  const int window = std::max(options.window, 1);
  const int count = std::min(std::max(options.count, 1), maxReadCount());
  // Past this much waiting for the output, the worker is asked for no more.
  const size_t backlogLimit = static_cast<size_t>(window) * static_cast<size_t>(count);
  std::deque<int64_t> asked;  // counts of the READs in flight, oldest first
  int64_t askedTotal = 0;     // the sum of `asked`
  uint64_t received = 0;

  auto end = [&](FetchStatus status, const std::string& why) {
    result.status = status;
    result.error = why;
    result.bytes = output.written();
    return result;
  };
  // The bytes kept, past those skipped, go out in whole units; what is left
  // of an incomplete unit waits in result.tail.
  std::string& held = result.tail;
  auto keep = [&](std::string data) {
    if (options.unit == 0) {
      if (options.witness != nullptr) options.witness->kept(data);
      output.add(std::move(data));
      return;
    }
    if (!held.empty()) {
      held += data;
      data.swap(held);
      held.clear();
    }
    const size_t whole = data.size() - data.size() % options.unit;
    held.assign(data, whole, std::string::npos);
    data.resize(whole);
    if (options.witness != nullptr) options.witness->kept(data);
    output.add(std::move(data));
  };
  auto wanted = [&]() -> int64_t {
    if (options.maxBytes < 0) return count;
    return std::min<int64_t>(count, options.maxBytes - static_cast<int64_t>(received) - askedTotal);
  };

  for (;;) {
    while (!result.endOfStream && asked.size() < static_cast<size_t>(window) &&
           output.pending() < backlogLimit && wanted() > 0) {
      const int64_t n = wanted();
      if (!pipeline.send(WORD_READ, {formatCount(static_cast<int>(n))}))
        return end(pipeline.failure(), pipeline.error());
      asked.push_back(n);
      askedTotal += n;
    }
    if (!output.flush()) return end(FetchStatus::OUTPUT_FAILED, output.error());
    if (asked.empty() && output.pending() == 0 && (result.endOfStream || wanted() <= 0)) {
      return end(FetchStatus::DONE, "");
    }

    if (pipeline.inFlight() == 0) {
      // Only the output holds the loop up: the worker idles meanwhile.
      if (!output.wait()) return end(FetchStatus::OUTPUT_FAILED, output.error());
      if (observer) {
        observer->waitingForOutput();
        observer->tick();
      }
      if (pipeline.deadlinePassed()) {
        return end(FetchStatus::DEADLINE, "the time for the whole run ran out while writing");
      }
      if (observer && observer->stopRequested()) {
        return end(FetchStatus::STOPPED, "stopped while writing");
      }
      if (!pipeline.keepAlive()) return end(pipeline.failure(), pipeline.error());
      continue;
    }

    Reply reply;
    std::string word;
    switch (pipeline.receive(reply, word)) {
      case RequestPipeline::Received::NOT_YET:
        continue;
      case RequestPipeline::Received::FAILED:
        return end(pipeline.failure(), pipeline.error());
      case RequestPipeline::Received::REPLY:
        break;
    }
    if (word != WORD_READ) continue;  // a keep-alive's answer

    const int64_t n = asked.front();
    asked.pop_front();
    askedTotal -= n;
    const std::string& status = reply.status();
    if (status == STATUS_ERR) return end(FetchStatus::REFUSED, "READ answered ERR");
    if (status == STATUS_EOF && reply.fields.size() == 2) {
      // Every READ after the end answers EOF too; those in flight drain.
      result.endOfStream = true;
      continue;
    }
    if (status != STATUS_OK || reply.fields.size() != 4 || !reply.fields[3].counted) {
      return end(FetchStatus::BAD_REPLY,
                 "READ reply is not OK_, a count and data: " + hex(reply.frame.substr(0, 64)));
    }
    std::string& data = reply.fields[3].bytes;
    if (data.empty() || static_cast<int64_t>(data.size()) > n ||
        reply.fields[2].bytes != formatCount(static_cast<int>(data.size()))) {
      return end(FetchStatus::BAD_REPLY, "READ of " + std::to_string(n) +
                                             " answered with count \"" + reply.fields[2].bytes +
                                             "\" and " + std::to_string(data.size()) + " bytes");
    }
    const uint64_t before = received;
    received += data.size();
    ++result.reads;
    if (before < options.skip && options.witness != nullptr &&
        !options.witness->skipped(data.substr(
            0, static_cast<size_t>(std::min<uint64_t>(options.skip - before, data.size()))))) {
      return end(FetchStatus::STOPPED, "the bytes read again differ from those written");
    }
    if (received > options.skip) {
      if (before < options.skip) data.erase(0, static_cast<size_t>(options.skip - before));
      keep(std::move(data));
    }
    if (observer) observer->bytesReceived(received);
  }
}

}  // namespace halvarine
