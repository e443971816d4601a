#ifndef HALVARINE_SESSION_H
#define HALVARINE_SESSION_H

// One run of the worker: the listener on the controller socket, the worker
// started as a child process, and the connection it makes back.
//
// The worker writes diagnostic lines on its standard error, which the
// session collects. A controller must keep reading them (receive() does, and
// so does every call of worker().output()): a worker whose standard-error
// pipe is full stops at its next line and answers nothing.
//
// Times are milliseconds. Single-threaded use.

#include <halvarine/child_process.h>
#include <halvarine/connection.h>
#include <halvarine/protocol.h>

#include <string>
#include <vector>

namespace halvarine {

// The worker to start when none is named: HALVARINE_WORKER when it is set,
// else the worker installed with this library
// (/usr/libexec/halvarine/halvarine in the Debian package).
std::string defaultWorkerPath();

// A command that runs the worker, split at blanks (an emulator for a worker
// built for another machine, valgrind, "ip netns exec NAME"): the value of
// HALVARINE_WORKER_LAUNCHER; empty when unset.
std::vector<std::string> launcherFromEnvironment();

class WorkerSession {
 public:
  struct Options {
    std::string worker;  // the worker binary; empty: defaultWorkerPath()
    std::string socketPath = CONTROLLER_SOCKET_PATH;
    std::vector<std::string> env;  // extra "NAME=value" for the worker
    std::vector<std::string> launcher = launcherFromEnvironment();
    int acceptTimeoutMs = 5000;
    // The worker's standard error goes here instead of being collected.
    int stderrFd = -1;
  };

  // Which step of start() failed.
  enum class StartFailure {
    NONE,
    SOCKET_TAKEN,     // another controller listens on the socket path
    SOCKET_UNUSABLE,  // the path cannot be listened on
    NOT_STARTED,      // the worker binary could not be run
    NOT_CONNECTED,    // it ran, but did not connect in time (it says why on
                      // its standard error, which error() quotes)
  };

  // Listens, starts the worker and accepts its connection. False, with
  // startFailure() and error() set, when a step fails; what was set up is
  // released again.
  bool start(const Options& options);
  StartFailure startFailure() const { return startFailure_; }
  const std::string& error() const { return error_; }

  // The connection's operations; false leaves the reason in error().
  bool send(const Request& req);
  bool sendRaw(const std::string& bytes);
  // While it waits it keeps reading the worker's standard error.
  bool receive(unsigned char echo, int timeoutMs, Reply& out);
  // send, then receive the reply with the request's echo byte.
  bool call(const Request& req, int timeoutMs, Reply& out);
  bool receiveEof(int timeoutMs);

  // Ends the worker if it still runs: SIGTERM, then SIGKILL when it has not
  // ended within `graceMs`; reaps it and stops listening. How it ended.
  ExitStatus stop(int graceMs);

  ControllerListener& listener() { return listener_; }
  ControllerConnection& connection() { return connection_; }
  ChildProcess& worker() { return worker_; }

 private:
  bool fail(const std::string& what);
  bool failStart(StartFailure kind, const std::string& what);

  // Declared so that the child is killed before the sockets close.
  ControllerListener listener_;
  ControllerConnection connection_;
  ChildProcess worker_;
  StartFailure startFailure_ = StartFailure::NONE;
  std::string error_;
};

}  // namespace halvarine

#endif
