// The fault matrix: each case row of tools/mmsserver/faults.tsv whose
// outcome kind this file knows is a test, the worker under the row's fault,
// held to the row's outcome. The table says what each row requires, and
// docs/RELIABILITY.md shows it with what was observed.
//
// The hazard rows are data that libmms 0.6.4 cannot survive and no wait of
// the worker can stop. There the outcome is the controller's: the worker
// dies, the controller notices (its socket ends), kills and reaps it, and is
// left with no process and no socket file.

#include <signal.h>

#include <algorithm>
#include <iostream>
#include <map>
#include <string>

#include "tests/support/support.h"

using halvarine::FetchStatus;
using halvarine::Reply;
using halvarine::Request;
using support::FaultRow;
using support::secondsSince;

namespace {

// Longer than the worker's CPU budget for one library call, so a loop that
// budget ends is seen as the worker's death, not as a missing reply.
const int HAZARD_REPLY_TIMEOUT_S = 15;

class FaultMatrix : public support::StreamTest, public ::testing::WithParamInterface<FaultRow> {
 public:
  void report(const std::string& observed) {
    std::cout << "[ observed ] " << GetParam().name << ": " << observed << std::endl;
  }
  std::string url() { return startServer(GetParam().transport, GetParam().faults).url(); }

  // Ends the open at once with ERR; the worker still serving.
  void openFails() {
    const auto start = support::Clock::now();
    EXPECT_EQ("ERR", connect(url()).status());
    EXPECT_LT(secondsSince(start), 3.0) << "the open waited for a time-out";
    expectOnlyCcheckReply(nextEcho());
    report("CONNECT ERR after " + std::to_string(secondsSince(start)) + " s");
  }

  // The READ that needs the slow bytes waits them all out and answers whole.
  void waitsWhole() {
    const AsfFile& sample = support::sampleAsf();
    const size_t count = sample.header.size() + 2 * sample.packetSize;
    const auto start = support::Clock::now();
    ASSERT_EQ("OK_", connect(url()).status());
    const Request req = request("READ", {support::countDigits(static_cast<int>(count))});
    const Reply r = call(req, 15);
    EXPECT_GE(secondsSince(start), 7.0) << "the slow bytes were not waited for";
    EXPECT_TRUE(r.frame == support::expectedReadReply(req.echo, "READ",
                                                      asfStreamBytes(sample).substr(0, count)))
        << "status " << r.status();
    report("READ answered whole after " + std::to_string(secondsSince(start)) + " s");
  }

  // libmms takes the short read as a failed packet but keeps the connection,
  // reading on from the middle of the packet: not the stream in order.
  void shortRead() {
    const std::string reference = asfStreamBytes(support::sampleAsf());
    ASSERT_EQ("OK_", connect(url()).status());
    size_t delivered = 0;
    bool wrongBytes = false;
    for (int i = 0; i < 12 && !wrongBytes; ++i) {
      const Reply r = call(request("READ", {support::countDigits(halvarine::maxReadCount())}), 10);
      if (r.status() != "OK_") break;
      const std::string data = r.values().at(1).bytes;
      wrongBytes = reference.compare(delivered, data.size(), data) != 0;
      delivered += data.size();
    }
    EXPECT_TRUE(wrongBytes || delivered < reference.size()) << "the stream survived whole";
    report((wrongBytes ? "wrong bytes after " : "stream ends after ") + std::to_string(delivered));
  }

  // 50 MB without 0x16: the worker keeps only a tail that may start a frame.
  void garbage() {
    const pid_t pid = session.worker().pid();
    expectOnlyCcheckReply(nextEcho());
    const long before = support::residentKb(pid);
    ASSERT_GT(before, 0);
    const std::string piece(1 << 20, 'A');
    long peak = before;
    for (int mb = 0; mb < 50; ++mb) {
      ASSERT_TRUE(session.sendRaw(piece)) << session.error();
      peak = std::max(peak, support::residentKb(pid));
    }
    expectOnlyCcheckReply(nextEcho());
    peak = std::max(peak, support::residentKb(pid));
    EXPECT_LT(peak - before, 256) << "resident memory grew with the garbage";
    report("VmRSS " + std::to_string(before) + " kB before, peak " + std::to_string(peak) + " kB");
  }

  // libmms cuts what it sends to its buffers (MMSH then waits out the 7 s
  // for an answer that never comes). Each log line naming the URL is 60 kB:
  // standard error is read meanwhile, or the full pipe blocks the worker.
  void longUrl() {
    std::string to = startServer(GetParam().transport).url("");
    to.append(60000 - to.size(), 'a');
    const Request req = request("CONNECT", {to});
    const auto start = support::Clock::now();
    ASSERT_TRUE(session.send(req)) << session.error();
    Reply r;
    bool answered = false;
    while (!answered && secondsSince(start) < 15) {
      session.worker().output();
      answered = session.connection().receive(req.echo, 1000, r);
    }
    ASSERT_TRUE(answered) << session.error();
    EXPECT_TRUE(r.status() == "OK_" || r.status() == "ERR") << r.status();
    expectOnlyCcheckReply(nextEcho());
    report("CONNECT " + r.status() + " after " + std::to_string(secondsSince(start)) + " s");
  }

  void nulInUrl() {
    const Reply r = connectCounted(startServer(GetParam().transport).url("sam") +
                                   std::string(1, '\0') + "ple.asf");
    EXPECT_TRUE(r.status() == "OK_" || r.status() == "ERR") << r.status();
    expectOnlyCcheckReply(nextEcho());
    report("CONNECT " + r.status());
  }

  // The worker dies by a signal inside CONNECT (`signal`, or any for 0); the
  // controller sees its socket end, kills and reaps it, stops listening.
  void dies(int signal) {
    halvarine::PipelineOptions options;
    options.replyTimeoutMs = HAZARD_REPLY_TIMEOUT_S * 1000;
    options.keepAliveMs = 0;
    options.deadlineMs = halvarine::monotonicMs() + (HAZARD_REPLY_TIMEOUT_S + 2) * 1000;
    halvarine::RequestPipeline pipeline(session.connection(), options);
    Reply r;
    const auto start = support::Clock::now();
    const FetchStatus st = pipeline.call("CONNECT", {url()}, r);
    EXPECT_EQ(FetchStatus::LOST, st) << halvarine::statusText(st);
    const pid_t pid = session.worker().pid();
    halvarine::ExitStatus how;
    if (!session.worker().waitExit(0, how)) {
      session.worker().kill();
      session.worker().waitExit(1000, how);
    }
    session.connection().close();
    session.listener().close();
    support::expectNothingLeft(pid);
    EXPECT_TRUE(how.signaled && (signal == 0 || how.signal == signal)) << how.toString();
    report(std::string("controller: ") + halvarine::statusText(st) + " after " +
           std::to_string(secondsSince(start)) + " s; worker ended by " + how.toString());
  }

  // libmms opens the stream again at each end chunk, the header handed on
  // as data again; every READ is answered, the stream never ends.
  void continues() {
    MmsTestServer& server = startServer(GetParam().transport, GetParam().faults);
    ASSERT_EQ("OK_", connect(server.url()).status());
    std::string all;
    for (int i = 0; i < 12; ++i) {
      const Reply r = read(halvarine::maxReadCount());
      ASSERT_EQ("OK_", r.status()) << "after " << all.size() << " bytes";
      all += r.values().at(1).bytes;
    }
    EXPECT_GT(all.size(), 3 * asfStreamBytes(support::sampleAsf()).size());
    EXPECT_NE(std::string::npos, all.find(support::sampleAsf().header, 1)) << "no header again";
    EXPECT_GE(server.connectionsServed(), 6);
    report(std::to_string(all.size()) + " bytes in 12 READs, no EOF; " +
           std::to_string(server.connectionsServed()) + " connections");
  }
};

TEST_P(FaultMatrix, Outcome) {
  const FaultCase& c = GetParam().row;
  SCOPED_TRACE(c.fault + ": must give: " + c.required);
  const std::map<std::string, void (FaultMatrix::*)()> runners = {
      {"open-fails", &FaultMatrix::openFails}, {"waits-whole", &FaultMatrix::waitsWhole},
      {"short-read", &FaultMatrix::shortRead}, {"garbage", &FaultMatrix::garbage},
      {"long-url", &FaultMatrix::longUrl},     {"nul-in-url", &FaultMatrix::nulInUrl},
      {"continues", &FaultMatrix::continues}};
  if (c.outcome == "dies" || c.outcome == "dies-sigprof") {
    return dies(c.outcome == "dies" ? 0 : SIGPROF);
  }
  (this->*runners.at(c.outcome))();
}

INSTANTIATE_TEST_SUITE_P(Rows, FaultMatrix,
                         ::testing::ValuesIn(support::faultRows(
                             {"open-fails", "waits-whole", "short-read", "garbage", "long-url",
                              "nul-in-url", "dies", "dies-sigprof", "continues"})),
                         support::FaultRowName());

}  // namespace
