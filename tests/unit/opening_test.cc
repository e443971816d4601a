// Opening a stream without a server: the plan a URL calls for, the proxy it
// hands the library, and the stream object's closed state.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/time.h>

#include "mms/cpu_budget.h"
#include "mms/opening_plan.h"
#include "mms/wrapper_mms.h"
#include "stderr_capture.h"
#include "tests/support/support.h"

namespace {

const StreamType T = STREAM_MMST, H = STREAM_MMSH;

TEST(OpeningPlan, EachUrlFormGetsItsProxyTransportsAndTargets) {
  struct Row {
    std::string url;
    bool viaProxy;
    std::string proxy;
    std::vector<std::pair<StreamType, std::string>> attempts;
  } const rows[] = {
      {"mms://h/l", false, "", {{T, "mms://h/l"}, {H, "mms://h/l"}}},
      {"mmst://h/l", false, "", {{T, "mmst://h/l"}, {H, "mmst://h/l"}}},
      {"http://h/l", false, "", {{H, "mmsh://h/l"}}},
      {"mmsh://h/l", false, "", {{H, "mmsh://h/l"}}},
      {"HTTP://h/l", false, "", {{T, "HTTP://h/l"}, {H, "HTTP://h/l"}}},
      {"", false, "", {{T, ""}, {H, ""}}},
      {"p:80/http://h/l", true, "p:80", {{H, "mmsh://h/l"}}},
      {"p:80/mms://h/l", true, "p:80", {{H, "mms://h/l"}}},
      {"p/mmst://h/l", true, "p", {{H, "mmst://h/l"}}},
      {"/mmsh://h/l", true, "", {{H, "mmsh://h/l"}}},
      // The markers' fixed order splits, not their places in the URL.
      {"a/http://b/mms://c", true, "a/http://b", {{H, "mms://c"}}},
      {"a/mmsh://b/mmsh://c", true, "a", {{H, "mmsh://b/mmsh://c"}}},
  };
  for (const Row& r : rows) {
    const OpeningPlan plan = planOpening(r.url);
    EXPECT_EQ(r.viaProxy, plan.viaProxy) << r.url;
    EXPECT_EQ(r.proxy, plan.proxy) << r.url;
    std::vector<std::pair<StreamType, std::string>> attempts;
    for (const OpeningAttempt& a : plan.attempts) attempts.emplace_back(a.transport, a.target);
    EXPECT_EQ(r.attempts, attempts) << r.url;
  }
}

// The plan carried out (its log lines are checked end to end): the proxy
// reaches the library through http_proxy, set (to the empty proxy too), or
// removed so that no proxy outlives its stream.
TEST(WrapperMmsConnect, HandsTheProxyToTheLibraryThroughTheEnvironment) {
  support::RefusingPort refusing;
  const std::string hp = "127.0.0.1:" + std::to_string(refusing.port());
  const std::pair<std::string, const char*> rows[] = {{"mms://" + hp + "/l", nullptr},
                                                      {hp + "/http://h/l", hp.c_str()},
                                                      {"/mmsh://" + hp + "/l", ""}};
  for (const auto& r : rows) {
    setenv("http_proxy", "stale", 1);
    StderrCapture quiet;
    EXPECT_EQ(2u, WrapperMms(r.first).connect()) << r.first;
    const char* proxy = getenv("http_proxy");
    EXPECT_EQ(std::string(r.second ? r.second : "(removed)"), proxy ? proxy : "(removed)");
  }
}

TEST(WrapperMmsClosed, RefusesEverythingQuietlyButTheQueries) {
  WrapperMms w("mms://127.0.0.1/none");
  StderrCapture err;
  int count = 99;
  char buf[10];
  EXPECT_EQ(1u, w.read(nullptr, 10, count));
  EXPECT_EQ(0, count);
  count = 99;
  EXPECT_EQ(5u, w.read(buf, 10, count));
  EXPECT_EQ(0, count);
  uint32_t length = 1234, pos = 5678;
  EXPECT_EQ(5u, w.getLength(length));
  EXPECT_EQ(5u, w.getCurrentPos(pos));
  EXPECT_EQ(1234u, length);
  EXPECT_EQ(5678u, pos);
  EXPECT_EQ(0u, w.close());
  EXPECT_FALSE(w.isConnected());
  EXPECT_EQ("[WrapperMms::getLength()] call! \nWrapperMms::getCurrentPos()] call! \n", err.text());
}

// An object opened in this process over each transport: what read, the
// position and the length report, and the stream forgotten on close.
TEST(WrapperMmsOpen, ReadsPositionLengthAndClose) {
  const std::string stream = asfStreamBytes(support::sampleAsf());
  for (Transport t : {Transport::MMST, Transport::MMSH}) {
    ServerOptions options;
    options.transport = t;
    MmsTestServer server(support::sampleAsf(), options);
    std::string error;
    ASSERT_TRUE(server.start(error)) << error;
    const std::string name = t == Transport::MMST ? "MMST" : "MMSH";
    WrapperMms w(server.url());
    StderrCapture err;
    ASSERT_EQ(0u, w.connect());
    char buf[1000];
    int count = 0;
    ASSERT_EQ(0u, w.read(buf, sizeof buf, count));
    EXPECT_EQ(stream.substr(0, 1000), std::string(buf, static_cast<size_t>(count)));
    uint32_t position = 0, length = 0;
    EXPECT_EQ(0u, w.getCurrentPos(position));
    EXPECT_EQ(0u, w.getLength(length));
    EXPECT_EQ(0u, w.close());
    EXPECT_EQ(5u, w.read(buf, 10, count));
    EXPECT_EQ(1000u, position);
    EXPECT_EQ(stream.size(), length);
    const std::vector<std::string> lines = support::lines(err.text());
    EXPECT_EQ(1u, support::countLines(
                      lines, "[WrapperMms::getCurrentPos()] get " + name + " pos! offset=1000"));
    EXPECT_EQ(1u, support::countLines(lines, "[WrapperMms::getLength()] get " + name +
                                                 " length : " + std::to_string(stream.size())));
    EXPECT_EQ("[WrapperMms::close()] close " + name + " stream! ", lines.back());
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
