#ifndef HALVARINE_BENCH_BENCH_H
#define HALVARINE_BENCH_BENCH_H

// The benchmark's contenders and its few helpers. Every contender reads the
// same stream from the same in-process test server, so the servers' cost is
// equal across them. Times are seconds, sizes bytes, resident sizes KiB.
// Single-threaded use only (the servers run their own threads).

#include <halvarine/fd.h>
#include <stdint.h>

#include <cmath>
#include <string>
#include <vector>

namespace bench {

// Where the programs under test are; the build passes the defaults.
struct Programs {
  std::string worker;        // the worker binary
  std::string beforeWorker;  // a worker from before a change; empty: none
  std::string libmmsFetch;   // the reference libmms client
  std::string self;          // this benchmark, which also plays the raw peer
};

// Repeated measurements of one quantity.
struct Samples {
  std::vector<double> values;

  void add(double v) { values.push_back(v); }
  double median() const { return quantile(0.5); }
  double min() const { return quantile(0); }
  double max() const { return quantile(1); }
  // Half the range as a share of the median: 0.03 is "±3 %".
  double spread() const { return median() == 0 ? 0 : (max() - min()) / 2 / std::abs(median()); }
  // Between the sorted values, linearly; 0 when there are none.
  double quantile(double q) const;
};

// One whole fetch of a stream.
struct FetchRun {
  double seconds = 0;    // first request (or connect) to the end of the stream
  uint64_t bytes = 0;    // stream bytes delivered
  long peakRssKiB = -1;  // VmHWM of the fetching process before it ended
};

// A command prefix such as {"valgrind", "--tool=callgrind", ...}; empty runs
// the program directly.
typedef std::vector<std::string> Launcher;

// The worker binary `worker`, started by the controller library, reads `url`
// with READs of `count` bytes, `window` of them in flight. A controller
// socket held by another run is waited for (up to two minutes). The worker
// is ended with PEND and waited for, so a launcher's own output is complete
// on return.
bool fetchThroughWorker(const std::string& worker, const std::string& url, int count, int window,
                        const Launcher& launcher, FetchRun& out, std::string& error);

// libmms-fetch reads `url` with libmms reads of `count` bytes, to /dev/null.
bool fetchWithLibmms(const Programs& programs, const std::string& url, int count,
                     const Launcher& launcher, FetchRun& out, std::string& error);

// Runs `argv` to its end with its standard output and error collected, so
// that they stay out of the benchmark's tables. False, with the reason and
// the output in `error`, unless it ended with status 0. `seconds` (may be
// null): its whole run; `lines` (may be null): its output lines.
bool runProgram(const std::vector<std::string>& argv, std::string& error, double* seconds = nullptr,
                std::vector<std::string>* lines = nullptr);

// ffmpeg copies `url` (mmsh:// or mmst://) into an ASF muxer writing to
// /dev/null. `seconds` is the process's whole run, start-up included.
bool fetchWithFfmpeg(const std::string& url, FetchRun& out, std::string& error);

// The raw peer, run in a process started in the worker's place: connects to
// the controller socket and answers every request frame with a reply frame
// of the worker's size (the request's word and "OK_"), waiting before each
// read and write as the worker does; ends after PEND's reply. It bounds
// what a round trip through the worker can cost. Returns the exit status.
int serveRawPeer();
// Set in the environment of the benchmark started as the raw peer.
extern const char RAW_PEER_VAR[];

// Starts `worker` through the controller library, with `env` added to its
// environment, makes `calls` CCHECK round trips, and ends it with PEND.
// `startSeconds`: from the start to the controller's accept (the clock
// reads milliseconds: average several); `callSeconds`: the mean round trip.
bool ccheckSession(const std::string& worker, const std::vector<std::string>& env, int calls,
                   double& startSeconds, double& callSeconds, std::string& error);

// ---- Counting system calls and CPU time

// What perf counted over a whole process, start-up included.
struct Counts {
  double syscalls = 0;
  double cpuMs = 0;     // user and system time
  double switches = 0;  // context switches: the times it went to sleep, mostly

  Counts minus(const Counts& o) const {
    Counts d;
    d.syscalls = syscalls - o.syscalls;
    d.cpuMs = cpuMs - o.cpuMs;
    d.switches = switches - o.switches;
    return d;
  }
};

// Runs a program under perf, counting its system calls, CPU time and context
// switches into
// `file`; readCounts takes them back after the program has ended.
Launcher countingLauncher(const std::string& file);
// False, saying why, when perf cannot count here.
bool countingWorks(const std::string& file, std::string& error);
bool readCounts(const std::string& file, Counts& out, std::string& error);

// The benchmark's own network namespace, holding only a loopback interface,
// for as long as it lives: servers and programs started meanwhile live in
// it, so shaping its loopback touches nothing else on the machine. Needs
// root; the destructor goes back to the namespace the process came from.
class PrivateNetwork {
 public:
  PrivateNetwork() = default;
  ~PrivateNetwork();
  PrivateNetwork(const PrivateNetwork&) = delete;
  PrivateNetwork& operator=(const PrivateNetwork&) = delete;

  bool enter(std::string& error);
  // Loopback as a link of `rate` (tc's form, "8mbit") with Ethernet-sized
  // packets, which arrive one at a time as from a real link.
  bool shapeLoopback(const std::string& rate, std::string& error);
  // Loopback as it comes again: MTU 65,536, no queueing discipline.
  bool fullSpeed(std::string& error);

 private:
  halvarine::UniqueFd home_;
};

}  // namespace bench

#endif
