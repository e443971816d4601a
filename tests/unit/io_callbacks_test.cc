// The socket callbacks on real sockets.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "mms/wrapper_mms.h"
#include "stderr_capture.h"
#include "tests/support/support.h"

namespace {

const std::string ENTRY = "[WrapperMms::io_tcp_connect]\n";
const std::string FAILED = "[WrapperMms::io_tcp_connect] connect failed.\n";

TEST(IoTcpConnect, ArgumentResolutionAndRefusal) {
  const std::string host = support::unresolvableHost();
  support::RefusingPort refusing;
  StderrCapture err;
  EXPECT_EQ(-1, WrapperMms::io_tcp_connect(nullptr, nullptr, 80));
  EXPECT_EQ(-1, WrapperMms::io_tcp_connect(nullptr, host.c_str(), 80));
  const long before = support::openFds(getpid());  // the resolver keeps some
  EXPECT_EQ(-1, WrapperMms::io_tcp_connect(nullptr, "127.0.0.1", refusing.port()));
  EXPECT_EQ(ENTRY + "[WrapperMms::io_tcp_connect] invalid argument!\n" + ENTRY +
                "[WrapperMms::io_tcp_connect] unable to resolve host: " + host + "\n" + ENTRY +
                support::REFUSED + "\n" + FAILED,
            support::withRefusalsJoinedText(err.text()));
  EXPECT_EQ(before, support::openFds(getpid()));
}

TEST(IoTcpConnect, ReturnsABlockingSocketAndTakesThePortsLow16Bits) {
  support::RefusingPort server;
  ASSERT_EQ(0, listen(server.fd(), 4));
  StderrCapture err;
  const halvarine::UniqueFd fd(
      WrapperMms::io_tcp_connect(nullptr, "localhost", server.port() + 0x10000));
  ASSERT_TRUE(fd.valid()) << err.text();
  EXPECT_EQ(0, fcntl(fd.get(), F_GETFL) & O_NONBLOCK);
  EXPECT_TRUE(halvarine::UniqueFd(accept(server.fd(), nullptr, nullptr)).valid());
  EXPECT_EQ(ENTRY, err.text());
}

// A host whose first address fails at once (no route) and whose second
// answers: both tried on the same socket, which comes back blocking. In a
// mount and network namespace of its own, with its own /etc/hosts.
TEST(IoTcpConnect, AfterAnImmediateFailureTheNextAddressGetsABlockingSocket) {
  if (geteuid() != 0) GTEST_SKIP() << "namespaces need root";
  support::TempDir dir;
  const std::string hosts = dir.file("hosts");
  ASSERT_TRUE(support::writeFile(hosts, "192.0.2.1 twohost\n127.0.0.1 twohost\n"));
  EXPECT_EXIT(
      {
        if (unshare(CLONE_NEWNS | CLONE_NEWNET) != 0 ||
            mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount(hosts.c_str(), "/etc/hosts", nullptr, MS_BIND, nullptr) != 0) {
          _exit(2);
        }
        ifreq lo{};
        strcpy(lo.ifr_name, "lo");
        lo.ifr_flags = IFF_UP;
        ioctl(socket(AF_INET, SOCK_DGRAM, 0), SIOCSIFFLAGS, &lo);
        support::RefusingPort server;
        listen(server.fd(), 4);
        const int fd = WrapperMms::io_tcp_connect(nullptr, "twohost", server.port());
        const bool blocking = fd >= 0 && (fcntl(fd, F_GETFL) & O_NONBLOCK) == 0;
        fprintf(stderr, blocking ? "blocking\n" : "not blocking\n");
        _exit(0);
      },
      ::testing::ExitedWithCode(0),
      "^\\[WrapperMms::io_tcp_connect\\]\nERR - connect\n errno = 101 / msg = Network is "
      "unreachable\n\\[WrapperMms::io_tcp_connect\\] connect failed.\nblocking\n$");
}

class IoTransfer : public testing::Test {
 protected:
  void SetUp() override {
    int fds[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds));
    ours.reset(fds[0]);
    peer.reset(fds[1]);
  }
  halvarine::UniqueFd ours, peer;
};

TEST_F(IoTransfer, InvalidArgumentsAreCheckedBufferFirst) {
  char buf[4];
  StderrCapture err;
  for (int fd : {-1, ours.get()}) {
    EXPECT_EQ(-1, WrapperMms::io_read(nullptr, fd, nullptr, 4));
    EXPECT_EQ(-1, WrapperMms::io_write(nullptr, fd, nullptr, 4));
  }
  EXPECT_EQ(-1, WrapperMms::io_read(nullptr, -1, buf, 4));
  EXPECT_EQ(-1, WrapperMms::io_write(nullptr, -1, buf, 4));
  EXPECT_EQ(0, WrapperMms::io_read(nullptr, ours.get(), buf, 0));
  EXPECT_EQ(0, WrapperMms::io_write(nullptr, ours.get(), buf, -5));
  const std::string R = "[WrapperMms::io_read()] ", W = "[WrapperMms::io_write()] ";
  EXPECT_EQ(R + "invalid argument!\n" + W + "invalid argument!\n" + R + "invalid argument!\n" + W +
                "invalid argument!\n" + R + "invalid socket!\n" + W + "invalid socket!\n",
            err.text());
}

TEST_F(IoTransfer, ReadGathersPiecesAndStopsAtTheEnd) {
  std::thread writer([this] {
    for (int i = 0; i < 64; ++i) {
      const char c = static_cast<char>(i);
      if (write(peer.get(), &c, 1) != 1) return;
      usleep(1000);
    }
    peer.reset();
  });
  char buf[100];
  StderrCapture err;
  EXPECT_EQ(32, WrapperMms::io_read(nullptr, ours.get(), buf, 32));
  EXPECT_EQ(32, WrapperMms::io_read(nullptr, ours.get(), buf + 32, 68));
  writer.join();
  EXPECT_EQ(0, WrapperMms::io_read(nullptr, ours.get(), buf, 10));
  for (int i = 0; i < 64; ++i) EXPECT_EQ(i, buf[i]);
  EXPECT_EQ("[WrapperMms::io_read()] EOF\n[WrapperMms::io_read()] EOF\n", err.text());
}

TEST_F(IoTransfer, SlowReadTimesOutAfterSevenQuietSeconds) {
  ASSERT_EQ(10, write(peer.get(), "0123456789", 10));
  char buf[20];
  StderrCapture err;
  EXPECT_EQ(10, WrapperMms::io_read(nullptr, ours.get(), buf, 20));
  EXPECT_EQ(-1, WrapperMms::io_read(nullptr, ours.get(), buf, 20));
  EXPECT_EQ("[WrapperMms::io_read()] select timeout!\n[WrapperMms::io_read()] select timeout!\n",
            err.text());
}

// No SIGPIPE for a server that has gone: the error, and 0 moved.
TEST_F(IoTransfer, FirstTransferFailureGivesZeroNotMinusOne) {
  peer.reset();
  char buf[8] = {};
  StderrCapture err;
  EXPECT_EQ(0, WrapperMms::io_write(nullptr, ours.get(), buf, 8));
  EXPECT_EQ("[WrapperMms::io_write()] write error! errno=32\n", err.text());
}

TEST_F(IoTransfer, WriteOfMoreThanTheSocketTakesAtOnce) {
  const int small = 4096;
  setsockopt(ours.get(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
  std::string data(1 << 20, 'x');
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 7);
  std::string received;
  std::thread reader([&] {
    char buf[1000];
    ssize_t n;
    while (received.size() < data.size() && (n = read(peer.get(), buf, sizeof buf)) > 0) {
      received.append(buf, static_cast<size_t>(n));
    }
  });
  EXPECT_EQ(static_cast<mms_off_t>(data.size()),
            WrapperMms::io_write(nullptr, ours.get(), &data[0], data.size()));
  reader.join();
  EXPECT_TRUE(data == received);
}

}  // namespace
