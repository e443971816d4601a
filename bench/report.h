#ifndef HALVARINE_BENCH_REPORT_H
#define HALVARINE_BENCH_REPORT_H

// The benchmark's tables: Markdown lines collected for one file of results,
// and the number formats they use.

#include <sstream>
#include <string>

#include "bench/bench.h"

namespace bench {

// `v` through printf's `format`: fmt("%.2f", 1.5) is "1.50".
std::string fmt(const char* format, double v);

// The median and the spread: "123.4 ±2 %".
std::string withSpread(const Samples& s, const char* format);

// Tables for one file of results, between the load averages at its start
// and its end: other work on the machine shows in every timing, so the
// tables say how busy it was.
class Report {
 public:
  explicit Report(const Programs& programs);
  void line(const std::string& s) { md_ << s << "\n"; }
  // Writes the file and shows the tables.
  void save(const std::string& path);

 private:
  std::ostringstream md_;
};

}  // namespace bench

#endif
