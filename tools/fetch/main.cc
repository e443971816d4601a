// halvarine-fetch: fetches one MMS stream through the worker, acting as its
// controller, and writes the stream's bytes to a file or standard output.
// See --help for the options and the exit statuses.

#include <errno.h>
#include <fcntl.h>
#include <halvarine/controller.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "base/allocator.h"
#include "tools/fetch/display.h"
#include "tools/fetch/options.h"

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

volatile sig_atomic_t g_stopSignal = 0;

void onStopSignal(int sig) {
  g_stopSignal = sig;
}

// SIGINT and SIGTERM only set the flag; the waits come back at least once a
// second to look at it, so the worker is ended and the socket file removed
// on the way out as on any other path.
bool installSignalHandlers() {
  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_handler = onStopSignal;
  sigemptyset(&action.sa_mask);
  struct sigaction ignore;
  memset(&ignore, 0, sizeof ignore);
  ignore.sa_handler = SIG_IGN;
  sigemptyset(&ignore.sa_mask);
  return sigaction(SIGINT, &action, nullptr) == 0 && sigaction(SIGTERM, &action, nullptr) == 0 &&
         sigaction(SIGPIPE, &ignore, nullptr) == 0;
}

// The halvarine that sits beside this program, in the build tree as in an
// installed prefix's bin directory.
std::string defaultWorker() {
  char self[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  if (n <= 0) return "halvarine";
  std::string path(self, static_cast<size_t>(n));
  return path.substr(0, path.find_last_of('/') + 1) + "halvarine";
}

// Empty when `path` can be run, else why not.
std::string workerProblem(const std::string& path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return "worker binary " + path + ": " + strerror(errno);
  if (!S_ISREG(st.st_mode)) return "worker binary " + path + " is not a file";
  if (access(path.c_str(), X_OK) != 0) return "worker binary " + path + " is not executable";
  return "";
}

// The output file: written as FILE.partial and renamed to FILE only when the
// fetch succeeds, so a failed fetch never leaves a short FILE behind (nor
// spoils an older one). Removed when destroyed uncommitted, unless kept.
class OutputFile {
 public:
  OutputFile() = default;
  ~OutputFile() {
    fd_.reset();
    if (!partial_.empty() && !committed_ && !keep_) unlink(partial_.c_str());
  }
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  bool open(const std::string& path) {
    path_ = path;
    partial_ = path + ".partial";
    fd_.reset(::open(partial_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (!fd_.valid()) {
      error_ = "cannot write " + partial_ + ": " + strerror(errno);
      partial_.clear();
      return false;
    }
    return true;
  }
  int fd() const { return fd_.get(); }
  const std::string& path() const { return path_; }
  const std::string& partialPath() const { return partial_; }
  const std::string& error() const { return error_; }

  bool commit() {
    if (::close(fd_.release()) != 0 || rename(partial_.c_str(), path_.c_str()) != 0) {
      error_ = "cannot finish " + path_ + ": " + strerror(errno);
      return false;
    }
    committed_ = true;
    return true;
  }
  void keep() { keep_ = true; }

 private:
  halvarine::UniqueFd fd_;
  std::string path_;
  std::string partial_;
  bool committed_ = false;
  bool keep_ = false;
  std::string error_;
};

class Fetch {
 public:
  explicit Fetch(const Options& options)
      : options_(options), display_(options.verbosity, &g_stopSignal) {}
  int run();

 private:
  // Checks the worker binary, opens the output, starts the worker.
  int startWorker(bool toStdout);
  int transfer();
  // Maps how an exchange ended to the tool's exit status, after ending the
  // worker in the way that suits it and saying what happened.
  int fail(FetchStatus status, const std::string& why, const std::string& step);
  // Ends the worker: PEND first when `politely`, then SIGTERM, then SIGKILL.
  void endWorker(bool politely, int graceMs);
  void showWorkerLines();
  void reportOutput(bool success);

  const Options& options_;
  Display display_;
  OutputFile file_;
  int outFd_ = STDOUT_FILENO;
  uint64_t written_ = 0;  // stream bytes that reached the output
  halvarine::WorkerSession session_;
  std::unique_ptr<halvarine::RequestPipeline> pipeline_;
};

int Fetch::run() {
  if (!installSignalHandlers()) {
    display_.error(std::string("cannot install signal handlers: ") + strerror(errno));
    return EXIT_OTHER;
  }
  const bool toStdout = options_.outPath.empty() || options_.outPath == "-";
  if (toStdout && isatty(STDOUT_FILENO) == 1) {
    display_.error("not writing a binary stream to a terminal; give -o FILE or redirect");
    return EXIT_USAGE;
  }
  int status = startWorker(toStdout);
  if (status == EXIT_FETCHED) status = transfer();
  if (status == EXIT_INTERRUPTED) {
    display_.error(std::string("interrupted by ") +
                   (g_stopSignal == SIGTERM ? "SIGTERM" : "SIGINT") + "; the worker was ended");
  }
  reportOutput(status == EXIT_FETCHED);
  return status;
}

int Fetch::startWorker(bool toStdout) {
  const std::string worker = options_.worker.empty() ? defaultWorker() : options_.worker;
  const std::string problem = workerProblem(worker);
  if (!problem.empty()) {
    display_.error(problem + (options_.worker.empty() ? " (name one with --worker PATH)" : ""));
    return EXIT_NO_WORKER;
  }
  if (!toStdout) {
    if (!file_.open(options_.outPath)) {
      display_.error(file_.error());
      return EXIT_OUTPUT;
    }
    outFd_ = file_.fd();
  }
  halvarine::WorkerSession::Options so;
  so.worker = worker;
  if (!session_.start(so)) {
    switch (session_.startFailure()) {
      case halvarine::WorkerSession::StartFailure::SOCKET_TAKEN:
        display_.error("cannot take the controller socket: " + session_.error() +
                       "; only one controller can run at a time");
        return EXIT_CONTROLLER_TAKEN;
      case halvarine::WorkerSession::StartFailure::NOT_STARTED:
        display_.error("cannot start the worker: " + session_.error());
        return EXIT_NO_WORKER;
      default:
        display_.error("the worker did not connect: " + session_.error());
        return EXIT_WORKER_ENDED;
    }
  }
  display_.setWorker(&session_.worker());
  display_.detail("started worker " + worker + " (pid " + std::to_string(session_.worker().pid()) +
                  ")");

  halvarine::PipelineOptions po;
  po.replyTimeoutMs = options_.replyTimeoutS * 1000;
  po.keepAliveMs = options_.keepAliveS * 1000;
  if (options_.timeoutS > 0) po.deadlineMs = halvarine::monotonicMs() + options_.timeoutS * 1000;
  pipeline_.reset(new halvarine::RequestPipeline(session_.connection(), po, &display_));
  return EXIT_FETCHED;
}

int Fetch::transfer() {
  halvarine::Reply reply;
  FetchStatus st = pipeline_->call("CONNECT", {options_.url}, reply);
  if (st != FetchStatus::DONE) return fail(st, pipeline_->error(), "CONNECT");
  if (reply.status() != "OK_") {
    display_.error("the worker could not open " + options_.url + " (CONNECT answered " +
                   reply.status() + ")");
    showWorkerLines();
    endWorker(true, PEND_GRACE_MS);
    return EXIT_CONNECT_ERR;
  }
  display_.note("opened " + options_.url);

  st = pipeline_->call("GSIZE", {}, reply);
  if (st != FetchStatus::DONE) return fail(st, pipeline_->error(), "GSIZE");
  display_.startTransfer(usableLength(reply));

  halvarine::StreamFetchOptions fo;
  fo.count = options_.count;
  fo.window = options_.window;
  fo.maxBytes = options_.maxBytes;
  halvarine::StreamFetchResult result = halvarine::fetchStream(*pipeline_, fo, outFd_);
  written_ = result.bytes;
  display_.endTransfer();
  if (result.status != FetchStatus::DONE) return fail(result.status, result.error, "READ");

  endWorker(true, PEND_GRACE_MS);
  if (!file_.path().empty() && !file_.commit()) {
    display_.error(file_.error());
    return EXIT_OUTPUT;
  }
  std::string what = result.endOfStream ? "fetched " : "fetched the first ";
  display_.note(what + display_.rateSummary() + " to " +
                (file_.path().empty() ? "standard output" : file_.path()));
  return EXIT_FETCHED;
}

int Fetch::fail(FetchStatus status, const std::string& why, const std::string& step) {
  // Ctrl-C on a terminal reaches the worker too, which then dies at once:
  // whatever that looked like, the user stopped the fetch.
  if (g_stopSignal != 0) status = FetchStatus::STOPPED;
  switch (status) {
    case FetchStatus::DONE:
      return EXIT_FETCHED;
    case FetchStatus::STOPPED:
      endWorker(true, INTERRUPT_GRACE_MS);
      return EXIT_INTERRUPTED;
    case FetchStatus::REFUSED:
      display_.error("the worker answered ERR to " + step + " after " +
                     std::to_string(display_.bytes()) + " bytes");
      showWorkerLines();
      endWorker(true, PEND_GRACE_MS);
      return step == "CONNECT" ? EXIT_CONNECT_ERR : EXIT_READ_ERR;
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
      return EXIT_OUTPUT;
    case FetchStatus::LOST:
    case FetchStatus::BAD_REPLY: {
      // A worker that died closes the connection: say how it ended.
      halvarine::ExitStatus ended;
      if (session_.worker().waitExit(TERM_GRACE_MS, ended)) {
        display_.error("the worker ended early (" + ended.toString() + ") during " + step);
        showWorkerLines();
        return EXIT_WORKER_ENDED;
      }
      if (status == FetchStatus::LOST) {
        display_.error("lost the connection to the worker during " + step + ": " + why);
        endWorker(false, 0);
        return EXIT_WORKER_ENDED;
      }
      display_.error("the worker broke the protocol during " + step + ": " + why);
      endWorker(false, 0);
      showWorkerLines();
      return EXIT_OTHER;
    }
  }
  return EXIT_OTHER;
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
  std::vector<std::string> lines = display_.workerLines(WORKER_LINES);
  if (lines.empty()) return;
  display_.error("the worker's last lines:");
  for (const std::string& line : lines) display_.quote("  worker: " + line);
}

void Fetch::reportOutput(bool success) {
  if (success) return;
  const std::string amount = std::to_string(written_) + " bytes";
  if (file_.partialPath().empty()) {
    if (written_ > 0) display_.error("the output on standard output is partial (" + amount + ")");
  } else if (written_ == 0 && !options_.keepPartial) {
    // Nothing had been written: nothing partial to speak of.
  } else if (options_.keepPartial) {
    file_.keep();
    display_.error("kept the partial output in " + file_.partialPath() + " (" + amount + ")");
  } else {
    display_.error("removed the partial output " + file_.partialPath() + " (" + amount +
                   "); --keep-partial keeps it");
  }
}

}  // namespace

}  // namespace fetch

int main(int argc, char** argv) {
  fetch::Options options;
  const int parsed = fetch::parseOptions(argc, argv, options);
  if (parsed >= 0) return parsed;
  keepReplyBuffersResident();
  return fetch::Fetch(options).run();
}
