// The frame codec on plain byte strings, against frames written out by hand
// (tests/support). Frames over a real socket, whole, pipelined and split at
// every byte, are checked end to end against the worker.

#include <gtest/gtest.h>

#include <tuple>
#include <vector>

#include "channel/control_socket.h"
#include "channel/packet.h"
#include "tests/support/support.h"

using support::bytes;

namespace {

Packet frameOf(const std::string& body) {
  return support::frameAround(0x07, body, 'Q');
}

// The frames it builds are checked byte for byte end to end, and against
// an independent reading by the parse target's corpus. The last line of
// defence: a list no frame can hold leaves `out` alone.
TEST(MakePacket, RefusesShortListsAndOverlongBodiesLeavingOutAlone) {
  Packet out = "untouched";
  ParamList big{"header", "READ", std::string(FRAME_MAX_BODY - 6, 'x')};  // body 65,536
  testing::internal::CaptureStderr();
  EXPECT_EQ(0xFFFFu, makePacket(ParamList{"header"}, out));
  EXPECT_EQ(6u, makePacket(big, out));
  EXPECT_EQ("[makePacket()] parameter list is empty!\n[makePacket()] reply too long!\n",
            testing::internal::GetCapturedStderr());
  EXPECT_EQ("untouched", out);
  big.back().pop_back();  // exactly 65,535: fits
  ASSERT_EQ(0u, makePacket(big, out));
  EXPECT_EQ(FRAME_MAX_LEN, out.size());
}

// The checksum adds many bytes per step, in every way this processor can:
// against a byte-by-byte sum at every start alignment and at lengths around
// the step sizes, and over a whole frame's worth of 0xFF, where a lane that
// overflowed would show.
TEST(BodyChecksum, EqualsTheByteSumAtEveryAlignmentAndLength) {
  std::string data(FRAME_MAX_BODY + 64, '\0');
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 131 + (i >> 7));
  const std::string ones(FRAME_MAX_BODY + 64, '\xFF');
  for (const std::string* source : std::vector<const std::string*>{&data, &ones}) {
    std::vector<size_t> lengths;
    for (size_t n = 0; n < 300; ++n) lengths.push_back(n);
    for (size_t n : {1023u, 1024u, 1025u, 8191u, 8192u, 8200u, 65535u}) lengths.push_back(n);
    for (size_t start = 0; start < 32; ++start) {
      for (size_t len : lengths) {
        const char* p = source->data() + start;
        uint16_t sum = 0;
        for (size_t i = 0; i < len; ++i) sum = static_cast<uint16_t>(sum + (p[i] & 0xFF));
        ASSERT_EQ(static_cast<uint16_t>(~sum), bodyChecksum(p, len)) << start << " " << len;
        for (ByteSum variant : byteSumVariants()) {
          ASSERT_EQ(sum,
                    static_cast<uint16_t>(variant(reinterpret_cast<const unsigned char*>(p), len)))
              << start << " " << len;
        }
      }
    }
  }
}

// Faults of the start, the end mark or the size are logged and leave the
// list as it was; faults in the body are silent and keep the header and the
// fields before them. Neither the checksum nor the length field is judged.
TEST(ParsePacket, FieldsOrFaultOfEachFrameShape) {
  const Packet good = frameOf("GSIZE\n\n");
  Packet unchecked = good;
  unchecked[3] = '\xEE';
  unchecked[4] ^= 0x5A;   // checksum
  unchecked[9] = '\x7F';  // length field
  const std::string NO_START = "[parsePacket()] no [SYN][SYN][STX] !\n";
  // After the header: the fields; a logged fault leaves the list as it was.
  const std::tuple<Packet, ResultCode, ParamList, std::string> cases[] = {
      {frameOf(""), 0, {}, ""},
      {frameOf("\n"), 0, {}, ""},
      {frameOf("\nCCHECK\n"), 0, {}, ""},
      {frameOf("A\n\nB\n"), 0, {"A"}, ""},
      {frameOf("A\nB"), 5, {"A"}, ""},
      {frameOf(bytes({0, 0, 3, 0}) + "a\nb\n\n"), 0, {"a\nb"}, ""},
      {frameOf(bytes({0, 0, 0, 0}) + "\n"), 0, {""}, ""},
      {frameOf(bytes({0, 0, 4, 0}) + "a\nb\n"), 5, {}, ""},  // runs past the body
      {frameOf(bytes({0, 0, 1, 0}) + "ab\n"), 5, {}, ""},    // no 0x0A after the data
      {frameOf(bytes({0, 0, 1})), 5, {}, ""},                // prefix cut short
      {frameOf("READ\n00000010\n"), 0, {"READ", "00000010"}, ""},
      {frameOf("CONNECT\nmms://a/b\nextra\n\n"), 0, {"CONNECT", "mms://a/b", "extra"}, ""},
      {unchecked, 0, {"GSIZE"}, ""},
      {"\x17" + good.substr(1), 5, {}, NO_START},
      {good.substr(0, 2) + "\x03" + good.substr(3), 5, {}, NO_START},
      {good.substr(0, FRAME_OVERHEAD - 1), 5, {}, "[parsePacket()] packet is empty!\n"},
  };
  for (const auto& [frame, rc, fields, log] : cases) {
    ParamList parsed{"stale"}, want = fields;
    testing::internal::CaptureStderr();
    EXPECT_EQ(rc, parsePacket(frame, parsed)) << testing::PrintToString(frame);
    want.insert(want.begin(), log.empty() ? frame.substr(3, 9) : "stale");
    EXPECT_EQ(want, parsed) << testing::PrintToString(frame);
    EXPECT_EQ(log, testing::internal::GetCapturedStderr());
  }
}

// Garbage without a start sequence is kept up to the limit, past it only
// the two bytes that may begin a split start sequence, which a later read
// completes. (Frames cut by their length field, at every byte and behind
// garbage: end to end and the frame cutter's fuzz target.)
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
