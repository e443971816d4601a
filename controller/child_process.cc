#include <errno.h>
#include <fcntl.h>
#include <halvarine/child_process.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "base/clock.h"
#include "base/text.h"
#include "base/wait.h"
#include "controller/spawn.h"

namespace halvarine {

namespace {

// A child whose own child still holds the pipe ends before the pipe does:
// waits look at the child itself at least this often.
const int REAP_SLICE_MS = 20;

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

// A descriptor that turns readable when `pid` ends (Linux 5.3 on); -1
// where the kernel has none.
int openProcessFd(pid_t pid) {
#ifdef SYS_pidfd_open
  return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
#else
  (void)pid;
  return -1;
#endif
}

}  // namespace

std::string ExitStatus::toString() const {
  if (exited) return "exit " + std::to_string(code);
  if (signaled) return "signal " + std::to_string(signal);
  return "not ended";
}

ChildProcess::~ChildProcess() {
  kill();
}

ChildProcess::ChildProcess(ChildProcess&& other) noexcept
    : pid_(std::exchange(other.pid_, -1)),
      reaped_(other.reaped_),
      status_(other.status_),
      pipe_(std::move(other.pipe_)),
      output_(std::move(other.output_)),
      error_(std::move(other.error_)),
      startFailure_(other.startFailure_) {}

ChildProcess& ChildProcess::operator=(ChildProcess&& other) noexcept {
  if (this != &other) {
    kill();
    pid_ = std::exchange(other.pid_, -1);
    reaped_ = other.reaped_;
    status_ = other.status_;
    pipe_ = std::move(other.pipe_);
    output_ = std::move(other.output_);
    error_ = std::move(other.error_);
    startFailure_ = other.startFailure_;
  }
  return *this;
}

bool ChildProcess::start(const std::vector<std::string>& argv, const Options& options) {
  kill();
  pid_ = -1;
  reaped_ = false;
  status_ = ExitStatus();
  output_.clear();
  startFailure_ = StartFailure::SYSTEM;
  if (argv.empty()) {
    error_ = "start: no program";
    return false;
  }
  int outPipe[2];
  if (pipe2(outPipe, O_CLOEXEC) != 0) return error_ = errnoText("pipe"), false;
  UniqueFd outRead(outPipe[0]), outWrite(outPipe[1]);
  UniqueFd devNull(open("/dev/null", O_RDONLY | O_CLOEXEC));
  if (!devNull.valid()) return error_ = errnoText("open /dev/null"), false;
  SpawnStreams streams;
  streams.in = devNull.get();
  streams.out = options.captureStdout ? outWrite.get() : -1;
  streams.err = options.stderrFd >= 0 ? options.stderrFd : outWrite.get();
  const Spawned spawned =
      spawnChild(argv, childEnvironment(options.env), streams, options.privateTmp);
  startFailure_ = spawned.failure;
  if (spawned.pid < 0) return error_ = spawned.error, false;
  pid_ = spawned.pid;
  outWrite.reset();
  fcntl(outRead.get(), F_SETFL, fcntl(outRead.get(), F_GETFL) | O_NONBLOCK);
  pipe_ = std::move(outRead);
  return true;
}

bool ChildProcess::reap(bool block) {
  if (pid_ <= 0 || reaped_) return reaped_;
  int status = 0;
  pid_t r;
  do {
    r = waitpid(pid_, &status, block ? 0 : WNOHANG);
  } while (r < 0 && errno == EINTR);
  if (r == pid_) {
    reaped_ = true;
    status_ = decodeStatus(status);
  }
  return reaped_;
}

void ChildProcess::awaitEnd(int64_t untilMs) {
  const UniqueFd ended(openProcessFd(pid_));
  if (ended.valid()) {
    waitFdUntil(ended.get(), WAIT_READABLE, untilMs);
  } else {
    // No process descriptor: look again every millisecond.
    sleepUntil(std::min(untilMs, nowMs() + 1));
  }
}

bool ChildProcess::running() {
  return pid_ > 0 && !reap(false);
}

bool ChildProcess::sendSignal(int sig) {
  if (!running()) return error_ = "signal: no running child", false;
  if (::kill(pid_, sig) != 0) return error_ = errnoText("kill"), false;
  return true;
}

bool ChildProcess::drain() {
  while (pipe_.valid()) {
    char chunk[4096];
    const ssize_t n = read(pipe_.get(), chunk, sizeof chunk);
    if (n > 0) {
      output_.append(chunk, static_cast<size_t>(n));
    } else if (n < 0 && errno == EAGAIN) {
      return true;
    } else if (n == 0 || errno != EINTR) {
      pipe_.reset();
    }
  }
  return false;
}

bool ChildProcess::waitExit(int timeoutMs, ExitStatus& out) {
  if (pid_ <= 0) return error_ = "wait: no child", false;
  const int64_t deadline = nowMs() + timeoutMs;
  while (!reap(false)) {
    const int64_t now = nowMs();
    if (now >= deadline) {
      drain();
      error_ = "the child did not end within " + std::to_string(timeoutMs) + " ms";
      return false;
    }
    const int64_t slice = std::min(deadline, now + REAP_SLICE_MS);
    if (drain()) {
      waitFdUntil(pipe_.get(), WAIT_READABLE, slice);
    } else {
      awaitEnd(slice);
    }
  }
  // What it wrote last; a grandchild holding the pipe must not make this wait.
  drain();
  out = status_;
  return true;
}

bool ChildProcess::waitForOutput(const std::string& text, int timeoutMs) {
  const int64_t deadline = nowMs() + timeoutMs;
  for (;;) {
    const bool open = drain();
    if (output_.find(text) != std::string::npos) return true;
    if (!running() || nowMs() >= deadline) {
      drain();
      return output_.find(text) != std::string::npos;
    }
    const int64_t slice = std::min(deadline, nowMs() + REAP_SLICE_MS);
    if (open) {
      waitFdUntil(pipe_.get(), WAIT_READABLE, slice);
    } else {
      awaitEnd(slice);
    }
  }
}

const std::string& ChildProcess::output() {
  drain();
  return output_;
}

std::vector<std::string> ChildProcess::outputLines() {
  drain();
  return splitLines(output_);
}

void ChildProcess::kill() {
  if (pid_ > 0 && !reaped_) {
    ::kill(pid_, SIGKILL);
    reap(true);
  }
  drain();
  pipe_.reset();
}

std::vector<std::string> splitLines(const std::string& text) {
  std::vector<std::string> lines;
  for (size_t begin = 0; begin < text.size();) {
    size_t end = text.find('\n', begin);
    if (end == std::string::npos) end = text.size();
    lines.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  return lines;
}

std::string findOnPath(const std::string& name) {
  const char* path = getenv("PATH");
  const std::string dirs = path != nullptr ? path : "";
  for (size_t begin = 0; begin <= dirs.size();) {
    size_t end = dirs.find(':', begin);
    if (end == std::string::npos) end = dirs.size();
    const std::string dir = end > begin ? dirs.substr(begin, end - begin) : ".";
    const std::string candidate = dir + "/" + name;
    struct stat st;
    if (stat(candidate.c_str(), &st) == 0 && S_ISREG(st.st_mode) &&
        access(candidate.c_str(), X_OK) == 0) {
      return candidate;
    }
    begin = end + 1;
  }
  return "";
}

ProgramRun runProgram(const std::vector<std::string>& argv, int timeoutMs) {
  ChildProcess child;
  ChildProcess::Options options;
  options.captureStdout = true;
  ProgramRun run;
  if (!child.start(argv, options)) {
    run.output = child.error();
    return run;
  }
  run.ended = child.waitExit(timeoutMs, run.status);
  child.kill();
  run.output = child.output();
  return run;
}

}  // namespace halvarine
