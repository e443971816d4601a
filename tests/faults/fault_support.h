#ifndef HALVARINE_TESTS_FAULTS_FAULT_SUPPORT_H
#define HALVARINE_TESTS_FAULTS_FAULT_SUPPORT_H

// What the fault tests watch from outside the worker: its memory, its
// descriptors and its CPU time, read from /proc, and the controller's side
// of a worker that died or stopped answering.

#include <sys/types.h>

#include <string>

#include "tests/e2e/stream_test_support.h"
#include "tools/controller/stream_fetch.h"

namespace faults {

// One reading of a process from /proc; -1 in a field that could not be read
// (the process is gone).
struct ProcSample {
  long rssKb = -1;          // VmRSS of /proc/PID/status
  long fds = -1;            // entries of /proc/PID/fd
  long cpuTicks = -1;       // user + system time of /proc/PID/stat, in clock ticks
  long readCalls = -1;      // syscr of /proc/PID/io: read-like system calls so far
};
ProcSample sampleProcess(pid_t pid);

// Clock ticks per second, for cpuTicks.
long ticksPerSecond();

// True when no process `pid` exists any more (reaped, not a zombie).
bool processGone(pid_t pid);

// True when nothing exists at `path`.
bool pathGone(const std::string& path);

// The worker plus test servers, with the controller's pipeline for requests
// whose reply may never come.
class FaultTest : public e2e::StreamTest {
 protected:
  // Sends `word` with `params` through a RequestPipeline that waits at most
  // `replyTimeoutS` for the reply; the reply, if one came, in `out`.
  controller::FetchStatus pipelineCall(const std::string& word,
                                       const std::vector<std::string>& params, int replyTimeoutS,
                                       controller::Reply& out);

  // What a controller does with a worker that died or stopped answering:
  // kills it (a no-op for one that ended), reaps it, stops listening. Then
  // nothing may be left: no process, no socket file. Returns how the worker
  // ended, for the report.
  controller::ExitStatus killAndCheckNothingLeft();

  // One line for the record of observed outcomes, on standard output.
  static void report(const std::string& row, const std::string& observed);
};

}  // namespace faults

#endif
