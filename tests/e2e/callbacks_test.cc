// The worker's socket callbacks as the controller sees them, against
// servers that fail on purpose: names that do not resolve, ports that
// refuse, peers that reset, close or fall silent in the middle of a READ
// or before the header, and SIGTERM while a READ waits on a silent server.

#include <signal.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "tests/e2e/stream_test_support.h"

using controller::hex;
using controller::Reply;
using controller::Request;
using e2e::expectedReadReply;
using e2e::expectedReply;

namespace {

using Clock = std::chrono::steady_clock;

const char TCP_CONNECT[] = "[WrapperMms::io_tcp_connect]";
const char TCP_FAILED[] = "[WrapperMms::io_tcp_connect] connect failed.";
const char SELECT_TIMEOUT[] = "[WrapperMms::io_read()] select timeout!";
const char READ_EOF[] = "[WrapperMms::io_read()] EOF";
const char READ_RESET[] = "[WrapperMms::io_read()] read error! errno=104";
const char CONNECT_FAILED[] = "[commandConnect()] MMS connect server!! : 2";
const char MMSH_FAILED[] = "[WrapperMms::connect()] open MMSH stream failed! ";
const char SIGTERM_TEXT[] = "\n**** SIGINT ****\n";

// Where the faults strike: past the header and the first READ of 65,511
// bytes, inside the second.
const int64_t MID_STREAM = 100000;
const int BIG_READ = 65511;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

bool contains(const std::vector<std::string>& lines, const std::string& line) {
  return std::find(lines.begin(), lines.end(), line) != lines.end();
}

std::string transportName(const ::testing::TestParamInfo<Transport>& info) {
  return info.param == Transport::MMST ? "MMST" : "MMSH";
}

class Callbacks : public e2e::StreamTest {
 protected:
  std::string urlOf(const MmsTestServer& server, Transport transport) {
    return std::string(transport == Transport::MMST ? "mms" : "mmsh") + "://127.0.0.1:" +
           std::to_string(server.port()) + "/x";
  }

  std::vector<std::string> connectLines(const std::string& url) {
    return {"[commandConnect()] command size : 7", "[WrapperMms::connect()] call! ",
            "[WrapperMms::connect()] url=" + url};
  }

  // Opens a stream whose server misbehaves after `faultAt` bytes, with the
  // reference taken from a well-behaved twin, and reads the first 65,511
  // bytes, which come before the fault.
  void openFaulty(Transport transport, const Faults& faults) {
    reference = referenceFor(urlOf(startServer(transport), transport));
    MmsTestServer& faulty = startServer(transport, faults);
    ASSERT_EQ("OK_", connect(urlOf(faulty, transport)).status());
    newLines();
    const unsigned char echo = nextEcho();
    Reply r = call(Request::command("READ", echo, {countDigits(BIG_READ)}));
    ASSERT_TRUE(r.frame == expectedReadReply(echo, "READ", reference.substr(0, BIG_READ)));
    delivered = BIG_READ;
  }

  // Takes a READ reply that may carry bytes: they must continue the
  // reference exactly. Returns the status word.
  std::string takeReadReply(const Reply& r, unsigned char echo) {
    if (r.status() != "OK_") {
      EXPECT_EQ(hex(expectedReply(echo, {"READ", r.status()})), hex(r.frame));
      return r.status();
    }
    const std::string data = r.values().at(1).bytes;
    EXPECT_GT(data.size(), 0u);
    EXPECT_TRUE(r.frame == expectedReadReply(echo, "READ", reference.substr(delivered, data.size())))
        << "bytes after the fault at " << delivered << " are not the stream's";
    delivered += data.size();
    return "OK_";
  }

  // READs until one does not answer OK_; each answer within `timeoutS`.
  std::string readUntilNotOk(int timeoutS) {
    for (int i = 0; i < 10; ++i) {
      const unsigned char echo = nextEcho();
      Reply r;
      EXPECT_TRUE(session.call(Request::command("READ", echo, {countDigits(BIG_READ)}), timeoutS, r))
          << session.error();
      if (r.fields.size() < 2) return "";
      const std::string status = takeReadReply(r, echo);
      if (status != "OK_") return status;
    }
    return "OK_";
  }

  std::string reference;
  size_t delivered = 0;
};

// ---- Connecting

class ConnectFailures : public Callbacks, public ::testing::WithParamInterface<Transport> {};

TEST_P(ConnectFailures, NameThatDoesNotResolveFailsEachTransportAtOnce) {
  const std::string host = e2e::unresolvableHost();
  const std::string url = (GetParam() == Transport::MMST ? "mms://" : "mmsh://") + host + "/x";
  const std::vector<std::string> attempt = {
      TCP_CONNECT, "[WrapperMms::io_tcp_connect] unable to resolve host: " + host};
  std::vector<std::string> expected = connectLines(url);
  if (GetParam() == Transport::MMST) {
    // An mms:// URL tries MMST, then MMSH with the same URL.
    expected.push_back("[WrapperMms::connect()] open MMST stream!");
    expected.insert(expected.end(), attempt.begin(), attempt.end());
    expected.push_back("[WrapperMms::connect()] open MMST stream failed!");
  }
  expected.push_back("[WrapperMms::connect()] open MMSH stream!");
  expected.insert(expected.end(), attempt.begin(), attempt.end());
  expected.insert(expected.end(), {MMSH_FAILED + url, CONNECT_FAILED});

  const auto start = Clock::now();
  Reply r = connect(url);
  EXPECT_LT(secondsSince(start), 2.0);
  EXPECT_EQ("ERR", r.status());
  EXPECT_EQ(expected, newLines());
}

TEST_P(ConnectFailures, RefusedPortFailsWithOneReportPerAttempt) {
  e2e::RefusingPort refusing;
  ASSERT_TRUE(refusing.valid());
  const std::string url = std::string(GetParam() == Transport::MMST ? "mms" : "mmsh") +
                          "://127.0.0.1:" + std::to_string(refusing.port()) + "/x";
  const std::vector<std::string> attempt = {TCP_CONNECT, e2e::REFUSED, TCP_FAILED};
  std::vector<std::string> expected = connectLines(url);
  if (GetParam() == Transport::MMST) {
    expected.push_back("[WrapperMms::connect()] open MMST stream!");
    expected.insert(expected.end(), attempt.begin(), attempt.end());
    expected.push_back("[WrapperMms::connect()] open MMST stream failed!");
  }
  expected.push_back("[WrapperMms::connect()] open MMSH stream!");
  expected.insert(expected.end(), attempt.begin(), attempt.end());
  expected.insert(expected.end(), {MMSH_FAILED + url, CONNECT_FAILED});

  const auto start = Clock::now();
  Reply r = connect(url);
  EXPECT_LT(secondsSince(start), 2.0);
  EXPECT_EQ("ERR", r.status());
  EXPECT_EQ(expected, e2e::withRefusalsJoined(newLines()));
}

INSTANTIATE_TEST_SUITE_P(Transports, ConnectFailures,
                         ::testing::Values(Transport::MMST, Transport::MMSH), transportName);

// ---- Faults in the middle of a READ

class MidStream : public Callbacks, public ::testing::WithParamInterface<Transport> {};

// The bytes before the reset arrive, the read callback reports the reset
// (or the end, when the reset came after the last byte it was sent), and
// the stream ends there without a wait.
TEST_P(MidStream, ResetEndsTheStreamAfterTheBytesBeforeIt) {
  Faults faults;
  faults.resetAfter = MID_STREAM;
  ASSERT_NO_FATAL_FAILURE(openFaulty(GetParam(), faults));
  const auto start = Clock::now();
  EXPECT_EQ("EOF", readUntilNotOk(e2e::REPLY_TIMEOUT_S));
  EXPECT_LT(secondsSince(start), 3.0);
  EXPECT_LT(delivered, reference.size());
  const std::vector<std::string> lines = newLines();
  EXPECT_TRUE(contains(lines, READ_RESET) || contains(lines, READ_EOF));
  EXPECT_FALSE(contains(lines, SELECT_TIMEOUT));
}

// A peer that closes while the worker waits for its data: the callback
// sees the end at once, not after its time-out.
TEST_P(MidStream, PeerClosingDuringTheWaitEndsTheReadAtOnce) {
  Faults faults;
  faults.stallAfter = MID_STREAM;
  ASSERT_NO_FATAL_FAILURE(openFaulty(GetParam(), faults));
  const unsigned char echo = nextEcho();
  ASSERT_TRUE(session.send(Request::command("READ", echo, {countDigits(BIG_READ)})));
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  const auto start = Clock::now();
  servers.back().reset();   // ends the stalled session and closes its socket
  Reply r = receive(echo);
  EXPECT_LT(secondsSince(start), 2.0);
  if (r.fields.size() >= 2 && takeReadReply(r, echo) == "OK_") {
    EXPECT_EQ("EOF", readUntilNotOk(e2e::REPLY_TIMEOUT_S));
  }
  EXPECT_LT(delivered, reference.size());
  const std::vector<std::string> lines = newLines();
  EXPECT_TRUE(contains(lines, READ_EOF)) << "no EOF line from the read callback";
  EXPECT_FALSE(contains(lines, SELECT_TIMEOUT));
}

// SIGTERM is held while the worker works and taken in its next wait; a
// READ that waits on a silent server is in that wait, so the process ends
// at once: the message, the stream's close line from the exit-time
// clean-up, status 0, no reply and no shut-down lines.
TEST_P(MidStream, SigtermDuringAWaitingReadEndsTheProcessAtOnce) {
  Faults faults;
  faults.stallAfter = MID_STREAM;
  ASSERT_NO_FATAL_FAILURE(openFaulty(GetParam(), faults));
  const size_t before = session.worker().stderrText().size();
  ASSERT_TRUE(session.send(Request::command("READ", nextEcho(), {countDigits(BIG_READ)})));
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  const auto start = Clock::now();
  ASSERT_TRUE(session.worker().sendSignal(SIGTERM)) << session.worker().error();
  expectExit(0);
  EXPECT_LT(secondsSince(start), 2.0) << "the signal waited for the media time-out";
  const char* closeLine = GetParam() == Transport::MMST
                              ? "[WrapperMms::close()] close MMST stream! \n"
                              : "[WrapperMms::close()] close MMSH stream! \n";
  EXPECT_EQ(std::string(SIGTERM_TEXT) + closeLine, session.worker().stderrText().substr(before));
  EXPECT_TRUE(session.receiveEof(e2e::REPLY_TIMEOUT_S)) << session.error();
}

// ---- Slow: a server that falls silent

// Silence in the middle of a READ: after 7 seconds the callback gives up
// and the library makes what it can of the bytes it has.
TEST_P(MidStream, SlowStallMidReadTimesOutAfterSevenSeconds) {
  Faults faults;
  faults.stallAfter = MID_STREAM;
  ASSERT_NO_FATAL_FAILURE(openFaulty(GetParam(), faults));
  const unsigned char echo = nextEcho();
  const auto start = Clock::now();
  Reply r;
  ASSERT_TRUE(session.call(Request::command("READ", echo, {countDigits(BIG_READ)}), 15, r))
      << session.error();
  const double took = secondsSince(start);
  EXPECT_GE(took, 6.5);
  EXPECT_LT(took, 10.0);
  const std::string status = takeReadReply(r, echo);
  EXPECT_TRUE(status == "OK_" || status == "EOF") << status;
  EXPECT_LT(delivered, reference.size());
  EXPECT_EQ(std::vector<std::string>{SELECT_TIMEOUT}, newLines());
  // The worker is still serving.
  expectOnlyCcheckReply(nextEcho());
}

INSTANTIATE_TEST_SUITE_P(Transports, MidStream,
                         ::testing::Values(Transport::MMST, Transport::MMSH), transportName);

// Silence before the header: the open gives up after the 7-second wait.
TEST_F(Callbacks, SlowStallBeforeTheHeaderFailsTheConnect) {
  Faults faults;
  faults.stallAfter = 50;   // inside the answer to the first request
  MmsTestServer& server = startServer(Transport::MMSH, faults);
  const std::string url = urlOf(server, Transport::MMSH);
  const unsigned char echo = nextEcho();
  const auto start = Clock::now();
  Reply r;
  ASSERT_TRUE(session.call(Request::command("CONNECT", echo, {url}), 15, r)) << session.error();
  const double took = secondsSince(start);
  EXPECT_GE(took, 6.5);
  EXPECT_LT(took, 10.0);
  EXPECT_EQ(hex(expectedReply(echo, {"CONNECT", "ERR"})), hex(r.frame));
  std::vector<std::string> expected = connectLines(url);
  expected.insert(expected.end(), {"[WrapperMms::connect()] open MMSH stream!", TCP_CONNECT,
                                   SELECT_TIMEOUT, MMSH_FAILED + url, CONNECT_FAILED});
  EXPECT_EQ(expected, newLines());
  // A failed open leaves nothing to read.
  const unsigned char readEcho = nextEcho();
  EXPECT_EQ(hex(expectedReply(readEcho, {"READ", "ERR"})),
            hex(call(Request::command("READ", readEcho, {"00001000"})).frame));
}

}  // namespace
