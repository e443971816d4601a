// The worker's socket callbacks against servers that fail on purpose in the
// middle of a READ or before the header. (Names that do not resolve and
// ports that refuse are rows of stream_connect_test.cc.)

#include <signal.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/support.h"

using halvarine::hex;
using halvarine::Reply;
using halvarine::Request;
using support::countDigits;
using support::expectedReadReply;
using support::expectedReply;
using support::secondsSince;

namespace {

const char SELECT_TIMEOUT[] = "[WrapperMms::io_read()] select timeout!";
const char READ_EOF[] = "[WrapperMms::io_read()] EOF";
const char READ_RESET[] = "[WrapperMms::io_read()] read error! errno=104";

// Past the header and a first READ of 65,511 bytes, inside the second.
const int64_t MID_STREAM = 100000;
const int BIG_READ = 65511;

bool contains(const std::vector<std::string>& lines, const std::string& line) {
  return std::find(lines.begin(), lines.end(), line) != lines.end();
}

std::string urlOf(const MmsTestServer& server, Transport t) {
  return std::string(t == Transport::MMST ? "mms" : "mmsh") +
         "://127.0.0.1:" + std::to_string(server.port()) + "/x";
}

class Callbacks : public support::StreamTest {
 protected:
  // A stream whose server misbehaves as `faults` say, the reference from a
  // well-behaved twin, and its first 65,511 bytes read.
  void openFaulty(Transport t, const Faults& faults) {
    reference = referenceFor(urlOf(startServer(t), t));
    ASSERT_EQ("OK_", connect(urlOf(startServer(t, faults), t)).status());
    newLines();
    const Request req = request("READ", {countDigits(BIG_READ)});
    ASSERT_TRUE(call(req).frame ==
                expectedReadReply(req.echo, "READ", reference.substr(0, BIG_READ)));
    delivered = BIG_READ;
  }

  // A READ reply whose bytes, if any, must continue the reference; its status.
  std::string take(const Reply& r, unsigned char echo) {
    if (r.status() != "OK_") {
      EXPECT_EQ(hex(expectedReply(echo, {"READ", r.status()})), hex(r.frame));
      return r.status();
    }
    const std::string data = r.values().at(1).bytes;
    EXPECT_TRUE(r.frame ==
                expectedReadReply(echo, "READ", reference.substr(delivered, data.size())))
        << "bytes after " << delivered << " are not the stream's";
    delivered += data.size();
    return "OK_";
  }

  std::string readUntilNotOk() {
    for (int i = 0; i < 10; ++i) {
      const Request req = request("READ", {countDigits(BIG_READ)});
      const std::string status = take(call(req), req.echo);
      if (status != "OK_") return status;
    }
    return "OK_";
  }

  std::string reference;
  size_t delivered = 0;
};

class MidStream : public Callbacks, public ::testing::WithParamInterface<Transport> {
 protected:
  void stallMidStream() {
    Faults faults;
    faults.stallAfter = MID_STREAM;
    openFaulty(GetParam(), faults);
  }
};

// The bytes before the reset, the reset (or the end) reported, no wait.
TEST_P(MidStream, ResetEndsTheStreamAfterTheBytesBeforeIt) {
  Faults faults;
  faults.resetAfter = MID_STREAM;
  ASSERT_NO_FATAL_FAILURE(openFaulty(GetParam(), faults));
  const auto start = support::Clock::now();
  EXPECT_EQ("EOF", readUntilNotOk());
  EXPECT_LT(secondsSince(start), 3.0);
  EXPECT_LT(delivered, reference.size());
  const std::vector<std::string> lines = newLines();
  EXPECT_TRUE(contains(lines, READ_RESET) || contains(lines, READ_EOF));
  EXPECT_FALSE(contains(lines, SELECT_TIMEOUT));
}

// A peer closing while the worker waits for data: the end is seen at once.
TEST_P(MidStream, PeerClosingDuringTheWaitEndsTheReadAtOnce) {
  ASSERT_NO_FATAL_FAILURE(stallMidStream());
  const Request req = request("READ", {countDigits(BIG_READ)});
  ASSERT_TRUE(session.send(req));
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  const auto start = support::Clock::now();
  servers.back().reset();  // ends the stalled session and closes its socket
  const Reply r = receive(req.echo);
  EXPECT_LT(secondsSince(start), 2.0);
  if (r.fields.size() >= 2 && take(r, req.echo) == "OK_") {
    EXPECT_EQ("EOF", readUntilNotOk());
  }
  EXPECT_LT(delivered, reference.size());
  const std::vector<std::string> lines = newLines();
  EXPECT_TRUE(contains(lines, READ_EOF)) << "no EOF line from the read callback";
  EXPECT_FALSE(contains(lines, SELECT_TIMEOUT));
}

// Silence mid-READ: after 7 s the callback gives up and the library makes
// what it can of the bytes it has; the worker goes on serving.
TEST_P(MidStream, SlowStallMidReadTimesOutAfterSevenSeconds) {
  ASSERT_NO_FATAL_FAILURE(stallMidStream());
  const Request req = request("READ", {countDigits(BIG_READ)});
  const auto start = support::Clock::now();
  const Reply r = call(req, 15);
  EXPECT_GE(secondsSince(start), 6.5);
  EXPECT_LT(secondsSince(start), 10.0);
  const std::string status = take(r, req.echo);
  EXPECT_TRUE(status == "OK_" || status == "EOF") << status;
  EXPECT_LT(delivered, reference.size());
  EXPECT_EQ(std::vector<std::string>{SELECT_TIMEOUT}, newLines());
  expectOnlyCcheckReply(nextEcho());
}

INSTANTIATE_TEST_SUITE_P(Transports, MidStream, ::testing::Values(Transport::MMST, Transport::MMSH),
                         [](const ::testing::TestParamInfo<Transport>& info) {
                           return std::string(info.param == Transport::MMST ? "MMST" : "MMSH");
                         });

// Silence before the header: the open fails after the 7-second wait.
TEST_F(Callbacks, SlowStallBeforeTheHeaderFailsTheConnect) {
  Faults faults;
  faults.stallAfter = 50;  // inside the answer to the first request
  const std::string url = urlOf(startServer(Transport::MMSH, faults), Transport::MMSH);
  const Request req = request("CONNECT", {url});
  const auto start = support::Clock::now();
  EXPECT_EQ(hex(expectedReply(req.echo, {"CONNECT", "ERR"})), hex(call(req, 15).frame));
  EXPECT_GE(secondsSince(start), 6.5);
  EXPECT_LT(secondsSince(start), 10.0);
  EXPECT_EQ((std::vector<std::string>{
                "[commandConnect()] command size : 7", "[WrapperMms::connect()] call! ",
                "[WrapperMms::connect()] url=" + url, "[WrapperMms::connect()] open MMSH stream!",
                "[WrapperMms::io_tcp_connect]", SELECT_TIMEOUT,
                "[WrapperMms::connect()] open MMSH stream failed! " + url,
                "[commandConnect()] MMS connect server!! : 2"}),
            newLines());
  const Reply r = read(1000);
  EXPECT_EQ("ERR", r.status()) << "a failed open leaves nothing to read";
}

}  // namespace
