// Throughput against the READ count, and the peak resident size over a
// whole fetch.

#include <fstream>
#include <iostream>
#include <map>

#include "bench/parts.h"

namespace bench {

// 1. Throughput against the READ count.
void throughput(const Settings& s, const Programs& programs, Report& report) {
  Servers servers(s.streamMb);
  std::vector<Contender> contenders{
      {"worker w1", programs.worker, 1},
      {"worker w" + std::to_string(s.window), programs.worker, s.window},
      {"libmms", "", 0}};
  // The worker from before a change, at the largest count only: did the
  // change cost full-speed throughput?
  const Contender before{"before w" + std::to_string(s.window), programs.beforeWorker, s.window};
  std::map<std::string, Samples> mb, rss;  // by transport, contender and count
  for (int round = 0; round < s.rounds; ++round) {
    for (StreamProtocol p : PROTOCOLS) {
      for (int count : s.counts) {
        std::vector<Contender> here = contenders;
        if (!before.worker.empty() && count == s.counts.back()) here.push_back(before);
        for (size_t k = 0; k < here.size(); ++k) {
          // Each round starts with a different contender.
          const Contender& c = here[(k + round) % here.size()];
          const FetchRun run = fetch(c, programs, servers, p, count);
          const std::string key = protocolName(p) + "|" + c.name + "|" + std::to_string(count);
          mb[key].add(mbps(run));
          rss[key].add(static_cast<double>(run.peakRssKiB));
        }
      }
      // mmst:// for ffmpeg, which does not take the mms:// name.
      std::string url = servers.url(p), error;
      if (url.compare(0, 6, "mms://") == 0) url = "mmst://" + url.substr(6);
      FetchRun run;
      if (!fetchWithFfmpeg(url, run, error)) die("ffmpeg: " + error);
      run.bytes = servers.streamBytes;
      for (int count : s.counts)
        mb[protocolName(p) + "|ffmpeg|" + std::to_string(count)].add(mbps(run));
    }
    std::cerr << "throughput round " << round + 1 << "/" << s.rounds << " done" << std::endl;
  }

  report.line("### Throughput, MB/s (10^6 bytes/s), stream of " +
              fmt("%.1f", servers.streamBytes / 1048576.0) + " MiB, " + std::to_string(s.rounds) +
              " rounds\n");
  report.line("| transport | READ count | worker, 1 in flight | worker, window " +
              std::to_string(s.window) +
              " | libmms direct | window / libmms | 1 in flight / libmms |");
  report.line("|---|---:|---:|---:|---:|---:|---:|");
  for (StreamProtocol p : PROTOCOLS) {
    const std::string tn = protocolName(p);
    for (int count : s.counts) {
      const std::string suffix = "|" + std::to_string(count);
      const Samples& w1 = mb[tn + "|" + contenders[0].name + suffix];
      const Samples& wn = mb[tn + "|" + contenders[1].name + suffix];
      const Samples& lm = mb[tn + "|libmms" + suffix];
      report.line("| " + tn + " | " + std::to_string(count) + " | " + withSpread(w1, "%.0f") +
                  " | " + withSpread(wn, "%.0f") + " | " + withSpread(lm, "%.0f") + " | " +
                  fmt("%.3f", wn.median() / lm.median()) + " | " +
                  fmt("%.3f", w1.median() / lm.median()) + " |");
    }
    if (!before.worker.empty()) {
      const std::string suffix = "|" + std::to_string(s.counts.back());
      const Samples& b = mb[tn + "|" + before.name + suffix];
      report.line("| " + tn + " | " + std::to_string(s.counts.back()) + ", worker before | | " +
                  withSpread(b, "%.0f") + " | | " +
                  fmt("%.3f", b.median() / mb[tn + "|libmms" + suffix].median()) + " | |");
    }
    report.line("| " + tn + " | ffmpeg -c copy | | | " +
                withSpread(mb[tn + "|ffmpeg|" + std::to_string(s.counts[0])], "%.0f") +
                " (whole process) | | |");
  }
  report.line("");

  // One block per line of the plot: a title row, then count, median, min,
  // max; blocks apart by two blank lines (gnuplot's "index").
  std::ofstream dat(s.outDir + "/throughput.dat");
  for (StreamProtocol p : PROTOCOLS) {
    for (const std::string& c :
         {contenders[0].name, contenders[1].name, contenders[2].name, std::string("ffmpeg")}) {
      dat << "\"" << protocolName(p) << ", " << c << (c == "ffmpeg" ? " (any count)" : "")
          << "\" median min max\n";
      for (int count : s.counts) {
        const Samples& x = mb[protocolName(p) + "|" + c + "|" + std::to_string(count)];
        dat << count << " " << x.median() << " " << x.min() << " " << x.max() << "\n";
      }
      dat << "\n\n";
    }
  }

  // Peak resident size over the whole fetch at the largest count.
  const std::string big = "|" + std::to_string(s.counts.back());
  report.line("### Peak resident size (VmHWM) over a whole fetch, READ count " +
              std::to_string(s.counts.back()) + "\n");
  report.line("| transport | worker, window " + std::to_string(s.window) +
              " | libmms direct | difference |");
  report.line("|---|---:|---:|---:|");
  for (StreamProtocol p : PROTOCOLS) {
    const double w = rss[protocolName(p) + "|" + contenders[1].name + big].median();
    const double l = rss[protocolName(p) + "|libmms" + big].median();
    report.line("| " + protocolName(p) + " | " + fmt("%.0f", w) + " KiB | " + fmt("%.0f", l) +
                " KiB | " + fmt("%+.0f", w - l) + " KiB |");
  }
  report.line("");
}

}  // namespace bench
