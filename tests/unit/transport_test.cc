// Cutting frames out of received bytes, and moving them over a real socket.

#include "channel/transport.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "stderr_capture.h"
#include "tests/support/support.h"

namespace {

Packet frameOf(const std::string& body) {
  return support::frameAround(1, body, 'Q');
}

TEST(ExtractPacket, SplitAtEveryOffsetYieldsTheSameFrames) {
  const Packet a = frameOf("CCHECK\n\n");
  const Packet b = frameOf(std::string("\0\0\3\0x\n\x16\x16\x02\n\n", 11));
  const std::string stream = "junk" + a + "\x16\x16" + b;
  for (size_t cut = 0; cut <= stream.size(); ++cut) {
    std::string buffer;
    std::vector<Packet> got;
    for (const std::string& piece : {stream.substr(0, cut), stream.substr(cut)}) {
      buffer += piece;
      Packet out;
      while (extractPacket(buffer, out) == 0) got.push_back(out);
    }
    ASSERT_EQ((std::vector<Packet>{a, b}), got) << "cut at " << cut;
    EXPECT_TRUE(buffer.empty());
  }
}

TEST(ExtractPacket, WaitsForTheLengthFieldAndTheWholeFrame) {
  const Packet f = frameOf("GSIZE\n\n");
  for (size_t len = 0; len < f.size(); ++len) {
    std::string buffer = f.substr(0, len);
    Packet out = "before";
    EXPECT_EQ(7u, extractPacket(buffer, out)) << len;
    EXPECT_EQ("before", out);
    EXPECT_EQ(f.substr(0, len), buffer) << "a frame start is never dropped";
  }
  std::string zero = frameOf("").substr(0, 13) + "tail";
  Packet out;
  ASSERT_EQ(0u, extractPacket(zero, out));
  EXPECT_EQ(13u, out.size());
  EXPECT_EQ("tail", zero);
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

// Past the limit only the two bytes that may begin a split start sequence
// stay, and they still complete it.
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

// A connected socket pair installed as the controller socket.
class ControlSocket : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds_));
    g_controlFd = fds_[0];
  }
  void TearDown() override {
    g_controlFd = -1;
    close(fds_[0]);
    if (fds_[1] >= 0) close(fds_[1]);
  }
  void peerWrite(const std::string& s) {
    ASSERT_EQ(static_cast<ssize_t>(s.size()), write(fds_[1], s.data(), s.size()));
  }
  int fds_[2] = {-1, -1};
};

TEST_F(ControlSocket, FramesArrivingTogetherAreServedOneByOne) {
  const Packet a = frameOf("CCHECK\n\n"), b = frameOf("GSIZE\n\n");
  peerWrite("xyz" + a + b);
  Packet out;
  ASSERT_EQ(0u, readPacket(out));
  EXPECT_EQ(a, out);
  close(fds_[1]);  // the second frame must come from the buffer alone
  fds_[1] = -1;
  ASSERT_EQ(0u, readPacket(out));
  EXPECT_EQ(b, out);
  StderrCapture err;
  EXPECT_EQ(3u, readPacket(out));
  EXPECT_EQ("[readPacket()] read EOF!\n", err.text());
}

TEST_F(ControlSocket, ReadsAFrameLargerThanOneChunk) {
  const Packet big = frameOf(std::string(5000, 'r') + "\n\n");
  std::thread writer([&] {
    for (char c : big) {
      if (write(fds_[1], &c, 1) != 1) return;
    }
  });
  Packet out;
  ASSERT_EQ(0u, readPacket(out));
  writer.join();
  EXPECT_EQ(big, out);
}

TEST_F(ControlSocket, WritePacketSendsEverythingThroughASmallBuffer) {
  int small = 4096;
  setsockopt(fds_[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
  const Packet big = frameOf(std::string(FRAME_MAX_BODY - 1, 'w') + "\n");
  std::string received;
  std::thread reader([&] {
    char buf[777];
    while (received.size() < big.size()) {
      const ssize_t n = read(fds_[1], buf, sizeof buf);
      if (n <= 0) return;
      received.append(buf, static_cast<size_t>(n));
    }
  });
  EXPECT_EQ(0u, writePacket(big));
  reader.join();
  EXPECT_EQ(big, received);
}

TEST(Transport, WithoutControllerSocket) {
  g_controlFd = -1;
  Packet out;
  StderrCapture err;
  EXPECT_EQ(8u, readPacket(out));
  EXPECT_EQ(8u, writePacket(frameOf("")));
  EXPECT_EQ("[readPacket()] not connected!\n", err.text());
}

}  // namespace
