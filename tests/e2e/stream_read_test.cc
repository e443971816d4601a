// READ on real streams: every byte that libmms reads from the server
// reaches the controller unchanged and in order, the reply frame is laid
// out to the byte, and counts that a reply cannot carry are refused without
// costing the stream a byte.

#include <algorithm>
#include <string>
#include <vector>

#include "tests/e2e/stream_test_support.h"

using controller::Field;
using controller::hex;
using controller::Reply;
using e2e::bytes;
using e2e::expectedReadReply;
using e2e::expectedReply;

namespace {

// The largest count a reply can carry: the body length and the counted
// field's length are 16 bits, and the body holds n + 20 + the word's length.
const int MAX_READ = 65511;
const int MAX_READX = 65510;

// Byte-exact frame comparison that stays readable for 64 KiB frames.
::testing::AssertionResult sameFrame(const std::string& expected, const std::string& actual) {
  if (expected == actual) return ::testing::AssertionSuccess();
  size_t at = 0;
  while (at < expected.size() && at < actual.size() && expected[at] == actual[at]) ++at;
  auto around = [at](const std::string& s) {
    return hex(s.substr(at < 8 ? 0 : at - 8, 24));
  };
  return ::testing::AssertionFailure()
         << "frames differ at byte " << at << " (sizes " << expected.size() << " expected, "
         << actual.size() << " received)\n  expected ..." << around(expected)
         << "\n  received ..." << around(actual);
}

std::string urlOf(const char* scheme, const MmsTestServer& server) {
  return std::string(scheme) + "://127.0.0.1:" + std::to_string(server.port()) + "/sample.asf";
}

class StreamRead : public e2e::StreamTest {
 protected:
  // READ of `count` at stream position `pos`: the reply must carry exactly
  // the next min(count, rest) reference bytes. Advances `pos`.
  void expectNext(int count, size_t& pos, const std::string& word = "READ") {
    const unsigned char echo = nextEcho();
    Reply r = call(controller::Request::command(word, echo, {countDigits(count)}));
    const size_t n = std::min(static_cast<size_t>(count), reference.size() - pos);
    ASSERT_TRUE(sameFrame(expectedReadReply(echo, word, reference.substr(pos, n)), r.frame))
        << word << " " << count << " at stream position " << pos;
    pos += n;
  }

  void expectEof(const std::string& countField) {
    const unsigned char echo = nextEcho();
    Reply r = call(controller::Request::command("READ", echo, {countField}));
    EXPECT_TRUE(sameFrame(expectedReply(echo, {"READ", "EOF"}), r.frame)) << countField;
  }

  void expectErr(const std::string& countField, const std::string& word = "READ") {
    const unsigned char echo = nextEcho();
    Reply r = call(controller::Request::command(word, echo, {countField}));
    EXPECT_TRUE(sameFrame(expectedReply(echo, {word, "ERR"}), r.frame)) << word << " " << countField;
  }

  // Starts a server of `transport`, takes the reference through `scheme`
  // and opens the same URL in the worker.
  void open(Transport transport, const char* scheme) {
    MmsTestServer& server = startServer(transport);
    url = urlOf(scheme, server);
    reference = referenceFor(url);
    ASSERT_EQ("OK_", connect(url).status());
    EXPECT_EQ(openLines(url, transport), newLines());
  }

  std::string url;
  std::string reference;
};

// ---- The whole stream, by URL form and READ count

struct FetchCase {
  const char* scheme;
  Transport transport;
  int count;
};

void PrintTo(const FetchCase& c, std::ostream* os) {
  *os << c.scheme << "://, READ " << c.count;
}

std::string fetchName(const ::testing::TestParamInfo<FetchCase>& info) {
  return std::string(info.param.scheme) + "_" + std::to_string(info.param.count);
}

class WholeStream : public StreamRead, public ::testing::WithParamInterface<FetchCase> {};

TEST_P(WholeStream, BytesAreWhatLibmmsReadsThenEofForGood) {
  const FetchCase& c = GetParam();
  expectErr(countDigits(c.count));   // no stream yet
  open(c.transport, c.scheme);

  size_t pos = 0;
  // One byte per READ is slow over a whole stream; a prefix that spans the
  // header and the first packets shows it, the rest goes in large pieces.
  const size_t byOwnCount = c.count == 1 ? 4000 : reference.size();
  while (pos < byOwnCount && pos < reference.size()) {
    ASSERT_NO_FATAL_FAILURE(expectNext(c.count, pos));
  }
  while (pos < reference.size()) ASSERT_NO_FATAL_FAILURE(expectNext(MAX_READ, pos));

  EXPECT_EQ(std::vector<std::string>{}, newLines()) << "READ writes no line";

  // End of stream, and it stays so; the stream is not closed by it. Only
  // the read callback may say that the server has closed its end.
  expectEof(countDigits(c.count));
  expectEof(countDigits(MAX_READ));
  for (const std::string& line : newLines()) EXPECT_EQ("[WrapperMms::io_read()] EOF", line);

  const std::string mmsx = c.transport == Transport::MMST ? "MMST" : "MMSH";
  EXPECT_EQ("OK_", command("CLOSE").status());
  EXPECT_EQ((std::vector<std::string>{"[WrapperMms::close()] close " + mmsx + " stream! ",
                                      "[commandClose()] MMS close!! : 0"}),
            newLines());
  expectErr(countDigits(c.count));
  expectErr(countDigits(1));
}

INSTANTIATE_TEST_SUITE_P(
    Fetch, WholeStream,
    ::testing::Values(FetchCase{"mms", Transport::MMST, 1}, FetchCase{"mms", Transport::MMST, 1000},
                      FetchCase{"mms", Transport::MMST, 32768},
                      FetchCase{"mms", Transport::MMST, MAX_READ},
                      FetchCase{"mmst", Transport::MMST, 1},
                      FetchCase{"mmst", Transport::MMST, 1000},
                      FetchCase{"mmst", Transport::MMST, 32768},
                      FetchCase{"mmst", Transport::MMST, MAX_READ},
                      FetchCase{"mmsh", Transport::MMSH, 1},
                      FetchCase{"mmsh", Transport::MMSH, 1000},
                      FetchCase{"mmsh", Transport::MMSH, 32768},
                      FetchCase{"mmsh", Transport::MMSH, MAX_READ},
                      FetchCase{"http", Transport::MMSH, 1},
                      FetchCase{"http", Transport::MMSH, 1000},
                      FetchCase{"http", Transport::MMSH, 32768},
                      FetchCase{"http", Transport::MMSH, MAX_READ}),
    fetchName);

// ---- The reply's layout, on both transports

class ReplyLayout : public StreamRead, public ::testing::WithParamInterface<Transport> {
 protected:
  void SetUp() override {
    StreamRead::SetUp();
    if (HasFatalFailure()) return;
    open(GetParam(), GetParam() == Transport::MMST ? "mms" : "mmsh");
  }
};

std::string transportName(const ::testing::TestParamInfo<Transport>& info) {
  return info.param == Transport::MMST ? "MMST" : "MMSH";
}

TEST_P(ReplyLayout, CountFieldIsReadAsAtoiDoes) {
  size_t pos = 0;
  // No digits: a count of 0, which the library answers with no bytes.
  expectEof("abcdefgh");
  expectEof("00000000");
  // Digits up to the first other byte.
  {
    const unsigned char echo = nextEcho();
    Reply r = call(controller::Request::command("READ", echo, {"12ab5678"}));
    EXPECT_TRUE(sameFrame(expectedReadReply(echo, "READ", reference.substr(0, 12)), r.frame));
    pos = 12;
  }
  // None of that moved the stream beyond the 12 bytes.
  ASSERT_NO_FATAL_FAILURE(expectNext(1000, pos));
}

TEST_P(ReplyLayout, StreamBytesTravelUnchangedInTheCountedField) {
  // The header holds the bytes that mean something in a frame: the field
  // separator, the counted-field mark and the end mark.
  const std::string head = reference.substr(0, 1000);
  ASSERT_NE(std::string::npos, head.find('\x0A'));
  ASSERT_NE(std::string::npos, head.find(std::string(1, '\0')));
  ASSERT_NE(std::string::npos, head.find('\x03'));

  const unsigned char echo = nextEcho();
  Reply r = call(controller::Request::command("READ", echo, {"00001000"}));
  EXPECT_TRUE(sameFrame(expectedReadReply(echo, "READ", head), r.frame));
  ASSERT_EQ(2u, r.values().size());
  EXPECT_EQ(Field::text("00001000"), r.values()[0]);
  EXPECT_EQ(Field::countedField(head), r.values()[1]);
  EXPECT_EQ(12u + 1000 + 24 + 1, r.frame.size()) << "body of n + 24 bytes";
}

TEST_P(ReplyLayout, CountedFieldCarriesTheCountBigEndian) {
  size_t pos = 0;
  ASSERT_NO_FATAL_FAILURE(expectNext(4660, pos));
  const unsigned char echo = nextEcho();
  Reply r = call(controller::Request::command("READ", echo, {"00004660"}));
  // 12 header bytes, then READ 0A OK_ 0A 00004660 0A: the prefix at 30.
  ASSERT_GT(r.frame.size(), 34u);
  EXPECT_EQ("00004660", r.values().at(0).bytes);
  EXPECT_EQ(hex(bytes({0x00, 0x12, 0x34, 0x00})), hex(r.frame.substr(30, 4)));
  EXPECT_EQ(hex(bytes({0x12, 0x4C})), hex(r.frame.substr(9, 2))) << "body length 4660 + 24";
  EXPECT_TRUE(sameFrame(expectedReadReply(echo, "READ", reference.substr(pos, 4660)), r.frame));
}

TEST_P(ReplyLayout, LongerWordIsEchoedAndLengthensTheBody) {
  size_t pos = 0;
  const unsigned char echo = nextEcho();
  Reply r = call(controller::Request::command("READX", echo, {"00000100"}));
  EXPECT_EQ("READX", r.word());
  EXPECT_TRUE(sameFrame(expectedReadReply(echo, "READX", reference.substr(0, 100)), r.frame));
  EXPECT_EQ(12u + 100 + 25 + 1, r.frame.size());
  pos = 100;
  ASSERT_NO_FATAL_FAILURE(expectNext(1000, pos));
}

TEST_P(ReplyLayout, LargestCountFillsTheBodyLengthField) {
  size_t pos = 0;
  ASSERT_NO_FATAL_FAILURE(expectNext(MAX_READ, pos));
  const unsigned char echo = nextEcho();
  Reply r = call(controller::Request::command("READ", echo, {countDigits(MAX_READ)}));
  EXPECT_EQ(hex(bytes({0xFF, 0xFF})), hex(r.frame.substr(9, 2)));
  EXPECT_EQ(hex(bytes({0x00, 0xFF, 0xE7, 0x00})), hex(r.frame.substr(30, 4)));
  EXPECT_TRUE(
      sameFrame(expectedReadReply(echo, "READ", reference.substr(pos, MAX_READ)), r.frame));
}

// Refused before the stream is touched: the next good READ goes on at the
// byte where the last good one stopped.
TEST_P(ReplyLayout, CountsNoReplyCanCarryAreRefusedWithoutLoss) {
  size_t pos = 0;
  ASSERT_NO_FATAL_FAILURE(expectNext(1000, pos));
  expectErr(countDigits(MAX_READ + 1));
  ASSERT_NO_FATAL_FAILURE(expectNext(1000, pos));
  expectErr(countDigits(MAX_READX + 1), "READX");
  ASSERT_NO_FATAL_FAILURE(expectNext(1000, pos));
  expectErr("-0000001");
  expectErr("-9999999");
  expectErr("99999999");
  ASSERT_NO_FATAL_FAILURE(expectNext(1000, pos));
  // The longer word's own limit is served.
  ASSERT_NO_FATAL_FAILURE(expectNext(MAX_READX, pos, "READX"));
  ASSERT_NO_FATAL_FAILURE(expectNext(1000, pos));
  EXPECT_EQ(std::vector<std::string>{}, newLines());
}

// A malformed READ gets no reply at all, and the stream stays where it was.
TEST_P(ReplyLayout, MalformedReadsAreDroppedWithoutTouchingTheStream) {
  size_t pos = 0;
  ASSERT_NO_FATAL_FAILURE(expectNext(100, pos));
  for (const char* count : {"0001000", "000001000", ""}) {
    ASSERT_TRUE(session.send(request("READ", {count}))) << session.error();
  }
  ASSERT_TRUE(session.send(request("READ"))) << session.error();
  ASSERT_TRUE(session.send(request("REA", {"00001000"}))) << session.error();
  expectOnlyCcheckReply(nextEcho());
  ASSERT_NO_FATAL_FAILURE(expectNext(1000, pos));
  EXPECT_EQ(std::vector<std::string>{}, newLines());
}

INSTANTIATE_TEST_SUITE_P(Transports, ReplyLayout,
                         ::testing::Values(Transport::MMST, Transport::MMSH), transportName);

}  // namespace
