// The socket callbacks on real sockets. What a stream makes of them (the
// lines for refused and unresolvable hosts, EOF, a stalled server) is
// checked end to end.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>
#include <tuple>

#include "mms/wrapper_mms.h"
#include "tests/support/support.h"

namespace {

const std::string ENTRY = "[WrapperMms::io_tcp_connect]";

bool blocking(int fd) {
  return (fcntl(fd, F_GETFL) & O_NONBLOCK) == 0;
}

TEST(IoTcpConnect, ABlockingSocketOnSuccessNoneLeftOnFailure) {
  support::RefusingPort refusing, server;
  ASSERT_EQ(0, listen(server.fd(), 4));
  testing::internal::CaptureStderr();
  EXPECT_EQ(-1, WrapperMms::io_tcp_connect(nullptr, nullptr, 80));
  // Only the port's low 16 bits count.
  const halvarine::UniqueFd fd(
      WrapperMms::io_tcp_connect(nullptr, "localhost", server.port() + 0x10000));
  EXPECT_TRUE(fd.valid() && blocking(fd.get()));
  EXPECT_TRUE(!fd.valid() || halvarine::UniqueFd(accept(server.fd(), nullptr, nullptr)).valid());
  const long before = support::openFds(getpid());  // the resolver keeps some
  EXPECT_EQ(-1, WrapperMms::io_tcp_connect(nullptr, "127.0.0.1", refusing.port()));
  EXPECT_EQ(before, support::openFds(getpid()));
  EXPECT_EQ(
      (std::vector<std::string>{ENTRY, "[WrapperMms::io_tcp_connect] invalid argument!", ENTRY,
                                ENTRY, support::REFUSED,
                                "[WrapperMms::io_tcp_connect] connect failed."}),
      support::withRefusalsJoined(halvarine::splitLines(testing::internal::GetCapturedStderr())));
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
        fprintf(stderr, fd >= 0 && blocking(fd) ? "blocking\n" : "not blocking\n");
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

// Against a peer that wrote 3 bytes and went. The buffer is judged before
// the socket; nothing to move moves nothing; the end or a failure gives
// what was moved before it, 0 at first (and no SIGPIPE).
TEST_F(IoTransfer, ArgumentsEndAndFailureInTurn) {
  ASSERT_EQ(3, write(peer.get(), "abc", 3));
  peer.reset();
  char buf[8];
  const auto R = &WrapperMms::io_read, W = &WrapperMms::io_write;
  const std::string r = "[WrapperMms::io_read()] ", w = "[WrapperMms::io_write()] ";
  const int fd = ours.get();
  const std::tuple<decltype(R), int, char*, mms_off_t, mms_off_t, std::string> rows[] = {
      {R, fd, nullptr, 4, -1, r + "invalid argument!\n"},
      {W, -1, nullptr, 4, -1, w + "invalid argument!\n"},
      {R, -1, buf, 4, -1, r + "invalid socket!\n"},
      {W, -1, buf, 4, -1, w + "invalid socket!\n"},
      {R, fd, buf, 0, 0, ""},
      {W, fd, buf, -5, 0, ""},
      {R, fd, buf, 8, 3, r + "EOF\n"},
      {R, fd, buf, 8, 0, r + "EOF\n"},
      {W, fd, buf, 8, 0, w + "write error! errno=32\n"},
  };
  for (const auto& [call, sock, data, num, result, log] : rows) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(result, call(nullptr, sock, data, num)) << log;
    EXPECT_EQ(log, testing::internal::GetCapturedStderr());
  }
  EXPECT_EQ("abc", std::string(buf, 3));
}

// A megabyte through a 4 KiB send buffer: the write goes on when the socket
// is full, the read gathers what arrives in pieces.
TEST_F(IoTransfer, MovesAllOfALargeTransferInPieces) {
  const int small = 4096;
  setsockopt(ours.get(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
  std::string data(1 << 20, 'x'), received(data.size(), '\0');
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 7);
  const mms_off_t size = static_cast<mms_off_t>(data.size());
  std::thread reader(
      [&] { EXPECT_EQ(size, WrapperMms::io_read(nullptr, peer.get(), &received[0], size)); });
  EXPECT_EQ(size, WrapperMms::io_write(nullptr, ours.get(), &data[0], size));
  reader.join();
  EXPECT_TRUE(data == received);
}

TEST_F(IoTransfer, SlowReadTimesOutAfterSevenQuietSeconds) {
  ASSERT_EQ(10, write(peer.get(), "0123456789", 10));
  char buf[20];
  testing::internal::CaptureStderr();
  EXPECT_EQ(10, WrapperMms::io_read(nullptr, ours.get(), buf, 20));
  EXPECT_EQ(-1, WrapperMms::io_read(nullptr, ours.get(), buf, 20));
  EXPECT_EQ("[WrapperMms::io_read()] select timeout!\n[WrapperMms::io_read()] select timeout!\n",
            testing::internal::GetCapturedStderr());
}

}  // namespace
