// The frame codec on plain byte strings.

#include "channel/packet.h"

#include <gtest/gtest.h>

#include "stderr_capture.h"
#include "tests/support/support.h"

namespace {

std::string bytes(std::initializer_list<int> values) {
  std::string s;
  for (int v : values) s.push_back(static_cast<char>(v));
  return s;
}

// A request frame around `body`, length and checksum filled in.
Packet frameOf(const std::string& body, unsigned char echo = 0x07) {
  return support::frameAround(echo, body, 'Q');
}

ParamList header(unsigned char echo) {
  return ParamList{std::string("\0\0\0Q", 4) + std::string(1, static_cast<char>(echo)) +
                   std::string(4, '\0')};
}

TEST(MakePacket, BuildsTheDocumentedCcheckReply) {
  ParamList reply = header(0x07);
  reply.push_back("CCHECK");
  reply.push_back("OK_");
  Packet out;
  ASSERT_EQ(0u, makePacket(reply, out));
  EXPECT_EQ(bytes({0x16, 0x16, 0x02, 0x00, 0xFD, 0x47, 0x52, 0x07, 0x00, 0x00, 0x0C, 0x00, 'C',
                   'C',  'H',  'E',  'C',  'K',  0x0A, 'O',  'K',  '_',  0x0A, 0x0A, 0x03}),
            out);
}

TEST(MakePacket, BuildsTheDocumentedReadReply) {
  ParamList reply = header(0x07);
  reply.push_back("READ");
  reply.push_back("OK_");
  reply.push_back("00000005");
  reply.push_back(bytes({0, 0, 5, 0}) + "abcde");
  Packet out;
  ASSERT_EQ(0u, makePacket(reply, out));
  ASSERT_EQ(42u, out.size());
  EXPECT_EQ(bytes({0x16, 0x16, 0x02, 0x00, 0xFA, 0x3F, 0x52, 0x07, 0x00, 0x00, 0x1D, 0x00}),
            out.substr(0, 12));
  EXPECT_EQ(bytes({0x52, 0x45, 0x41, 0x44, 0x0A, 0x4F, 0x4B, 0x5F, 0x0A, 0x30,
                   0x30, 0x30, 0x30, 0x30, 0x30, 0x30, 0x35, 0x0A, 0x00, 0x00,
                   0x05, 0x00, 0x61, 0x62, 0x63, 0x64, 0x65, 0x0A, 0x0A, 0x03}),
            out.substr(12));
}

TEST(MakePacket, EmptyWordGivesTwoByteBodyAndEchoesAnyByte) {
  for (int echo : {0x00, 0x07, 0x16, 0xFF}) {
    ParamList reply = header(static_cast<unsigned char>(echo));
    reply.push_back("");
    Packet out;
    ASSERT_EQ(0u, makePacket(reply, out));
    EXPECT_EQ(bytes({0x16, 0x16, 0x02, 0x00, 0xFF, 0xEB, 0x52, echo, 0x00, 0x00, 0x02, 0x00, 0x0A,
                     0x0A, 0x03}),
              out);
  }
}

TEST(MakePacket, RefusesShortListsAndOverlongBodiesLeavingOutAlone) {
  Packet out = "untouched";
  {
    StderrCapture err;
    EXPECT_EQ(0xFFFFu, makePacket(header(1), out));
    EXPECT_EQ("[makePacket()] parameter list is empty!\n", err.text());
  }
  EXPECT_EQ("untouched", out);

  ParamList big = header(1);
  big.push_back("READ");
  big.push_back(std::string(FRAME_MAX_BODY - 6, 'x'));  // 65536 body bytes
  {
    StderrCapture err;
    EXPECT_NE(0u, makePacket(big, out));
  }
  EXPECT_EQ("untouched", out);
  big.back().pop_back();  // exactly 65535: fits
  ASSERT_EQ(0u, makePacket(big, out));
  EXPECT_EQ(FRAME_MAX_LEN, out.size());
  EXPECT_EQ(0xFFFF, getBe16(reinterpret_cast<const unsigned char*>(out.data()) + 9));
}

TEST(MakePacket, ChecksumDropsCarriesBeyondSixteenBits) {
  ParamList reply = header(0);
  reply.push_back(std::string(300, '\xFF'));  // sum 300*255 + 20 > 65535
  Packet out;
  ASSERT_EQ(0u, makePacket(reply, out));
  const uint16_t sum = static_cast<uint16_t>(300 * 255 + 2 * 0x0A);
  EXPECT_EQ(static_cast<uint16_t>(~sum),
            getBe16(reinterpret_cast<const unsigned char*>(out.data()) + 4));
}

TEST(ParsePacket, RoundTripsWhatMakePacketWrites) {
  ParamList reply = header(0x42);
  reply.push_back("READX");
  reply.push_back("OK_");
  const std::string data = bytes({0x0A, 0x00, 0x03, 0x16, 0x16, 0x02});
  reply.push_back(bytes({0, 0, 6, 0}) + data);
  Packet out;
  ASSERT_EQ(0u, makePacket(reply, out));
  ParamList parsed;
  ASSERT_EQ(0u, parsePacket(out, parsed));
  ASSERT_EQ(4u, parsed.size());
  EXPECT_EQ(9u, parsed[0].size());
  EXPECT_EQ(0x42, static_cast<unsigned char>(parsed[0][4]));
  EXPECT_EQ("READX", parsed[1]);
  EXPECT_EQ("OK_", parsed[2]);
  EXPECT_EQ(data, parsed[3]);
}

TEST(ParsePacket, BodyShapes) {
  struct Case {
    std::string body;
    ResultCode rc;
    ParamList fields;  // after the header
  } cases[] = {
      {"", 0, {}},
      {"\n", 0, {}},
      {"\nCCHECK\n", 0, {}},
      {bytes({0x41, 0x0A, 0x0A, 0x42, 0x0A}), 0, {"A"}},
      {bytes({0x41, 0x0A, 0x42}), 5, {"A"}},
      {bytes({0x00, 0x00, 0x03, 0x00, 0x61, 0x0A, 0x62, 0x0A, 0x0A}),
       0,
       {bytes({0x61, 0x0A, 0x62})}},
      {bytes({0x00, 0x00, 0x00, 0x00, 0x0A}), 0, {""}},
      {bytes({0x00, 0x00, 0x04, 0x00, 0x61, 0x0A, 0x62, 0x0A}), 5, {}},  // runs past the body
      {bytes({0x00, 0x00, 0x01, 0x00, 0x61, 0x62, 0x0A}), 5, {}},        // no 0x0A after data
      {bytes({0x00, 0x00, 0x01}), 5, {}},                                // prefix cut short
      {"READ\n00000010\n", 0, {"READ", "00000010"}},
      {"CONNECT\nmms://a/b\nextra\n\n", 0, {"CONNECT", "mms://a/b", "extra"}},
  };
  for (const Case& c : cases) {
    ParamList parsed{"stale"};
    EXPECT_EQ(c.rc, parsePacket(frameOf(c.body), parsed)) << testing::PrintToString(c.body);
    ASSERT_GE(parsed.size(), 1u);
    EXPECT_EQ(ParamList(parsed.begin() + 1, parsed.end()), c.fields)
        << testing::PrintToString(c.body);
  }
}

TEST(ParsePacket, IgnoresChecksumAndLengthFieldsButJudgesFraming) {
  Packet good = frameOf("GSIZE\n\n");
  Packet wrong = good;
  wrong[4] ^= 0x5A;   // checksum
  wrong[9] = '\x7F';  // length field
  wrong[3] = '\xEE';
  ParamList parsed;
  ASSERT_EQ(0u, parsePacket(wrong, parsed));
  EXPECT_EQ("GSIZE", parsed.at(1));

  struct Damage {
    size_t offset;
    const char* log;
  } damages[] = {{0, "[parsePacket()] no [SYN][SYN][STX] !\n"},
                 {2, "[parsePacket()] no [SYN][SYN][STX] !\n"},
                 {good.size() - 1, "[parsePacket()] no [ETX]!\n"}};
  for (const Damage& d : damages) {
    Packet bad = good;
    bad[d.offset] ^= 0x01;
    ParamList kept{"kept"};
    StderrCapture err;
    EXPECT_EQ(5u, parsePacket(bad, kept));
    EXPECT_EQ(d.log, err.text());
    EXPECT_EQ(ParamList{"kept"}, kept);
  }
  for (size_t len = 0; len < FRAME_OVERHEAD; ++len) {
    StderrCapture err;
    ParamList kept;
    EXPECT_EQ(5u, parsePacket(good.substr(0, len), kept));
    EXPECT_EQ("[parsePacket()] packet is empty!\n", err.text());
  }
}

}  // namespace
