// The controller library's own faults that the worker tests would not
// reveal: the listener's claim on its path, clean-up on every path, and
// strict judging of replies. Private socket paths, no worker.

#include <errno.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/support/support.h"

using halvarine::ChildProcess;
using halvarine::ControllerConnection;
using halvarine::ControllerListener;
using halvarine::decodeReply;
using halvarine::Reply;
using halvarine::UniqueFd;
using support::bytes;
using support::connectedSocket;
using support::fileExists;
using support::frameAround;

namespace {

// The documented CCHECK and READ ("abcde") replies, echo byte 0x07.
const std::string CCHECK_REPLY =
    bytes({0x16, 0x16, 0x02, 0x00, 0xFD, 0x47, 0x52, 0x07, 0x00, 0x00, 0x0C, 0x00, 0x43,
           0x43, 0x48, 0x45, 0x43, 0x4B, 0x0A, 0x4F, 0x4B, 0x5F, 0x0A, 0x0A, 0x03});
const std::string READ_REPLY =
    bytes({0x16, 0x16, 0x02, 0x00, 0xFA, 0x3F, 0x52, 0x07, 0x00, 0x00, 0x1D, 0x00, 0x52, 0x45,
           0x41, 0x44, 0x0A, 0x4F, 0x4B, 0x5F, 0x0A, 0x30, 0x30, 0x30, 0x30, 0x30, 0x30, 0x30,
           0x35, 0x0A, 0x00, 0x00, 0x05, 0x00, 0x61, 0x62, 0x63, 0x64, 0x65, 0x0A, 0x0A, 0x03});

std::string privatePath() {
  static int counter = 0;
  return "/tmp/halvarine_ctl_test_" + std::to_string(getpid()) + "_" + std::to_string(++counter);
}

bool rejected(const std::string& frame, unsigned char echo = 0x07) {
  Reply r;
  std::string error;
  return !decodeReply(frame, echo, r, &error) && !error.empty();
}

// ---- Strict judging of replies

TEST(ReplyFrames, EveryDamagedOrMissingByteIsRejected) {
  ASSERT_FALSE(rejected(READ_REPLY));
  ASSERT_FALSE(rejected(CCHECK_REPLY));
  for (const std::string& good : {CCHECK_REPLY, READ_REPLY}) {
    for (size_t i = 0; i < good.size(); ++i) {
      std::string bad = good;
      bad[i] = static_cast<char>(bad[i] + 1);
      EXPECT_TRUE(rejected(bad)) << "byte " << i << " damaged";
      EXPECT_TRUE(rejected(good.substr(0, i))) << "cut at " << i;
    }
  }
  EXPECT_TRUE(rejected(CCHECK_REPLY, 0x08)) << "wrong echo";
}

TEST(ReplyFrames, BodiesThatAreNotExactlyFieldsAreRejected) {
  for (const std::string& body :
       {std::string("CCHECK\nOK_\n"), std::string("CCHECK\nOK_\n\nX\n\n"),
        std::string("CCHECK\n\nOK_\n\n"), std::string("CCHECK\nOK_"), std::string(),
        "READ\nOK_\n" + bytes({0x00, 0x00, 0x01, 0x01}) + "a\n\n"}) {  // spare byte not 0
    EXPECT_TRUE(rejected(frameAround(0x07, body, 'R'))) << halvarine::hex(body);
  }
}

// ---- The connection: what a worker sends is judged as it comes

class FakeWorker : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(listener.listen(privatePath())) << listener.error();
    worker = connectedSocket(listener.path());
    ASSERT_TRUE(listener.accept(1000, conn)) << listener.error();
  }
  void send(const std::string& bytes) {
    ASSERT_EQ(static_cast<ssize_t>(bytes.size()), write(worker.get(), bytes.data(), bytes.size()));
  }
  void expectFailure(unsigned char echo, const std::string& inError) {
    Reply r;
    EXPECT_FALSE(conn.receive(echo, 1000, r));
    EXPECT_NE(std::string::npos, conn.error().find(inError)) << conn.error();
  }

  ControllerListener listener;
  UniqueFd worker;
  ControllerConnection conn;
};

TEST_F(FakeWorker, BytesBeforeAFrameAreAnError) {
  send("x" + CCHECK_REPLY);
  expectFailure(0x07, "78 16 16 02");
}

TEST_F(FakeWorker, EndOfStreamInsideAFrameIsAnError) {
  send(CCHECK_REPLY.substr(0, 12));
  worker.reset();
  expectFailure(0x07, "closed");
}

TEST_F(FakeWorker, BytesInsteadOfTheEndAreAnError) {
  send("z");
  EXPECT_FALSE(conn.receiveEof(1000));
  EXPECT_NE(std::string::npos, conn.error().find("7A")) << conn.error();
}

TEST_F(FakeWorker, SendingToAClosedPeerIsAnErrorNotSigpipe) {
  worker.reset();
  EXPECT_FALSE(conn.sendRaw(std::string(1 << 20, 'x')));
  EXPECT_FALSE(conn.error().empty());
}

// ---- The listener's claim on its path

TEST(Listener, RefusesAPathWhereAnotherControllerListens) {
  const std::string path = privatePath();
  ControllerListener first, second;
  ASSERT_TRUE(first.listen(path)) << first.error();
  EXPECT_FALSE(second.listen(path));
  EXPECT_NE(std::string::npos, second.error().find("already listening")) << second.error();
  EXPECT_TRUE(connectedSocket(path).valid()) << "the first one still accepts";
}

TEST(Listener, ReplacesAStaleSocketButNotAFile) {
  const std::string path = privatePath();
  ASSERT_TRUE(support::boundSocket(path).valid()) << strerror(errno);
  ControllerListener l;
  ASSERT_TRUE(l.listen(path)) << l.error();
  EXPECT_TRUE(connectedSocket(path).valid());

  const std::string plain = privatePath();
  ASSERT_TRUE(support::writeFile(plain, "x"));
  ControllerListener m;
  EXPECT_FALSE(m.listen(plain));
  EXPECT_NE(std::string::npos, m.error().find("not a socket")) << m.error();
  EXPECT_TRUE(fileExists(plain));
  unlink(plain.c_str());
}

// ---- Clean-up on every path

TEST(Cleanup, ListenerRemovesOnlyItsOwnSocketFile) {
  const std::string path = privatePath();
  {
    ControllerListener l;
    ASSERT_TRUE(l.listen(path)) << l.error();
    ControllerListener moved(std::move(l));
    EXPECT_TRUE(moved.listening());
  }
  EXPECT_FALSE(fileExists(path));

  // A listener whose path another took over leaves that one's file alone.
  ControllerListener a, b;
  ASSERT_TRUE(a.listen(path)) << a.error();
  unlink(path.c_str());
  ASSERT_TRUE(b.listen(path)) << b.error();
  a.close();
  EXPECT_TRUE(connectedSocket(path).valid());
}

TEST(Cleanup, ChildIsKilledAndReapedAndItsStderrNeverBlocksIt) {
  pid_t pid;
  {
    halvarine::ChildProcess p;
    ASSERT_TRUE(p.start({"/bin/sh", "-c", "exec sleep 30"})) << p.error();
    pid = p.pid();
    halvarine::ChildProcess moved(std::move(p));
    EXPECT_TRUE(moved.running());
  }
  EXPECT_EQ(-1, kill(pid, 0));
  EXPECT_EQ(ESRCH, errno);

  halvarine::ChildProcess loud;
  ASSERT_TRUE(loud.start({"/bin/sh", "-c", "head -c 300000 /dev/zero | tr '\\0' x >&2"}));
  halvarine::ExitStatus st;
  ASSERT_TRUE(loud.waitExit(10000, st)) << loud.error();
  EXPECT_EQ(300000u, loud.output().size());
}

TEST(Cleanup, WorkerThatNeverConnectsFailsTheStartAndLeavesNothing) {
  halvarine::WorkerSession s;
  halvarine::WorkerSession::Options o;
  o.worker = "/bin/true";
  o.launcher.clear();
  o.socketPath = privatePath();
  o.acceptTimeoutMs = 1000;
  EXPECT_FALSE(s.start(o));
  EXPECT_NE(std::string::npos, s.error().find("exit 0")) << s.error();
  EXPECT_FALSE(fileExists(o.socketPath));
  EXPECT_FALSE(s.worker().running());
}

}  // namespace
