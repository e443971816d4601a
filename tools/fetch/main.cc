// halvarine-fetch: fetches or records one MMS stream through the worker,
// acting as its controller, and writes the stream's bytes to a file or
// standard output. See --help for the options and the exit statuses.

#include <errno.h>
#include <halvarine/controller.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "base/allocator.h"
#include "base/wait.h"
#include "tools/asf/asf_file.h"
#include "tools/asf/asf_stream.h"
#include "tools/fetch/display.h"
#include "tools/fetch/many.h"
#include "tools/fetch/options.h"
#include "tools/fetch/output.h"
#include "tools/fetch/probe.h"
#include "tools/fetch/resume.h"
#include "tools/fetch/retry.h"
#include "tools/fetch/stop.h"
#include "tools/fetch/url.h"

using halvarine::FetchStatus;

namespace fetch {

namespace {

// Time the worker gets to answer PEND and end on its own, after the
// stream was read and after a failure that left it healthy.
const int PEND_GRACE_MS = 5000;
// The same when the user is waiting for the tool to stop: a READ in flight
// on a slow stream holds PEND up, and SIGTERM ends the worker at once.
const int INTERRUPT_GRACE_MS = 2000;
const int TERM_GRACE_MS = 2000;
// The worker's lines shown with a failure.
const size_t WORKER_LINES = 6;
// The longest wait between two retries, unless --retry-delay asks for more.
const int64_t MAX_RETRY_DELAY_MS = 60000;
// A broadcast's READs ask for this many data packets.
const uint64_t LIVE_READ_PACKETS = 4;
// A stream header longer than this is not one (libmms keeps 16 KiB of it).
const uint64_t MAX_HEADER = 1 << 20;
// A pass that ended after this long without a byte ended in a stall: the
// worker answers a READ whose server went silent after 7 s.
const int64_t STALL_MS = 5000;
// How long asking the server ourselves may take.
const int PROBE_MS = 5000;
// The worker's lines when a transport opened the stream.
const char OPENED_MMST[] = "[WrapperMms::connect()] open MMST stream success!";
const char OPENED_MMSH[] = "[WrapperMms::connect()] open MMSH stream success!";

bool runnable(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && access(path.c_str(), X_OK) == 0;
}

// The worker: --worker (a bare name is looked up on PATH), HALVARINE_WORKER,
// the halvarine beside this program (the build tree), the one in an
// installed prefix's libexec, the compiled-in install path.
std::string findWorker(const std::string& named) {
  if (!named.empty()) {
    if (named.find('/') != std::string::npos) return named;
    const std::string found = halvarine::findOnPath(named);
    return found.empty() ? named : found;
  }
  const char* env = getenv("HALVARINE_WORKER");
  if (env != nullptr && *env != '\0') return env;
  char self[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  if (n > 0) {
    std::string dir(self, static_cast<size_t>(n));
    dir.erase(dir.find_last_of('/') + 1);
    for (const char* relative : {"halvarine", "../libexec/halvarine/halvarine"}) {
      if (runnable(dir + relative)) return dir + relative;
    }
  }
  return halvarine::defaultWorkerPath();
}

// Empty when `path` can be run, else why not.
std::string workerProblem(const std::string& path) {
  struct stat st;
  if (path.find('/') == std::string::npos) return "no worker " + path + " on PATH";
  if (stat(path.c_str(), &st) != 0) return "worker binary " + path + ": " + strerror(errno);
  if (!S_ISREG(st.st_mode)) return "worker binary " + path + " is not a file";
  if (access(path.c_str(), X_OK) != 0) return "worker binary " + path + " is not executable";
  return "";
}

class Fetch {
 public:
  explicit Fetch(const Options& options)
      : options_(options), display_(options.verbosity, &g_stopSignal) {}
  int run();

 private:
  // Opening and reading on: exit statuses, or RETRY when a resumption
  // failed in a way the next one may not (problem_ says how), or
  // OTHER_STREAM when the stream opened again is not the one written.
  static const int RETRY = -2;
  static const int OTHER_STREAM = -3;

  int startWorker();
  int transfer();
  // CONNECT, GSIZE and the stream header; the first time the header is
  // written, later it must be the one written.
  int open(bool first);
  int readHeader(std::string& header);
  // Waits `ms` before a retry, keeping the worker alive; `what` for the
  // status line.
  int pause(int64_t ms, const std::string& what);
  // How the fetch ends: the whole stream; a stop asked for (a signal,
  // --duration, --max-bytes); a stream that cannot be completed; a failure
  // of the exchange with the worker.
  int completed();
  int stopped();
  int incomplete(int status);
  int fail(FetchStatus status, const std::string& why, const std::string& step);
  int connectFailure(size_t outputMark, std::string& why);
  // The connection ended early; what the retry plan says comes next.
  int reconnect(Drop why, RetryPlan& plan, int failure);
  int giveUp(const RetryPlan& plan, int failure);
  // Keeps and finishes what was recorded: `why` for the last line.
  int keepRecording(const std::string& why, int status);
  // The server, asked directly, announces a live stream.
  bool serverSaysLive();
  void announceLive();
  // --continue: the earlier fetch's file against the stream's header.
  int takeUpEarlierFetch(const std::string& header);
  bool live() const { return isAsf_ && (asf_.broadcast || announcedLive_); }
  // Ends the worker: PEND first when `politely`, then SIGTERM, then SIGKILL.
  void endWorker(bool politely, int graceMs);
  void showWorkerLines();
  // Cuts and patches the output's ASF header to what was written.
  bool finishRecording();
  void reportOutput(int status);
  // "N bytes (size, K data packets)": what a finished recording holds.
  std::string keptAmount() const;
  bool resumable() const { return isAsf_ && !asf_.broadcast && length_ > 0; }

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
  std::string problem_;       // what keeps the stream from completing
  std::string retryProblem_;  // what the last retry met
  int retriesDone_ = 0;
  bool kept_ = false;           // the output stands as it is: complete or stopped
  bool announcedLive_ = false;  // the server says live, whatever the header says
  bool probed_ = false;
  ResumeCheck check_;        // what is written, for reading it again
  bool continuing_ = false;  // --continue took up an earlier file
};

int Fetch::run() {
  if (!installStopHandlers()) {
    display_.error(std::string("cannot install signal handlers: ") + strerror(errno));
    return EXIT_USAGE;
  }
  url_ = prepareUrlFromEnvironment(options_.url);
  if (url_.status >= 0) {
    display_.error(url_.why);
    return url_.status;
  }
  if (options_.outPath.empty() || options_.outPath == "-") {
    if (!output_.openStdout()) {
      display_.error(output_.error());
      return EXIT_USAGE;
    }
  } else if (options_.continueFetch) {
    bool found = false;
    if (!output_.openToContinue(options_.outPath, found) &&
        (found || !output_.open(options_.outPath))) {
      display_.error(output_.error());
      return EXIT_WRITE;
    }
    if (!found) display_.note("nothing to continue in " + options_.outPath + ": starting afresh");
  } else if (!output_.open(options_.outPath)) {
    display_.error(output_.error());
    return EXIT_WRITE;
  }
  int status = startWorker();
  if (status == EXIT_OK) status = transfer();
  display_.endTransfer();
  reportOutput(status);
  return status;
}

int Fetch::startWorker() {
  const std::string worker = findWorker(options_.worker);
  const std::string problem = workerProblem(worker);
  if (!problem.empty()) {
    display_.error(problem + (options_.worker.empty() ? " (name one with --worker PATH)" : ""));
    return EXIT_NO_WORKER;
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
        return EXIT_CONTROLLER_TAKEN;
      case halvarine::WorkerSession::StartFailure::NOT_STARTED:
        display_.error("cannot start the worker: " + session_.error());
        return EXIT_NO_WORKER;
      default:
        display_.error("the worker did not connect: " + session_.error());
        return EXIT_WORKER_FAILED;
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
  return EXIT_OK;
}

int Fetch::transfer() {
  int status = open(true);
  if (status != EXIT_OK) return status;
  RetryPlan plan(options_.retries, options_.retryDelayMs, MAX_RETRY_DELAY_MS,
                 options_.retryMaxTimeMs);
  display_.setSilenceLimit(options_.retryMaxTimeMs);
  for (;;) {
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
        return EXIT_CANNOT_CONTINUE;
      }
      problem_ =
          "could not be resumed: opened again, its data bytes differ from those written "
          "(from data byte " +
          std::to_string(check_.differsFrom()) +
          " on: a live or changed stream); nothing of the new connection was written";
      retryProblem_.clear();
      return incomplete(EXIT_PARTIAL);
    }
    continuing_ = false;
    if (r.status == FetchStatus::STOPPED || (r.status == FetchStatus::DONE && !r.endOfStream)) {
      return stopped();
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
        return fail(FetchStatus::OUTPUT_FAILED, output_.error(), "READ");
      }
      check_.written(r.tail);
      dataWritten_ += r.tail.size();
      return completed();
    }
    const bool readFailed = r.status == FetchStatus::REFUSED && (resumable() || live());
    if (r.status != FetchStatus::DONE && !readFailed) return fail(r.status, r.error, "READ");
    const bool silent = halvarine::monotonicMs() - display_.lastDataMs() >= STALL_MS;
    if (!live() && !probed_ && serverSaysLive()) announceLive();
    int failure = EXIT_PARTIAL;
    Drop why = live() ? Drop::LIVE : Drop::ENDED_EARLY;
    if (readFailed) {
      failure = EXIT_RECEIVE;
      why = Drop::READ_FAILED;
      problem_ =
          "could not be read on after " + std::to_string(total) + " bytes (READ answered ERR)";
    } else if (silent) {
      why = Drop::STALLED;
      failure = EXIT_TIMED_OUT;
      problem_ = "stalled after " + std::to_string(total) + " bytes";
    } else if (live()) {
      problem_ = "ended after " + std::to_string(total) + " bytes";
    } else {
      problem_ = "ended " + std::to_string(length_ - total) +
                 " bytes before its announced length (" + std::to_string(length_) + " bytes)";
    }
    status = reconnect(why, plan, failure);
    if (status != EXIT_OK) return status;
  }
}

int Fetch::reconnect(Drop why, RetryPlan& plan, int failure) {
  // Open it again until a try brings nothing new `--retry` times in a row
  // or no new byte has come for --retry-max-time.
  retryProblem_.clear();
  for (;;) {
    if (plan.dropped(why, halvarine::monotonicMs()) == RetryPlan::State::GAVE_UP) {
      return giveUp(plan, failure);
    }
    ++retriesDone_;
    char wait[48];
    snprintf(wait, sizeof wait, " in %.1f s: the stream ",
             static_cast<double>(plan.delayMs()) / 1000);
    display_.note(plan.waitText() + wait + problem_ + retryProblem_);
    const int paused = pause(plan.delayMs(), plan.waitText());
    if (paused != EXIT_OK) return paused;
    plan.reopening();
    const int status = open(false);
    if (status == OTHER_STREAM) {
      if (live())
        return keepRecording(
            "the live stream came back as another stream (its "
            "header differs): not appended",
            EXIT_LIVE_LOST);
      retryProblem_ = "; opened again, it is another stream (its header differs)";
      return incomplete(EXIT_PARTIAL);
    }
    if (status != RETRY) {
      if (status == EXIT_OK) plan.reopened();
      return status;
    }
    if (why != Drop::STALLED) why = live() ? Drop::LIVE : why;
  }
}

int Fetch::giveUp(const RetryPlan& plan, int failure) {
  std::string tries = options_.retries == 0 ? " (--retry 0)"
                      : retriesDone_ > 0    ? "; gave up after " + std::to_string(retriesDone_) +
                                               (retriesDone_ == 1 ? " retry" : " retries")
                                         : "";
  if (plan.outOfTime()) tries += " (--retry-max-time)";
  if (plan.lastDrop() == Drop::STALLED) {
    const int64_t silent = (halvarine::monotonicMs() - display_.lastNewDataMs()) / 1000;
    problem_ = "no data from the server for " + std::to_string(silent) + " s";
    failure = EXIT_TIMED_OUT;
  }
  if (live()) {
    return keepRecording("the live stream " + problem_ + retryProblem_ + tries,
                         failure == EXIT_TIMED_OUT ? EXIT_TIMED_OUT : EXIT_LIVE_LOST);
  }
  display_.endTransfer();
  endWorker(pipeline_->inFlight() == 0, INTERRUPT_GRACE_MS);
  display_.error((plan.lastDrop() == Drop::STALLED ? "" : "the stream ") + problem_ +
                 retryProblem_ + tries);
  return failure;
}

int Fetch::open(bool first) {
  if (first && !output_.continued().empty()) {
    // A live stream cannot be continued, whatever its header says; asked
    // now, while no connection of ours holds a server that serves one
    // client at a time.
    probed_ = true;
    announcedLive_ = askServerIfLive(url_, false, PROBE_MS);
  }
  display_.setPhase(std::string(first ? "connecting to " : "reconnecting to ") +
                    (url_.viaProxy ? "the proxy " : "") + url_.endpoint);
  const size_t mark = session_.worker().output().size();
  halvarine::Reply reply;
  FetchStatus st = pipeline_->call(halvarine::WORD_CONNECT, {url_.url}, reply);
  if (st != FetchStatus::DONE) return fail(st, pipeline_->error(), "CONNECT");
  if (reply.status() != halvarine::STATUS_OK) {
    std::string why;
    const int status = connectFailure(mark, why);
    if (!first) {
      retryProblem_ = "; opening it again failed: " + why;
      return RETRY;
    }
    display_.error("cannot open " + options_.url + ": " + why);
    endWorker(true, PEND_GRACE_MS);
    return status;
  }
  st = pipeline_->call(halvarine::WORD_GSIZE, {}, reply);
  if (st != FetchStatus::DONE) return fail(st, pipeline_->error(), "GSIZE");
  if (first && options_.durationMs > 0) {
    display_.stopAt(halvarine::monotonicMs() + options_.durationMs);
  }
  display_.setPhase(first ? "waiting for the stream's header"
                          : "reconnected; no header from the server yet");
  std::string header;
  const int status = readHeader(header);
  if (status != EXIT_OK) return status;
  if (!first) return header == header_ ? EXIT_OK : OTHER_STREAM;

  header_ = header;
  std::string error;
  isAsf_ =
      header.size() == asfStreamHeaderLength(header) && readAsfStreamHeader(header, asf_, error);
  if (!isAsf_) {
    display_.note("not a well-formed ASF stream header" +
                  (error.empty() ? "" : " (" + error + ")") +
                  ": it will not be resumed nor cut at its packets");
  }
  const int64_t announced = halvarine::replyLength(reply);
  length_ = announced > 0 && !(isAsf_ && asf_.broadcast) ? static_cast<uint64_t>(announced) : 0;
  display_.note(length_ > 0 ? "opened, " + std::to_string(length_) + " bytes (" +
                                  humanBytes(static_cast<double>(length_)) + ")"
                            : "opened a broadcast: it goes on until stopped");
  if (options_.maxBytes >= 0) {
    const int64_t data =
        std::max<int64_t>(0, options_.maxBytes - static_cast<int64_t>(header.size()));
    dataLimit_ = isAsf_ ? data - data % asf_.packetSize : data;
  }
  display_.startTransfer(length_);
  if (!output_.continued().empty()) return takeUpEarlierFetch(header);
  if (!output_.write(header, &g_stopSignal)) {
    if (g_stopSignal != 0) return stopped();
    return fail(FetchStatus::OUTPUT_FAILED, output_.error(), "the header");
  }
  display_.setBytes(header.size());
  return EXIT_OK;
}

int Fetch::readHeader(std::string& header) {
  uint64_t need = HEADER_OBJECT_FIXED_SIZE;
  bool sized = false;
  while (header.size() < need) {
    halvarine::Reply reply;
    const int count = static_cast<int>(
        std::min<uint64_t>(need - header.size(), static_cast<uint64_t>(halvarine::maxReadCount())));
    const FetchStatus st =
        pipeline_->call(halvarine::WORD_READ, {halvarine::formatCount(count)}, reply);
    if (st != FetchStatus::DONE) return fail(st, pipeline_->error(), "READ");
    if (reply.status() == halvarine::STATUS_OK && reply.fields.size() == 4) {
      header += reply.fields[3].bytes;
    } else if (header_.empty()) {
      display_.error("the stream ended inside its header (READ answered " + reply.status() + ")");
      endWorker(true, PEND_GRACE_MS);
      return reply.status() == halvarine::STATUS_ERR ? EXIT_RECEIVE : EXIT_NOT_MMS;
    } else {
      retryProblem_ = "; opened again, it ended inside its header";
      return RETRY;
    }
    if (!sized && header.size() >= need) {
      sized = true;
      const uint64_t length = asfStreamHeaderLength(header);
      if (length > need && length <= MAX_HEADER) need = length;
    }
  }
  return EXIT_OK;
}

int Fetch::pause(int64_t ms, const std::string& what) {
  const int64_t until = halvarine::monotonicMs() + ms;
  display_.setPhase(what, until);
  while (halvarine::monotonicMs() < until) {
    if (display_.stopRequested()) return stopped();
    if (pipeline_->deadlinePassed()) {
      return fail(FetchStatus::DEADLINE, "the time for the whole run ran out", "a retry's wait");
    }
    if (pipeline_->inFlight() > 0) {
      // A keep-alive's answer.
      halvarine::Reply reply;
      std::string word;
      if (pipeline_->receive(reply, word) == halvarine::RequestPipeline::Received::FAILED) {
        return fail(pipeline_->failure(), pipeline_->error(), word);
      }
      continue;
    }
    if (!pipeline_->keepAlive()) return fail(pipeline_->failure(), pipeline_->error(), "CCHECK");
    waitFdUntil(-1, WAIT_READABLE,
                std::min(until, halvarine::monotonicMs() + halvarine::WAIT_SLICE_MS));
    display_.tick();
  }
  return EXIT_OK;
}

int Fetch::completed() {
  display_.endTransfer();
  endWorker(true, PEND_GRACE_MS);
  // A broadcast that ended is a recording like one stopped.
  if ((isAsf_ && asf_.broadcast && !finishRecording()) ||
      (output_.toFile() &&
       ((!output_.continued().empty() && !output_.endContinued(header_)) || !output_.commit()))) {
    display_.error(output_.error());
    return EXIT_WRITE;
  }
  kept_ = true;
  display_.note("fetched " + display_.rateSummary() + " to " +
                (output_.toFile() ? output_.path() : "standard output"));
  return EXIT_OK;
}

int Fetch::takeUpEarlierFetch(const std::string& header) {
  const std::string& name = output_.continued();
  EarlierFetch earlier;
  std::string error;
  std::string refusal;
  if (!isAsf_ || !readEarlierFetch(name, earlier, check_, error)) {
    refusal = isAsf_ ? error : "the stream is not a well-formed ASF stream";
  } else if (live()) {
    refusal = "the stream is live: a new connection starts where the broadcast is now";
  } else if (!sameStreamHeader(header, earlier.header)) {
    refusal = "it holds another stream (its header differs from the stream's)";
  }
  if (!refusal.empty()) {
    display_.endTransfer();
    display_.error("cannot continue " + name + ": " + refusal + "; the file is left as it was");
    endWorker(true, PEND_GRACE_MS);
    kept_ = true;  // as it was
    return EXIT_CANNOT_CONTINUE;
  }
  // New bytes go after its whole packets, once those read again matched.
  const uint64_t keep = header.size() + earlier.dataBytes;
  if (!output_.startContinuing(keep)) {
    return fail(FetchStatus::OUTPUT_FAILED, output_.error(), "--continue");
  }
  continuing_ = true;
  dataWritten_ = earlier.dataBytes;
  display_.setBytes(keep);
  display_.note("continuing " + name + " after " + std::to_string(keep) + " bytes (" +
                std::to_string(earlier.dataBytes / earlier.packetSize) +
                " data packets); they are read again and checked first");
  return EXIT_OK;
}

int Fetch::keepRecording(const std::string& why, int status) {
  display_.endTransfer();
  endWorker(pipeline_->inFlight() == 0, INTERRUPT_GRACE_MS);
  if (!finishRecording() || (output_.toFile() && !output_.commit())) {
    display_.error(output_.error());
    return EXIT_WRITE;
  }
  kept_ = true;
  uint64_t kept = header_.size() + dataWritten_;
  if (isAsf_) kept -= dataWritten_ % asf_.packetSize;
  display_.error(why + "; kept the recording, " + std::to_string(kept) + " bytes, in " +
                 (output_.toFile() ? output_.path() : "standard output"));
  return status;
}

int Fetch::stopped() {
  const int sig = g_stopSignal;
  if (sig == 0 && !display_.durationReached() && display_.silenceLimitReached()) {
    // Not a stop asked for: the server stalled for longer than the fetch waits.
    const int64_t silent = (halvarine::monotonicMs() - display_.lastNewDataMs()) / 1000;
    problem_ = "no data from the server for " + std::to_string(silent) + " s (--retry-max-time)";
    if (retriesDone_ > 0) {
      problem_ += "; gave up after " + std::to_string(retriesDone_) +
                  (retriesDone_ == 1 ? " retry" : " retries");
    }
    if (live()) return keepRecording("the live stream: " + problem_, EXIT_TIMED_OUT);
    display_.endTransfer();
    endWorker(pipeline_->inFlight() == 0, INTERRUPT_GRACE_MS);
    display_.error(problem_);
    return EXIT_TIMED_OUT;
  }
  display_.endTransfer();
  // READs in flight on a slow stream would hold PEND up; their bytes are
  // not wanted any more.
  endWorker(pipeline_->inFlight() == 0, INTERRUPT_GRACE_MS);
  const std::string why = sig != 0 ? std::string("stopped by ") + stopSignalName(sig)
                          : display_.durationReached() ? "recorded for --duration"
                                                       : "reached --max-bytes";
  if (header_.empty()) {
    display_.error(why + " before any data came: nothing written");
    return sig != 0 ? EXIT_SIGNALED + sig : EXIT_TIMED_OUT;
  }
  if (!finishRecording() || (output_.toFile() && !output_.commit())) {
    display_.error(output_.error());
    return EXIT_WRITE;
  }
  kept_ = true;
  display_.note(why + ": kept " + keptAmount() + " in " +
                (output_.toFile() ? output_.path() : "standard output"));
  return sig != 0 ? EXIT_SIGNALED + sig : EXIT_OK;
}

int Fetch::incomplete(int status) {
  display_.endTransfer();
  endWorker(true, PEND_GRACE_MS);
  std::string tries = options_.retries == 0 ? " (--retry 0)"
                      : retriesDone_ > 0    ? "; gave up after " + std::to_string(retriesDone_) +
                                               (retriesDone_ == 1 ? " retry" : " retries")
                                         : "";
  display_.error("the stream " + problem_ + retryProblem_ + tries);
  return status;
}

int Fetch::connectFailure(size_t mark, std::string& why) {
  const std::string& text = session_.worker().output();
  const halvarine::ConnectDiagnosis d =
      halvarine::diagnoseConnect(halvarine::splitLines(text.substr(std::min(mark, text.size()))));
  const std::string where = (d.viaProxy ? "the proxy " : "") + url_.endpoint;
  why = halvarine::connectFailureText(d.failure);
  switch (d.failure) {
    case halvarine::ConnectFailure::UNRESOLVED:
      why = std::string("cannot resolve ") + (d.viaProxy ? "the proxy's host " : "host ") + d.host;
      return d.viaProxy ? EXIT_PROXY_UNRESOLVED : EXIT_HOST_UNRESOLVED;
    case halvarine::ConnectFailure::REFUSED:
      why += " (" + where + ")";
      return EXIT_CANNOT_CONNECT;
    case halvarine::ConnectFailure::UNREACHABLE:
      why += " (" + where + (d.error != 0 ? std::string(": ") + strerror(d.error) : "") + ")";
      return EXIT_CANNOT_CONNECT;
    case halvarine::ConnectFailure::CONNECT_TIMED_OUT:
    case halvarine::ConnectFailure::NO_ANSWER:
      why += " (" + where + ")";
      return EXIT_TIMED_OUT;
    case halvarine::ConnectFailure::URL_REFUSED:
      return EXIT_MALFORMED_URL;
    case halvarine::ConnectFailure::NOT_MMS:
    case halvarine::ConnectFailure::UNKNOWN:
      break;
  }
  // Connected, and the open failed: what did the server say?
  return askServerWhy(url_, where, PROBE_MS, why);
}

void Fetch::announceLive() {
  announcedLive_ = true;
  length_ = 0;
  display_.note(
      "the server announces this stream as live: it is recorded on from a new "
      "connection, never resumed by skipping");
}

bool Fetch::serverSaysLive() {
  probed_ = true;
  // The worker holds the connection that ended; a server that serves one
  // client at a time answers us only once it is closed.
  halvarine::Reply reply;
  if (pipeline_->inFlight() == 0) pipeline_->call(halvarine::WORD_CLOSE, {}, reply);
  // An mms:// URL opened over HTTP is asked over HTTP.
  const std::string& lines = session_.worker().output();
  const size_t http = lines.rfind(OPENED_MMSH);
  const size_t tcp = lines.rfind(OPENED_MMST);
  return askServerIfLive(
      url_, http != std::string::npos && (tcp == std::string::npos || http > tcp), PROBE_MS);
}

int Fetch::fail(FetchStatus status, const std::string& why, const std::string& step) {
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
      return EXIT_RECEIVE;
    case FetchStatus::TIMED_OUT:
    case FetchStatus::DEADLINE:
      display_.error(why +
                     (status == FetchStatus::TIMED_OUT ? " (--reply-timeout)" : " (--timeout)") +
                     "; ending the worker");
      // Its last lines before it is ended tell where it was stuck.
      showWorkerLines();
      endWorker(false, 0);
      return EXIT_TIMED_OUT;
    case FetchStatus::OUTPUT_FAILED:
      display_.error("cannot write the output: " + why);
      endWorker(true, INTERRUPT_GRACE_MS);
      return EXIT_WRITE;
    case FetchStatus::LOST:
    case FetchStatus::BAD_REPLY: {
      // A worker that died closes the connection: say how it ended.
      halvarine::ExitStatus ended;
      if (session_.worker().waitExit(TERM_GRACE_MS, ended)) {
        display_.error("the worker ended early (" + ended.toString() + ") during " + step);
        showWorkerLines();
        return EXIT_WORKER_FAILED;
      }
      display_.error((status == FetchStatus::LOST ? "lost the connection to the worker during "
                                                  : "the worker broke the protocol during ") +
                     step + ": " + why);
      endWorker(false, 0);
      showWorkerLines();
      return EXIT_WORKER_FAILED;
    }
  }
  return EXIT_WORKER_FAILED;
}

void Fetch::endWorker(bool politely, int graceMs) {
  halvarine::ChildProcess& worker = session_.worker();
  if (!worker.running()) return;
  halvarine::ExitStatus ended;
  if (politely && pipeline_ && pipeline_->finish(graceMs) &&
      worker.waitExit(PEND_GRACE_MS, ended)) {
    display_.tick();
    if (!ended.exited || ended.code != 0) {
      display_.error("warning: the worker ended with " + ended.toString() + " after PEND");
    }
    return;
  }
  worker.sendSignal(SIGTERM);
  if (!worker.waitExit(TERM_GRACE_MS, ended)) worker.kill();
  display_.tick();
  display_.detail("worker stopped");
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

void Fetch::reportOutput(int status) {
  if (kept_ || status == EXIT_OK) return;
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

}  // namespace

}  // namespace fetch

int main(int argc, char** argv) {
  fetch::Options options;
  const int parsed = fetch::parseOptions(argc, argv, options);
  if (parsed >= 0) return parsed;
  int status;
  if (options.urls.size() > 1) {
    status = fetch::fetchMany(options);
  } else {
    keepReplyBuffersResident();
    status = fetch::Fetch(options).run();
  }
  fetch::endByStopSignal();
  return status;
}
