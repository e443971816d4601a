// halvarine-bench: throughput, command round trip, instructions per byte,
// system calls and CPU time per byte at full speed and at a shaped rate, and
// footprint of the worker, each beside a baseline measured in the same run.
//
//   halvarine-bench [--quick] [--out DIR] [--rounds N] [--mb N] [--cost-mb N]
//                   [--calls N] [--only PARTS] [--before WORKER] [--count-rounds N]
//                   [--rates LIST] [--packet-sizes LIST]
//
// PARTS is a comma-separated choice of throughput, roundtrip, cost, startup
// and syscalls (default: all). HALVARINE_WORKER names another worker binary;
// --before names a worker from before a change, which the syscalls part
// measures beside it, at full speed and on the links of --rates (tc's rates:
// 8mbit, 1mbit, 128kbit), for generated streams with the packet sizes of
// --packet-sizes (real streams have 1,444 to 8,192 bytes). Contenders are alternated within each
// round and the rounds repeated; tables give the median and the spread (half the range over the
// median). Writes DIR/table.md (the tables, Markdown; the syscalls part's in DIR/syscalls.md),
// DIR/throughput.dat (for the plot) and DIR/callgrind.*.out (for callgrind_annotate), and prints
// the tables. No goal is enforced here: the ratios are for people to judge.

#include <halvarine/controller.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/parts.h"

int main(int argc, char** argv) {
  if (getenv(bench::RAW_PEER_VAR) != nullptr) return bench::serveRawPeer();
  signal(SIGPIPE, SIG_IGN);
  halvarine::keepReplyBuffersResident();
  bench::Settings s;
  bench::Programs programs;
  programs.worker = halvarine::workerFromEnvironment();
  if (programs.worker.empty()) programs.worker = HALVARINE_BENCH_WORKER;
  programs.libmmsFetch = HALVARINE_BENCH_LIBMMS_FETCH;
  char self[4096];
  const ssize_t selfLen = readlink("/proc/self/exe", self, sizeof self - 1);
  programs.self = selfLen > 0 ? std::string(self, static_cast<size_t>(selfLen)) : argv[0];
  std::string error;
  switch (
      bench::parseSettings(std::vector<std::string>(argv + 1, argv + argc), s, programs, error)) {
    case bench::Parsed::RUN:
      break;
    case bench::Parsed::HELP:
      std::cout << bench::USAGE;
      return 0;
    case bench::Parsed::BAD:
      std::cerr << "halvarine-bench: " << error << "\n" << bench::USAGE;
      return 2;
  }
  mkdir(s.outDir.c_str(), 0755);

  // The system-call counts have a file of their own, so that either file
  // can be measured again alone.
  try {
    if (s.wanted("throughput") || s.wanted("roundtrip") || s.wanted("cost") ||
        s.wanted("startup")) {
      bench::Report report(programs);
      if (s.wanted("throughput")) bench::throughput(s, programs, report);
      if (s.wanted("roundtrip")) bench::roundTrip(s, programs, report);
      if (s.wanted("cost")) bench::cost(s, programs, report);
      if (s.wanted("startup")) bench::startupAndSize(s, programs, report);
      report.save(s.outDir + "/table.md");
    }
    if (s.wanted("syscalls")) {
      bench::Report report(programs);
      bench::syscalls(s, programs, report);
      report.save(s.outDir + "/syscalls.md");
    }
  } catch (const std::exception& e) {
    std::cerr << "halvarine-bench: " << e.what() << std::endl;
    return 1;
  }
  return 0;
}
