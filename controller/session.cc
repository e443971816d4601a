// One worker run, set up as a list of steps.

#include <dirent.h>
#include <errno.h>
#include <halvarine/pipeline.h>
#include <halvarine/session.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>

#include "base/clock.h"

namespace halvarine {

namespace {

// How often a receive looks at the worker's standard error meanwhile.
const int STDERR_SLICE_MS = 100;
// The echo byte of the PEND a session sends itself: any byte serves, as
// nothing else is in flight then.
const unsigned char ECHO_PEND = 0x50;

// What the kernel answered the first time a namespace was refused: it will
// answer the same for the rest of the process.
std::string& namespacesRefused() {
  static std::string why;
  return why;
}

// A directory of this user's that only it may enter: where a private
// socket may be made.
bool ownDirectory(const char* path) {
  struct stat st;
  return path != nullptr && path[0] == '/' && stat(path, &st) == 0 && S_ISDIR(st.st_mode) &&
         st.st_uid == geteuid() && access(path, W_OK | X_OK) == 0;
}

// Why `argv` cannot run with a private /tmp, which hides whatever lies
// under /tmp; empty when it can.
std::string hiddenByPrivateTmp(const std::vector<std::string>& argv) {
  for (const std::string& word : argv) {
    if (word.compare(0, 5, "/tmp/") == 0) {
      return word + " lies under /tmp, which the worker's private /tmp would hide";
    }
  }
  return "";
}

}  // namespace

PrivateDirectory& PrivateDirectory::operator=(PrivateDirectory&& other) noexcept {
  if (this != &other) {
    remove();
    path_ = std::move(other.path_);
    other.path_.clear();
  }
  return *this;
}

bool PrivateDirectory::make(std::string& error) {
  remove();
  const char* runtime = getenv("XDG_RUNTIME_DIR");
  const char* tmp = getenv("TMPDIR");
  const std::string base = ownDirectory(runtime)             ? runtime
                           : tmp != nullptr && tmp[0] == '/' ? tmp
                                                             : "/tmp";
  std::string templ = base + "/halvarine-XXXXXX";
  if (mkdtemp(&templ[0]) == nullptr) {
    error = "cannot make a private directory in " + base + ": " + strerror(errno);
    return false;
  }
  path_ = templ;
  return true;
}

void PrivateDirectory::remove() {
  if (path_.empty()) return;
  // Only what the session and its worker left: the socket, perhaps a
  // launcher's temporary files.
  if (DIR* d = opendir(path_.c_str())) {
    while (const dirent* e = readdir(d)) {
      const std::string name = e->d_name;
      if (name != "." && name != "..") unlink((path_ + "/" + name).c_str());
    }
    closedir(d);
  }
  rmdir(path_.c_str());
  path_.clear();
}

std::string workerFromEnvironment() {
  const char* named = getenv("HALVARINE_WORKER");
  return named != nullptr ? named : "";
}

std::string workerProblem(const std::string& path) {
  struct stat st;
  if (path.find('/') == std::string::npos) return "no worker " + path + " on PATH";
  if (stat(path.c_str(), &st) != 0) return "worker binary " + path + ": " + strerror(errno);
  if (!S_ISREG(st.st_mode)) return "worker binary " + path + " is not a file";
  if (access(path.c_str(), X_OK) != 0) return "worker binary " + path + " is not executable";
  return "";
}

std::string defaultWorkerPath() {
  const std::string named = workerFromEnvironment();
  return named.empty() ? HALVARINE_INSTALLED_WORKER : named;
}

std::vector<std::string> launcherFromEnvironment() {
  std::vector<std::string> words;
  const char* l = getenv("HALVARINE_WORKER_LAUNCHER");
  std::istringstream in(l != nullptr ? l : "");
  for (std::string w; in >> w;) words.push_back(w);
  return words;
}

bool WorkerSession::fail(const std::string& what) {
  error_ = what;
  return false;
}

bool WorkerSession::failStart(StartFailure kind, const std::string& what) {
  startFailure_ = kind;
  worker_.kill();
  listener_.close();
  directory_.remove();
  private_ = false;
  return fail(what);
}

bool WorkerSession::start(const Options& options) {
  worker_.kill();
  connection_.close();
  listener_.close();
  directory_.remove();
  startFailure_ = StartFailure::NONE;
  private_ = false;
  fallback_.clear();
  std::vector<std::string> argv = options.launcher;
  argv.push_back(options.worker.empty() ? defaultWorkerPath() : options.worker);
  if (options.socket != SocketMode::SHARED) {
    std::string why;
    if (startPrivate(options, argv, why)) return acceptWorker(options);
    if (startFailure_ != StartFailure::NONE) return false;
    if (options.socket == SocketMode::PRIVATE) {
      return failStart(StartFailure::NO_PRIVATE_SOCKET, "no private socket: " + why);
    }
    fallback_ = why;
  }
  return startShared(options, argv) && acceptWorker(options);
}

bool WorkerSession::startPrivate(const Options& options, const std::vector<std::string>& argv,
                                 std::string& why) {
  why = namespacesRefused();
  if (why.empty()) why = hiddenByPrivateTmp(argv);
  if (!why.empty() || !directory_.make(why)) return false;
  // The name the worker dials, in the directory it will see as /tmp.
  const std::string fixed = CONTROLLER_SOCKET_PATH;
  if (!listener_.listen(directory_.path() + fixed.substr(fixed.rfind('/')))) {
    why = listener_.error();
    directory_.remove();
    return false;
  }
  ChildProcess::Options childOptions;
  childOptions.env = options.env;
  childOptions.stderrFd = options.stderrFd;
  childOptions.privateTmp = directory_.path();
  if (worker_.start(argv, childOptions)) {
    private_ = true;
    return true;
  }
  why = worker_.error();
  listener_.close();
  directory_.remove();
  if (worker_.startFailure() != ChildProcess::StartFailure::NAMESPACE) {
    return failStart(StartFailure::NOT_STARTED, why);
  }
  namespacesRefused() = why;
  return false;
}

bool WorkerSession::startShared(const Options& options, const std::vector<std::string>& argv) {
  if (!listener_.listen(options.socketPath)) {
    return failStart(listener_.failure() == ControllerListener::Failure::TAKEN
                         ? StartFailure::SOCKET_TAKEN
                         : StartFailure::SOCKET_UNUSABLE,
                     listener_.error());
  }
  ChildProcess::Options childOptions;
  childOptions.env = options.env;
  childOptions.stderrFd = options.stderrFd;
  if (!worker_.start(argv, childOptions)) {
    return failStart(StartFailure::NOT_STARTED, worker_.error());
  }
  return true;
}

bool WorkerSession::acceptWorker(const Options& options) {
  if (!listener_.accept(options.acceptTimeoutMs, connection_)) {
    // A worker that could not connect says why on its standard error.
    std::string why = listener_.error();
    ExitStatus st;
    if (worker_.waitExit(0, st)) why += "; the worker ended, " + st.toString();
    const std::string& text = worker_.output();
    if (!text.empty()) why += "; it wrote: " + text;
    return failStart(StartFailure::NOT_CONNECTED, why);
  }
  return true;
}

bool WorkerSession::send(const Request& req) {
  return connection_.send(req) || fail(connection_.error());
}

bool WorkerSession::sendRaw(const std::string& bytes) {
  return connection_.sendRaw(bytes) || fail(connection_.error());
}

bool WorkerSession::receive(unsigned char echo, int timeoutMs, Reply& out) {
  const int64_t deadline = nowMs() + timeoutMs;
  for (;;) {
    worker_.output();
    const int64_t left = deadline - nowMs();
    const int slice =
        static_cast<int>(std::max<int64_t>(0, std::min<int64_t>(left, STDERR_SLICE_MS)));
    if (connection_.receive(echo, slice, out)) return true;
    if (connection_.failure() != ControllerConnection::Failure::TIMED_OUT || nowMs() >= deadline) {
      return fail(connection_.error());
    }
  }
}

bool WorkerSession::call(const Request& req, int timeoutMs, Reply& out) {
  return send(req) && receive(req.echo, timeoutMs, out);
}

bool WorkerSession::receiveEof(int timeoutMs) {
  return connection_.receiveEof(timeoutMs) || fail(connection_.error());
}

ExitStatus WorkerSession::stop(int graceMs) {
  ExitStatus ended;
  if (worker_.pid() > 0 && !worker_.waitExit(0, ended)) {
    worker_.sendSignal(SIGTERM);
    if (!worker_.waitExit(graceMs, ended)) {
      worker_.kill();
      worker_.waitExit(0, ended);
    }
  }
  connection_.close();
  listener_.close();
  directory_.remove();
  return ended;
}

WorkerSession::Finished WorkerSession::finish(RequestPipeline* pipeline,
                                              const FinishOptions& options) {
  Finished out;
  if (worker_.pid() <= 0) return out;
  if (!worker_.running()) {
    worker_.waitExit(0, out.status);
    return out;
  }
  if (options.pend) {
    bool answered;
    if (pipeline != nullptr) {
      answered = pipeline->finish(options.pendGraceMs);
    } else {
      Reply reply;
      answered = call(Request::command(WORD_PEND, ECHO_PEND), options.pendGraceMs, reply) &&
                 reply.status() == STATUS_OK;
    }
    if (answered && worker_.waitExit(options.exitGraceMs, out.status)) {
      out.pendAnswered = true;
      return out;
    }
  }
  out.signalled = true;
  worker_.sendSignal(SIGTERM);
  if (!worker_.waitExit(options.termGraceMs, out.status)) {
    worker_.kill();
    worker_.waitExit(0, out.status);
  }
  return out;
}

}  // namespace halvarine
