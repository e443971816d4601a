// Instructions per streamed MiB, counted by callgrind.

#include <stdlib.h>

#include <fstream>

#include "bench/parts.h"

namespace bench {

namespace {

// Total instructions (Ir) from a callgrind output file.
double callgrindTotal(const std::string& path) {
  std::ifstream in(path);
  double total = -1;
  for (std::string line; std::getline(in, line);) {
    if (line.compare(0, 8, "summary:") == 0 || line.compare(0, 7, "totals:") == 0)
      total = atof(line.substr(line.find(':') + 1).c_str());
  }
  return total;
}

}  // namespace

// 3. Instructions per streamed MB.
void cost(const Settings& s, const Programs& programs, Report& report) {
  Servers servers(s.costMb);
  const double mib = servers.streamBytes / 1048576.0;
  const int count = s.counts.back();
  report.line("### Instructions per streamed MiB (callgrind, whole process, stream of " +
              fmt("%.1f", mib) + " MiB, " + readsText(s) + ")\n");
  report.line("| transport | worker | libmms direct | ratio |");
  report.line("|---|---:|---:|---:|");
  // Callgrind counts every iteration of a rep-prefixed string instruction as
  // one instruction, so glibc's "rep movsb" and "rep stosb" for large blocks
  // would cost a byte an instruction. Both contenders run with those paths
  // off (thresholds above any block they copy), and copies are counted as
  // the vector loops they become.
  const std::string big = std::to_string(1 << 30);
  for (StreamProtocol p : PROTOCOLS) {
    double per[2];
    for (const Contender& c :
         {Contender{"worker", programs.worker, s.window}, Contender{"libmms", "", 0}}) {
      const std::string file = s.outDir + "/callgrind." + c.name + "." + protocolName(p) + ".out";
      fetch(c, programs, servers, p, count,
            {"env",
             "GLIBC_TUNABLES=glibc.cpu.x86_rep_movsb_threshold=" + big +
                 ":glibc.cpu.x86_rep_stosb_threshold=" + big,
             "valgrind", "--tool=callgrind", "--callgrind-out-file=" + file});
      per[c.worker.empty()] = callgrindTotal(file) / mib;
    }
    report.line("| " + protocolName(p) + " | " + fmt("%.3g", per[0]) + " | " + fmt("%.3g", per[1]) +
                " | " + fmt("%.3f", per[0] / per[1]) + " |");
  }
  report.line("");
}

}  // namespace bench
