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
// A private socket per worker. The worker always dials the fixed path
// /tmp/zalProcess_Halvarine, where on the board its one controller listens.
// On a machine with many users and many runs that shared path allows one
// worker at a time, and anybody who can write /tmp can block it or listen
// there first. So by default a session listens in a directory of its own
// (mode 0700, made under $XDG_RUNTIME_DIR when that is this user's, else
// under $TMPDIR or /tmp) and starts the worker in a mount namespace of its
// own in which that directory is mounted over /tmp: for the worker alone
// the fixed path is the session's socket. The worker is unchanged; a
// launcher (HALVARINE_WORKER_LAUNCHER: qemu, valgrind) runs in the same
// namespace and sees the same /tmp, which holds nothing but the socket.
//
// Requirements: as root, a mount namespace whose "/" may be made a slave
// mount; otherwise the kernel must allow unprivileged user namespaces
// (Linux 3.8 on, not turned off by kernel.unprivileged_userns_clone,
// user.max_user_namespaces or a seccomp filter). Inside a chroot user
// namespaces are refused and "/" is no mount point, and many containers
// filter unshare(); there, and when the worker or the launcher lies under
// /tmp (which the namespace hides), the session falls back to the shared
// path as before and fallbackReason() says why. The fallback is decided
// once per process: after the kernel has refused a namespace, later
// sessions go straight to the shared path.
//
// Cost: entering the namespaces adds an unshare() and a mount() (and, in a
// user namespace, three small writes to /proc) to the worker's start. On a
// loaded 2-core x86-64 virtual machine (Linux 6.18), start() until the
// worker's connection is accepted, median of 200 starts each: the shared
// path 1.5-1.6 ms; a private socket as root (mount namespace) 1.6-1.7 ms;
// as an ordinary user (user and mount namespace) 2.3 ms. Nothing changes
// once the worker runs.
//
// Times are milliseconds. Single-threaded use.

#include <halvarine/child_process.h>
#include <halvarine/connection.h>
#include <halvarine/protocol.h>

#include <string>
#include <vector>

namespace halvarine {

class RequestPipeline;

// The worker named by HALVARINE_WORKER; empty when that is unset or empty.
std::string workerFromEnvironment();

// Empty when `path` names a program a session can start (a regular file
// this user may execute), else why not, for people: "worker binary P: No
// such file or directory", "... is not executable". A name without a "/"
// is one that was not found on PATH.
std::string workerProblem(const std::string& path);

// The worker to start when none is named: HALVARINE_WORKER when it is set,
// else the worker installed with this library
// (/usr/libexec/halvarine/halvarine in the Debian package).
std::string defaultWorkerPath();

// A command that runs the worker, split at blanks (an emulator for a worker
// built for another machine, valgrind, "ip netns exec NAME"): the value of
// HALVARINE_WORKER_LAUNCHER; empty when unset.
std::vector<std::string> launcherFromEnvironment();

// A directory made for one session's socket (mode 0700), removed with
// what is left in it when released. Moves, never copies.
class PrivateDirectory {
 public:
  PrivateDirectory() = default;
  ~PrivateDirectory() { remove(); }
  PrivateDirectory(PrivateDirectory&& other) noexcept : path_(std::move(other.path_)) {
    other.path_.clear();
  }
  PrivateDirectory& operator=(PrivateDirectory&& other) noexcept;
  PrivateDirectory(const PrivateDirectory&) = delete;
  PrivateDirectory& operator=(const PrivateDirectory&) = delete;

  // Makes a fresh "halvarine-XXXXXX" under $XDG_RUNTIME_DIR when that is a
  // directory of this user's, else under $TMPDIR or /tmp. False with
  // `error` set when it cannot.
  bool make(std::string& error);
  const std::string& path() const { return path_; }
  // Removes the files in it and the directory; nothing when none is made.
  void remove();

 private:
  std::string path_;
};

// How a session's worker reaches its listener.
enum class SocketMode {
  PRIVATE_ELSE_SHARED,  // a private socket where the system allows one, else
                        // the shared path
  PRIVATE,              // a private socket, or start() fails (NO_PRIVATE_SOCKET)
  SHARED,               // the shared path only, as a controller on the board
};

class WorkerSession {
 public:
  struct Options {
    std::string worker;  // the worker binary; empty: defaultWorkerPath()
    SocketMode socket = SocketMode::PRIVATE_ELSE_SHARED;
    // Where the shared path's listener listens. The worker dials
    // CONTROLLER_SOCKET_PATH whatever this says.
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
    SOCKET_TAKEN,       // another controller listens on the shared path
    SOCKET_UNUSABLE,    // the shared path cannot be listened on (something of
                        // another user's, or not a socket, is in the way)
    NO_PRIVATE_SOCKET,  // SocketMode::PRIVATE, and no private socket here
    NOT_STARTED,        // the worker binary could not be run
    NOT_CONNECTED,      // it ran, but did not connect in time (it says why on
                        // its standard error, which error() quotes)
  };

  // Listens, starts the worker and accepts its connection. False, with
  // startFailure() and error() set, when a step fails; what was set up is
  // released again.
  bool start(const Options& options);
  StartFailure startFailure() const { return startFailure_; }
  const std::string& error() const { return error_; }
  // The running worker dials a socket of this session's alone.
  bool privateSocket() const { return private_; }
  // Why the last start() fell back to the shared path; empty when it did
  // not (a private socket, or SocketMode::SHARED).
  const std::string& fallbackReason() const { return fallback_; }

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

  // Ending the worker the way it expects: PEND, whose reply it sends before
  // it closes the stream and exits with status 0; SIGTERM when it does not
  // answer or exit in time, SIGKILL when SIGTERM does not end it either.
  struct FinishOptions {
    bool pend = true;        // false: SIGTERM at once (a worker that hangs)
    int pendGraceMs = 5000;  // for PEND's reply, after the replies before it
    int exitGraceMs = 5000;  // for the exit once PEND was answered
    int termGraceMs = 2000;  // for the exit after SIGTERM
  };
  struct Finished {
    bool pendAnswered = false;  // PEND was answered OK_ and the worker exited
    bool signalled = false;     // SIGTERM or SIGKILL ended it
    ExitStatus status;          // how it ended (also when it had ended before)
  };
  // With requests in flight, `pipeline` sends PEND and takes their replies
  // first; with none, nullptr: the session sends PEND itself. The sockets
  // stay open (stop() or the destructor closes them); the worker's output
  // stays readable.
  Finished finish(RequestPipeline* pipeline, const FinishOptions& options);

  ControllerListener& listener() { return listener_; }
  ControllerConnection& connection() { return connection_; }
  ChildProcess& worker() { return worker_; }

 private:
  bool fail(const std::string& what);
  bool failStart(StartFailure kind, const std::string& what);
  // Starts the worker with its socket in directory_; false with `why`
  // set when the system allows no private socket (nothing else failed).
  bool startPrivate(const Options& options, const std::vector<std::string>& argv, std::string& why);
  bool startShared(const Options& options, const std::vector<std::string>& argv);
  bool acceptWorker(const Options& options);

  // Declared so that the child is killed before the sockets close, and the
  // socket file is removed before its directory.
  PrivateDirectory directory_;
  ControllerListener listener_;
  ControllerConnection connection_;
  ChildProcess worker_;
  StartFailure startFailure_ = StartFailure::NONE;
  std::string error_;
  bool private_ = false;
  std::string fallback_;
};

}  // namespace halvarine

#endif
