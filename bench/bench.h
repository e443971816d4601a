#ifndef HALVARINE_BENCH_BENCH_H
#define HALVARINE_BENCH_BENCH_H

// The benchmark's contenders and its few helpers. Every contender reads the
// same stream from the same in-process test server, so the servers' cost is
// equal across them. Times are seconds on the monotonic clock, sizes bytes,
// resident sizes KiB. Single-threaded use only (the servers run their own
// threads).

#include <stdint.h>

#include <string>
#include <vector>

namespace bench {

// Where the programs under test are; the build passes the defaults.
struct Programs {
  std::string worker;       // the worker binary
  std::string libmmsFetch;  // the reference libmms client
  std::string ffmpeg = "ffmpeg";
};

// Repeated measurements of one quantity.
struct Samples {
  std::vector<double> values;

  void add(double v) { values.push_back(v); }
  bool empty() const { return values.empty(); }
  double median() const;
  double min() const;
  double max() const;
  // Half the range as a share of the median: 0.03 is "±3 %".
  double spread() const;
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

// The worker, started by the controller library, reads `url` with READs of
// `count` bytes, `window` of them in flight. A controller socket held by
// another run is waited for (up to two minutes). The worker is ended with
// PEND and waited for, so a launcher's own output is complete on return.
bool fetchThroughWorker(const Programs& programs, const std::string& url, int count, int window,
                        const Launcher& launcher, FetchRun& out, std::string& error);

// libmms-fetch reads `url` with libmms reads of `count` bytes, to /dev/null.
bool fetchWithLibmms(const Programs& programs, const std::string& url, int count,
                     const Launcher& launcher, FetchRun& out, std::string& error);

// ffmpeg copies `url` (mmsh:// or mmst://) into an ASF muxer writing to
// /dev/null. `seconds` is the process's whole run, start-up included.
bool fetchWithFfmpeg(const Programs& programs, const std::string& url, FetchRun& out,
                     std::string& error);

// Mean time of one CCHECK round trip through the worker over `calls` calls
// after the worker has started; and of the same exchange with a forked peer
// process on a socket pair that answers each request frame with a reply frame
// of the same size, waiting with select before each read and write.
bool ccheckRoundTrip(const Programs& programs, int calls, double& seconds, std::string& error);
bool rawRoundTrip(int calls, double& seconds, std::string& error);

// Time from starting the worker to accepting its connection, and the same
// for a trivial program that connects to nothing: fork and exec of
// `reference` to its exit.
bool workerStartup(const Programs& programs, double& seconds, std::string& error);
bool processStartup(const std::string& reference, double& seconds, std::string& error);

double nowSeconds();

}  // namespace bench

#endif
