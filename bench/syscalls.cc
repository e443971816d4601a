// System calls, CPU time and context switches per streamed MB, at full
// speed and on shaped links.

#include <stdint.h>

#include <iostream>
#include <map>
#include <sstream>

#include "bench/parts.h"
#include "tools/common/number.h"

namespace bench {

namespace {

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

// Comma-separated items of a list option.
std::vector<std::string> items(const std::string& list) {
  std::vector<std::string> out;
  std::stringstream in(list);
  for (std::string item; std::getline(in, item, ',');)
    if (!item.empty()) out.push_back(item);
  return out;
}

}  // namespace

// 5. System calls, CPU time and context switches per streamed MB, whole
// processes with their start-up taken out: at full speed on the benchmark's
// own loopback, then with that loopback shaped to real-world rates, where
// the packets come one at a time and each can wake the reader. The worker's
// counts include its controller socket; libmms-fetch writes to /dev/null.
void syscalls(const Settings& s, const Programs& programs, Report& report) {
  const int count = s.counts.back();
  std::vector<Contender> contenders{{"libmms-fetch", "", 0}};
  if (!programs.beforeWorker.empty())
    contenders.push_back({"worker before", programs.beforeWorker, s.window});
  contenders.push_back({"worker", programs.worker, s.window});
  const std::string file = s.outDir + "/perf.txt";
  std::string why;
  if (!countingWorks(file, why)) {
    report.line("Not measured: " + why + "\n");
    return;
  }
  PrivateNetwork network;
  const bool own = network.enter(why);
  report.line("### System calls, CPU time and context switches per streamed MB (10^6 bytes), " +
              readsText(s) + ", " + std::to_string(s.countRounds) +
              " rounds, start-up and connect taken out\n");
  report.line(
      "| link | packet | transport | program | MB/s | system calls per MB | × libmms-fetch | " +
      std::string("CPU ms per MB | × libmms-fetch | context switches per MB | × libmms-fetch |"));
  report.line("|---|---:|---|---|---:|---:|---:|---:|---:|---:|---:|");

  auto counted = [&](const Contender& c, const Servers& servers, StreamProtocol p, FetchRun& run) {
    run = fetch(c, programs, servers, p, count, countingLauncher(file));
    Counts n;
    if (!readCounts(file, n, why)) die(c.name + ": " + why);
    return n;
  };

  for (const std::string& sizeText : items(s.packetSizes)) {
    long long size = 0;
    std::string bad;
    if (!tools::parseNumber(sizeText, 512, UINT32_MAX, size, bad))
      die("bad packet size " + sizeText + ": " + bad);
    const uint32_t packetSize = static_cast<uint32_t>(size);
    if (own && !network.fullSpeed(why)) die(why);
    // What each program costs to start, connect and end, by transport and
    // contender: a stream of a few packets at full speed.
    std::map<std::string, Counts> startCost;
    uint64_t startBytes = 0;
    {
      Servers tiny(uint64_t(BASELINE_PACKETS) * packetSize, packetSize);
      startBytes = tiny.streamBytes;
      std::map<std::string, Samples> calls, cpu, switches;
      for (int round = 0; round < s.countRounds; ++round) {
        for (StreamProtocol p : PROTOCOLS) {
          for (const Contender& c : contenders) {
            FetchRun run;
            const Counts n = counted(c, tiny, p, run);
            const std::string key = protocolName(p) + c.name;
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
        for (StreamProtocol p : PROTOCOLS) {
          for (size_t k = 0; k < contenders.size(); ++k) {
            const Contender& c = contenders[(k + round) % contenders.size()];
            FetchRun run;
            const std::string key = protocolName(p) + c.name;
            const Counts n = counted(c, servers, p, run).minus(startCost[key]);
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
      for (StreamProtocol p : PROTOCOLS) {
        for (const Contender& c : contenders) {
          const std::string key = protocolName(p) + c.name,
                            base = protocolName(p) + contenders[0].name;
          // At full speed the context switches are a handful a run, and
          // what is left of them after the start-up's can be 0 or less.
          auto ratio = [&](std::map<std::string, Samples>& m) {
            const double b = m[base].median();
            return b > 0 ? fmt("%.2f", m[key].median() / b) : std::string("–");
          };
          report.line("| " + std::string(link ? link->name : "full speed") + " | " +
                      std::to_string(packetSize) + " | " + protocolName(p) + " | " + c.name +
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

}  // namespace bench
