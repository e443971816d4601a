// Opening a stream: the plan a URL calls for, the stream object open and
// closed, and the CPU budget of a library call.

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/time.h>

#include <memory>

#include "mms/cpu_budget.h"
#include "mms/opening_plan.h"
#include "mms/wrapper_mms.h"
#include "tests/support/support.h"

namespace {

// Each form of URL: its proxy ("-" for none, "(empty)" for the empty one),
// then each attempt as transport:target.
TEST(OpeningPlan, EachUrlFormGetsItsProxyTransportsAndTargets) {
  const struct {
    const char* url;
    const char* plan;
  } rows[] = {
      {"", "- MMST: MMSH:"},
      {"mmst://h/l", "- MMST:mmst://h/l MMSH:mmst://h/l"},
      {"HTTP://h/l", "- MMST:HTTP://h/l MMSH:HTTP://h/l"},
      {"p:80/http://h/l", "p:80 MMSH:mmsh://h/l"},
      {"p:80/mms://h/l", "p:80 MMSH:mms://h/l"},
      {"p/mmst://h/l", "p MMSH:mmst://h/l"},
      {"/mmsh://h/l", "(empty) MMSH:mmsh://h/l"},
      // The markers' fixed order splits, not their places in the URL.
      {"a/http://b/mms://c", "a/http://b MMSH:mms://c"},
      {"a/mmsh://b/mmsh://c", "a MMSH:mmsh://b/mmsh://c"},
  };
  for (const auto& row : rows) {
    const OpeningPlan plan = planOpening(row.url);
    std::string got = !plan.viaProxy ? "-" : plan.proxy.empty() ? "(empty)" : plan.proxy;
    for (const OpeningAttempt& a : plan.attempts)
      got += (a.transport == STREAM_MMST ? " MMST:" : " MMSH:") + a.target;
    EXPECT_EQ(row.plan, got) << row.url;
  }
}

// An object opened in this process over each transport: what read, the
// position and the length report; closed, it refuses all without the
// library and leaves what it was given as it was. A proxy of an earlier
// stream is removed from the library's environment (a proxy given, the
// empty one too, is checked end to end).
TEST(WrapperMms, ReadsPositionLengthThenClosedRefusesAll) {
  const std::string stream = asfStreamBytes(support::sampleAsf());
  for (StreamProtocol t : {StreamProtocol::MMST, StreamProtocol::MMSH}) {
    ServerOptions options;
    options.protocol = t;
    const std::unique_ptr<MmsTestServer> server =
        support::startMmsServer(support::sampleAsf(), options);
    ASSERT_FALSE(HasFailure());
    const std::string name = t == StreamProtocol::MMST ? "MMST" : "MMSH";
    WrapperMms w(server->url());
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
