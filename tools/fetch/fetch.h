#ifndef HALVARINE_TOOLS_FETCH_FETCH_H
#define HALVARINE_TOOLS_FETCH_FETCH_H

// One stream fetched or recorded through a worker of its own: the output
// opened, the worker started, the stream opened, read, reopened after a
// drop as the retry plan says, and what was written finished.
//
// The connection goes through the retry plan's states: READING a pass of
// READs; WAITING before a retry; REOPENING (CONNECT and the header again);
// GAVE_UP. Every step returns what comes next as a value: a step that ends
// the fetch returns its Outcome, and only exitStatus() turns that into a
// number.

#include <halvarine/controller.h>
#include <stdint.h>

#include <memory>
#include <string>

#include "tools/asf/asf_stream.h"
#include "tools/fetch/display.h"
#include "tools/fetch/options.h"
#include "tools/fetch/outcome.h"
#include "tools/fetch/output.h"
#include "tools/fetch/resume.h"
#include "tools/fetch/retry.h"
#include "tools/fetch/url.h"

namespace fetch {

// Time the worker gets to answer PEND and end on its own, after the
// stream was read and after a failure that left it healthy.
const int PEND_GRACE_MS = 5000;
// The same when the user is waiting for the tool to stop: a READ in flight
// on a slow stream holds PEND up, and SIGTERM ends the worker at once.
const int INTERRUPT_GRACE_MS = 2000;
const int TERM_GRACE_MS = 2000;
// How long asking the server ourselves may take.
const int PROBE_MS = 5000;

class Fetch {
 public:
  explicit Fetch(const Options& options);
  // The exit status.
  int run();

 private:
  // A step that lets the fetch go on, or ends it.
  struct Step {
    bool ended = false;
    Outcome outcome;
    static Step goOn() { return Step(); }
    static Step end(const Outcome& o) { return Step{true, o}; }
  };
  // What opening the stream (again) came to.
  struct Opened {
    enum class Result {
      OPENED,        // the header came (again, the one written)
      FAILED,        // opening it again failed in a way the next try may not: `why`
      OTHER_STREAM,  // opened again, it is not the stream written
      ENDED,         // the fetch ended: `outcome`
    };
    Result result = Result::OPENED;
    std::string why;  // FAILED: "; opening it again failed: ..."
    Outcome outcome;
  };
  // How a connection ended early: the kind for the retry plan, the ending
  // if it was the last, and what happened for people ("stalled after N
  // bytes").
  struct Setback {
    Drop drop = Drop::ENDED_EARLY;
    Ending ending = Ending::ENDED_EARLY;
    std::string problem;
  };
  // A pass of READs: the fetch ended, or the connection had a setback.
  struct Pass {
    Step step;
    Setback setback;
  };

  Outcome openOutput();
  Outcome startWorker();
  Outcome transfer();
  Pass readPass(RetryPlan& plan);
  // CONNECT, GSIZE and the stream header; the first time the header is
  // written, later it must be the one written.
  Opened open(bool first);
  Opened readHeader(std::string& header);
  // --continue: the earlier fetch's file against the stream's header.
  Step takeUpEarlierFetch(const std::string& header);
  // Waits `ms` before a retry, keeping the worker alive; `what` for the
  // status line.
  Step pause(int64_t ms, const std::string& what);
  Ending connectFailure(size_t outputMark, std::string& why);
  // The server, asked directly, announces a live stream.
  bool serverSaysLive();
  void announceLive();
  bool live() const { return isAsf_ && (asf_.broadcast || announcedLive_); }
  bool resumable() const { return isAsf_ && !asf_.broadcast && length_ > 0; }

  // How the fetch ends: the whole stream; a stop asked for (a signal,
  // --duration, --max-bytes); a stream that cannot be completed; a failure
  // of the exchange with the worker.
  Outcome completed();
  Outcome stopped();
  Outcome incomplete(Ending ending, const std::string& problem);
  Outcome giveUp(const RetryPlan& plan, Setback setback, const std::string& reopenProblem);
  Outcome fail(halvarine::FetchStatus status, const std::string& why, const std::string& step);
  // Keeps and finishes what was recorded: `why` for the last line.
  Outcome keepRecording(const std::string& why, Ending ending);
  // "; gave up after 2 retries", or " (--retry 0)".
  std::string triesText() const;
  // Ends the worker: PEND first when `politely`, then SIGTERM, then SIGKILL.
  void endWorker(bool politely, int graceMs);
  void showWorkerLines();
  // Cuts and patches the output's ASF header to what was written.
  bool finishRecording();
  void reportOutput(const Outcome& outcome);
  // "N bytes (size, K data packets)": what a finished recording holds.
  std::string keptAmount() const;
  std::string outputName() const;

  const Options& options_;
  Display display_;
  Output output_;
  PreparedUrl url_;
  halvarine::WorkerSession session_;
  std::unique_ptr<halvarine::RequestPipeline> pipeline_;

  uint64_t length_ = 0;       // as GSIZE announced it; 0: none
  std::string header_;        // the stream header as written
  bool isAsf_ = false;        // header_ is a well-formed ASF stream header
  AsfStreamHeader asf_;       // what it says
  int64_t dataLimit_ = -1;    // --max-bytes as data bytes after the header
  uint64_t dataWritten_ = 0;  // bytes written after the header
  int retriesDone_ = 0;
  bool kept_ = false;           // the output stands as it is: complete or stopped
  bool announcedLive_ = false;  // the server says live, whatever the header says
  bool probed_ = false;
  ResumeCheck check_;        // what is written, for reading it again
  bool continuing_ = false;  // --continue took up an earlier file
};

}  // namespace fetch

#endif
