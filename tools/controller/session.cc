// One worker run, set up as a list of steps.

#include <stdlib.h>

#include <sstream>

#include "tools/controller/controller.h"
#include "tools/controller/support.h"

namespace controller {

bool WorkerSession::fail(const std::string& what) {
  error_ = what;
  return false;
}

bool WorkerSession::start(const Options& options) {
  worker_.kill();
  connection_.close();
  if (!listener_.listen(options.socketPath)) return fail(listener_.error());
  const bool started = worker_.startVia(options.launcher, options.worker, {}, options.env);
  if (!started) return fail(worker_.error());
  if (!listener_.accept(options.acceptTimeoutS, connection_)) {
    // A worker that could not connect says why on its standard error.
    std::string why = listener_.error();
    ExitStatus st;
    if (worker_.waitExit(0, st)) why += "; worker ended, " + st.toString();
    const std::string& text = worker_.stderrText();
    if (!text.empty()) why += "; worker stderr: " + text;
    worker_.kill();
    listener_.close();
    return fail(why);
  }
  return true;
}

bool WorkerSession::send(const Request& req) {
  return connection_.send(req) || fail(connection_.error());
}

bool WorkerSession::sendRaw(const std::string& bytes) {
  return connection_.sendRaw(bytes) || fail(connection_.error());
}

bool WorkerSession::receive(unsigned char echo, int timeoutS, Reply& out) {
  // Waits in slices of a second, reading the worker's log in between: a
  // worker whose log pipe is full stops before it can reply.
  const double deadline = deadlineIn(timeoutS);
  for (;;) {
    worker_.stderrText();
    const double left = deadline - nowSeconds();
    const int slice = left > 1 ? 1 : (left > 0 ? static_cast<int>(left + 0.999) : 0);
    if (connection_.receive(echo, slice, out)) return true;
    if (connection_.failure() != ControllerConnection::Failure::TIMED_OUT ||
        nowSeconds() >= deadline) {
      return fail(connection_.error());
    }
  }
}

bool WorkerSession::call(const Request& req, int timeoutS, Reply& out) {
  return send(req) && receive(req.echo, timeoutS, out);
}

bool WorkerSession::receiveEof(int timeoutS) {
  return connection_.receiveEof(timeoutS) || fail(connection_.error());
}

bool WorkerProcess::startVia(const std::vector<std::string>& launcher, const std::string& binary,
                             const std::vector<std::string>& args,
                             const std::vector<std::string>& extraEnv) {
  if (launcher.empty()) return start(binary, args, extraEnv);
  std::vector<std::string> all(launcher.begin() + 1, launcher.end());
  all.push_back(binary);
  all.insert(all.end(), args.begin(), args.end());
  return start(launcher[0], all, extraEnv);
}

std::vector<std::string> launcherFromEnvironment() {
  std::vector<std::string> words;
  const char* l = getenv("HALVARINE_WORKER_LAUNCHER");
  std::istringstream in(l ? l : "");
  for (std::string w; in >> w;) words.push_back(w);
  return words;
}

std::string workerFromEnvironment() {
  const char* w = getenv("HALVARINE_WORKER");
  if (w == nullptr || *w == '\0') w = getenv("HALVARINE_BUILT_WORKER");
  return w ? w : "";
}

}  // namespace controller
