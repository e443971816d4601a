// The soak: CONNECT / READ / CLOSE cycles on one worker, the transports in
// turn, while its resident memory and descriptors are watched. Whatever a
// cycle leaks shows as growth. HALVARINE_SOAK_CYCLES sets the count (300).

#include <stdlib.h>

#include <algorithm>
#include <iostream>
#include <string>

#include "tests/support/support.h"

namespace {

// Cycles before the first sample: allocator and library reach their size.
const int WARM_UP = 20;
// Allocator noise, not one object per cycle (a cycle moves about 65 kB).
const long RSS_MARGIN_KB = 256;

class Soak : public support::StreamTest {};

TEST_F(Soak, CyclesLeakNeitherMemoryNorDescriptors) {
  const char* text = getenv("HALVARINE_SOAK_CYCLES");
  const int cycles = text != nullptr && atoi(text) > WARM_UP ? atoi(text) : 300;
  MmsTestServer* servers[] = {&startServer(Transport::MMST), &startServer(Transport::MMSH)};
  const pid_t pid = session.worker().pid();
  const std::string head =
      asfStreamBytes(support::sampleAsf()).substr(0, halvarine::maxReadCount());

  long baseRss = 0, peakRss = 0, baseFds = 0, peakFds = 0;
  const auto start = support::Clock::now();
  for (int i = 1; i <= cycles; ++i) {
    ASSERT_EQ("OK_", connect(servers[i % 2]->url()).status()) << "cycle " << i;
    const halvarine::Reply r = read(halvarine::maxReadCount());
    ASSERT_EQ("OK_", r.status()) << "cycle " << i;
    ASSERT_TRUE(r.values().at(1).bytes == head) << "cycle " << i;
    ASSERT_EQ("OK_", command("CLOSE").status()) << "cycle " << i;
    session.worker().output();  // about ten lines a cycle: a full pipe blocks the worker
    if (i == WARM_UP) {
      baseRss = peakRss = support::residentKb(pid);
      baseFds = peakFds = support::openFds(pid);
    } else if (i > WARM_UP && (i % 10 == 0 || i == cycles)) {
      peakRss = std::max(peakRss, support::residentKb(pid));
      peakFds = std::max(peakFds, support::openFds(pid));
    }
  }
  EXPECT_LE(peakRss - baseRss, RSS_MARGIN_KB) << "resident memory grows";
  EXPECT_EQ(baseFds, peakFds) << "descriptors leak";
  std::cout << "[ observed ] Soak: " << cycles << " cycles in " << support::secondsSince(start)
            << " s; VmRSS " << baseRss << " kB after warm-up, peak " << peakRss
            << " kB; descriptors " << baseFds << ", peak " << peakFds << std::endl;
}

}  // namespace
