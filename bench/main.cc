// halvarine-bench: throughput, command round trip, instructions per byte and
// footprint of the worker, each beside a baseline measured in the same run.
//
//   halvarine-bench [--quick] [--out DIR] [--rounds N] [--mb N] [--cost-mb N]
//                   [--calls N] [--only PARTS]
//
// PARTS is a comma-separated choice of throughput, roundtrip, cost and
// startup (default: all). HALVARINE_WORKER names another worker binary.
// Contenders are alternated within each round and the rounds repeated;
// tables give the median and the spread (half the range over the median).
// Writes DIR/table.md (the tables, Markdown), DIR/throughput.dat (for the
// plot) and DIR/callgrind.*.out (for callgrind_annotate), and prints the
// tables. No goal is enforced here: the ratios are for people to judge.

#include <halvarine/controller.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <fstream>
#include <iostream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "base/allocator.h"
#include "bench/bench.h"
#include "tools/mmsserver/server.h"

namespace {

using bench::FetchRun;
using bench::Samples;

struct Settings {
  bool quick = false;
  std::string outDir = ".";
  int rounds = 5;
  int streamMb = 128;
  int costMb = 16;
  int calls = 20000;
  int rttRounds = 7;
  std::string only = "throughput,roundtrip,cost,startup";
  std::vector<int> counts{4096, 16384, 32768, 65511};
  int window = 4;
};

const char* transportName(Transport t) {
  return t == Transport::MMSH ? "MMSH" : "MMST";
}

// mmst:// for ffmpeg, which does not take the mms:// name.
std::string ffmpegUrl(const std::string& url) {
  return url.compare(0, 6, "mms://") == 0 ? "mmst://" + url.substr(6) : url;
}

std::string fmt(const char* format, double v) {
  char buf[64];
  snprintf(buf, sizeof buf, format, v);
  return buf;
}

// "123.4 ±2 %"
std::string withSpread(const Samples& s, const char* format) {
  return fmt(format, s.median()) + " ±" + fmt("%.0f", s.spread() * 100) + " %";
}

// Ends the run through main, so that every child is killed and reaped on
// the way out.
[[noreturn]] void die(const std::string& what) {
  throw std::runtime_error(what);
}

// Both test servers for one generated stream.
struct Servers {
  AsfFile file;
  std::unique_ptr<MmsTestServer> mmsh, mmst;
  uint64_t streamBytes = 0;

  explicit Servers(int megabytes) {
    std::string error;
    if (!parseAsf(generateAsf(static_cast<uint64_t>(megabytes) << 20), file, error))
      die("generated stream: " + error);
    streamBytes = file.header.size() + uint64_t(file.packets.size()) * file.packetSize;
    ServerOptions o;
    o.transport = Transport::MMSH;
    mmsh.reset(new MmsTestServer(file, o));
    o.transport = Transport::MMST;
    mmst.reset(new MmsTestServer(file, o));
    if (!mmsh->start(error) || !mmst->start(error)) die("test server: " + error);
  }
  std::string url(Transport t) const {
    return (t == Transport::MMSH ? mmsh : mmst)->url("generated.asf");
  }
};

void checkBytes(const FetchRun& run, uint64_t expected, const std::string& who) {
  if (run.bytes != expected)
    die(who + " delivered " + std::to_string(run.bytes) + " bytes, not " +
        std::to_string(expected));
}

double mbps(const FetchRun& r) {
  return r.bytes / r.seconds / 1e6;
}

struct Report {
  std::ostringstream md;
  void line(const std::string& s) { md << s << "\n"; }
};

// 1. Throughput against the READ count.
void throughput(const Settings& s, const bench::Programs& programs, Report& report) {
  Servers servers(s.streamMb);
  const Transport transports[] = {Transport::MMSH, Transport::MMST};
  // [transport][contender][count]
  std::map<std::string, Samples> mb;
  std::map<std::string, Samples> rss;
  const std::vector<std::string> contenders{"worker w1", "worker w" + std::to_string(s.window),
                                            "libmms"};
  for (int round = 0; round < s.rounds; ++round) {
    for (Transport t : transports) {
      const std::string url = servers.url(t);
      const std::string tn = transportName(t);
      for (int count : s.counts) {
        for (size_t k = 0; k < contenders.size(); ++k) {
          // Each round starts with a different contender.
          const size_t c = (k + round) % contenders.size();
          FetchRun run;
          std::string error;
          bool ok;
          if (c == 2) {
            ok = bench::fetchWithLibmms(programs, url, count, {}, run, error);
          } else {
            ok = bench::fetchThroughWorker(programs, url, count, c == 0 ? 1 : s.window, {}, run,
                                           error);
          }
          if (!ok) die(contenders[c] + " " + tn + ": " + error);
          checkBytes(run, servers.streamBytes, contenders[c] + " " + tn);
          const std::string key = tn + "|" + contenders[c] + "|" + std::to_string(count);
          mb[key].add(mbps(run));
          rss[key].add(static_cast<double>(run.peakRssKiB));
        }
      }
      FetchRun run;
      std::string error;
      if (!bench::fetchWithFfmpeg(programs, ffmpegUrl(url), run, error)) die("ffmpeg: " + error);
      run.bytes = servers.streamBytes;
      mb[tn + "|ffmpeg"].add(mbps(run));
    }
    std::cerr << "throughput round " << round + 1 << "/" << s.rounds << " done" << std::endl;
  }

  report.line("### Throughput, MB/s (10^6 bytes/s), stream of " +
              fmt("%.1f", servers.streamBytes / 1048576.0) + " MiB, " + std::to_string(s.rounds) +
              " rounds");
  report.line("");
  report.line("| transport | READ count | worker, 1 in flight | worker, window " +
              std::to_string(s.window) +
              " | libmms direct | window / libmms | 1 in flight / libmms |");
  report.line("|---|---:|---:|---:|---:|---:|---:|");
  for (Transport t : transports) {
    const std::string tn = transportName(t);
    for (int count : s.counts) {
      const std::string suffix = "|" + std::to_string(count);
      const Samples& w1 = mb[tn + "|worker w1" + suffix];
      const Samples& wn = mb[tn + "|" + contenders[1] + suffix];
      const Samples& lm = mb[tn + "|libmms" + suffix];
      report.line("| " + tn + " | " + std::to_string(count) + " | " + withSpread(w1, "%.0f") +
                  " | " + withSpread(wn, "%.0f") + " | " + withSpread(lm, "%.0f") + " | " +
                  fmt("%.3f", wn.median() / lm.median()) + " | " +
                  fmt("%.3f", w1.median() / lm.median()) + " |");
    }
    const Samples& ff = mb[tn + "|ffmpeg"];
    report.line("| " + tn + " | ffmpeg -c copy | | | " + withSpread(ff, "%.0f") +
                " (whole process) | | |");
  }
  report.line("");

  // One block per line of the plot: a title row, then count, median, min,
  // max; blocks apart by two blank lines (gnuplot's "index").
  std::ofstream dat(s.outDir + "/throughput.dat");
  for (Transport t : transports) {
    const std::string tn = transportName(t);
    for (const std::string& c : contenders) {
      dat << "\"" << tn << ", " << c << "\" median min max\n";
      for (int count : s.counts) {
        const Samples& x = mb[tn + "|" + c + "|" + std::to_string(count)];
        dat << count << " " << x.median() << " " << x.min() << " " << x.max() << "\n";
      }
      dat << "\n\n";
    }
    const Samples& ff = mb[tn + "|ffmpeg"];
    dat << "\"" << tn << ", ffmpeg (any count)\" median min max\n";
    for (int count : s.counts)
      dat << count << " " << ff.median() << " " << ff.min() << " " << ff.max() << "\n";
    dat << "\n\n";
  }

  // 4a. Peak resident size over the whole fetch at the largest count.
  const std::string big = "|" + std::to_string(s.counts.back());
  report.line("### Peak resident size (VmHWM) over a whole fetch, READ count " +
              std::to_string(s.counts.back()));
  report.line("");
  report.line("| transport | worker, window " + std::to_string(s.window) +
              " | libmms direct | difference |");
  report.line("|---|---:|---:|---:|");
  for (Transport t : transports) {
    const std::string tn = transportName(t);
    const double w = rss[tn + "|" + contenders[1] + big].median();
    const double l = rss[tn + "|libmms" + big].median();
    report.line("| " + tn + " | " + fmt("%.0f", w) + " KiB | " + fmt("%.0f", l) + " KiB | " +
                fmt("%+.0f", w - l) + " KiB |");
  }
  report.line("");
}

// 2. Command round trip.
void roundTrip(const Settings& s, const bench::Programs& programs, Report& report) {
  Samples worker, raw;
  for (int round = 0; round < s.rttRounds; ++round) {
    for (int k = 0; k < 2; ++k) {
      double sec = 0;
      std::string error;
      if ((k + round) % 2 == 0) {
        if (!bench::ccheckRoundTrip(programs, s.calls, sec, error)) die(error);
        worker.add(sec * 1e6);
      } else {
        if (!bench::rawRoundTrip(s.calls, sec, error)) die(error);
        raw.add(sec * 1e6);
      }
    }
  }
  report.line("### Command round trip, " + std::to_string(s.calls) + " calls x " +
              std::to_string(s.rttRounds) + " rounds");
  report.line("");
  report.line("| exchange | µs per round trip | calls/s |");
  report.line("|---|---:|---:|");
  report.line("| CCHECK through the worker | " + withSpread(worker, "%.2f") + " | " +
              fmt("%.0f", 1e6 / worker.median()) + " |");
  report.line("| raw socket peer, same frame sizes, select before each read/write | " +
              withSpread(raw, "%.2f") + " | " + fmt("%.0f", 1e6 / raw.median()) + " |");
  report.line("| ratio worker / raw | " + fmt("%.3f", worker.median() / raw.median()) + " | |");
  report.line("");
}

// Larger than any block the worker or libmms copies.
const std::string BIG = std::to_string(1 << 30);

// Total instructions (Ir) from a callgrind output file.
double callgrindTotal(const std::string& path) {
  std::ifstream in(path);
  std::string line;
  double total = -1;
  while (std::getline(in, line)) {
    if (line.compare(0, 8, "summary:") == 0 || line.compare(0, 7, "totals:") == 0)
      total = atof(line.substr(line.find(':') + 1).c_str());
  }
  return total;
}

// 3. Instructions per streamed MB.
void cost(const Settings& s, const bench::Programs& programs, Report& report) {
  Servers servers(s.costMb);
  const double mib = servers.streamBytes / 1048576.0;
  const int count = s.counts.back();
  report.line(
      "### Instructions per streamed MiB (callgrind, whole process, "
      "stream of " +
      fmt("%.1f", mib) + " MiB, READ count " + std::to_string(count) + ", window " +
      std::to_string(s.window) + ")");
  report.line("");
  report.line("| transport | worker | libmms direct | ratio |");
  report.line("|---|---:|---:|---:|");
  for (Transport t : {Transport::MMSH, Transport::MMST}) {
    const std::string tn = transportName(t);
    const std::string wFile = s.outDir + "/callgrind.worker." + tn + ".out";
    const std::string lFile = s.outDir + "/callgrind.libmms." + tn + ".out";
    // Callgrind counts every iteration of a rep-prefixed string instruction
    // as one instruction, so glibc's "rep movsb" and "rep stosb" for large
    // blocks would cost a byte an instruction. Both contenders run with those
    // paths off, and copies are counted as the vector loops they become.
    auto launcher = [](const std::string& file) {
      return bench::Launcher{"env",
                             "GLIBC_TUNABLES=glibc.cpu.x86_rep_movsb_threshold=" + BIG +
                                 ":glibc.cpu.x86_rep_stosb_threshold=" + BIG,
                             "valgrind", "--tool=callgrind", "--callgrind-out-file=" + file};
    };
    FetchRun run;
    std::string error;
    if (!bench::fetchThroughWorker(programs, servers.url(t), count, s.window, launcher(wFile), run,
                                   error))
      die("worker under callgrind: " + error);
    checkBytes(run, servers.streamBytes, "worker under callgrind");
    if (!bench::fetchWithLibmms(programs, servers.url(t), count, launcher(lFile), run, error))
      die("libmms-fetch under callgrind: " + error);
    checkBytes(run, servers.streamBytes, "libmms-fetch under callgrind");
    const double w = callgrindTotal(wFile) / mib, l = callgrindTotal(lFile) / mib;
    report.line("| " + tn + " | " + fmt("%.3g", w) + " | " + fmt("%.3g", l) + " | " +
                fmt("%.3f", w / l) + " |");
  }
  report.line("");
}

// 4b. Start-up and size.
void startupAndSize(const Settings& s, const bench::Programs& programs, Report& report) {
  Samples worker, reference;
  for (int round = 0; round < 2 * s.rttRounds; ++round) {
    double sec = 0;
    std::string error;
    if (!bench::workerStartup(programs, sec, error)) die(error);
    worker.add(sec * 1e3);
    if (!bench::processStartup(programs.libmmsFetch, sec, error)) die(error);
    reference.add(sec * 1e3);
  }
  const std::string stripped = s.outDir + "/halvarine.stripped";
  halvarine::ChildProcess strip;
  halvarine::ExitStatus st;
  struct stat sb;
  if (!strip.start({"strip", "-o", stripped, programs.worker}) || !strip.waitExit(30000, st) ||
      stat(stripped.c_str(), &sb) != 0)
    die("strip failed: " + strip.error());
  unlink(stripped.c_str());
  report.line("### Start-up and size");
  report.line("");
  report.line("| measure | value |");
  report.line("|---|---:|");
  report.line("| worker start: exec to the controller's accept | " + withSpread(worker, "%.2f") +
              " ms |");
  report.line("| reference: fork, exec and exit of libmms-fetch (usage error) | " +
              withSpread(reference, "%.2f") + " ms |");
  report.line("| stripped worker binary (this build, x86-64) | " +
              std::to_string(static_cast<long long>(sb.st_size)) + " bytes |");
  report.line("");
}

// The first three fields of /proc/loadavg: other work on the machine shows
// in every timing, so the tables say how busy it was.
std::string loadAverage() {
  std::ifstream in("/proc/loadavg");
  std::string a, b, c;
  in >> a >> b >> c;
  return a + " " + b + " " + c;
}

void usage() {
  std::cerr << "usage: halvarine-bench [--quick] [--out DIR] [--rounds N] [--mb N]\n"
               "         [--cost-mb N] [--calls N] [--only PARTS]\n";
  exit(2);
}

}  // namespace

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  keepReplyBuffersResident();
  Settings s;
  bench::Programs programs;
  programs.worker = getenv("HALVARINE_WORKER") != nullptr ? getenv("HALVARINE_WORKER") : "";
  if (programs.worker.empty()) programs.worker = HALVARINE_BENCH_WORKER;
  programs.libmmsFetch = HALVARINE_BENCH_LIBMMS_FETCH;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    const bool value = i + 1 < argc;
    if (a == "--quick") {
      s.quick = true;
      s.rounds = 1;
      s.streamMb = 4;
      s.costMb = 1;
      s.calls = 500;
      s.rttRounds = 2;
      s.counts = {4096, 65511};
    } else if (a == "--only" && value) {
      s.only = argv[++i];
    } else if (a == "--out" && value) {
      s.outDir = argv[++i];
    } else if (a == "--rounds" && value) {
      s.rounds = atoi(argv[++i]);
    } else if (a == "--mb" && value) {
      s.streamMb = atoi(argv[++i]);
    } else if (a == "--cost-mb" && value) {
      s.costMb = atoi(argv[++i]);
    } else if (a == "--calls" && value) {
      s.calls = atoi(argv[++i]);
    } else {
      usage();
    }
  }
  if (s.rounds < 1 || s.streamMb < 1 || s.costMb < 1 || s.calls < 1) usage();
  mkdir(s.outDir.c_str(), 0755);

  const std::string parts = "," + s.only + ",";
  auto wanted = [&](const char* part) {
    return parts.find("," + std::string(part) + ",") != std::string::npos;
  };
  Report report;
  try {
    report.line("Worker: " + programs.worker.substr(programs.worker.find_last_of('/') + 1) +
                "; load average at the start: " + loadAverage());
    report.line("");
    if (wanted("throughput")) throughput(s, programs, report);
    if (wanted("roundtrip")) roundTrip(s, programs, report);
    if (wanted("cost")) cost(s, programs, report);
    if (wanted("startup")) startupAndSize(s, programs, report);
    report.line("Load average at the end: " + loadAverage());
  } catch (const std::exception& e) {
    std::cerr << "halvarine-bench: " << e.what() << std::endl;
    return 1;
  }

  std::ofstream(s.outDir + "/table.md") << report.md.str();
  std::cout << report.md.str();
  return 0;
}
