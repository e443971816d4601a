#ifndef HALVARINE_CHILD_PROCESS_H
#define HALVARINE_CHILD_PROCESS_H

// A child process owner: starts a program, collects what it writes on its
// standard error (and, when asked, its standard output), waits for its end
// with a time-out, and kills (SIGKILL) and reaps it when destroyed while it
// still runs. Moves, never copies. Single-threaded use.
//
// Times are milliseconds. The child starts with standard input from
// /dev/null, an empty signal mask and the default action for SIGPIPE, SIGINT
// and SIGTERM, whatever the parent has set.

#include <halvarine/fd.h>
#include <stdint.h>
#include <sys/types.h>

#include <string>
#include <vector>

namespace halvarine {

// How a child ended.
struct ExitStatus {
  bool exited = false;  // through exit: `code` is valid
  int code = -1;
  bool signaled = false;  // by a signal: `signal` is valid
  int signal = 0;

  std::string toString() const;  // "exit 0", "signal 9", "not ended"
};

class ChildProcess {
 public:
  struct Options {
    // Extra environment, "NAME=value" each, replacing an inherited NAME.
    std::vector<std::string> env;
    // Collect standard output too, in the same text as standard error;
    // otherwise it is inherited.
    bool captureStdout = false;
    // Standard error goes here (a terminal, say) instead of being collected.
    int stderrFd = -1;
    // When set, the child runs in a mount namespace of its own in which
    // this directory is mounted over /tmp; the rest of its view of the
    // files is the parent's. As root a mount namespace alone serves (and
    // host mounts still reach the child); otherwise, or where that is
    // refused, the namespace is entered through a new user namespace in
    // which the child keeps its user and group ids and, from exec on, no
    // privileges. start() fails with NAMESPACE when the kernel refuses
    // (no unprivileged user namespaces, seccomp, a chroot whose root is no
    // mount point).
    std::string privateTmp;
  };

  // Why start() failed.
  enum class StartFailure {
    NONE,
    SYSTEM,     // pipes, fork
    NAMESPACE,  // privateTmp could not be set up; error() says which step
    EXEC,       // the program could not be run
  };

  ChildProcess() = default;
  ~ChildProcess();
  ChildProcess(ChildProcess&& other) noexcept;
  ChildProcess& operator=(ChildProcess&& other) noexcept;
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Runs argv[0], found on PATH unless it holds a '/'. False, with error()
  // set, when the pipes, fork or exec fail; a child that was running is
  // killed first.
  bool start(const std::vector<std::string>& argv, const Options& options);
  bool start(const std::vector<std::string>& argv) { return start(argv, Options()); }

  pid_t pid() const { return pid_; }
  bool running();
  const std::string& error() const { return error_; }
  StartFailure startFailure() const { return startFailure_; }
  bool sendSignal(int sig);

  // Waits up to `timeoutMs` for the end, collecting the output meanwhile, and
  // reaps the child. True with `out` set when it has ended (also when it had
  // been reaped before); false when it still runs.
  bool waitExit(int timeoutMs, ExitStatus& out);
  // Waits up to `timeoutMs` for `text` to appear in the output; false when
  // the time ran out or the child ended without writing it.
  bool waitForOutput(const std::string& text, int timeoutMs);

  // What the child has written so far, read without waiting; as lines
  // without their 0x0A, a last line without one included.
  const std::string& output();
  std::vector<std::string> outputLines();

  // Kills (SIGKILL) and reaps a running child; collects what is left of its
  // output.
  void kill();

 private:
  bool reap(bool block);
  bool drain();                    // reads what can be read now; false at the end of the pipe
  void awaitEnd(int64_t untilMs);  // until the child ends or the clock reads untilMs

  pid_t pid_ = -1;
  bool reaped_ = false;
  ExitStatus status_;
  UniqueFd pipe_;
  std::string output_;
  std::string error_;
  StartFailure startFailure_ = StartFailure::NONE;
};

// `text` cut at each 0x0A into lines without it, a last line without one
// included: what outputLines() gives.
std::vector<std::string> splitLines(const std::string& text);

// The first file named `name` in a directory of PATH that is a regular file
// this process may run; "" when there is none.
std::string findOnPath(const std::string& name);

// A program run to its end.
struct ProgramRun {
  bool ended = false;  // within the time (false too when it could not start)
  ExitStatus status;
  std::string output;  // standard output and error; why it could not start
  bool succeeded() const { return ended && status.exited && status.code == 0; }
};
// Runs argv with both outputs collected, killing it after `timeoutMs`.
ProgramRun runProgram(const std::vector<std::string>& argv, int timeoutMs);

}  // namespace halvarine

#endif
