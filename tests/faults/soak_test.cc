// The soak: many CONNECT / READ / CLOSE cycles on one worker, the two
// transports in turn, while its resident memory and its open descriptors
// are watched. Whatever a cycle leaks shows as growth over the run.
//
// HALVARINE_SOAK_CYCLES sets the number of cycles (default 300).

#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <iostream>
#include <string>

#include "tests/faults/fault_support.h"

namespace {

const int DEFAULT_CYCLES = 300;
// Cycles before the first sample: the allocator and the library reach
// their working size on the first streams.
const int WARM_UP = 20;
// Growth allowed after warm-up: allocator noise, not a leak of one object
// per cycle (a cycle moves about 65 kB).
const long RSS_MARGIN_KB = 256;
const long FD_MARGIN = 0;

int cyclesFromEnvironment() {
  const char* text = getenv("HALVARINE_SOAK_CYCLES");
  if (text == nullptr || *text == '\0') return DEFAULT_CYCLES;
  const int n = atoi(text);
  return n > WARM_UP ? n : DEFAULT_CYCLES;
}

class Soak : public faults::FaultTest {};

TEST_F(Soak, CyclesLeakNeitherMemoryNorDescriptors) {
  const int cycles = cyclesFromEnvironment();
  MmsTestServer& mmst = startServer(Transport::MMST);
  MmsTestServer& mmsh = startServer(Transport::MMSH);
  const pid_t pid = session.worker().pid();
  const std::string reference = asfStreamBytes(e2e::sampleAsf());

  faults::ProcSample base, peak, last;
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < cycles; ++i) {
    MmsTestServer& server = i % 2 == 0 ? mmst : mmsh;
    ASSERT_EQ("OK_", connect(server.url()).status()) << "cycle " << i;
    const controller::Reply r = read(65511);
    ASSERT_EQ("OK_", r.status()) << "cycle " << i;
    ASSERT_EQ(2u, r.values().size()) << "cycle " << i;
    ASSERT_TRUE(r.values().at(1).bytes == reference.substr(0, 65511)) << "cycle " << i;
    ASSERT_EQ("OK_", command("CLOSE").status()) << "cycle " << i;
    // About ten lines a cycle: read them, or the pipe fills and the worker
    // blocks on its next line.
    session.worker().stderrText();
    if (i + 1 == WARM_UP) {
      base = peak = faults::sampleProcess(pid);
    } else if (i + 1 > WARM_UP && ((i + 1) % 10 == 0 || i + 1 == cycles)) {
      last = faults::sampleProcess(pid);
      peak.rssKb = std::max(peak.rssKb, last.rssKb);
      peak.fds = std::max(peak.fds, last.fds);
    }
  }
  const double took =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_LE(peak.rssKb - base.rssKb, RSS_MARGIN_KB) << "resident memory grows";
  EXPECT_LE(peak.fds - base.fds, FD_MARGIN) << "descriptors leak";
  EXPECT_EQ(base.fds, last.fds);
  report("Soak", std::to_string(cycles) + " cycles in " + std::to_string(took) + " s; VmRSS " +
                     std::to_string(base.rssKb) + " kB after warm-up, peak " +
                     std::to_string(peak.rssKb) + " kB, last " + std::to_string(last.rssKb) +
                     " kB; descriptors " + std::to_string(base.fds) + ", peak " +
                     std::to_string(peak.fds) + ", last " + std::to_string(last.fds));
}

}  // namespace
