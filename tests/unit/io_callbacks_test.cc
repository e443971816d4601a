// The socket callbacks on real loopback sockets.

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "mms/wrapper_mms.h"
#include "stderr_capture.h"

namespace {

int openDescriptors() {
  int n = 0;
  DIR* d = opendir("/proc/self/fd");
  while (readdir(d) != nullptr) ++n;
  closedir(d);
  return n;
}

// A listening loopback TCP socket on an ephemeral port.
struct Listener {
  Listener() {
    fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    listen(fd, 4);
    socklen_t len = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    port = ntohs(a.sin_port);
  }
  ~Listener() { close(fd); }
  int fd;
  int port;
};

// A free port: bound and closed again, so nothing listens on it.
int closedPort() {
  Listener l;
  return l.port;
}

TEST(IoTcpConnect, ArgumentAndResolutionFailures) {
  {
    StderrCapture err;
    EXPECT_EQ(-1, WrapperMms::io_tcp_connect(nullptr, nullptr, 80));
    EXPECT_EQ(
        "[WrapperMms::io_tcp_connect]\n"
        "[WrapperMms::io_tcp_connect] invalid argument!\n",
        err.text());
  }
  {
    // A label over 63 bytes is refused by the resolver itself, before any
    // query could leave the machine.
    const std::string host = std::string(64, 'x') + ".invalid";
    StderrCapture err;
    EXPECT_EQ(-1, WrapperMms::io_tcp_connect(nullptr, host.c_str(), 80));
    EXPECT_EQ(
        "[WrapperMms::io_tcp_connect]\n"
        "[WrapperMms::io_tcp_connect] unable to resolve host: " +
            host + "\n",
        err.text());
  }
}

TEST(IoTcpConnect, RefusedAddressFailsOnceAndLeaksNothing) {
  StderrCapture err;
  const int before = openDescriptors();
  EXPECT_EQ(-1, WrapperMms::io_tcp_connect(nullptr, "127.0.0.1", closedPort()));
  const std::string log = err.text();
  // Loopback refuses either at once or through the pending socket error.
  EXPECT_TRUE(log ==
                  "[WrapperMms::io_tcp_connect]\n"
                  "ERR - connect with select : 111\n"
                  "[WrapperMms::io_tcp_connect] connect failed.\n" ||
              log ==
                  "[WrapperMms::io_tcp_connect]\n"
                  "ERR - connect\n errno = 111 / msg = Connection refused\n"
                  "[WrapperMms::io_tcp_connect] connect failed.\n")
      << log;
  EXPECT_EQ(before, openDescriptors());
}

TEST(IoTcpConnect, ReturnsABlockingConnectedSocket) {
  Listener server;
  StderrCapture err;
  const int fd = WrapperMms::io_tcp_connect(nullptr, "localhost", server.port + 0x10000);
  ASSERT_GE(fd, 0) << err.text();
  EXPECT_EQ(0, fcntl(fd, F_GETFL) & O_NONBLOCK);
  const int peer = accept(server.fd, nullptr, nullptr);
  EXPECT_GE(peer, 0);
  EXPECT_EQ("[WrapperMms::io_tcp_connect]\n", err.text());
  close(peer);
  close(fd);
}

class IoTransfer : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds_)); }
  void TearDown() override {
    for (int fd : fds_)
      if (fd >= 0) close(fd);
  }
  void closePeer() {
    close(fds_[1]);
    fds_[1] = -1;
  }
  int fds_[2] = {-1, -1};
};

TEST_F(IoTransfer, InvalidArgumentsAreCheckedBufferFirst) {
  char buf[4];
  struct Case {
    char* buf;
    int fd;
    const char* readLog;
    const char* writeLog;
  } cases[] = {
      {nullptr, -1, "[WrapperMms::io_read()] invalid argument!\n",
       "[WrapperMms::io_write()] invalid argument!\n"},
      {nullptr, fds_[0], "[WrapperMms::io_read()] invalid argument!\n",
       "[WrapperMms::io_write()] invalid argument!\n"},
      {buf, -1, "[WrapperMms::io_read()] invalid socket!\n",
       "[WrapperMms::io_write()] invalid socket!\n"},
  };
  for (const Case& c : cases) {
    StderrCapture err;
    EXPECT_EQ(-1, WrapperMms::io_read(nullptr, c.fd, c.buf, 4));
    EXPECT_EQ(-1, WrapperMms::io_write(nullptr, c.fd, c.buf, 4));
    EXPECT_EQ(std::string(c.readLog) + c.writeLog, err.text());
  }
  StderrCapture err;
  EXPECT_EQ(0, WrapperMms::io_read(nullptr, fds_[0], buf, 0));
  EXPECT_EQ(0, WrapperMms::io_write(nullptr, fds_[0], buf, -5));
  EXPECT_EQ("", err.text());
}

TEST_F(IoTransfer, ReadStopsAtTheEndOfTheStream) {
  const std::string sent(100, 'd');
  ASSERT_EQ(100, write(fds_[1], sent.data(), sent.size()));
  closePeer();
  char buf[500];
  StderrCapture err;
  EXPECT_EQ(100, WrapperMms::io_read(nullptr, fds_[0], buf, 500));
  EXPECT_EQ("[WrapperMms::io_read()] EOF\n", err.text());
  EXPECT_EQ(sent, std::string(buf, 100));
  EXPECT_EQ(0, WrapperMms::io_read(nullptr, fds_[0], buf, 500));
}

TEST_F(IoTransfer, ReadGathersPiecesUntilItHasAll) {
  std::thread writer([this] {
    for (int i = 0; i < 64; ++i) {
      char c = static_cast<char>(i);
      if (write(fds_[1], &c, 1) != 1) return;
      usleep(1000);
    }
  });
  char buf[64];
  EXPECT_EQ(64, WrapperMms::io_read(nullptr, fds_[0], buf, 64));
  writer.join();
  for (int i = 0; i < 64; ++i) EXPECT_EQ(i, buf[i]);
}

TEST_F(IoTransfer, ReadTimesOutAfterSevenQuietSeconds) {
  ASSERT_EQ(10, write(fds_[1], "0123456789", 10));
  char buf[20];
  StderrCapture err;
  EXPECT_EQ(10, WrapperMms::io_read(nullptr, fds_[0], buf, 20));
  EXPECT_EQ(-1, WrapperMms::io_read(nullptr, fds_[0], buf, 20));
  EXPECT_EQ(
      "[WrapperMms::io_read()] select timeout!\n"
      "[WrapperMms::io_read()] select timeout!\n",
      err.text());
}

TEST_F(IoTransfer, FirstTransferFailureGivesZeroNotMinusOne) {
  closePeer();
  // Writing to a closed peer fails with EPIPE and must not raise SIGPIPE.
  char buf[8] = {};
  StderrCapture err;
  EXPECT_EQ(0, WrapperMms::io_write(nullptr, fds_[0], buf, 8));
  EXPECT_EQ("[WrapperMms::io_write()] write error! errno=32\n", err.text());
}

TEST_F(IoTransfer, WriteOfMoreThanTheSocketTakesAtOnce) {
  int small = 4096;
  setsockopt(fds_[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
  std::string data(1 << 20, 'x');
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 7);
  std::string received;
  std::thread reader([&] {
    char buf[1000];
    while (received.size() < data.size()) {
      const ssize_t n = read(fds_[1], buf, sizeof buf);
      if (n <= 0) return;
      received.append(buf, static_cast<size_t>(n));
    }
  });
  EXPECT_EQ(static_cast<mms_off_t>(data.size()),
            WrapperMms::io_write(nullptr, fds_[0], &data[0], data.size()));
  reader.join();
  EXPECT_EQ(data, received);
}

}  // namespace
