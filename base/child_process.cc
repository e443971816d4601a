#include <errno.h>
#include <fcntl.h>
#include <halvarine/child_process.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "base/clock.h"
#include "base/wait.h"

extern char** environ;

namespace halvarine {

namespace {

// A child whose own child still holds the pipe ends before the pipe does:
// waits look at the child itself at least this often.
const int REAP_SLICE_MS = 20;

std::vector<std::string> childEnvironment(const std::vector<std::string>& extra) {
  std::vector<std::string> env;
  for (char** e = environ; e != nullptr && *e != nullptr; ++e) {
    const std::string entry(*e);
    const std::string name = entry.substr(0, entry.find('=') + 1);
    const bool replaced = std::any_of(extra.begin(), extra.end(), [&](const std::string& x) {
      return x.compare(0, name.size(), name) == 0;
    });
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

std::string errnoText(const std::string& what) {
  return what + ": " + strerror(errno);
}

// What the child reports when it cannot exec: the step that failed, and
// its errno.
enum ChildStep { STEP_EXEC, STEP_UNSHARE, STEP_ID_MAPS, STEP_PROPAGATION, STEP_MOUNT };
struct ChildReport {
  int step;
  int error;
};

// Options::privateTmp as prepared before the fork, so that the child
// allocates nothing.
struct NamespacePlan {
  const char* dir = nullptr;  // null: no namespace
  bool root = false;
  std::string uidMap, gidMap;
};

bool writeWhole(const char* path, const std::string& text) {
  const int fd = open(path, O_WRONLY | O_CLOEXEC);
  if (fd < 0) return false;
  const bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  const int e = errno;
  close(fd);
  errno = e;
  return ok;
}

// STEP_EXEC (0) when the child now sees `plan.dir` at /tmp, else the step
// that failed, with errno set.
int enterPrivateTmp(const NamespacePlan& plan) {
  if (plan.root && unshare(CLONE_NEWNS) == 0) {
    // The mount below must not reach the parent's namespace through a
    // shared "/"; as a slave the child still sees what the host mounts.
    if (mount(nullptr, "/", nullptr, MS_REC | MS_SLAVE, nullptr) != 0) return STEP_PROPAGATION;
  } else {
    // In a mount namespace owned by a new user namespace the parent's
    // shared mounts arrive as slaves already. The child keeps its ids;
    // exec drops the capabilities the new namespace granted.
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return STEP_UNSHARE;
    if (!writeWhole("/proc/self/setgroups", "deny") ||
        !writeWhole("/proc/self/uid_map", plan.uidMap) ||
        !writeWhole("/proc/self/gid_map", plan.gidMap)) {
      return STEP_ID_MAPS;
    }
  }
  return mount(plan.dir, "/tmp", nullptr, MS_BIND, nullptr) == 0 ? STEP_EXEC : STEP_MOUNT;
}

std::string childFailureText(const ChildReport& r, const std::string& program,
                             const std::string& dir) {
  std::string what;
  switch (r.step) {
    case STEP_EXEC:
      return "exec \"" + program + "\": " + strerror(r.error);
    case STEP_UNSHARE:
      what = "cannot enter a new user and mount namespace";
      break;
    case STEP_ID_MAPS:
      what = "cannot write the new user namespace's id maps";
      break;
    case STEP_PROPAGATION:
      what = "cannot make the new mount namespace's mounts private";
      break;
    default:
      what = "cannot mount " + dir + " over /tmp";
      break;
  }
  what += std::string(": ") + strerror(r.error);
  if (r.error == ENOSPC) what += " (a namespace limit in /proc/sys/user is reached)";
  if (r.step == STEP_PROPAGATION && r.error == EINVAL)
    what += " (\"/\" is no mount point: a chroot)";
  return what;
}

// Between fork and exec only async-signal-safe calls; a failure goes to the
// parent as a ChildReport through `report`.
[[noreturn]] void execChild(char** argv, char** envp, int in, int out, int err, int report,
                            const NamespacePlan& plan) {
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  signal(SIGPIPE, SIG_DFL);
  signal(SIGINT, SIG_DFL);
  signal(SIGTERM, SIG_DFL);
  ChildReport r{STEP_EXEC, 0};
  if (plan.dir != nullptr) r.step = enterPrivateTmp(plan);
  if (r.step == STEP_EXEC && dup2(in, STDIN_FILENO) >= 0 &&
      (out < 0 || dup2(out, STDOUT_FILENO) >= 0) && dup2(err, STDERR_FILENO) >= 0) {
    execvpe(argv[0], argv, envp);
  }
  r.error = errno;
  ssize_t ignored = write(report, &r, sizeof r);
  (void)ignored;
  _exit(127);
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
  NamespacePlan plan;
  if (!options.privateTmp.empty()) {
    plan.dir = options.privateTmp.c_str();
    plan.root = geteuid() == 0;
    plan.uidMap = std::to_string(geteuid()) + " " + std::to_string(geteuid()) + " 1";
    plan.gidMap = std::to_string(getegid()) + " " + std::to_string(getegid()) + " 1";
  }
  std::vector<std::string> argvStrings = argv;
  std::vector<std::string> envStrings = childEnvironment(options.env);
  std::vector<char*> argvp = pointers(argvStrings);
  std::vector<char*> envp = pointers(envStrings);

  int outPipe[2], reportPipe[2];
  if (pipe2(outPipe, O_CLOEXEC) != 0) return error_ = errnoText("pipe"), false;
  UniqueFd outRead(outPipe[0]), outWrite(outPipe[1]);
  if (pipe2(reportPipe, O_CLOEXEC) != 0) return error_ = errnoText("pipe"), false;
  UniqueFd reportRead(reportPipe[0]), reportWrite(reportPipe[1]);
  UniqueFd devNull(open("/dev/null", O_RDONLY | O_CLOEXEC));
  if (!devNull.valid()) return error_ = errnoText("open /dev/null"), false;

  const pid_t pid = fork();
  if (pid < 0) return error_ = errnoText("fork"), false;
  if (pid == 0) {
    execChild(argvp.data(), envp.data(), devNull.get(), options.captureStdout ? outWrite.get() : -1,
              options.stderrFd >= 0 ? options.stderrFd : outWrite.get(), reportWrite.get(), plan);
  }
  pid_ = pid;
  outWrite.reset();
  reportWrite.reset();

  // The report pipe closes at exec (close-on-exec) or carries what failed.
  ChildReport report{STEP_EXEC, 0};
  ssize_t n;
  do {
    n = read(reportRead.get(), &report, sizeof report);
  } while (n < 0 && errno == EINTR);
  if (n > 0) {
    reap(true);
    pid_ = -1;
    error_ = childFailureText(report, argv[0], options.privateTmp);
    startFailure_ = report.step == STEP_EXEC ? StartFailure::EXEC : StartFailure::NAMESPACE;
    return false;
  }
  startFailure_ = StartFailure::NONE;
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
      while (nowMs() < slice && !reap(false)) usleep(1000);
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
      usleep(1000);
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
