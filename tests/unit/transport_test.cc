// Moving whole frames over a real socket pair.

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
