#ifndef HALVARINE_BENCH_SETTINGS_H
#define HALVARINE_BENCH_SETTINGS_H

// What a run of the benchmark measures and how often: its command line.

#include <string>
#include <vector>

#include "bench/bench.h"

namespace bench {

struct Settings {
  std::string outDir = ".";
  int rounds = 5;
  int streamMb = 128;
  int costMb = 16;
  int calls = 20000;
  int rttRounds = 7;
  int startups = 10;  // per sample: the clock reads milliseconds
  // System calls, CPU time and context switches: streams at full speed and
  // on shaped links, of generated streams with these packet sizes.
  int fullSpeedMb = 64;
  int shapedScale = 1;  // divides the shaped links' stream sizes (--quick)
  int countRounds = 3;
  std::string rates = "8mbit,1mbit,128kbit";
  std::string packetSizes = "8192,1444";
  std::string only = "throughput,roundtrip,cost,startup,syscalls";
  std::vector<int> counts{4096, 16384, 32768, 65511};
  int window = 4;

  // Whether PART is among those --only names.
  bool wanted(const std::string& part) const;
};

// How reading the command line ended.
enum class Parsed {
  RUN,   // measure as `settings` say
  HELP,  // --help: the usage was asked for
  BAD,   // `error` says what is wrong
};

// The options after the program's name into `settings` and, for --before,
// `programs`.
Parsed parseSettings(const std::vector<std::string>& args, Settings& settings, Programs& programs,
                     std::string& error);

// The usage lines, for --help and after an error.
extern const char USAGE[];

}  // namespace bench

#endif
