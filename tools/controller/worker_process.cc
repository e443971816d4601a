// The worker child: start, standard error, signals, end.

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tools/controller/controller.h"
#include "tools/controller/support.h"

extern char** environ;

namespace controller {

namespace {

// How often a wait for the child's end looks at the child itself while its
// standard error stays open (a grandchild may hold the pipe).
const int EXIT_SLICE_S = 1;
const int EXIT_POLL_MS = 2;

std::vector<std::string> childEnvironment(const std::vector<std::string>& extra) {
  std::vector<std::string> env;
  for (char** e = environ; e && *e; ++e) {
    std::string entry(*e);
    std::string name = entry.substr(0, entry.find('='));
    bool replaced = false;
    for (const std::string& x : extra) {
      if (x.substr(0, x.find('=')) == name) replaced = true;
    }
    if (!replaced) env.push_back(entry);
  }
  env.insert(env.end(), extra.begin(), extra.end());
  return env;
}

std::vector<char*> pointers(std::vector<std::string>& strings) {
  std::vector<char*> p;
  for (std::string& s : strings) p.push_back(&s[0]);
  p.push_back(nullptr);
  return p;
}

ExitStatus decodeStatus(int status) {
  ExitStatus s;
  if (WIFEXITED(status)) {
    s.exited = true;
    s.code = WEXITSTATUS(status);
  } else if (WIFSIGNALED(status)) {
    s.signaled = true;
    s.signal = WTERMSIG(status);
  }
  return s;
}

// Between fork and exec only async-signal-safe calls: reports a failure as
// errno through `report` and ends the child.
[[noreturn]] void execChild(const char* binary, char** argv, char** envp, int devNull, int errWrite,
                            int report) {
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  signal(SIGPIPE, SIG_DFL);
  signal(SIGINT, SIG_DFL);
  signal(SIGTERM, SIG_DFL);
  if (dup2(devNull, STDIN_FILENO) >= 0 && dup2(errWrite, STDERR_FILENO) >= 0) {
    // A launcher is found on PATH like any command; a path is taken as it is.
    execvpe(binary, argv, envp);
  }
  int e = errno;
  ssize_t ignored = write(report, &e, sizeof e);
  (void)ignored;
  _exit(127);
}

}  // namespace

std::string ExitStatus::toString() const {
  if (exited) return "exit " + std::to_string(code);
  if (signaled) return "signal " + std::to_string(signal);
  return "not ended";
}

WorkerProcess::~WorkerProcess() {
  kill();
}

WorkerProcess::WorkerProcess(WorkerProcess&& other) noexcept
    : pid_(other.pid_),
      reaped_(other.reaped_),
      status_(other.status_),
      stderr_(std::move(other.stderr_)),
      stderrText_(std::move(other.stderrText_)),
      error_(std::move(other.error_)) {
  other.pid_ = -1;
}

WorkerProcess& WorkerProcess::operator=(WorkerProcess&& other) noexcept {
  if (this != &other) {
    kill();
    pid_ = other.pid_;
    reaped_ = other.reaped_;
    status_ = other.status_;
    stderr_ = std::move(other.stderr_);
    stderrText_ = std::move(other.stderrText_);
    error_ = std::move(other.error_);
    other.pid_ = -1;
  }
  return *this;
}

bool WorkerProcess::start(const std::string& binary, const std::vector<std::string>& args,
                          const std::vector<std::string>& extraEnv) {
  kill();
  pid_ = -1;
  reaped_ = false;
  status_ = ExitStatus();
  stderrText_.clear();

  std::vector<std::string> argvStrings{binary};
  argvStrings.insert(argvStrings.end(), args.begin(), args.end());
  std::vector<std::string> envStrings = childEnvironment(extraEnv);
  std::vector<char*> argv = pointers(argvStrings);
  std::vector<char*> envp = pointers(envStrings);

  int errPipe[2];
  int reportPipe[2];
  if (pipe2(errPipe, O_CLOEXEC) != 0) {
    error_ = errnoText("pipe");
    return false;
  }
  UniqueFd errRead(errPipe[0]), errWrite(errPipe[1]);
  if (pipe2(reportPipe, O_CLOEXEC) != 0) {
    error_ = errnoText("pipe");
    return false;
  }
  UniqueFd reportRead(reportPipe[0]), reportWrite(reportPipe[1]);
  UniqueFd devNull(open("/dev/null", O_RDONLY | O_CLOEXEC));
  if (!devNull.valid()) {
    error_ = errnoText("open /dev/null");
    return false;
  }

  pid_t pid = fork();
  if (pid < 0) {
    error_ = errnoText("fork");
    return false;
  }
  if (pid == 0) {
    execChild(binary.c_str(), argv.data(), envp.data(), devNull.get(), errWrite.get(),
              reportWrite.get());
  }
  pid_ = pid;
  errWrite.reset();
  reportWrite.reset();

  // The report pipe closes at exec (close-on-exec) or carries exec's errno.
  int childErrno = 0;
  ssize_t n;
  do {
    n = read(reportRead.get(), &childErrno, sizeof childErrno);
  } while (n < 0 && errno == EINTR);
  if (n > 0) {
    int status;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    error_ = "exec \"" + binary + "\": " + strerror(childErrno);
    return false;
  }
  fcntl(errRead.get(), F_SETFL, fcntl(errRead.get(), F_GETFL) | O_NONBLOCK);
  stderr_ = std::move(errRead);
  return true;
}

bool WorkerProcess::sendSignal(int sig) {
  if (!running()) {
    error_ = "signal: no running child";
    return false;
  }
  if (::kill(pid_, sig) != 0) {
    error_ = errnoText("kill");
    return false;
  }
  return true;
}

bool WorkerProcess::drainStderr() {
  while (stderr_.valid()) {
    char chunk[4096];
    ssize_t n = read(stderr_.get(), chunk, sizeof chunk);
    if (n > 0) {
      stderrText_.append(chunk, static_cast<size_t>(n));
    } else if (n == 0) {
      stderr_.reset();
    } else if (errno == EAGAIN) {
      return true;
    } else if (errno != EINTR) {
      stderr_.reset();
    }
  }
  return false;
}

bool WorkerProcess::waitExit(int timeoutS, ExitStatus& out) {
  if (pid_ <= 0) {
    error_ = "wait: no child";
    return false;
  }
  const double deadline = deadlineIn(timeoutS);
  while (!reaped_) {
    int status;
    pid_t r = waitpid(pid_, &status, WNOHANG);
    if (r == pid_) {
      reaped_ = true;
      status_ = decodeStatus(status);
      break;
    }
    if (r < 0 && errno != EINTR) {
      error_ = errnoText("waitpid");
      return false;
    }
    if (nowSeconds() >= deadline) {
      drainStderr();
      error_ = "the child did not end within " + std::to_string(timeoutS) + " s";
      return false;
    }
    if (drainStderr()) {
      // Standard error open: its end usually comes with the child's end.
      if (waitUntil(stderr_.get(), WAIT_READABLE, deadline, EXIT_SLICE_S) == WAIT_ERROR) {
        error_ = errnoText("wait for the child's standard error");
        return false;
      }
    } else {
      sleepMs(EXIT_POLL_MS);
    }
  }
  // Whatever the child wrote last; a grandchild holding the pipe must not
  // make this wait.
  drainStderr();
  out = status_;
  return true;
}

const std::string& WorkerProcess::stderrText() {
  drainStderr();
  return stderrText_;
}

std::vector<std::string> WorkerProcess::stderrLines() {
  drainStderr();
  std::vector<std::string> lines;
  size_t begin = 0;
  while (begin < stderrText_.size()) {
    size_t end = stderrText_.find('\n', begin);
    if (end == std::string::npos) end = stderrText_.size();
    lines.push_back(stderrText_.substr(begin, end - begin));
    begin = end + 1;
  }
  return lines;
}

void WorkerProcess::kill() {
  if (pid_ > 0 && !reaped_) {
    ::kill(pid_, SIGKILL);
    int status = 0;
    pid_t r;
    while ((r = waitpid(pid_, &status, 0)) < 0 && errno == EINTR) {
    }
    reaped_ = true;
    if (r == pid_) status_ = decodeStatus(status);
  }
  drainStderr();
  stderr_.reset();
}

}  // namespace controller
