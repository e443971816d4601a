// READ on real streams: the bytes libmms reads reach the controller
// unchanged and in order, the reply is laid out to the byte, and counts a
// reply cannot carry are refused without costing the stream a byte.

#include <algorithm>
#include <string>
#include <vector>

#include "tests/support/support.h"

using halvarine::Field;
using halvarine::hex;
using halvarine::Reply;
using support::bytes;
using support::countDigits;
using support::expectedReadReply;
using support::expectedReply;

namespace {

// The body holds n + 20 + the word's length, in 16 bits.
const int MAX_READ = 65511;
const int MAX_READX = 65510;

// Byte-exact comparison that stays readable for 64 KiB frames.
::testing::AssertionResult sameFrame(const std::string& expected, const std::string& actual) {
  const long long at = support::firstDifference(expected, actual);
  if (at < 0) return ::testing::AssertionSuccess();
  const size_t from = at < 8 ? 0 : static_cast<size_t>(at) - 8;
  return ::testing::AssertionFailure()
         << "frames differ at byte " << at << " (sizes " << expected.size() << ", " << actual.size()
         << ")\n  expected ..." << hex(expected.substr(from, 24)) << "\n  received ..."
         << hex(actual.substr(std::min(from, actual.size()), 24));
}

class StreamRead : public support::StreamTest {
 protected:
  // `word` with `countField`: the reply must carry the next min(count, rest)
  // reference bytes. Returns the reply.
  Reply expectNext(const std::string& countField, const std::string& word = "READ") {
    const halvarine::Request req = request(word, {countField});
    Reply r = call(req);
    const size_t n =
        std::min(static_cast<size_t>(atoi(countField.c_str())), reference.size() - pos);
    EXPECT_TRUE(sameFrame(expectedReadReply(req.echo, word, reference.substr(pos, n)), r.frame))
        << word << " " << countField << " at stream position " << pos;
    pos += n;
    return r;
  }
  Reply expectNext(int count, const std::string& word = "READ") {
    return expectNext(countDigits(count), word);
  }

  void expectStatusFor(const std::string& countField, const std::string& status,
                       const std::string& word = "READ") {
    const halvarine::Request req = request(word, {countField});
    EXPECT_TRUE(sameFrame(expectedReply(req.echo, {word, status}), call(req).frame))
        << word << " " << countField;
  }

  void open(Transport transport, const char* scheme) {
    MmsTestServer& server = startServer(transport);
    const std::string url =
        std::string(scheme) + "://127.0.0.1:" + std::to_string(server.port()) + "/sample.asf";
    reference = referenceFor(url);
    ASSERT_EQ("OK_", connect(url).status());
    EXPECT_EQ(openLines(url, transport), newLines());
  }

  std::string reference;
  size_t pos = 0;
};

// ---- The whole stream: every count on both transports, every scheme read

struct FetchCase {
  const char* scheme;
  Transport transport;
  int count;
};

class WholeStream : public StreamRead, public ::testing::WithParamInterface<FetchCase> {};

TEST_P(WholeStream, BytesAreWhatLibmmsReadsThenEofForGood) {
  const FetchCase& c = GetParam();
  expectStatusFor(countDigits(c.count), "ERR");  // no stream yet
  ASSERT_NO_FATAL_FAILURE(open(c.transport, c.scheme));
  // One byte at a time over the header and first packets, then big pieces.
  const size_t byOwnCount = c.count == 1 ? 4000 : reference.size();
  while (pos < byOwnCount && !HasFailure()) expectNext(c.count);
  while (pos < reference.size() && !HasFailure()) expectNext(MAX_READ);
  EXPECT_EQ(std::vector<std::string>{}, newLines()) << "READ writes no line";

  // The end stays the end; only the read callback may log the server's close.
  expectStatusFor(countDigits(c.count), "EOF");
  expectStatusFor(countDigits(MAX_READ), "EOF");
  for (const std::string& line : newLines()) EXPECT_EQ("[WrapperMms::io_read()] EOF", line);

  expectStatus("CLOSE", "OK_");
  EXPECT_EQ((std::vector<std::string>{std::string("[WrapperMms::close()] close ") +
                                          (c.transport == Transport::MMST ? "MMST" : "MMSH") +
                                          " stream! ",
                                      "[commandClose()] MMS close!! : 0"}),
            newLines());
  expectStatus("CLOSE", "OK_");  // nothing left to close
  expectStatusFor(countDigits(c.count), "ERR");
  EXPECT_EQ(std::vector<std::string>{}, newLines());
}

INSTANTIATE_TEST_SUITE_P(Fetch, WholeStream,
                         ::testing::Values(FetchCase{"mms", Transport::MMST, 1},
                                           FetchCase{"mmst", Transport::MMST, 1000},
                                           FetchCase{"mms", Transport::MMST, 32768},
                                           FetchCase{"mmst", Transport::MMST, MAX_READ},
                                           FetchCase{"mmsh", Transport::MMSH, 1},
                                           FetchCase{"http", Transport::MMSH, 1000},
                                           FetchCase{"mmsh", Transport::MMSH, 32768},
                                           FetchCase{"http", Transport::MMSH, MAX_READ}),
                         [](const ::testing::TestParamInfo<FetchCase>& info) {
                           return std::string(info.param.scheme) + "_" +
                                  std::to_string(info.param.count);
                         });

// ---- The reply's layout, on both transports

class ReplyLayout : public StreamRead, public ::testing::WithParamInterface<Transport> {
 protected:
  void SetUp() override {
    StreamRead::SetUp();
    if (!HasFatalFailure()) open(GetParam(), GetParam() == Transport::MMST ? "mms" : "mmsh");
  }
};

TEST_P(ReplyLayout, CountFieldIsReadAsAtoiDoes) {
  expectStatusFor("abcdefgh", "EOF");  // no digits: count 0, no bytes
  expectStatusFor("00000000", "EOF");
  expectNext("12ab5678");  // the digits up to the first other byte
  expectNext(1000);        // none of that moved the stream further
}

TEST_P(ReplyLayout, FieldsAreLaidOutToTheByte) {
  // The header holds the bytes that mean something in a frame.
  for (char c : {'\x0A', '\x00', '\x03'}) {
    ASSERT_NE(std::string::npos, reference.substr(0, 1000).find(c)) << int(c);
  }
  Reply r = expectNext(1000);
  ASSERT_EQ(2u, r.values().size());
  EXPECT_EQ(Field::text("00001000"), r.values()[0]);
  EXPECT_EQ(Field::countedField(reference.substr(0, 1000)), r.values()[1]);
  EXPECT_EQ(12u + 1000 + 24 + 1, r.frame.size()) << "a body of n + 24 bytes";

  // 12 header bytes, READ 0A OK_ 0A 00004660 0A: the counted prefix at 30.
  r = expectNext(4660);
  EXPECT_EQ(hex(bytes({0x00, 0x12, 0x34, 0x00})), hex(r.frame.substr(30, 4)));
  EXPECT_EQ(hex(bytes({0x12, 0x4C})), hex(r.frame.substr(9, 2))) << "body length 4660 + 24";

  r = expectNext(100, "READX");  // a longer word is echoed whole
  EXPECT_EQ("READX", r.word());
  EXPECT_EQ(12u + 100 + 25 + 1, r.frame.size());
}

TEST_P(ReplyLayout, LargestCountFillsTheBodyLengthField) {
  const Reply r = expectNext(MAX_READ);
  EXPECT_EQ(hex(bytes({0xFF, 0xFF})), hex(r.frame.substr(9, 2)));
  EXPECT_EQ(hex(bytes({0x00, 0xFF, 0xE7, 0x00})), hex(r.frame.substr(30, 4)));
  expectNext(MAX_READX, "READX");  // the longer word's own limit
}

// Refused (ERR) or dropped (no reply) before the stream is touched: the
// next good READ goes on where the last one stopped.
TEST_P(ReplyLayout, CountsNoReplyCanCarryAreRefusedWithoutLoss) {
  expectNext(1000);
  for (const std::string& count : {countDigits(MAX_READ + 1), std::string("-0000001"),
                                   std::string("-9999999"), std::string("99999999")}) {
    expectStatusFor(count, "ERR");
    expectNext(1000);
  }
  expectStatusFor(countDigits(MAX_READX + 1), "ERR", "READX");
  for (const char* count : {"0001000", "000001000", ""})
    ASSERT_TRUE(session.send(request("READ", {count})));
  ASSERT_TRUE(session.send(request("READ")));
  expectOnlyCcheckReply(nextEcho());
  expectNext(1000);
  EXPECT_EQ(std::vector<std::string>{}, newLines());
}

INSTANTIATE_TEST_SUITE_P(Transports, ReplyLayout,
                         ::testing::Values(Transport::MMST, Transport::MMSH),
                         [](const ::testing::TestParamInfo<Transport>& info) {
                           return std::string(info.param == Transport::MMST ? "MMST" : "MMSH");
                         });

}  // namespace
