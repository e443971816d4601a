#ifndef HALVARINE_CONTROLLER_OUTPUT_QUEUE_H
#define HALVARINE_CONTROLLER_OUTPUT_QUEUE_H

#include <errno.h>
#include <halvarine/pipeline.h>
#include <stdint.h>

#include <deque>
#include <string>

#include "base/clock.h"
#include "base/text.h"
#include "base/write_all.h"

namespace halvarine {

// The stream bytes on their way to the output, oldest first.
class OutputQueue {
 public:
  // A file takes what it is given without making anyone wait long; only
  // pipes, terminals and sockets can hold the loop up, and are written only
  // as far as they take bytes without blocking.
  explicit OutputQueue(int fd) : fd_(fd) {}

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
      const std::string& chunk = chunks_.front();
      size_t n = 0;
      const WaitResult w = writeAll(fd_, chunk.data() + offset_, chunk.size() - offset_, 0, n);
      offset_ += n;
      pending_ -= n;
      written_ += n;
      if (w == WAIT_TIMEOUT) return true;
      if (w != WAIT_READY) {
        error_ = errno == EPIPE ? "the output's reader went away" : errnoText("write");
        return false;
      }
      chunks_.pop_front();
      offset_ = 0;
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
  std::deque<std::string> chunks_;
  size_t offset_ = 0;  // bytes of chunks_.front() already written
  size_t pending_ = 0;
  uint64_t written_ = 0;
  std::string error_;
};

}  // namespace halvarine

#endif
