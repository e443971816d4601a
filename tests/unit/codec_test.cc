// The frame codec on plain byte strings: building replies, parsing
// requests, and cutting frames out of received bytes.

#include <gtest/gtest.h>

#include "channel/packet.h"
#include "stderr_capture.h"
#include "tests/support/support.h"

using support::bytes;

namespace {

// A request frame around `body`, length and checksum filled in.
Packet frameOf(const std::string& body, unsigned char echo = 0x07) {
  return support::frameAround(echo, body, 'Q');
}

ParamList header(unsigned char echo) {
  return ParamList{std::string("\0\0\0Q", 4) + std::string(1, static_cast<char>(echo)) +
                   std::string(4, '\0')};
}

TEST(MakePacket, BuildsTheDocumentedFramesEchoingAnyByte) {
  struct Row {
    unsigned char echo;
    ParamList fields;
    std::string frame;
  } const rows[] = {
      {0x07,
       {"READ", "OK_", "00000005", bytes({0, 0, 5, 0}) + "abcde"},
       bytes({0x16, 0x16, 0x02, 0x00, 0xFA, 0x3F, 0x52, 0x07, 0x00, 0x00, 0x1D, 0x00}) +
           "READ\nOK_\n00000005\n" + bytes({0x00, 0x00, 0x05, 0x00}) + "abcde\n\n\x03"},
      {0x16,
       {""},
       bytes({0x16, 0x16, 0x02, 0x00, 0xFF, 0xEB, 0x52, 0x16, 0x00, 0x00, 0x02, 0x00, 0x0A, 0x0A,
              0x03})},
      // A sum past 16 bits wraps: 300 * 0xFF + 2 * 0x0A = 0x12AE8, ~0x2AE8 = 0xD517.
      {0xFF,
       {std::string(300, '\xFF')},
       bytes({0x16, 0x16, 0x02, 0x00, 0xD5, 0x17, 0x52, 0xFF, 0x00, 0x01, 0x2E, 0x00}) +
           std::string(300, '\xFF') + "\n\n\x03"},
  };
  for (const Row& r : rows) {
    ParamList list = header(r.echo);
    list.insert(list.end(), r.fields.begin(), r.fields.end());
    Packet out;
    ASSERT_EQ(0u, makePacket(list, out));
    EXPECT_EQ(halvarine::hex(r.frame), halvarine::hex(out));
  }
}

TEST(MakePacket, RefusesShortListsAndOverlongBodiesLeavingOutAlone) {
  Packet out = "untouched";
  ParamList big = header(1);
  big.push_back("READ");
  big.push_back(std::string(FRAME_MAX_BODY - 6, 'x'));  // 65,536 body bytes
  {
    StderrCapture err;
    EXPECT_EQ(0xFFFFu, makePacket(header(1), out));
    EXPECT_EQ(6u, makePacket(big, out));
    EXPECT_EQ("[makePacket()] parameter list is empty!\n[makePacket()] reply too long!\n",
              err.text());
  }
  EXPECT_EQ("untouched", out);
  big.back().pop_back();  // exactly 65,535: fits
  ASSERT_EQ(0u, makePacket(big, out));
  EXPECT_EQ(FRAME_MAX_LEN, out.size());
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
  const Packet good = frameOf("GSIZE\n\n");
  Packet wrong = good;
  wrong[4] ^= 0x5A;   // checksum
  wrong[9] = '\x7F';  // length field
  wrong[3] = '\xEE';
  ParamList parsed;
  ASSERT_EQ(0u, parsePacket(wrong, parsed));
  EXPECT_EQ("GSIZE", parsed.at(1));
  const std::pair<Packet, const char*> damaged[] = {
      {"\x17" + good.substr(1), "[parsePacket()] no [SYN][SYN][STX] !\n"},
      {good.substr(0, 2) + "\x03" + good.substr(3), "[parsePacket()] no [SYN][SYN][STX] !\n"},
      {good.substr(0, good.size() - 1) + "\x02", "[parsePacket()] no [ETX]!\n"},
      {good.substr(0, FRAME_OVERHEAD - 1), "[parsePacket()] packet is empty!\n"}};
  for (const auto& d : damaged) {
    ParamList kept{"kept"};
    StderrCapture err;
    EXPECT_EQ(5u, parsePacket(d.first, kept));
    EXPECT_EQ(d.second, err.text());
    EXPECT_EQ(ParamList{"kept"}, kept);
  }
}

TEST(ExtractPacket, TooSmallLengthCutsShortAndTheRestIsDroppedNextTime) {
  Packet f = frameOf("CCHECK\n\n");
  f[10] = 2;  // claims a 2-byte body
  std::string buffer = f + frameOf("PEND\n\n");
  Packet out;
  ASSERT_EQ(0u, extractPacket(buffer, out));
  EXPECT_EQ(15u, out.size());
  ASSERT_EQ(0u, extractPacket(buffer, out));
  EXPECT_EQ(frameOf("PEND\n\n"), out);
}

// Cutting at every byte and with garbage in front is checked end to end
// and by the frame cutter's fuzz target. Past the garbage limit only the
// two bytes that may begin a split start sequence stay, and complete it.
TEST(ExtractPacket, GarbageWithoutStartSequenceIsDroppedPastTheLimit) {
  std::string buffer(RECV_GARBAGE_LIMIT, 'g');
  Packet out;
  EXPECT_EQ(7u, extractPacket(buffer, out));
  EXPECT_EQ(RECV_GARBAGE_LIMIT, buffer.size()) << "kept up to the limit";
  buffer += "g\x16\x16";
  EXPECT_EQ(7u, extractPacket(buffer, out));
  EXPECT_EQ("\x16\x16", buffer);
  buffer += frameOf("CCHECK\n\n").substr(2);
  ASSERT_EQ(0u, extractPacket(buffer, out));
  EXPECT_EQ(frameOf("CCHECK\n\n"), out);
}

}  // namespace
