// How a fetch ends: what it says last, how the worker is ended, and what
// becomes of the output.

#include <vector>

#include "tools/fetch/fetch.h"
#include "tools/fetch/stop.h"

using halvarine::FetchStatus;

namespace fetch {

namespace {

// The worker's lines shown with a failure.
const size_t WORKER_LINES = 6;

}  // namespace

Outcome Fetch::completed() {
  display_.endTransfer();
  endWorker(true, PEND_GRACE_MS);
  // A broadcast that ended is a recording like one stopped.
  if ((isAsf_ && asf_.broadcast && !finishRecording()) ||
      (output_.toFile() &&
       ((!output_.continued().empty() && !output_.endContinued(header_)) || !output_.commit()))) {
    display_.error(output_.error());
    return {Ending::OUTPUT_FAILED};
  }
  kept_ = true;
  display_.note("fetched " + display_.rateSummary() + " to " + outputName());
  return {Ending::COMPLETED};
}

Outcome Fetch::keepRecording(const std::string& why, Ending ending) {
  display_.endTransfer();
  endWorker(pipeline_->inFlight() == 0, INTERRUPT_GRACE_MS);
  if (!finishRecording() || (output_.toFile() && !output_.commit())) {
    display_.error(output_.error());
    return {Ending::OUTPUT_FAILED};
  }
  kept_ = true;
  uint64_t kept = header_.size() + dataWritten_;
  if (isAsf_) kept -= dataWritten_ % asf_.packetSize;
  display_.error(why + "; kept the recording, " + std::to_string(kept) + " bytes, in " +
                 outputName());
  return {ending};
}

Outcome Fetch::stopped() {
  const int sig = g_stopSignal;
  if (sig == 0 && !display_.durationReached() && display_.silenceLimitReached()) {
    // Not a stop asked for: the server stalled for longer than the fetch waits.
    const int64_t silent = (halvarine::monotonicMs() - display_.lastNewDataMs()) / 1000;
    std::string problem =
        "no data from the server for " + std::to_string(silent) + " s (--retry-max-time)";
    if (retriesDone_ > 0) {
      problem += "; gave up after " + std::to_string(retriesDone_) +
                 (retriesDone_ == 1 ? " retry" : " retries");
    }
    if (live()) return keepRecording("the live stream: " + problem, Ending::STALLED);
    display_.endTransfer();
    endWorker(pipeline_->inFlight() == 0, INTERRUPT_GRACE_MS);
    display_.error(problem);
    return {Ending::STALLED};
  }
  display_.endTransfer();
  // READs in flight on a slow stream would hold PEND up; their bytes are
  // not wanted any more.
  endWorker(pipeline_->inFlight() == 0, INTERRUPT_GRACE_MS);
  const std::string why = sig != 0 ? std::string("stopped by ") + stopSignalName(sig)
                          : display_.durationReached() ? "recorded for --duration"
                                                       : "reached --max-bytes";
  const Outcome asked =
      sig != 0 ? Outcome{Ending::SIGNALED, sig} : Outcome{Ending::STOPPED_AS_ASKED};
  if (header_.empty()) {
    display_.error(why + " before any data came: nothing written");
    return sig != 0 ? asked : Outcome{Ending::NOTHING_RECORDED};
  }
  if (!finishRecording() || (output_.toFile() && !output_.commit())) {
    display_.error(output_.error());
    return {Ending::OUTPUT_FAILED};
  }
  kept_ = true;
  display_.note(why + ": kept " + keptAmount() + " in " + outputName());
  return asked;
}

std::string Fetch::triesText() const {
  return options_.retries == 0 ? " (--retry 0)"
         : retriesDone_ > 0    ? "; gave up after " + std::to_string(retriesDone_) +
                                  (retriesDone_ == 1 ? " retry" : " retries")
                            : "";
}

Outcome Fetch::incomplete(Ending ending, const std::string& problem) {
  display_.endTransfer();
  endWorker(true, PEND_GRACE_MS);
  display_.error("the stream " + problem + triesText());
  return {ending};
}

Outcome Fetch::giveUp(const RetryPlan& plan, Setback setback, const std::string& reopenProblem) {
  std::string tries = triesText();
  if (plan.outOfTime()) tries += " (--retry-max-time)";
  if (plan.lastDrop() == Drop::STALLED) {
    const int64_t silent = (halvarine::monotonicMs() - display_.lastNewDataMs()) / 1000;
    setback.problem = "no data from the server for " + std::to_string(silent) + " s";
    setback.ending = Ending::STALLED;
  }
  if (live()) {
    return keepRecording("the live stream " + setback.problem + reopenProblem + tries,
                         setback.ending == Ending::STALLED ? Ending::STALLED : Ending::LIVE_LOST);
  }
  display_.endTransfer();
  endWorker(pipeline_->inFlight() == 0, INTERRUPT_GRACE_MS);
  display_.error((plan.lastDrop() == Drop::STALLED ? "" : "the stream ") + setback.problem +
                 reopenProblem + tries);
  return {setback.ending};
}

Outcome Fetch::fail(FetchStatus status, const std::string& why, const std::string& step) {
  // Ctrl-C on a terminal reaches the worker too, which then dies at once:
  // whatever that looked like, the user stopped the fetch.
  if (g_stopSignal != 0 || status == FetchStatus::STOPPED) return stopped();
  display_.endTransfer();
  switch (status) {
    case FetchStatus::DONE:
    case FetchStatus::STOPPED:
      break;
    case FetchStatus::REFUSED:
      display_.error("the worker answered ERR to " + step + " after " +
                     std::to_string(display_.bytes()) + " bytes");
      showWorkerLines();
      endWorker(true, PEND_GRACE_MS);
      break;
    case FetchStatus::TIMED_OUT:
    case FetchStatus::DEADLINE:
      display_.error(why +
                     (status == FetchStatus::TIMED_OUT ? " (--reply-timeout)" : " (--timeout)") +
                     "; ending the worker");
      // Its last lines before it is ended tell where it was stuck.
      showWorkerLines();
      endWorker(false, 0);
      break;
    case FetchStatus::OUTPUT_FAILED:
      display_.error("cannot write the output: " + why);
      endWorker(true, INTERRUPT_GRACE_MS);
      break;
    case FetchStatus::LOST:
    case FetchStatus::BAD_REPLY: {
      // A worker that died closes the connection: say how it ended.
      halvarine::ExitStatus ended;
      if (session_.worker().waitExit(TERM_GRACE_MS, ended)) {
        display_.error("the worker ended early (" + ended.toString() + ") during " + step);
        showWorkerLines();
        break;
      }
      display_.error((status == FetchStatus::LOST ? "lost the connection to the worker during "
                                                  : "the worker broke the protocol during ") +
                     step + ": " + why);
      endWorker(false, 0);
      showWorkerLines();
      break;
    }
  }
  return {status == FetchStatus::DONE ? Ending::WORKER_FAILED : endingOf(status)};
}

void Fetch::endWorker(bool politely, int graceMs) {
  halvarine::WorkerSession::FinishOptions how;
  how.pend = politely && pipeline_ != nullptr;
  how.pendGraceMs = graceMs;
  how.exitGraceMs = PEND_GRACE_MS;
  how.termGraceMs = TERM_GRACE_MS;
  if (!session_.worker().running()) return;
  const halvarine::WorkerSession::Finished ended = session_.finish(pipeline_.get(), how);
  display_.tick();
  if (ended.signalled) {
    display_.detail("worker stopped");
  } else if (!ended.status.exited || ended.status.code != 0) {
    display_.error("warning: the worker ended with " + ended.status.toString() + " after PEND");
  }
}

void Fetch::showWorkerLines() {
  // With -v they have been shown as they came.
  if (options_.verbosity >= 2) return;
  std::vector<std::string> lines = display_.workerLines(WORKER_LINES);
  if (lines.empty()) return;
  display_.error("the worker's last lines:");
  for (const std::string& line : lines) display_.quote("  worker: " + line);
}

bool Fetch::finishRecording() {
  return !isAsf_ || output_.finishRecording(header_, dataWritten_, asf_.packetSize);
}

std::string Fetch::keptAmount() const {
  uint64_t kept = header_.size() + dataWritten_;
  std::string packets;
  if (isAsf_) {
    kept -= dataWritten_ % asf_.packetSize;
    const uint64_t n = dataWritten_ / asf_.packetSize;
    packets = ", " + std::to_string(n) + (n == 1 ? " data packet" : " data packets");
  }
  return std::to_string(kept) + " bytes (" + humanBytes(static_cast<double>(kept)) + packets + ")";
}

std::string Fetch::outputName() const {
  return output_.toFile() ? output_.path() : "standard output";
}

void Fetch::reportOutput(const Outcome& outcome) {
  if (kept_ || exitStatus(outcome) == EXIT_OK) return;
  const bool partialFile = !output_.partialPath().empty();
  if (header_.empty()) {
    // Nothing had been written: an empty FILE.partial goes with the tool.
    return;
  }
  if (partialFile && !options_.keepOnFailure && output_.continued().empty()) {
    display_.error("removed the partial output " + output_.partialPath() + " (" +
                   std::to_string(header_.size() + dataWritten_) + " bytes) as --no-keep asks");
    return;
  }
  // What was received stays, finished as a stopped recording would be.
  output_.keep();
  if (!finishRecording()) display_.error(output_.error());
  display_.error("kept what was received, " + keptAmount() + ", in " +
                 (partialFile        ? output_.partialPath()
                  : output_.toFile() ? output_.path() + " (written in place)"
                                     : std::string("standard output")) +
                 "; the fetch failed" + (partialFile && !live() ? " (-C goes on with it)" : ""));
}

}  // namespace fetch
