#ifndef HALVARINE_TOOLS_CONTROLLER_CONTROLLER_H
#define HALVARINE_TOOLS_CONTROLLER_CONTROLLER_H

// The controller's side of the worker: it listens on the controller socket,
// starts the worker binary as a child, and exchanges frames with it. Used by
// the end-to-end tests, the tools and the benchmarks.
//
// All time-outs are in whole seconds (the waits are the worker's own waitFd).
// Every owner here is move-only and releases what it holds in its destructor:
// descriptors are closed, a child still running is killed with SIGKILL and
// reaped, a socket file this process created is removed. Operations that can
// fail return false and leave a description in error().
//
// Single-threaded use only.

#include <sys/types.h>

#include <string>
#include <vector>

#include "tools/controller/wire.h"

namespace controller {

static const char DEFAULT_SOCKET_PATH[] = "/tmp/zalProcess_Halvarine";

// Owns one descriptor; closes it when destroyed or reset.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  ~UniqueFd() { reset(); }
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept;
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  int release();
  void reset(int fd = -1);

 private:
  int fd_ = -1;
};

// The accepted controller connection: frames out, reply frames in.
class ControllerConnection {
 public:
  // What the last failed operation met.
  enum class Failure {
    NONE,
    TIMED_OUT,  // nothing (more) came in time; a partly received frame is
                // kept, so receiving again picks it up where it stopped
    LOST,       // the worker closed its end, or the socket failed
    PROTOCOL,   // bytes that are not the expected reply, or a bad request
  };

  ControllerConnection() = default;
  explicit ControllerConnection(UniqueFd fd) : fd_(std::move(fd)) {}
  ControllerConnection(ControllerConnection&&) = default;
  ControllerConnection& operator=(ControllerConnection&&) = default;

  bool connected() const { return fd_.valid(); }
  const std::string& error() const { return error_; }
  Failure failure() const { return failure_; }

  // Sends the request's frame, or `bytes` verbatim (for malformed input),
  // completely. A worker that has gone away is an error, not SIGPIPE.
  bool send(const Request& req);
  bool sendRaw(const std::string& bytes);

  // Receives the next frame and judges it as the reply to the request with
  // echo byte `echo` (decodeReply). The frame must start at the next byte
  // received: the worker sends nothing between frames. Waits up to
  // `timeoutS` seconds in all. Replies come in request order, so
  // several requests may be sent before their replies are received.
  bool receive(unsigned char echo, int timeoutS, Reply& out);

  // True when the worker closes its end within `timeoutS` seconds with no
  // further bytes sent; any bytes received instead are an error.
  bool receiveEof(int timeoutS);

  // Closes the controller's end, as a controller that goes away does.
  void close() { fd_.reset(); }

 private:
  // Waits until the buffer holds at least `n` bytes or `deadline` (a
  // monotonic clock reading in seconds) passes. False on time-out, error or
  // end of stream.
  bool fill(size_t n, double deadline);
  bool fail(const std::string& what, Failure kind = Failure::PROTOCOL);

  UniqueFd fd_;
  std::string buffer_;  // bytes received and not yet returned in a frame
  bool eof_ = false;
  std::string error_;
  Failure failure_ = Failure::NONE;
};

// The listening controller socket.
class ControllerListener {
 public:
  ControllerListener() = default;
  ~ControllerListener();
  ControllerListener(ControllerListener&& other) noexcept;
  ControllerListener& operator=(ControllerListener&& other) noexcept;
  ControllerListener(const ControllerListener&) = delete;
  ControllerListener& operator=(const ControllerListener&) = delete;

  // Listens on `path`. When another process is already accepting there,
  // refuses with an error that says so; a socket file with nobody behind it
  // is removed and replaced. The file is removed again on destruction (if it
  // is still the one created here).
  bool listen(const std::string& path = DEFAULT_SOCKET_PATH);

  // Accepts one connection, waiting up to `timeoutS` seconds.
  bool accept(int timeoutS, ControllerConnection& out);

  bool listening() const { return fd_.valid(); }
  const std::string& path() const { return path_; }
  const std::string& error() const { return error_; }
  // Stops listening and removes the socket file.
  void close();

 private:
  UniqueFd fd_;
  std::string path_;
  dev_t dev_ = 0;
  ino_t ino_ = 0;
  std::string error_;
};

// How a child ended.
struct ExitStatus {
  bool exited = false;  // ended through exit; `code` valid
  int code = -1;
  bool signaled = false;  // ended by a signal; `signal` valid
  int signal = 0;

  std::string toString() const;  // "exit 0", "signal 9"
};

// A child process with standard input from /dev/null and standard error
// captured through a pipe; standard output is inherited.
class WorkerProcess {
 public:
  WorkerProcess() = default;
  ~WorkerProcess();
  WorkerProcess(WorkerProcess&& other) noexcept;
  WorkerProcess& operator=(WorkerProcess&& other) noexcept;
  WorkerProcess(const WorkerProcess&) = delete;
  WorkerProcess& operator=(const WorkerProcess&) = delete;

  // Starts `binary` with `args` (argv[1]...) and this process's environment
  // plus `extraEnv` ("NAME=value", replacing an inherited NAME). The child
  // starts with an empty signal mask and default dispositions for SIGPIPE,
  // SIGINT and SIGTERM. False when fork or exec fails.
  bool start(const std::string& binary, const std::vector<std::string>& args = {},
             const std::vector<std::string>& extraEnv = {});
  // Same, run through `launcher` (a command prefix, see
  // launcherFromEnvironment) when it is not empty.
  bool startVia(const std::vector<std::string>& launcher, const std::string& binary,
                const std::vector<std::string>& args = {},
                const std::vector<std::string>& extraEnv = {});

  bool running() const { return pid_ > 0 && !reaped_; }
  pid_t pid() const { return pid_; }
  const std::string& error() const { return error_; }

  bool sendSignal(int sig);

  // Waits up to `timeoutS` seconds for the child to end, collecting its
  // standard error to the end, and reaps it. True with `out` set when it
  // ended (also when it had already been reaped).
  bool waitExit(int timeoutS, ExitStatus& out);

  // Standard error so far: everything the child wrote that can be read
  // without waiting. Raw bytes, and split into lines without their 0x0A,
  // a last line without 0x0A included.
  const std::string& stderrText();
  std::vector<std::string> stderrLines();

  // Kills (SIGKILL) and reaps a running child; closes the pipe.
  void kill();

 private:
  // Reads what is available from the pipe. Returns false at end of file.
  bool drainStderr();

  pid_t pid_ = -1;
  bool reaped_ = false;
  ExitStatus status_;
  UniqueFd stderr_;
  std::string stderrText_;
  std::string error_;
};

// The launcher named by HALVARINE_WORKER_LAUNCHER, split at blanks; empty
// when unset. Lets every test and tool run a cross-built worker.
std::vector<std::string> launcherFromEnvironment();

// One worker run: the listener, the worker child and its connection.
class WorkerSession {
 public:
  struct Options {
    std::string worker;                            // the worker binary
    std::string socketPath = DEFAULT_SOCKET_PATH;  // where to listen
    std::vector<std::string> env;                  // extra "NAME=value"
    int acceptTimeoutS = 5;
    // A command that runs the worker, such as an emulator for a worker built
    // for another machine: {"qemu-arm", "-L", "/usr/arm-linux-gnueabihf"}.
    // Empty: the worker runs directly.
    std::vector<std::string> launcher = launcherFromEnvironment();
  };

  // Listens, starts the worker and accepts its connection. False (error()
  // says which step) when any step fails; what was set up is released.
  bool start(const Options& options);

  const std::string& error() const { return error_; }

  // Shorthands for the connection's operations; false leaves the reason in
  // error().
  bool send(const Request& req);
  bool sendRaw(const std::string& bytes);
  // While it waits, it keeps reading the worker's standard error, which
  // would otherwise fill its pipe and stop the worker at its next log line.
  bool receive(unsigned char echo, int timeoutS, Reply& out);
  // send, then receive the reply with the request's echo byte.
  bool call(const Request& req, int timeoutS, Reply& out);
  bool receiveEof(int timeoutS);

  ControllerListener& listener() { return listener_; }
  ControllerConnection& connection() { return connection_; }
  WorkerProcess& worker() { return worker_; }

 private:
  bool fail(const std::string& what);

  // Declared so that the child is killed before the sockets close.
  ControllerListener listener_;
  ControllerConnection connection_;
  WorkerProcess worker_;
  std::string error_;
};

// The worker binary to test: HALVARINE_WORKER when set (a cross-built worker,
// say), else HALVARINE_BUILT_WORKER, which the build passes to its tests;
// empty when neither is set.
std::string workerFromEnvironment();

}  // namespace controller

#endif
