// The fetch's course: the output and the worker set up, then the stream
// read through the retry plan's states until an ending.

#include "tools/fetch/fetch.h"

#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>

#include "tools/fetch/probe.h"
#include "tools/fetch/stop.h"
#include "tools/fetch/worker.h"

using halvarine::FetchStatus;

namespace fetch {

namespace {

// The longest wait between two retries, unless --retry-delay asks for more.
const int64_t MAX_RETRY_DELAY_MS = 60000;
// A broadcast's READs ask for this many data packets.
const uint64_t LIVE_READ_PACKETS = 4;
// A pass that ended after this long without a byte ended in a stall: the
// worker answers a READ whose server went silent after 7 s.
const int64_t STALL_MS = 5000;

}  // namespace

Fetch::Fetch(const Options& options)
    : options_(options), display_(options.verbosity, &g_stopSignal) {}

int Fetch::run() {
  Outcome outcome = openOutput();
  if (outcome.ending == Ending::COMPLETED) outcome = startWorker();
  if (outcome.ending == Ending::COMPLETED) outcome = transfer();
  display_.endTransfer();
  reportOutput(outcome);
  return exitStatus(outcome);
}

// COMPLETED: set up, the fetch goes on.
Outcome Fetch::openOutput() {
  if (!installStopHandlers()) {
    display_.error(std::string("cannot install signal handlers: ") + strerror(errno));
    return {Ending::CANNOT_START};
  }
  url_ = prepareUrlFromEnvironment(options_.url);
  if (!url_.usable) {
    display_.error(url_.why);
    return {url_.problem};
  }
  if (options_.outPath.empty() || options_.outPath == "-") {
    if (!output_.openStdout()) {
      display_.error(output_.error());
      return {Ending::CANNOT_START};
    }
  } else if (options_.continueFetch) {
    bool found = false;
    if (!output_.openToContinue(options_.outPath, found) &&
        (found || !output_.open(options_.outPath))) {
      display_.error(output_.error());
      return {Ending::OUTPUT_FAILED};
    }
    if (!found) display_.note("nothing to continue in " + options_.outPath + ": starting afresh");
  } else if (!output_.open(options_.outPath)) {
    display_.error(output_.error());
    return {Ending::OUTPUT_FAILED};
  }
  return {Ending::COMPLETED};
}

// COMPLETED: the worker runs and is connected.
Outcome Fetch::startWorker() {
  const std::string worker = findWorker(options_.worker);
  const std::string problem = halvarine::workerProblem(worker);
  if (!problem.empty()) {
    display_.error(problem + (options_.worker.empty() ? " (name one with --worker PATH)" : ""));
    return {Ending::NO_WORKER};
  }
  display_.setPhase("starting the worker");
  halvarine::WorkerSession::Options so;
  so.worker = worker;
  const bool started = session_.start(so);
  const std::string& fallback = session_.fallbackReason();
  if (!fallback.empty()) {
    display_.detail("no private socket (" + fallback + "): the shared " +
                    halvarine::CONTROLLER_SOCKET_PATH);
  }
  if (!started) {
    switch (session_.startFailure()) {
      case halvarine::WorkerSession::StartFailure::SOCKET_TAKEN:
      case halvarine::WorkerSession::StartFailure::SOCKET_UNUSABLE:
        display_.error("cannot take the controller socket: " + session_.error() +
                       (fallback.empty() ? "" : " (no private socket here: " + fallback + ")"));
        return {Ending::CONTROLLER_TAKEN};
      case halvarine::WorkerSession::StartFailure::NOT_STARTED:
        display_.error("cannot start the worker: " + session_.error());
        return {Ending::NO_WORKER};
      default:
        display_.error("the worker did not connect: " + session_.error());
        return {Ending::WORKER_NOT_CONNECTED};
    }
  }
  display_.setWorker(&session_.worker());
  display_.detail("started worker " + worker + " (pid " + std::to_string(session_.worker().pid()) +
                  ") on a " + (session_.privateSocket() ? "private" : "shared") + " socket");
  if (url_.viaProxy) display_.detail("through the proxy at " + url_.endpoint + ": " + url_.url);

  halvarine::PipelineOptions po;
  po.replyTimeoutMs = static_cast<int>(std::min<int64_t>(options_.replyTimeoutMs, INT_MAX));
  po.keepAliveMs = static_cast<int>(options_.keepAliveMs);
  if (options_.timeoutMs > 0) po.deadlineMs = halvarine::monotonicMs() + options_.timeoutMs;
  pipeline_.reset(new halvarine::RequestPipeline(session_.connection(), po, &display_));
  return {Ending::COMPLETED};
}

Outcome Fetch::transfer() {
  const Opened first = open(true);
  if (first.result != Opened::Result::OPENED) return first.outcome;
  RetryPlan plan(options_.retries, options_.retryDelayMs, MAX_RETRY_DELAY_MS,
                 options_.retryMaxTimeMs);
  display_.setSilenceLimit(options_.retryMaxTimeMs);
  Setback setback;            // what ended the last connection
  std::string reopenProblem;  // what the last try to open it again met
  for (;;) {
    switch (plan.state()) {
      case RetryPlan::State::READING: {
        Pass pass = readPass(plan);
        if (pass.step.ended) return pass.step.outcome;
        // Open it again until a try brings nothing new `--retry` times in
        // a row or no new byte has come for --retry-max-time.
        setback = pass.setback;
        reopenProblem.clear();
        plan.dropped(setback.drop, halvarine::monotonicMs());
        break;
      }
      case RetryPlan::State::WAITING: {
        ++retriesDone_;
        char wait[48];
        snprintf(wait, sizeof wait, " in %.1f s: the stream ",
                 static_cast<double>(plan.delayMs()) / 1000);
        display_.note(plan.waitText() + wait + setback.problem + reopenProblem);
        const Step paused = pause(plan.delayMs(), plan.waitText());
        if (paused.ended) return paused.outcome;
        plan.reopening();
        break;
      }
      case RetryPlan::State::REOPENING: {
        const Opened again = open(false);
        switch (again.result) {
          case Opened::Result::OPENED:
            plan.reopened();
            break;
          case Opened::Result::ENDED:
            return again.outcome;
          case Opened::Result::OTHER_STREAM:
            if (live()) {
              return keepRecording(
                  "the live stream came back as another stream (its header differs): not "
                  "appended",
                  Ending::LIVE_LOST);
            }
            return incomplete(
                Ending::NOT_RESUMABLE,
                setback.problem + "; opened again, it is another stream (its header differs)");
          case Opened::Result::FAILED:
            reopenProblem = again.why;
            if (setback.drop != Drop::STALLED && live()) setback.drop = Drop::LIVE;
            plan.dropped(setback.drop, halvarine::monotonicMs());
            break;
        }
        break;
      }
      case RetryPlan::State::GAVE_UP:
        return giveUp(plan, setback, reopenProblem);
    }
  }
}

Fetch::Pass Fetch::readPass(RetryPlan& plan) {
  Pass pass;
  halvarine::StreamFetchOptions fo;
  // A broadcast comes at its own pace: small READs show it moving and
  // lose little at a stop. Anything else comes fastest in large ones.
  fo.count =
      options_.count > 0 ? options_.count
      : isAsf_ && asf_.broadcast
          ? static_cast<int>(std::min<uint64_t>(LIVE_READ_PACKETS * asf_.packetSize,
                                                static_cast<uint64_t>(halvarine::maxReadCount())))
          : halvarine::maxReadCount();
  fo.window = options_.window;
  // A live stream's new connection starts where the broadcast is now: its
  // packets follow those written. Anything else starts again from its
  // beginning, and what is written is read again and checked.
  fo.skip = live() ? 0 : dataWritten_;
  fo.maxBytes = dataLimit_ < 0 ? -1 : dataLimit_ - static_cast<int64_t>(dataWritten_ - fo.skip);
  fo.unit = isAsf_ ? asf_.packetSize : 0;
  fo.witness = &check_;
  check_.startPass(fo.skip);
  display_.startPass(header_.size() + dataWritten_, fo.skip);
  const halvarine::StreamFetchResult r = halvarine::fetchStream(*pipeline_, fo, output_.fd());
  if (r.bytes > 0) plan.progressed(display_.lastNewDataMs());
  dataWritten_ += r.bytes;
  const uint64_t total = header_.size() + dataWritten_ + r.tail.size();
  if (r.status == FetchStatus::STOPPED && check_.differs() && g_stopSignal == 0) {
    if (continuing_) {
      display_.endTransfer();
      display_.error("cannot continue " + output_.continued() +
                     ": the stream's data bytes differ from the file's (from its data byte " +
                     std::to_string(check_.differsFrom()) +
                     " on: a live or changed stream); the file is left as it was");
      endWorker(false, 0);
      kept_ = true;  // as it was
      pass.step = Step::end({Ending::CANNOT_CONTINUE});
      return pass;
    }
    pass.step = Step::end(incomplete(
        Ending::NOT_RESUMABLE,
        "could not be resumed: opened again, its data bytes differ from those written "
        "(from data byte " +
            std::to_string(check_.differsFrom()) +
            " on: a live or changed stream); nothing of the new connection was written"));
    return pass;
  }
  continuing_ = false;
  if (r.status == FetchStatus::STOPPED || (r.status == FetchStatus::DONE && !r.endOfStream)) {
    pass.step = Step::end(stopped());
    return pass;
  }
  // A stream that goes on past its announced length may be a live one
  // whose header does not say so.
  if (r.status == FetchStatus::DONE && resumable() && total > length_ && !probed_ &&
      serverSaysLive()) {
    announceLive();
  }
  if (r.status == FetchStatus::DONE && !live() && (!resumable() || total >= length_)) {
    // The stream's end is its end, whatever is left of a packet.
    if (!output_.write(r.tail, &g_stopSignal)) {
      pass.step = Step::end(fail(FetchStatus::OUTPUT_FAILED, output_.error(), "READ"));
      return pass;
    }
    check_.written(r.tail);
    dataWritten_ += r.tail.size();
    pass.step = Step::end(completed());
    return pass;
  }
  const bool readFailed = r.status == FetchStatus::REFUSED && (resumable() || live());
  if (r.status != FetchStatus::DONE && !readFailed) {
    pass.step = Step::end(fail(r.status, r.error, "READ"));
    return pass;
  }
  const bool silent = halvarine::monotonicMs() - display_.lastDataMs() >= STALL_MS;
  if (!live() && !probed_ && serverSaysLive()) announceLive();
  Setback& s = pass.setback;
  s.drop = live() ? Drop::LIVE : Drop::ENDED_EARLY;
  if (readFailed) {
    s = {Drop::READ_FAILED, Ending::READ_FAILED,
         "could not be read on after " + std::to_string(total) + " bytes (READ answered ERR)"};
  } else if (silent) {
    s = {Drop::STALLED, Ending::STALLED, "stalled after " + std::to_string(total) + " bytes"};
  } else if (live()) {
    s.problem = "ended after " + std::to_string(total) + " bytes";
  } else {
    s.problem = "ended " + std::to_string(length_ - total) +
                " bytes before its announced length (" + std::to_string(length_) + " bytes)";
  }
  return pass;
}

Fetch::Step Fetch::pause(int64_t ms, const std::string& what) {
  const int64_t until = halvarine::monotonicMs() + ms;
  display_.setPhase(what, until);
  while (halvarine::monotonicMs() < until) {
    if (display_.stopRequested()) return Step::end(stopped());
    if (pipeline_->deadlinePassed()) {
      return Step::end(
          fail(FetchStatus::DEADLINE, "the time for the whole run ran out", "a retry's wait"));
    }
    if (pipeline_->inFlight() > 0) {
      // A keep-alive's answer.
      halvarine::Reply reply;
      std::string word;
      if (pipeline_->receive(reply, word) == halvarine::RequestPipeline::Received::FAILED) {
        return Step::end(fail(pipeline_->failure(), pipeline_->error(), word));
      }
      continue;
    }
    if (!pipeline_->keepAlive()) {
      return Step::end(fail(pipeline_->failure(), pipeline_->error(), "CCHECK"));
    }
    halvarine::sleepUntil(std::min(until, halvarine::monotonicMs() + halvarine::WAIT_SLICE_MS));
    display_.tick();
  }
  return Step::goOn();
}

}  // namespace fetch
