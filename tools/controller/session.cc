// One worker run, set up as a list of steps.

#include <stdlib.h>

#include <sstream>

#include "tools/controller/controller.h"

namespace controller {

bool WorkerSession::fail(const std::string& what) {
  error_ = what;
  return false;
}

bool WorkerSession::start(const Options& options) {
  worker_.kill();
  connection_.close();
  if (!listener_.listen(options.socketPath)) return fail(listener_.error());
  bool started;
  if (options.launcher.empty()) {
    started = worker_.start(options.worker, {}, options.env);
  } else {
    std::vector<std::string> args(options.launcher.begin() + 1, options.launcher.end());
    args.push_back(options.worker);
    started = worker_.start(options.launcher[0], args, options.env);
  }
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
  return connection_.receive(echo, timeoutS, out) || fail(connection_.error());
}

bool WorkerSession::call(const Request& req, int timeoutS, Reply& out) {
  return send(req) && receive(req.echo, timeoutS, out);
}

bool WorkerSession::receiveEof(int timeoutS) {
  return connection_.receiveEof(timeoutS) || fail(connection_.error());
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
  return w ? w : "";
}

}  // namespace controller
