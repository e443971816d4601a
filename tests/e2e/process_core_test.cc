// The worker as a process: start-up without a controller, the ways it ends,
// and how it cuts, judges and drops the frames it receives.

#include <errno.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "tests/e2e/worker_test_support.h"

using controller::ControllerListener;
using controller::ExitStatus;
using controller::Field;
using controller::hex;
using controller::Reply;
using controller::Request;
using controller::UniqueFd;
using controller::WorkerProcess;
using e2e::bytes;
using e2e::expectedReply;
using e2e::frameAround;

namespace {

const char NO_ETX[] = "[parsePacket()] no [ETX]!";
const char FINISHED[] = "[Halvarine] application finished !!";

Packet frameOf(const Request& req) {
  Packet p;
  EXPECT_TRUE(controller::encodeRequest(req, p));
  return p;
}

double secondsSince(std::chrono::steady_clock::time_point t) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t).count();
}

// ---- Start-up without a controller

class StartWithoutController : public ::testing::Test {
 protected:
  void SetUp() override {
    worker = controller::workerFromEnvironment();
    ASSERT_FALSE(worker.empty()) << "HALVARINE_WORKER names no worker binary";
    // Taking the path and letting it go proves that no other controller is
    // there and leaves no socket file behind.
    ControllerListener guard;
    ASSERT_TRUE(guard.listen()) << guard.error();
  }

  // Runs the worker with `library` preloaded and expects exit status 1 after
  // the one line `line`. Preloading reaches the worker only when it runs
  // directly, not through a launcher.
  void expectStartFailure(const char* library, const std::string& line) {
    if (!controller::launcherFromEnvironment().empty())
      GTEST_SKIP() << "the preloaded library is built for this host";
    WorkerProcess p;
    ASSERT_TRUE(p.start(worker, {}, {std::string("LD_PRELOAD=") + library})) << p.error();
    ExitStatus st;
    ASSERT_TRUE(p.waitExit(5, st)) << p.error();
    EXPECT_TRUE(st.exited && st.code == 1) << st.toString();
    EXPECT_EQ(std::vector<std::string>{line}, p.stderrLines());
  }

  // Runs the worker and expects the one connect failure line with `err`.
  void expectConnectFailure(int err) {
    WorkerProcess p;
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(p.startVia(controller::launcherFromEnvironment(), worker)) << p.error();
    ExitStatus st;
    ASSERT_TRUE(p.waitExit(5, st)) << p.error();
    EXPECT_LT(secondsSince(start), 2.0) << "no retry, no wait for the controller";
    EXPECT_TRUE(st.exited && st.code == 1) << st.toString();
    EXPECT_EQ(std::vector<std::string>{"[Halvarine] connect fail! errno=" + std::to_string(err)},
              p.stderrLines());
  }

  std::string worker;
};

TEST_F(StartWithoutController, NoSocketFileEndsWithStatus1AtOnce) {
  expectConnectFailure(ENOENT);
}

TEST_F(StartWithoutController, SocketWithoutListenerEndsWithStatus1AtOnce) {
  // Bound but not listening: the connect is refused.
  UniqueFd fd = e2e::boundSocket(controller::DEFAULT_SOCKET_PATH);
  ASSERT_TRUE(fd.valid()) << strerror(errno);
  expectConnectFailure(ECONNREFUSED);
  unlink(controller::DEFAULT_SOCKET_PATH);
}

// ---- Ending

// Start-up failures before any connection: the worker says why and ends
// with status 1.
TEST_F(StartWithoutController, SocketCreationFailureEndsWithStatus1) {
  expectStartFailure(EXHAUST_DESCRIPTORS_LIBRARY,
                     "[Halvarine] create socket fail! errno=" + std::to_string(EMFILE));
}

TEST_F(StartWithoutController, SigactionFailureEndsWithStatus1) {
  expectStartFailure(FAIL_SIGACTION_LIBRARY, std::string("sigaction: ") + strerror(EINVAL));
}

class ProcessEnd : public e2e::WorkerTest {};

TEST_F(ProcessEnd, PendLogsAnswersFinishesAndCloses) {
  Reply r = call(Request::command("PEND", 0x07));
  EXPECT_EQ(hex(expectedReply(0x07, {"PEND", "OK_"})), hex(r.frame));
  // The notice comes before the reply; the last line only after it.
  const std::vector<std::string> afterReply = stderrLines();
  ASSERT_FALSE(afterReply.empty());
  EXPECT_EQ("[Halvarine] recv PEND command!", afterReply[0]);
  EXPECT_TRUE(session.receiveEof(e2e::REPLY_TIMEOUT_S)) << session.error();
  expectExit(0);
  EXPECT_EQ((std::vector<std::string>{"[Halvarine] recv PEND command!", FINISHED}), stderrLines());
}

TEST_F(ProcessEnd, ControllerClosingItsEndEndsTheProcess) {
  expectOnlyCcheckReply(0x01);
  session.connection().close();
  expectExit(0);
  EXPECT_EQ((std::vector<std::string>{"[readPacket()] read EOF!", FINISHED}), stderrLines());
}

TEST_F(ProcessEnd, ControllerClosingInsideAFrameEndsTheProcess) {
  const Packet f = frameOf(Request::command("CCHECK", 0x01));
  ASSERT_TRUE(session.sendRaw(f.substr(0, 8))) << session.error();
  session.connection().close();
  expectExit(0);
  EXPECT_EQ((std::vector<std::string>{"[readPacket()] read EOF!", FINISHED}), stderrLines());
}

TEST_F(ProcessEnd, SigtermWhileWaitingWritesOneNoticeAndExits0) {
  expectOnlyCcheckReply(0x01);
  ASSERT_TRUE(session.worker().sendSignal(SIGTERM)) << session.worker().error();
  expectExit(0);
  EXPECT_EQ(std::string("\n**** SIGINT ****\n", 18), session.worker().stderrText());
  EXPECT_TRUE(session.receiveEof(e2e::REPLY_TIMEOUT_S)) << session.error();
}

TEST_F(ProcessEnd, SigtermBeforeAnyRequestWritesOneNoticeAndExits0) {
  ASSERT_TRUE(session.worker().sendSignal(SIGTERM)) << session.worker().error();
  expectExit(0);
  EXPECT_EQ(std::string("\n**** SIGINT ****\n", 18), session.worker().stderrText());
}

TEST_F(ProcessEnd, SigintHasNoHandlerOfItsOwn) {
  expectOnlyCcheckReply(0x01);
  ASSERT_TRUE(session.worker().sendSignal(SIGINT)) << session.worker().error();
  ExitStatus st;
  ASSERT_TRUE(session.worker().waitExit(e2e::REPLY_TIMEOUT_S, st)) << session.worker().error();
  EXPECT_TRUE(st.signaled && st.signal == SIGINT) << st.toString();
  EXPECT_EQ("", session.worker().stderrText());
}

TEST_F(ProcessEnd, ReplyToAControllerThatHasGoneEndsTheProcessBySigpipe) {
  // The request is in the worker's socket buffer; its reply meets a closed end.
  ASSERT_TRUE(session.send(Request::command("CCHECK", 0x01))) << session.error();
  session.connection().close();
  ExitStatus st;
  ASSERT_TRUE(session.worker().waitExit(e2e::REPLY_TIMEOUT_S, st)) << session.worker().error();
  EXPECT_TRUE(st.signaled && st.signal == SIGPIPE) << st.toString();
  EXPECT_EQ("", session.worker().stderrText());
}

TEST_F(ProcessEnd, SlowSilenceOf60SecondsEndsTheProcess) {
  expectOnlyCcheckReply(0x01);
  const auto start = std::chrono::steady_clock::now();
  expectExit(0, 75);
  EXPECT_GE(secondsSince(start), 59.0);
  EXPECT_EQ((std::vector<std::string>{"[readPacket()] select timeout!", FINISHED}), stderrLines());
  EXPECT_TRUE(session.receiveEof(e2e::REPLY_TIMEOUT_S)) << session.error();
}

// ---- Cutting frames out of the byte stream

class Framing : public e2e::WorkerTest {};

TEST_F(Framing, TwoFramesInOneWriteAreBothAnsweredInOrder) {
  ASSERT_TRUE(session.sendRaw(frameOf(Request::command("CCHECK", 0x01)) +
                              frameOf(Request::command("GSIZE", 0x02))))
      << session.error();
  EXPECT_EQ(hex(expectedReply(0x01, {"CCHECK", "OK_"})), hex(receive(0x01).frame));
  EXPECT_EQ(hex(expectedReply(0x02, {"GSIZE", "ERR"})), hex(receive(0x02).frame));
}

TEST_F(Framing, FrameSentByteByByteIsAnswered) {
  const Packet f = frameOf(Request::command("CCHECK", 0x05));
  for (char c : f) {
    ASSERT_TRUE(session.sendRaw(std::string(1, c))) << session.error();
    usleep(3000);
  }
  EXPECT_EQ(hex(expectedReply(0x05, {"CCHECK", "OK_"})), hex(receive(0x05).frame));
  EXPECT_EQ(std::vector<std::string>{}, stderrLines());
}

TEST_F(Framing, FrameSplitAtEveryOffsetIsAnswered) {
  const Packet f = frameOf(Request::command("CLOSE", 0x06));
  for (size_t cut = 1; cut < f.size(); ++cut) {
    SCOPED_TRACE(cut);
    ASSERT_TRUE(session.sendRaw(f.substr(0, cut))) << session.error();
    usleep(3000);
    ASSERT_TRUE(session.sendRaw(f.substr(cut))) << session.error();
    EXPECT_EQ(hex(expectedReply(0x06, {"CLOSE", "OK_"})), hex(receive(0x06).frame));
  }
}

TEST_F(Framing, BytesBeforeAFrameAreDropped) {
  const Packet f = frameOf(Request::command("CCHECK", 0x07));
  // In the same write, including lone start bytes.
  ASSERT_TRUE(session.sendRaw("abc" + f)) << session.error();
  EXPECT_EQ(hex(expectedReply(0x07, {"CCHECK", "OK_"})), hex(receive(0x07).frame));
  ASSERT_TRUE(session.sendRaw(bytes({0x16, 0x02, 0x16, 0x16, 0x03, 0x0A}) + f)) << session.error();
  EXPECT_EQ(hex(expectedReply(0x07, {"CCHECK", "OK_"})), hex(receive(0x07).frame));
  // In a write of their own.
  ASSERT_TRUE(session.sendRaw("garbage\n\x03")) << session.error();
  usleep(20000);
  ASSERT_TRUE(session.sendRaw(f)) << session.error();
  EXPECT_EQ(hex(expectedReply(0x07, {"CCHECK", "OK_"})), hex(receive(0x07).frame));
  EXPECT_EQ(std::vector<std::string>{}, stderrLines());
}

TEST_F(Framing, LongRunsOfBytesBeforeAFrameAreDropped) {
  const Packet f = frameOf(Request::command("CCHECK", 0x08));
  ASSERT_TRUE(session.sendRaw(std::string(10000, 'g') + f)) << session.error();
  EXPECT_EQ(hex(expectedReply(0x08, {"CCHECK", "OK_"})), hex(receive(0x08).frame));
  // Spread over writes, the start sequence split after a long run.
  ASSERT_TRUE(session.sendRaw(std::string(6000, '\x03') + f.substr(0, 1))) << session.error();
  usleep(20000);
  ASSERT_TRUE(session.sendRaw(std::string(3000, 'h') + f.substr(0, 2))) << session.error();
  usleep(20000);
  ASSERT_TRUE(session.sendRaw(f.substr(2))) << session.error();
  EXPECT_EQ(hex(expectedReply(0x08, {"CCHECK", "OK_"})), hex(receive(0x08).frame));
  EXPECT_EQ(std::vector<std::string>{}, stderrLines());
}

TEST_F(Framing, LargestFrameIsCutAcrossManyReads) {
  // A body of exactly 65,535 bytes: the word, a counted field and the end.
  Request req = Request::command("CCHECK", 0x0C);
  const size_t fill = 0xFFFF - (7 + 4 + 1 + 1);
  req.fields.push_back(Field::countedField(std::string(fill, '\n')));
  const Packet f = frameOf(req);
  ASSERT_EQ(65548u, f.size());
  ASSERT_TRUE(session.sendRaw(f + frameOf(Request::command("GSIZE", 0x0D)))) << session.error();
  EXPECT_EQ(hex(expectedReply(0x0C, {"CCHECK", "OK_"})), hex(receive(0x0C).frame));
  EXPECT_EQ(hex(expectedReply(0x0D, {"GSIZE", "ERR"})), hex(receive(0x0D).frame));
}

TEST_F(Framing, ChecksumAndOtherHeaderBytesAreNotExamined) {
  Packet f = frameOf(Request::command("CCHECK", 0x09));
  f[3] = '\x55';
  f[4] = '\x00';   // wrong checksum
  f[5] = '\x00';
  f[6] = 'R';
  f[8] = '\xAA';
  f[11] = '\x01';
  ASSERT_TRUE(session.sendRaw(f)) << session.error();
  EXPECT_EQ(hex(expectedReply(0x09, {"CCHECK", "OK_"})), hex(receive(0x09).frame));
}

TEST_F(Framing, CountedCommandWordIsServed) {
  Request req;
  req.echo = 0x0B;
  req.fields = {Field::countedField("CCHECK")};
  EXPECT_EQ(hex(expectedReply(0x0B, {"CCHECK", "OK_"})), hex(call(req).frame));
}

// ---- Malformed frames: dropped, the reason logged when it is the frame's
// shape, and the next request served.

class MalformedFrames : public e2e::WorkerTest {
 protected:
  // Sends `raw`, then a CCHECK that must get the only reply; the worker's
  // standard error must then be exactly `lines`.
  void expectDropped(const std::string& raw, const std::vector<std::string>& lines) {
    ASSERT_TRUE(session.sendRaw(raw)) << session.error();
    expectOnlyCcheckReply(0x7E);
    EXPECT_EQ(lines, stderrLines());
  }
};

TEST_F(MalformedFrames, WrongEndMarkIsLogged) {
  Packet f = frameOf(Request::command("CCHECK", 0x01));
  f.back() = '\x04';
  expectDropped(f, {NO_ETX});
}

TEST_F(MalformedFrames, LengthFieldTooSmallCutsTheFrameShort) {
  // Length 0: a 13-byte frame ending in 'C'; the rest is dropped as bytes
  // before the next start sequence.
  Packet f = frameOf(Request::command("CCHECK", 0x01));
  f[9] = 0;
  f[10] = 0;
  expectDropped(f, {NO_ETX});
}

TEST_F(MalformedFrames, LengthFieldOneTooSmallIsLogged) {
  Packet f = frameOf(Request::command("GSIZE", 0x01));
  f[10] = static_cast<char>(f[10] - 1);
  expectDropped(f, {NO_ETX});
}

TEST_F(MalformedFrames, SeveralBadFramesInOneWriteEachLogged) {
  Packet a = frameOf(Request::command("CCHECK", 0x01));
  a.back() = '\x00';
  Packet b = frameOf(Request::command("CLOSE", 0x02));
  b[10] = 3;
  expectDropped(a + b + a, {NO_ETX, NO_ETX, NO_ETX});
}

TEST_F(MalformedFrames, ShortLengthLandingOnAnEndMarkServesTheShorterFrame) {
  // Body CCHECK 0A 0A 03 'X' 'Y' with a length of 8: the cut ends on the
  // 03 inside the body, so the shorter frame is a good CCHECK; "XY" and the
  // real end mark are dropped.
  std::string body = "CCHECK\n\n\x03XY";
  std::string f = frameAround(0x11, body);
  f[10] = 8;
  ASSERT_TRUE(session.sendRaw(f)) << session.error();
  EXPECT_EQ(hex(expectedReply(0x11, {"CCHECK", "OK_"})), hex(receive(0x11).frame));
  expectOnlyCcheckReply(0x12);
  EXPECT_EQ(std::vector<std::string>{}, stderrLines());
}

TEST_F(MalformedFrames, BadFieldsAreDroppedSilently) {
  // A text field without its 0x0A.
  expectDropped(frameAround(0x01, "CCHECK"), {});
  expectDropped(frameAround(0x02, "CCHECK\nOK"), {});
  // A counted field reaching past the body.
  expectDropped(frameAround(0x03, "CCHECK\n" + bytes({0x00, 0x00, 0x10, 0x00}) + "ab\n\n"), {});
  // A counted field whose data is not followed by 0x0A.
  expectDropped(frameAround(0x04, "CCHECK\n" + bytes({0x00, 0x00, 0x02, 0x00}) + "abc\n\n"), {});
  // A counted field cut inside its prefix.
  expectDropped(frameAround(0x05, "CCHECK\n" + bytes({0x00, 0x00})), {});
}

TEST_F(MalformedFrames, FramesWithoutACommandWordAreDroppedSilently) {
  expectDropped(frameAround(0x01, ""), {});
  expectDropped(frameAround(0x02, "\n"), {});
  expectDropped(frameAround(0x03, "\nCCHECK\n\n"), {});
}

}  // namespace
