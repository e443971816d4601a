// Opening a stream: the plan a URL calls for, the stream object open and
// closed, and the CPU budget of a library call.

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/time.h>

#include "mms/cpu_budget.h"
#include "mms/opening_plan.h"
#include "mms/wrapper_mms.h"
#include "tests/support/support.h"

namespace {

TEST(OpeningPlan, EachUrlFormGetsItsProxyTransportsAndTargets) {
  size_t rows = 0;
  for (const std::string& line : halvarine::splitLines(support::readFile(OPENING_PLANS))) {
    if (!line.empty() && line[0] == '#') continue;
    const std::string url = line.substr(0, line.find('\t'));
    const OpeningPlan plan = planOpening(url);
    std::string got = url + '\t' +
                      (!plan.viaProxy       ? "-"
                       : plan.proxy.empty() ? "(empty)"
                                            : plan.proxy);
    for (const OpeningAttempt& a : plan.attempts)
      got += (a.transport == STREAM_MMST ? "\tMMST:" : "\tMMSH:") + a.target;
    EXPECT_EQ(line, got);
    ++rows;
  }
  EXPECT_EQ(12u, rows);
}

// An object opened in this process over each transport: what read, the
// position and the length report; closed, it refuses all without the
// library and leaves what it was given as it was. A proxy of an earlier
// stream is removed from the library's environment (a proxy given, the
// empty one too, is checked end to end).
TEST(WrapperMms, ReadsPositionLengthThenClosedRefusesAll) {
  const std::string stream = asfStreamBytes(support::sampleAsf());
  for (Transport t : {Transport::MMST, Transport::MMSH}) {
    ServerOptions options;
    options.transport = t;
    MmsTestServer server(support::sampleAsf(), options);
    std::string error;
    ASSERT_TRUE(server.start(error)) << error;
    const std::string name = t == Transport::MMST ? "MMST" : "MMSH";
    WrapperMms w(server.url());
    setenv("http_proxy", "127.0.0.1:1", 1);
    testing::internal::CaptureStderr();
    EXPECT_EQ(0u, w.connect());
    EXPECT_EQ(nullptr, getenv("http_proxy"));
    char buf[1000];
    int count = 0;
    EXPECT_EQ(0u, w.read(buf, sizeof buf, count));
    EXPECT_EQ(stream.substr(0, 1000), std::string(buf, static_cast<size_t>(count)));
    uint32_t position = 0, length = 0;
    EXPECT_EQ(0u, w.getCurrentPos(position));
    EXPECT_EQ(0u, w.getLength(length));
    EXPECT_EQ(1000u, position);
    EXPECT_EQ(stream.size(), length);
    EXPECT_EQ(0u, w.close());
    const std::string opened = testing::internal::GetCapturedStderr();
    // No request asks for the position: its lines are seen only here.
    EXPECT_NE(std::string::npos, opened.find("\nWrapperMms::getCurrentPos()] call! \n"
                                             "[WrapperMms::getCurrentPos()] get " +
                                             name + " pos! offset=1000\n"));

    testing::internal::CaptureStderr();
    count = 99;
    EXPECT_EQ(1u, w.read(nullptr, 10, count));
    EXPECT_EQ(0, count);
    count = 99;
    EXPECT_EQ(5u, w.read(buf, 10, count));
    EXPECT_EQ(0, count);
    EXPECT_EQ(5u, w.getLength(length));
    EXPECT_EQ(5u, w.getCurrentPos(position));
    EXPECT_EQ(0u, w.close());
    EXPECT_FALSE(w.isConnected());
    EXPECT_EQ(stream.size() + 1000, length + position) << "left as they were";
    EXPECT_EQ("[WrapperMms::getLength()] call! \nWrapperMms::getCurrentPos()] call! \n",
              testing::internal::GetCapturedStderr());
  }
}

// The budget is armed for one library call only: a timer left running
// would end the worker after its next few seconds of work.
TEST(CpuBudget, IsSwitchedOffWhenTheCallEnds) {
  itimerval timer;
  {
    CpuBudget budget;
    getitimer(ITIMER_PROF, &timer);
    EXPECT_GT(timer.it_value.tv_sec, LIBRARY_CALL_CPU_BUDGET_S - 1);
  }
  getitimer(ITIMER_PROF, &timer);
  EXPECT_EQ(0, timer.it_value.tv_sec);
  EXPECT_EQ(0, timer.it_value.tv_usec);
}

}  // namespace
