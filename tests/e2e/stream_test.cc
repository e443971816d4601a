// The worker with real streams: the bytes libmms reads reach the controller
// unchanged and in order, replies are laid out to the byte, each form of URL
// opens with its transport and proxy as the log shows, and a stream that
// breaks mid-way is reported, not hidden.

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "tests/support/support.h"

using halvarine::Field;
using halvarine::hex;
using halvarine::Reply;
using halvarine::Request;
using support::countDigits;
using support::expectedReply;
using Lines = std::vector<std::string>;

namespace {

const int MAX_READ = 65511;  // a body of n + 24 bytes in 16 bits
const std::string C = "[WrapperMms::connect()] ";
const std::string READ_EOF = "[WrapperMms::io_read()] EOF";
const std::string READ_TIMEOUT = "[WrapperMms::io_read()] select timeout!";
const std::string CONNECT_OK = "[commandConnect()] MMS connect server!! : 0";
const std::string CONNECT_FAILED = "[commandConnect()] MMS connect server!! : 2";

std::string closeLine(StreamProtocol t) {
  return "[WrapperMms::close()] close " + testing::PrintToString(t) + " stream! ";
}

class Stream : public support::StreamTest {};

class BothTransports : public Stream, public ::testing::WithParamInterface<StreamProtocol> {};

TEST_P(BothTransports, WholeStreamIsWhatLibmmsReadsThenEofForGood) {
  expectReply("READ", {countDigits(1000)}, "ERR");  // no stream yet
  ASSERT_NO_FATAL_FAILURE(openStream(GetParam()));
  while (pos < 3000 && !HasFailure()) expectNext(1);
  for (int count : {1000, 32768}) expectNext(count);
  while (pos < reference.size() && !HasFailure()) expectNext(MAX_READ);
  EXPECT_EQ(Lines{}, newLines()) << "READ writes no line";
  expectReply("READ", {countDigits(MAX_READ)}, "EOF");
  expectReply("READ", {countDigits(1)}, "EOF");
  for (const std::string& line : newLines()) EXPECT_EQ(READ_EOF, line);
  expectReply("CLOSE", {}, "OK_");
  EXPECT_EQ((Lines{closeLine(GetParam()), "[commandClose()] MMS close!! : 0"}), newLines());
  expectReply("CLOSE", {}, "OK_");
  expectReply("READ", {countDigits(1000)}, "ERR");
  EXPECT_EQ(Lines{}, newLines());
}

// The length libmms derives from the header, declared here as 2 GiB and
// more: the reply's field takes it as signed, the log line as unsigned.
// (PEND's closing of the stream: the process tests.)
TEST_P(BothTransports, GsizeIsTheLibrarysLengthSignedInTheReply) {
  const AsfFile& f = support::sampleAsf();
  const int64_t packets = ((1LL << 31) + f.packetSize - 1) / f.packetSize;
  url = startServer(GetParam(), Faults(), "127.0.0.1", packets).url();
  ASSERT_EQ("OK_", connect(url).status());
  newLines();
  const uint32_t length = static_cast<uint32_t>(f.header.size() + packets * f.packetSize);
  ASSERT_GE(length, 1u << 31);
  char digits[32];
  snprintf(digits, sizeof digits, "-%015u", static_cast<uint32_t>(-static_cast<int32_t>(length)));
  const Request req = request("GSIZE");
  EXPECT_EQ(hex(expectedReply(req.echo, {"GSIZE", "OK_", digits})), hex(call(req).frame));
  EXPECT_EQ((Lines{"[WrapperMms::getLength()] call! ",
                   "[WrapperMms::getLength()] get " + testing::PrintToString(GetParam()) +
                       " length : " + std::to_string(length),
                   "[commandGsize()] MMS get size!! : 0"}),
            newLines());
}

// The bytes before a reset, then the end: no wait, no byte made up.
TEST_P(BothTransports, ResetMidStreamEndsItAfterTheBytesBeforeIt) {
  Faults reset;
  reset.resetAfter = 100000;
  ASSERT_NO_FATAL_FAILURE(openStream(GetParam(), reset));
  const auto start = nowMs();
  const Fetched got = readStream(MAX_READ, reference.size(), 15);
  EXPECT_EQ("EOF", got.lastStatus);
  EXPECT_LT(secondsSince(start), 3.0);
  EXPECT_GT(got.bytes.size(), 60000u);
  EXPECT_EQ(0, reference.compare(0, got.bytes.size(), got.bytes)) << "not the stream's bytes";
  EXPECT_EQ(0u, support::countLines(newLines(), READ_TIMEOUT));
}

// Silence mid-READ: after 7 s the callback gives up and the library makes
// what it can of the bytes it has; the worker goes on serving.
TEST_P(BothTransports, SlowStallMidReadAnswersAfterSevenSeconds) {
  Faults stall;
  stall.stallAfter = 100000;  // silent from there on
  ASSERT_NO_FATAL_FAILURE(openStream(GetParam(), stall));
  expectNext(MAX_READ);
  const auto start = nowMs();
  const Reply r = call(request("READ", {countDigits(MAX_READ)}), 15);
  EXPECT_GE(secondsSince(start), 6.5);
  EXPECT_LT(secondsSince(start), 10.0);
  EXPECT_TRUE(r.status() == "OK_" || r.status() == "EOF") << r.status();
  EXPECT_EQ(Lines{READ_TIMEOUT}, newLines());
  expectOnlyCcheckReply(nextEcho());
}

INSTANTIATE_TEST_SUITE_P(Transports, BothTransports,
                         ::testing::Values(StreamProtocol::MMST, StreamProtocol::MMSH),
                         ::testing::PrintToStringParamName());

// The reply's layout is the same code whatever the transport: MMSH here.
TEST_F(Stream, ReplyLayoutAndCountsNoReplyCanCarry) {
  ASSERT_NO_FATAL_FAILURE(openStream(StreamProtocol::MMSH));
  expectReply("READ", {"abcdefgh"}, "EOF");  // no digits: count 0, no bytes
  expectNext("12ab5678");                    // the digits up to the first other byte
  const Reply r = expectNext(4660);          // 0x1234
  EXPECT_EQ(hex(support::bytes({0x00, 0x12, 0x34, 0x00})), hex(r.frame.substr(30, 4)));
  EXPECT_EQ(hex(support::bytes({0x12, 0x4C})), hex(r.frame.substr(9, 2))) << "4660 + 24";
  EXPECT_EQ("READX", expectNext(countDigits(100), "READX").word());
  // Refused (ERR) or dropped (no reply) before the stream is touched.
  for (const char* count : {"00065512", "-0000001", "99999999"}) {
    expectReply("READ", {count}, "ERR");
    expectNext(10);
  }
  expectReply("READX", {"00065511"}, "ERR");
  for (const char* count : {"0001000", "000001000", ""})
    ASSERT_TRUE(session.send(request("READ", {count})));
  ASSERT_TRUE(session.send(request("READ")));
  expectOnlyCcheckReply(nextEcho());
  EXPECT_EQ(hex(support::bytes({0xFF, 0xFF})), hex(expectNext(MAX_READ).frame.substr(9, 2)));
  expectNext(countDigits(65510), "READX");
  EXPECT_EQ(Lines{}, newLines());
}

// ---- Opening: each form of URL, as the log and the reply show

class UrlForms : public Stream, public ::testing::WithParamInterface<support::UrlForm> {};

TEST_P(UrlForms, OpenWithTheTransportAndProxyTheFormCallsFor) {
  support::RefusingPort refusing;
  const std::map<std::string, std::string> values = {
      {"{H}", std::to_string(startServer(StreamProtocol::MMSH).port())},
      {"{T}", std::to_string(startServer(StreamProtocol::MMST).port())},
      {"{R}", std::to_string(refusing.port())},
      {"{BAD}", support::UNRESOLVABLE_HOST}};
  const auto fill = [&](std::string text) {
    for (const auto& v : values) {
      for (size_t at; (at = text.find(v.first)) != std::string::npos;)
        text.replace(at, v.first.size(), v.second);
    }
    return text;
  };
  const std::string url = fill(GetParam().url);
  const bool opens = GetParam().lines.back() == CONNECT_OK;
  const auto start = nowMs();
  expectReply("CONNECT", {url}, opens ? "OK_" : "ERR");
  EXPECT_LT(secondsSince(start), 2.0) << "no form may wait for a time-out";
  Lines want = {"[commandConnect()] command size : 7", C + "call! ", C + "url=" + url};
  for (const std::string& line : GetParam().lines) want.push_back(fill(line));
  EXPECT_EQ(want, support::withRefusalsJoined(newLines()));
  expectReply("CLOSE", {}, "OK_");
  EXPECT_EQ(opens ? 2u : 0u, newLines().size()) << "only an open stream has lines to close";
}

INSTANTIATE_TEST_SUITE_P(Rows, UrlForms, ::testing::ValuesIn(support::urlForms()),
                         ::testing::PrintToStringParamName());

TEST_F(Stream, NewConnectClosesTheOldStreamFirstAndAFailedOneLeavesNothingOpen) {
  const std::string mmsh = startServer(StreamProtocol::MMSH).url(),
                    mmst = startServer(StreamProtocol::MMST).url();
  expectReply("CONNECT", {mmst}, "OK_");
  newLines();
  expectReply("CONNECT", {mmsh}, "OK_");
  Lines expected = openLines(mmsh, StreamProtocol::MMSH);
  expected.insert(expected.begin() + 1, closeLine(StreamProtocol::MMST));
  EXPECT_EQ(expected, newLines());
  expectNext(1000);

  support::RefusingPort refusing;
  const std::string bad = "mmsh://127.0.0.1:" + std::to_string(refusing.port()) + "/x";
  expectReply("CONNECT", {bad}, "ERR");
  const Lines lines = newLines();
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(closeLine(StreamProtocol::MMSH), lines[1]);
  // The unopened object answers without the library and without a line.
  expectReply("GSIZE", {}, "ERR");
  expectReply("CLOSE", {}, "OK_");
  expectReply("READ", {countDigits(1000)}, "ERR");
  EXPECT_EQ(Lines{}, newLines());
  expectReply("CONNECT", {mmst}, "OK_");
  EXPECT_EQ(openLines(mmst, StreamProtocol::MMST), newLines()) << "replacing it closes nothing";

  Request empty = request("CONNECT");  // tried over both transports: the opening plan's test
  empty.fields.push_back(Field::countedField(""));
  EXPECT_EQ("ERR", call(empty).status());
  EXPECT_EQ(CONNECT_FAILED, newLines().back());
}

}  // namespace
