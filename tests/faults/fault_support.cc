#include "tests/faults/fault_support.h"

#include <dirent.h>
#include <errno.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <iostream>
#include <sstream>

#include "tools/controller/support.h"

namespace faults {

namespace {

std::string procPath(pid_t pid, const char* leaf) {
  return "/proc/" + std::to_string(pid) + "/" + leaf;
}

// The number after "key" on the line that starts with it, or -1.
long fieldOf(const std::string& path, const std::string& key) {
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) {
    if (line.compare(0, key.size(), key) == 0) {
      return strtol(line.c_str() + key.size(), nullptr, 10);
    }
  }
  return -1;
}

long countEntries(const std::string& dir) {
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) return -1;
  long n = 0;
  while (dirent* e = readdir(d)) {
    if (e->d_name[0] != '.') ++n;
  }
  closedir(d);
  return n;
}

// utime and stime, fields 14 and 15 of /proc/PID/stat; the command name in
// field 2 may hold blanks, so counting starts after its closing parenthesis.
long cpuTicksOf(pid_t pid) {
  std::ifstream in(procPath(pid, "stat"));
  std::string all((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const size_t close = all.rfind(')');
  if (close == std::string::npos) return -1;
  std::istringstream fields(all.substr(close + 2));
  std::string f;
  long utime = -1, stime = -1;
  for (int i = 3; i <= 15 && fields >> f; ++i) {
    if (i == 14) utime = strtol(f.c_str(), nullptr, 10);
    if (i == 15) stime = strtol(f.c_str(), nullptr, 10);
  }
  return utime < 0 || stime < 0 ? -1 : utime + stime;
}

}  // namespace

ProcSample sampleProcess(pid_t pid) {
  ProcSample s;
  s.rssKb = fieldOf(procPath(pid, "status"), "VmRSS:");
  s.fds = countEntries(procPath(pid, "fd"));
  s.cpuTicks = cpuTicksOf(pid);
  s.readCalls = fieldOf(procPath(pid, "io"), "syscr:");
  return s;
}

long ticksPerSecond() { return sysconf(_SC_CLK_TCK); }

bool processGone(pid_t pid) { return kill(pid, 0) != 0 && errno == ESRCH; }

bool pathGone(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) != 0 && errno == ENOENT;
}

controller::FetchStatus FaultTest::pipelineCall(const std::string& word,
                                                const std::vector<std::string>& params,
                                                int replyTimeoutS, controller::Reply& out) {
  controller::PipelineOptions options;
  options.replyTimeoutS = replyTimeoutS;
  options.keepAliveS = 0;
  // The whole call, whatever the slices: a hang costs no more than this.
  options.deadline = controller::nowSeconds() + replyTimeoutS + 2;
  controller::RequestPipeline pipeline(session.connection(), options);
  return pipeline.call(word, params, out);
}

controller::ExitStatus FaultTest::killAndCheckNothingLeft() {
  const pid_t pid = session.worker().pid();
  controller::ExitStatus status;
  if (session.worker().running()) {
    // Already ended on its own (a signal): collect how; else end it.
    if (!session.worker().waitExit(0, status)) {
      session.worker().kill();
      session.worker().waitExit(1, status);
    }
  } else {
    session.worker().waitExit(0, status);
  }
  session.connection().close();
  session.listener().close();
  EXPECT_TRUE(processGone(pid)) << "worker " << pid << " still exists";
  EXPECT_TRUE(pathGone(controller::DEFAULT_SOCKET_PATH)) << "socket file left behind";
  return status;
}

void FaultTest::report(const std::string& row, const std::string& observed) {
  std::cout << "[ observed ] " << row << ": " << observed << std::endl;
}

}  // namespace faults
