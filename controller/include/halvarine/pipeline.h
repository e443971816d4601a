#ifndef HALVARINE_PIPELINE_H
#define HALVARINE_PIPELINE_H

// Requests to the worker with several in flight: a pipeline of requests
// whose replies are matched in order, with a watchdog per reply and the
// keep-alive the worker needs. The READ loop built on it is in
// stream_fetch.h.
//
// Every wait here lasts at most WAIT_SLICE_MS, so the observer is asked
// about ten times a second whether to stop, however slow the worker is.
// Times are milliseconds; deadlines are readings of the monotonic clock
// (CLOCK_MONOTONIC, in milliseconds). Single-threaded use.

#include <halvarine/connection.h>
#include <halvarine/protocol.h>
#include <stdint.h>

#include <deque>
#include <string>
#include <vector>

namespace halvarine {

// The longest wait before the observer hears from the pipeline again.
const int WAIT_SLICE_MS = 100;

// The monotonic clock the deadlines are read on, in milliseconds.
int64_t monotonicMs();

// How an exchange ended.
enum class FetchStatus {
  DONE,           // the reply came (call), or the stream was read (fetchStream)
  REFUSED,        // the worker answered "ERR"
  TIMED_OUT,      // a reply did not come within the reply time-out
  DEADLINE,       // the deadline for the whole run passed
  LOST,           // the connection failed: the worker closed it or is gone
  BAD_REPLY,      // a frame broke the protocol, or the wrong reply came
  OUTPUT_FAILED,  // the output refused the bytes
  STOPPED,        // the observer asked to stop
};

// The text of a status, for messages: "done", "timed out", ...
const char* statusText(FetchStatus status);

// Hooks for whoever shows what happens. Called on the fetching thread,
// between waits.
class FetchObserver {
 public:
  virtual ~FetchObserver() = default;
  virtual void sent(const Request& /*request*/) {}
  virtual void received(const Reply& /*reply*/) {}
  // After each READ reply with data; `total` counts the stream bytes
  // received so far.
  virtual void bytesReceived(uint64_t /*total*/) {}
  // About once per WAIT_SLICE_MS while waiting, and after every reply.
  virtual void tick() {}
  // fetchStream waits for the output with no READ in flight: the stream's
  // silence meanwhile is not the server's.
  virtual void waitingForOutput() {}
  // Asked as often as tick; true ends the exchange with STOPPED.
  virtual bool stopRequested() { return false; }
};

struct PipelineOptions {
  // How long a reply may take, counted from the later of its request's
  // sending and the previous reply: a stream that keeps answering never
  // trips it, however long the whole run takes.
  int replyTimeoutMs = 60000;
  // The worker gives up after 60 s without a frame. When nothing is in
  // flight and nothing has been sent for this long, a CCHECK goes out.
  // 0: never.
  int keepAliveMs = 20000;
  // The monotonic time at which any wait gives up with DEADLINE; 0: none.
  int64_t deadlineMs = 0;
};

// Requests on one connection; replies come in request order. The
// connection and the observer (may be null) must outlive the pipeline.
class RequestPipeline {
 public:
  RequestPipeline(ControllerConnection& connection, const PipelineOptions& options,
                  FetchObserver* observer = nullptr);

  // Sends `word` with text parameters and waits for its reply, passing any
  // replies to earlier requests to the observer only. True when the reply
  // came, whatever its status word; false when the exchange ended first
  // (failure() and error() say how).
  bool call(const std::string& word, const std::vector<std::string>& params, Reply& out);

  // Sends a request without waiting; its reply comes through receive().
  // False (LOST, error() says why) when it cannot be sent.
  bool send(const std::string& word, const std::vector<std::string>& params = {});

  // Waits up to WAIT_SLICE_MS for the reply to the oldest request in flight.
  // REPLY with `out` set and `word` the request's command word; NOT_YET when
  // the slice ran out and neither the watchdog, the deadline nor the
  // observer ends the wait; FAILED otherwise (failure() and error() say
  // why). Needs a request in flight.
  enum class Received { REPLY, NOT_YET, FAILED };
  Received receive(Reply& out, std::string& word);

  // Sends CCHECK when the keep-alive time has passed with nothing in flight.
  bool keepAlive();

  // Ends the worker politely: sends PEND and waits up to `graceMs` for its
  // reply, dropping the replies to earlier requests. Ignores stopRequested.
  // True when PEND was answered.
  bool finish(int graceMs);

  size_t inFlight() const { return inFlight_.size(); }
  // What ended the last failed operation, and how.
  const std::string& error() const { return error_; }
  FetchStatus failure() const { return failure_; }
  FetchObserver* observer() const { return observer_; }
  bool deadlinePassed() const;

 private:
  struct Pending {
    std::string word;
    unsigned char echo;
    int64_t sentAt;
  };

  bool fail(FetchStatus status, const std::string& why);
  bool stopRequested();

  ControllerConnection& connection_;
  PipelineOptions options_;
  FetchObserver* observer_;
  std::deque<Pending> inFlight_;
  unsigned char nextEcho_ = 1;
  int64_t lastSent_;
  int64_t lastReply_ = 0;
  std::string error_;
  FetchStatus failure_ = FetchStatus::DONE;
};

}  // namespace halvarine

#endif
