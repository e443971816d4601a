// Counting a program's system calls, CPU time and context switches with
// perf, and the private network whose loopback is shaped to slower links.

#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <stdio.h>
#include <string.h>

#include <fstream>

#include "bench/bench.h"

namespace bench {

using halvarine::UniqueFd;

// ---- Counting

Launcher countingLauncher(const std::string& file) {
  return {"perf", "stat", "-x", ",",
          "-o",   file,   "-e", "raw_syscalls:sys_enter,task-clock,context-switches",
          "--"};
}

bool countingWorks(const std::string& file, std::string& error) {
  std::vector<std::string> argv = countingLauncher(file);
  argv.push_back("true");
  Counts counts;
  if (runProgram(argv, error) && readCounts(file, counts, error)) return true;
  error = "perf cannot count system calls here: " + error;
  return false;
}

bool readCounts(const std::string& file, Counts& out, std::string& error) {
  // perf's CSV form: value, unit (may be empty), event name, ...
  std::ifstream in(file);
  int found = 0;
  for (std::string line; std::getline(in, line);) {
    const size_t valueEnd = line.find(','), unitEnd = line.find(',', valueEnd + 1);
    if (unitEnd == std::string::npos) continue;
    const std::string name = line.substr(unitEnd + 1, line.find(',', unitEnd + 1) - unitEnd - 1);
    double* value = name == "raw_syscalls:sys_enter" ? &out.syscalls
                    : name == "task-clock"           ? &out.cpuMs
                    : name == "context-switches"     ? &out.switches
                                                     : nullptr;
    if (value != nullptr && sscanf(line.c_str(), "%lf", value) == 1) ++found;
  }
  if (found == 3) return true;
  error = "perf counted nothing into " + file;
  return false;
}

// ---- The private network

PrivateNetwork::~PrivateNetwork() {
  if (home_.valid()) setns(home_.get(), CLONE_NEWNET);
}

bool PrivateNetwork::enter(std::string& error) {
  UniqueFd home(open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC));
  if (!home.valid() || unshare(CLONE_NEWNET) != 0) {
    error = std::string("a network namespace of its own (root only): ") + strerror(errno);
    return false;
  }
  home_ = std::move(home);
  return runProgram({"ip", "link", "set", "lo", "up"}, error);
}

bool PrivateNetwork::shapeLoopback(const std::string& rate, std::string& error) {
  // The burst holds a few packets; the latency bounds the queue, which a
  // TCP window fills.
  return runProgram({"ip", "link", "set", "lo", "mtu", "1500"}, error) &&
         runProgram({"tc", "qdisc", "replace", "dev", "lo", "root", "tbf", "rate", rate, "burst",
                     "16kb", "latency", "100ms"},
                    error);
}

bool PrivateNetwork::fullSpeed(std::string& error) {
  std::string unused;
  runProgram({"tc", "qdisc", "del", "dev", "lo", "root"}, unused);  // fails when there is none
  return runProgram({"ip", "link", "set", "lo", "mtu", "65536"}, error);
}

}  // namespace bench
