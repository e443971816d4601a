#ifndef HALVARINE_BENCH_PARTS_H
#define HALVARINE_BENCH_PARTS_H

// The benchmark's parts, each measuring and writing its own tables, and
// what they share: the test servers of one generated stream and a whole
// fetch of it by one contender. A part that cannot go on throws
// std::runtime_error (die), which main reports after every child has been
// killed and reaped on the way out.

#include <stdint.h>

#include <memory>
#include <string>

#include "bench/bench.h"
#include "bench/report.h"
#include "bench/settings.h"
#include "tools/asf/asf_file.h"
#include "tools/mmsserver/server.h"

namespace bench {

using mmsserver::StreamProtocol;

// Both protocols, in the tables' order.
extern const StreamProtocol PROTOCOLS[2];
// "MMSH", "MMST"
std::string protocolName(StreamProtocol p);

// Ends the run with `what` (throws).
[[noreturn]] void die(const std::string& what);

// Both test servers for one generated stream.
struct Servers {
  AsfFile file;
  std::unique_ptr<mmsserver::MmsTestServer> mmsh, mmst;
  uint64_t streamBytes = 0;

  explicit Servers(int megabytes, uint32_t packetSize = 8192)
      : Servers(static_cast<uint64_t>(megabytes) << 20, packetSize) {}
  Servers(uint64_t bytes, uint32_t packetSize);
  std::string url(StreamProtocol p) const;
};

// One way of reading a stream: a worker with READs in a window, or
// libmms-fetch.
struct Contender {
  std::string name;
  std::string worker;  // empty: libmms-fetch
  int window = 0;
};

// The whole stream through `c`, with reads of `count` bytes; every byte
// must come.
FetchRun fetch(const Contender& c, const Programs& programs, const Servers& servers,
               StreamProtocol p, int count, const Launcher& launcher = {});

// MB/s (10^6 bytes a second) of a run.
inline double mbps(const FetchRun& r) {
  return static_cast<double>(r.bytes) / r.seconds / 1e6;
}

// How the costs are measured: the largest READ count (libmms-fetch's read
// size too), in a window.
std::string readsText(const Settings& s);

// 1. Throughput against the READ count, and the peak resident size.
void throughput(const Settings& s, const Programs& programs, Report& report);
// 2. Command round trip, through the worker and through the raw peer.
void roundTrip(const Settings& s, const Programs& programs, Report& report);
// 3. Instructions per streamed MiB.
void cost(const Settings& s, const Programs& programs, Report& report);
// 4. Start-up and size.
void startupAndSize(const Settings& s, const Programs& programs, Report& report);
// 5. System calls, CPU time and context switches per streamed MB.
void syscalls(const Settings& s, const Programs& programs, Report& report);

}  // namespace bench

#endif
