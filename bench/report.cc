// The tables' formats and the file they go to.

#include "bench/report.h"

#include <stdio.h>

#include <fstream>
#include <iostream>

namespace bench {

namespace {

// The first three fields of /proc/loadavg.
std::string loadAverage() {
  std::ifstream in("/proc/loadavg");
  std::string a, b, c;
  in >> a >> b >> c;
  return a + " " + b + " " + c;
}

// A program by the last three parts of its path (worker-COMMIT/build/
// halvarine), so that the tables show no directory of this machine.
std::string shortName(const std::string& path) {
  size_t at = path.size();
  for (int parts = 0; parts < 3 && at != std::string::npos && at > 0; ++parts)
    at = path.find_last_of('/', at - 1);
  return at == std::string::npos ? path : path.substr(at + 1);
}

}  // namespace

std::string fmt(const char* format, double v) {
  char buf[64];
  snprintf(buf, sizeof buf, format, v);
  return buf;
}

std::string withSpread(const Samples& s, const char* format) {
  return fmt(format, s.median()) + " ±" + fmt("%.0f", s.spread() * 100) + " %";
}

Report::Report(const Programs& programs) {
  line("Worker: " + programs.worker.substr(programs.worker.find_last_of('/') + 1) +
       (programs.beforeWorker.empty() ? "" : ", before: " + shortName(programs.beforeWorker)) +
       "; load average at the start: " + loadAverage() + "\n");
}

void Report::save(const std::string& path) {
  line("Load average at the end: " + loadAverage());
  std::ofstream(path) << md_.str();
  std::cout << md_.str() << std::endl;
}

}  // namespace bench
