// How long the worker takes to start, and its size.

#include <halvarine/controller.h>
#include <sys/stat.h>
#include <unistd.h>

#include "bench/parts.h"

namespace bench {

// 4. Start-up and size.
void startupAndSize(const Settings& s, const Programs& programs, Report& report) {
  Samples worker, reference;
  std::string error;
  for (int round = 0; round < s.rttRounds; ++round) {
    double start = 0, total = 0, unused = 0;
    for (int i = 0; i < s.startups; ++i) {
      if (!ccheckSession(programs.worker, {}, 0, start, unused, error)) die(error);
      total += start;
    }
    worker.add(total / s.startups * 1e3);
    const int64_t started = halvarine::monotonicMs();
    for (int i = 0; i < s.startups; ++i) {
      halvarine::ChildProcess child;
      halvarine::ExitStatus st;
      if (!child.start({programs.libmmsFetch}) || !child.waitExit(10000, st))
        die("libmms-fetch: " + child.error());
    }
    reference.add(static_cast<double>(halvarine::monotonicMs() - started) / s.startups);
  }
  const std::string stripped = s.outDir + "/halvarine.stripped";
  struct stat sb;
  if (!runProgram({"strip", "-o", stripped, programs.worker}, error) ||
      stat(stripped.c_str(), &sb) != 0)
    die("strip failed: " + error);
  unlink(stripped.c_str());
  report.line("### Start-up and size\n");
  report.line("| measure | value |");
  report.line("|---|---:|");
  report.line("| worker start: exec to the controller's accept | " + withSpread(worker, "%.2f") +
              " ms |");
  report.line("| reference: fork, exec and exit of libmms-fetch (usage error) | " +
              withSpread(reference, "%.2f") + " ms |");
  report.line("| stripped worker binary (this build, x86-64) | " +
              std::to_string(static_cast<long long>(sb.st_size)) + " bytes |\n");
}

}  // namespace bench
