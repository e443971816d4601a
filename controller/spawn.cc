#include "controller/spawn.h"

#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "base/text.h"

extern char** environ;

namespace halvarine {

namespace {

std::vector<char*> pointers(std::vector<std::string>& strings) {
  std::vector<char*> p;
  for (std::string& s : strings) p.push_back(&s[0]);
  p.push_back(nullptr);
  return p;
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

// The usual start: posix_spawn, which the C library does with a vfork-like
// clone and which reports a failed exec as its result.
Spawned spawnPlain(char** argv, char** envp, const SpawnStreams& streams) {
  Spawned s;
  s.failure = ChildProcess::StartFailure::SYSTEM;
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attr;
  if (posix_spawn_file_actions_init(&actions) != 0) return s.error = "posix_spawn: setup", s;
  if (posix_spawnattr_init(&attr) != 0) {
    posix_spawn_file_actions_destroy(&actions);
    return s.error = "posix_spawn: setup", s;
  }
  sigset_t none, defaults;
  sigemptyset(&none);
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGPIPE);
  sigaddset(&defaults, SIGINT);
  sigaddset(&defaults, SIGTERM);
  // The streams are close-on-exec pipe ends and /dev/null, which dup2 makes
  // inheritable at their targets, or a caller's descriptor already there.
  int rc = posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  if (rc == 0) rc = posix_spawnattr_setsigmask(&attr, &none);
  if (rc == 0) rc = posix_spawnattr_setsigdefault(&attr, &defaults);
  if (rc == 0) rc = posix_spawn_file_actions_adddup2(&actions, streams.in, STDIN_FILENO);
  if (rc == 0 && streams.out >= 0)
    rc = posix_spawn_file_actions_adddup2(&actions, streams.out, STDOUT_FILENO);
  if (rc == 0) rc = posix_spawn_file_actions_adddup2(&actions, streams.err, STDERR_FILENO);
  pid_t pid = -1;
  if (rc != 0) {
    s.error = std::string("posix_spawn: ") + strerror(rc);
  } else {
    rc = posix_spawnp(&pid, argv[0], &actions, &attr, argv, envp);
    if (rc == 0) {
      s.pid = pid;
      s.failure = ChildProcess::StartFailure::NONE;
    } else {
      s.failure = ChildProcess::StartFailure::EXEC;
      s.error = childFailureText(ChildReport{STEP_EXEC, rc}, argv[0], "");
    }
  }
  posix_spawnattr_destroy(&attr);
  posix_spawn_file_actions_destroy(&actions);
  return s;
}

// The start with a private /tmp: the child has to unshare and mount between
// fork and exec, which posix_spawn has no step for, so this path forks
// itself and reports a failed step through a close-on-exec pipe.
Spawned spawnWithPrivateTmp(char** argv, char** envp, const SpawnStreams& streams,
                            const std::string& privateTmp) {
  Spawned s;
  s.failure = ChildProcess::StartFailure::SYSTEM;
  NamespacePlan plan;
  plan.dir = privateTmp.c_str();
  plan.root = geteuid() == 0;
  plan.uidMap = std::to_string(geteuid()) + " " + std::to_string(geteuid()) + " 1";
  plan.gidMap = std::to_string(getegid()) + " " + std::to_string(getegid()) + " 1";
  int reportPipe[2];
  if (pipe2(reportPipe, O_CLOEXEC) != 0) return s.error = errnoText("pipe"), s;
  UniqueFd reportRead(reportPipe[0]), reportWrite(reportPipe[1]);
  const pid_t pid = fork();
  if (pid < 0) return s.error = errnoText("fork"), s;
  if (pid == 0) {
    execChild(argv, envp, streams.in, streams.out, streams.err, reportWrite.get(), plan);
  }
  reportWrite.reset();
  // The report pipe closes at exec (close-on-exec) or carries what failed.
  ChildReport report{STEP_EXEC, 0};
  ssize_t n;
  do {
    n = read(reportRead.get(), &report, sizeof report);
  } while (n < 0 && errno == EINTR);
  if (n > 0) {
    int status;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    s.error = childFailureText(report, argv[0], privateTmp);
    s.failure = report.step == STEP_EXEC ? ChildProcess::StartFailure::EXEC
                                         : ChildProcess::StartFailure::NAMESPACE;
    return s;
  }
  s.pid = pid;
  s.failure = ChildProcess::StartFailure::NONE;
  return s;
}

}  // namespace

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

Spawned spawnChild(const std::vector<std::string>& argv, const std::vector<std::string>& env,
                   const SpawnStreams& streams, const std::string& privateTmp) {
  std::vector<std::string> argvStrings = argv;
  std::vector<std::string> envStrings = env;
  std::vector<char*> argvp = pointers(argvStrings);
  std::vector<char*> envp = pointers(envStrings);
  if (privateTmp.empty()) return spawnPlain(argvp.data(), envp.data(), streams);
  return spawnWithPrivateTmp(argvp.data(), envp.data(), streams, privateTmp);
}

}  // namespace halvarine
