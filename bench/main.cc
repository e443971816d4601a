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
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <iostream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "base/allocator.h"
#include "base/clock.h"
#include "bench/bench.h"
#include "tools/mmsserver/server.h"

namespace {

using bench::FetchRun;
using bench::Samples;

struct Settings {
  std::string outDir = ".";
  int rounds = 5;
  int streamMb = 128;
  int costMb = 16;
  int calls = 20000;
  int rttRounds = 7;
  int startups = 10;  // per sample: the clock reads milliseconds
  // System calls, CPU time and context switches: streams at full speed and
  // on shaped links (LINKS), of generated streams with these packet sizes.
  int fullSpeedMb = 64;
  int shapedScale = 1;  // divides the shaped links' stream sizes (--quick)
  int countRounds = 3;
  std::string rates = "8mbit,1mbit,128kbit";
  std::string packetSizes = "8192,1444";
  std::string only = "throughput,roundtrip,cost,startup,syscalls";
  std::vector<int> counts{4096, 16384, 32768, 65511};
  int window = 4;
};

// The shaped links: the rate in tc's form and for people, and a stream long
// enough that a run takes 8 to 35 s.
struct ShapedLink {
  const char* rate;
  const char* name;
  uint64_t streamBytes;
};
const ShapedLink LINKS[] = {{"8mbit", "8 Mbit/s", 8u << 20},
                            {"1mbit", "1 Mbit/s", 2u << 20},
                            {"128kbit", "128 kbit/s", 512u << 10}};
// Start-up, connect and end are measured on a stream of this many packets
// and taken out of the counts per MB.
const int BASELINE_PACKETS = 8;

// In the environment of the benchmark started as the raw peer.
const char RAW_PEER_VAR[] = "HALVARINE_BENCH_RAW_PEER";

const Transport TRANSPORTS[] = {Transport::MMSH, Transport::MMST};

std::string transportName(Transport t) {
  return t == Transport::MMSH ? "MMSH" : "MMST";
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

// The first three fields of /proc/loadavg: other work on the machine shows
// in every timing, so the tables say how busy it was.
std::string loadAverage() {
  std::ifstream in("/proc/loadavg");
  std::string a, b, c;
  in >> a >> b >> c;
  return a + " " + b + " " + c;
}

// Tables for one file of results, between the load averages at its start
// and its end.
struct Report {
  std::ostringstream md;

  // A program by the last three parts of its path (worker-COMMIT/build/
  // halvarine), so that the tables show no directory of this machine.
  static std::string shortName(const std::string& path) {
    size_t at = path.size();
    for (int parts = 0; parts < 3 && at != std::string::npos && at > 0; ++parts)
      at = path.find_last_of('/', at - 1);
    return at == std::string::npos ? path : path.substr(at + 1);
  }
  explicit Report(const bench::Programs& programs) {
    line("Worker: " + programs.worker.substr(programs.worker.find_last_of('/') + 1) +
         (programs.beforeWorker.empty() ? "" : ", before: " + shortName(programs.beforeWorker)) +
         "; load average at the start: " + loadAverage() + "\n");
  }
  void line(const std::string& s) { md << s << "\n"; }
  // Writes the file and shows the tables.
  void save(const std::string& path) {
    line("Load average at the end: " + loadAverage());
    std::ofstream(path) << md.str();
    std::cout << md.str() << std::endl;
  }
};

// Both test servers for one generated stream.
struct Servers {
  AsfFile file;
  std::unique_ptr<MmsTestServer> mmsh, mmst;
  uint64_t streamBytes = 0;

  explicit Servers(int megabytes, uint32_t packetSize = 8192)
      : Servers(static_cast<uint64_t>(megabytes) << 20, packetSize) {}
  Servers(uint64_t bytes, uint32_t packetSize) {
    std::string error;
    if (!parseAsf(generateAsf(bytes, packetSize), file, error)) die("generated stream: " + error);
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

// One way of reading a stream: a worker with READs in a window, or
// libmms-fetch.
struct Contender {
  std::string name;
  std::string worker;  // empty: libmms-fetch
  int window = 0;
};

// The whole stream through `c`; every byte must come.
FetchRun fetch(const Contender& c, const bench::Programs& programs, const Servers& servers,
               Transport t, int count, const bench::Launcher& launcher = {}) {
  FetchRun run;
  std::string error;
  const std::string url = servers.url(t);
  if (!(c.worker.empty()
            ? bench::fetchWithLibmms(programs, url, count, launcher, run, error)
            : bench::fetchThroughWorker(c.worker, url, count, c.window, launcher, run, error)))
    die(c.name + " " + transportName(t) + ": " + error);
  if (run.bytes != servers.streamBytes)
    die(c.name + " delivered " + std::to_string(run.bytes) + " bytes, not " +
        std::to_string(servers.streamBytes));
  return run;
}

// How the costs are measured: the largest READ count (libmms-fetch's read
// size too), in a window.
std::string reads(const Settings& s) {
  return "READ count " + std::to_string(s.counts.back()) + ", window " + std::to_string(s.window);
}

double mbps(const FetchRun& r) {
  return r.bytes / r.seconds / 1e6;
}

// 1. Throughput against the READ count.
void throughput(const Settings& s, const bench::Programs& programs, Report& report) {
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
    for (Transport t : TRANSPORTS) {
      for (int count : s.counts) {
        std::vector<Contender> here = contenders;
        if (!before.worker.empty() && count == s.counts.back()) here.push_back(before);
        for (size_t k = 0; k < here.size(); ++k) {
          // Each round starts with a different contender.
          const Contender& c = here[(k + round) % here.size()];
          const FetchRun run = fetch(c, programs, servers, t, count);
          const std::string key = transportName(t) + "|" + c.name + "|" + std::to_string(count);
          mb[key].add(mbps(run));
          rss[key].add(static_cast<double>(run.peakRssKiB));
        }
      }
      // mmst:// for ffmpeg, which does not take the mms:// name.
      std::string url = servers.url(t), error;
      if (url.compare(0, 6, "mms://") == 0) url = "mmst://" + url.substr(6);
      FetchRun run;
      if (!bench::fetchWithFfmpeg(url, run, error)) die("ffmpeg: " + error);
      run.bytes = servers.streamBytes;
      for (int count : s.counts)
        mb[transportName(t) + "|ffmpeg|" + std::to_string(count)].add(mbps(run));
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
  for (Transport t : TRANSPORTS) {
    const std::string tn = transportName(t);
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
  for (Transport t : TRANSPORTS) {
    for (const std::string& c :
         {contenders[0].name, contenders[1].name, contenders[2].name, std::string("ffmpeg")}) {
      dat << "\"" << transportName(t) << ", " << c << (c == "ffmpeg" ? " (any count)" : "")
          << "\" median min max\n";
      for (int count : s.counts) {
        const Samples& x = mb[transportName(t) + "|" + c + "|" + std::to_string(count)];
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
  for (Transport t : TRANSPORTS) {
    const double w = rss[transportName(t) + "|" + contenders[1].name + big].median();
    const double l = rss[transportName(t) + "|libmms" + big].median();
    report.line("| " + transportName(t) + " | " + fmt("%.0f", w) + " KiB | " + fmt("%.0f", l) +
                " KiB | " + fmt("%+.0f", w - l) + " KiB |");
  }
  report.line("");
}

// 2. Command round trip, through the worker and through the raw peer.
void roundTrip(const Settings& s, const bench::Programs& programs, Report& report) {
  Samples worker, raw;
  for (int round = 0; round < s.rttRounds; ++round) {
    for (int k = 0; k < 2; ++k) {
      const bool isWorker = (k + round) % 2 == 0;
      std::vector<std::string> env;
      if (!isWorker) env.push_back(RAW_PEER_VAR + std::string("=1"));
      double start = 0, sec = 0;
      std::string error;
      if (!bench::ccheckSession(isWorker ? programs.worker : programs.self, env, s.calls, start,
                                sec, error))
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

// 3. Instructions per streamed MB.
void cost(const Settings& s, const bench::Programs& programs, Report& report) {
  Servers servers(s.costMb);
  const double mib = servers.streamBytes / 1048576.0;
  const int count = s.counts.back();
  report.line("### Instructions per streamed MiB (callgrind, whole process, stream of " +
              fmt("%.1f", mib) + " MiB, " + reads(s) + ")\n");
  report.line("| transport | worker | libmms direct | ratio |");
  report.line("|---|---:|---:|---:|");
  // Callgrind counts every iteration of a rep-prefixed string instruction as
  // one instruction, so glibc's "rep movsb" and "rep stosb" for large blocks
  // would cost a byte an instruction. Both contenders run with those paths
  // off (thresholds above any block they copy), and copies are counted as
  // the vector loops they become.
  const std::string big = std::to_string(1 << 30);
  for (Transport t : TRANSPORTS) {
    double per[2];
    for (const Contender& c :
         {Contender{"worker", programs.worker, s.window}, Contender{"libmms", "", 0}}) {
      const std::string file = s.outDir + "/callgrind." + c.name + "." + transportName(t) + ".out";
      fetch(c, programs, servers, t, count,
            {"env",
             "GLIBC_TUNABLES=glibc.cpu.x86_rep_movsb_threshold=" + big +
                 ":glibc.cpu.x86_rep_stosb_threshold=" + big,
             "valgrind", "--tool=callgrind", "--callgrind-out-file=" + file});
      per[c.worker.empty()] = callgrindTotal(file) / mib;
    }
    report.line("| " + transportName(t) + " | " + fmt("%.3g", per[0]) + " | " +
                fmt("%.3g", per[1]) + " | " + fmt("%.3f", per[0] / per[1]) + " |");
  }
  report.line("");
}

// 4. Start-up and size.
void startupAndSize(const Settings& s, const bench::Programs& programs, Report& report) {
  Samples worker, reference;
  std::string error;
  for (int round = 0; round < s.rttRounds; ++round) {
    double start = 0, total = 0, unused = 0;
    for (int i = 0; i < s.startups; ++i) {
      if (!bench::ccheckSession(programs.worker, {}, 0, start, unused, error)) die(error);
      total += start;
    }
    worker.add(total / s.startups * 1e3);
    const int64_t started = nowMs();
    for (int i = 0; i < s.startups; ++i) {
      halvarine::ChildProcess child;
      halvarine::ExitStatus st;
      if (!child.start({programs.libmmsFetch}) || !child.waitExit(10000, st))
        die("libmms-fetch: " + child.error());
    }
    reference.add(static_cast<double>(msSince(started)) / s.startups);
  }
  const std::string stripped = s.outDir + "/halvarine.stripped";
  struct stat sb;
  if (!bench::runProgram({"strip", "-o", stripped, programs.worker}, error) ||
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

// Comma-separated items of a list option.
std::vector<std::string> items(const std::string& list) {
  std::vector<std::string> out;
  std::stringstream in(list);
  for (std::string item; std::getline(in, item, ',');)
    if (!item.empty()) out.push_back(item);
  return out;
}

// 5. System calls, CPU time and context switches per streamed MB, whole
// processes with their start-up taken out: at full speed on the benchmark's
// own loopback, then with that loopback shaped to real-world rates, where
// the packets come one at a time and each can wake the reader. The worker's
// counts include its controller socket; libmms-fetch writes to /dev/null.
void syscalls(const Settings& s, const bench::Programs& programs, Report& report) {
  const int count = s.counts.back();
  std::vector<Contender> contenders{{"libmms-fetch", "", 0}};
  if (!programs.beforeWorker.empty())
    contenders.push_back({"worker before", programs.beforeWorker, s.window});
  contenders.push_back({"worker", programs.worker, s.window});
  const std::string file = s.outDir + "/perf.txt";
  std::string why;
  if (!bench::countingWorks(file, why)) {
    report.line("Not measured: " + why + "\n");
    return;
  }
  bench::PrivateNetwork network;
  const bool own = network.enter(why);
  report.line("### System calls, CPU time and context switches per streamed MB (10^6 bytes), " +
              reads(s) + ", " + std::to_string(s.countRounds) +
              " rounds, start-up and connect taken out\n");
  report.line(
      "| link | packet | transport | program | MB/s | system calls per MB | × libmms-fetch | " +
      std::string("CPU ms per MB | × libmms-fetch | context switches per MB | × libmms-fetch |"));
  report.line("|---|---:|---|---|---:|---:|---:|---:|---:|---:|---:|");

  auto counted = [&](const Contender& c, const Servers& servers, Transport t, FetchRun& run) {
    run = fetch(c, programs, servers, t, count, bench::countingLauncher(file));
    bench::Counts n;
    if (!bench::readCounts(file, n, why)) die(c.name + ": " + why);
    return n;
  };

  for (const std::string& sizeText : items(s.packetSizes)) {
    const uint32_t packetSize = static_cast<uint32_t>(atoi(sizeText.c_str()));
    if (packetSize < 512) die("bad packet size " + sizeText);
    if (own && !network.fullSpeed(why)) die(why);
    // What each program costs to start, connect and end, by transport and
    // contender: a stream of a few packets at full speed.
    std::map<std::string, bench::Counts> startCost;
    uint64_t startBytes = 0;
    {
      Servers tiny(uint64_t(BASELINE_PACKETS) * packetSize, packetSize);
      startBytes = tiny.streamBytes;
      std::map<std::string, Samples> calls, cpu, switches;
      for (int round = 0; round < s.countRounds; ++round) {
        for (Transport t : TRANSPORTS) {
          for (const Contender& c : contenders) {
            FetchRun run;
            const bench::Counts n = counted(c, tiny, t, run);
            const std::string key = transportName(t) + c.name;
            calls[key].add(n.syscalls);
            cpu[key].add(n.cpuMs);
            switches[key].add(n.switches);
          }
        }
      }
      for (auto& [key, v] : calls) {
        startCost[key].syscalls = v.median();
        startCost[key].cpuMs = cpu[key].median();
        startCost[key].switches = switches[key].median();
      }
    }

    std::vector<const ShapedLink*> links{nullptr};  // null: full speed
    for (const std::string& rate : items(s.rates)) {
      const ShapedLink* found = nullptr;
      for (const ShapedLink& l : LINKS)
        if (rate == l.rate) found = &l;
      if (found == nullptr) die("unknown rate " + rate);
      links.push_back(found);
    }
    for (const ShapedLink* link : links) {
      if (link != nullptr && !(own && network.shapeLoopback(link->rate, why))) break;
      Servers servers(link == nullptr ? uint64_t(s.fullSpeedMb) << 20
                                      : link->streamBytes / static_cast<uint64_t>(s.shapedScale),
                      packetSize);
      const double mb = (servers.streamBytes - startBytes) / 1e6;
      std::map<std::string, Samples> rate, calls, cpu, switches;  // by transport and contender
      for (int round = 0; round < s.countRounds; ++round) {
        for (Transport t : TRANSPORTS) {
          for (size_t k = 0; k < contenders.size(); ++k) {
            const Contender& c = contenders[(k + round) % contenders.size()];
            FetchRun run;
            const std::string key = transportName(t) + c.name;
            const bench::Counts n = counted(c, servers, t, run).minus(startCost[key]);
            rate[key].add(mbps(run));
            calls[key].add(n.syscalls / mb);
            cpu[key].add(n.cpuMs / mb);
            switches[key].add(n.switches / mb);
          }
        }
        std::cerr << "counts " << (link ? link->name : "full speed") << ", " << packetSize
                  << "-byte packets: round " << round + 1 << "/" << s.countRounds << " done"
                  << std::endl;
      }
      for (Transport t : TRANSPORTS) {
        for (const Contender& c : contenders) {
          const std::string key = transportName(t) + c.name,
                            base = transportName(t) + contenders[0].name;
          // At full speed the context switches are a handful a run, and
          // what is left of them after the start-up's can be 0 or less.
          auto ratio = [&](std::map<std::string, Samples>& m) {
            const double b = m[base].median();
            return b > 0 ? fmt("%.2f", m[key].median() / b) : std::string("–");
          };
          report.line("| " + std::string(link ? link->name : "full speed") + " | " +
                      std::to_string(packetSize) + " | " + transportName(t) + " | " + c.name +
                      " | " + fmt("%.2f", rate[key].median()) + " | " +
                      withSpread(calls[key], "%.0f") + " | " + ratio(calls) + " | " +
                      withSpread(cpu[key], "%.2f") + " | " + ratio(cpu) + " | " +
                      withSpread(switches[key], "%.0f") + " | " + ratio(switches) + " |");
        }
      }
    }
    if (!why.empty()) break;
  }
  report.line("");
  if (!why.empty()) report.line("Shaped rates not measured: " + why + "\n");
}

void usage() {
  std::cerr
      << "usage: halvarine-bench [--quick] [--out DIR] [--rounds N] [--mb N]\n"
         "         [--cost-mb N] [--calls N] [--only PARTS] [--before WORKER]\n"
         "         [--count-rounds N] [--rates 8mbit,1mbit,128kbit] [--packet-sizes 8192,1444]\n";
  exit(2);
}

}  // namespace

int main(int argc, char** argv) {
  if (getenv(RAW_PEER_VAR) != nullptr) return bench::serveRawPeer();
  signal(SIGPIPE, SIG_IGN);
  keepReplyBuffersResident();
  Settings s;
  bench::Programs programs;
  programs.worker = getenv("HALVARINE_WORKER") != nullptr ? getenv("HALVARINE_WORKER") : "";
  if (programs.worker.empty()) programs.worker = HALVARINE_BENCH_WORKER;
  programs.libmmsFetch = HALVARINE_BENCH_LIBMMS_FETCH;
  char self[4096];
  const ssize_t selfLen = readlink("/proc/self/exe", self, sizeof self - 1);
  programs.self = selfLen > 0 ? std::string(self, static_cast<size_t>(selfLen)) : argv[0];
  const std::map<std::string, int*> numbers{{"--rounds", &s.rounds},
                                            {"--mb", &s.streamMb},
                                            {"--cost-mb", &s.costMb},
                                            {"--calls", &s.calls},
                                            {"--count-rounds", &s.countRounds}};
  const std::map<std::string, std::string*> texts{{"--only", &s.only},
                                                  {"--out", &s.outDir},
                                                  {"--before", &programs.beforeWorker},
                                                  {"--rates", &s.rates},
                                                  {"--packet-sizes", &s.packetSizes}};
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--quick") {
      s.rttRounds = s.startups = s.fullSpeedMb = 2;
      s.rounds = s.costMb = s.countRounds = 1;
      s.shapedScale = 16;
      s.rates = "8mbit";
      s.packetSizes = "8192";
      s.streamMb = 4;
      s.calls = 500;
      s.counts = {4096, 65511};
    } else if (i + 1 < argc && numbers.count(a)) {
      *numbers.at(a) = atoi(argv[++i]);
    } else if (i + 1 < argc && texts.count(a)) {
      *texts.at(a) = argv[++i];
    } else {
      usage();
    }
  }
  if (s.rounds < 1 || s.streamMb < 1 || s.costMb < 1 || s.calls < 1 || s.countRounds < 1) usage();
  mkdir(s.outDir.c_str(), 0755);

  const std::string parts = "," + s.only + ",";
  auto wanted = [&](const char* part) {
    return parts.find("," + std::string(part) + ",") != std::string::npos;
  };
  // The system-call counts have a file of their own, so that either file
  // can be measured again alone.
  try {
    if (wanted("throughput") || wanted("roundtrip") || wanted("cost") || wanted("startup")) {
      Report report(programs);
      if (wanted("throughput")) throughput(s, programs, report);
      if (wanted("roundtrip")) roundTrip(s, programs, report);
      if (wanted("cost")) cost(s, programs, report);
      if (wanted("startup")) startupAndSize(s, programs, report);
      report.save(s.outDir + "/table.md");
    }
    if (wanted("syscalls")) {
      Report report(programs);
      syscalls(s, programs, report);
      report.save(s.outDir + "/syscalls.md");
    }
  } catch (const std::exception& e) {
    std::cerr << "halvarine-bench: " << e.what() << std::endl;
    return 1;
  }
  return 0;
}
