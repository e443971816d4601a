// The round trip of a command, through the worker and through the raw peer.

#include "bench/parts.h"

namespace bench {

// 2. Command round trip, through the worker and through the raw peer.
void roundTrip(const Settings& s, const Programs& programs, Report& report) {
  Samples worker, raw;
  for (int round = 0; round < s.rttRounds; ++round) {
    for (int k = 0; k < 2; ++k) {
      const bool isWorker = (k + round) % 2 == 0;
      std::vector<std::string> env;
      if (!isWorker) env.push_back(RAW_PEER_VAR + std::string("=1"));
      double start = 0, sec = 0;
      std::string error;
      if (!ccheckSession(isWorker ? programs.worker : programs.self, env, s.calls, start, sec,
                         error))
        die(std::string(isWorker ? "worker" : "raw peer") + ": " + error);
      (isWorker ? worker : raw).add(sec * 1e6);
    }
  }
  report.line("### Command round trip, " + std::to_string(s.calls) + " calls x " +
              std::to_string(s.rttRounds) + " rounds\n");
  report.line("| exchange | µs per round trip | calls/s |");
  report.line("|---|---:|---:|");
  report.line("| CCHECK through the worker | " + withSpread(worker, "%.2f") + " | " +
              fmt("%.0f", 1e6 / worker.median()) + " |");
  report.line("| raw socket peer, same frames, a wait before each read and write | " +
              withSpread(raw, "%.2f") + " | " + fmt("%.0f", 1e6 / raw.median()) + " |");
  report.line("| ratio worker / raw | " + fmt("%.3f", worker.median() / raw.median()) + " | |\n");
}

}  // namespace bench
