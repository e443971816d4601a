// One worker run, set up as a list of steps.

#include <halvarine/session.h>
#include <signal.h>
#include <stdlib.h>

#include <algorithm>
#include <sstream>

#include "base/clock.h"

namespace halvarine {

namespace {

// How often a receive looks at the worker's standard error meanwhile.
const int STDERR_SLICE_MS = 100;

}  // namespace

std::string defaultWorkerPath() {
  const char* named = getenv("HALVARINE_WORKER");
  if (named != nullptr && *named != '\0') return named;
  return HALVARINE_INSTALLED_WORKER;
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
  return fail(what);
}

bool WorkerSession::start(const Options& options) {
  worker_.kill();
  connection_.close();
  startFailure_ = StartFailure::NONE;
  if (!listener_.listen(options.socketPath)) {
    return failStart(listener_.failure() == ControllerListener::Failure::TAKEN
                         ? StartFailure::SOCKET_TAKEN
                         : StartFailure::SOCKET_UNUSABLE,
                     listener_.error());
  }
  std::vector<std::string> argv = options.launcher;
  argv.push_back(options.worker.empty() ? defaultWorkerPath() : options.worker);
  ChildProcess::Options childOptions;
  childOptions.env = options.env;
  childOptions.stderrFd = options.stderrFd;
  if (!worker_.start(argv, childOptions)) {
    return failStart(StartFailure::NOT_STARTED, worker_.error());
  }
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
  return ended;
}

}  // namespace halvarine
