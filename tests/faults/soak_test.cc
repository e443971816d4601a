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

class Soak : public support::StreamTest {};

TEST_F(Soak, CyclesLeakNeitherMemoryNorDescriptors) {
  const char* text = getenv("HALVARINE_SOAK_CYCLES");
  const int cycles = text != nullptr && atoi(text) > WARM_UP ? atoi(text) : 300;
  const std::string urls[] = {startServer(StreamProtocol::MMST).url(),
                              startServer(StreamProtocol::MMSH).url()};
  const int count = halvarine::maxReadCount();
  const std::string head = asfStreamBytes(support::sampleAsf()).substr(0, count);
  const pid_t pid = session.worker().pid();
  long baseKb = 0, peakKb = 0, baseFds = 0, peakFds = 0;
  const auto start = nowMs();
  for (int i = 1; i <= cycles; ++i) {
    ASSERT_EQ("OK_", connect(urls[i % 2]).status()) << "cycle " << i;
    ASSERT_TRUE(readStream(count, 1, 10).bytes == head) << "cycle " << i;
    ASSERT_EQ("OK_", command("CLOSE").status()) << "cycle " << i;
    if (i == WARM_UP) {
      baseKb = procStatusKb(pid, "VmRSS");
      baseFds = support::openFds(pid);
    }
    peakKb = std::max(peakKb, i < WARM_UP ? 0 : procStatusKb(pid, "VmRSS"));
    peakFds = std::max(peakFds, i < WARM_UP ? 0 : support::openFds(pid));
  }
  // Allocator noise, not one object per cycle (a cycle moves about 65 kB).
  EXPECT_LE(peakKb - baseKb, 256) << "resident memory grows";
  EXPECT_EQ(baseFds, peakFds) << "descriptors leak";
  std::cout << "[ observed ] Soak: " << cycles << " cycles in " << secondsSince(start)
            << " s; VmRSS " << baseKb << " kB after warm-up, peak " << peakKb << " kB; descriptors "
            << baseFds << ", peak " << peakFds << std::endl;
}

}  // namespace
