// The worker as a process, before any stream: start-up, the ways it ends,
// the small commands byte for byte, and the frames it must drop.

#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/support/support.h"

using halvarine::ExitStatus;
using halvarine::Field;
using halvarine::hex;
using halvarine::Request;
using support::bytes;
using support::expectedReply;
using support::frameAround;

namespace {

const char NO_ETX[] = "[parsePacket()] no [ETX]!";
const char FINISHED[] = "[Halvarine] application finished !!";
const char SIGTERM_TEXT[] = "\n**** SIGINT ****\n";

std::string frameOf(const Request& req) {
  std::string p;
  EXPECT_TRUE(halvarine::encodeRequest(req, p));
  return p;
}

// ---- Start-up failures: one line, status 1, at once

TEST(StartUp, FailuresEndWithTheirLineAndStatus1) {
  const std::string worker = support::workerPath();
  ASSERT_FALSE(worker.empty());
  ASSERT_TRUE(support::controllerPathFree(0));
  struct Case {
    const char* what;
    const char* preload;  // run directly with this library preloaded
    std::string line;
  } const cases[] = {
      {"no socket file", nullptr, "[Halvarine] connect fail! errno=" + std::to_string(ENOENT)},
      {"socket without listener", nullptr,
       "[Halvarine] connect fail! errno=" + std::to_string(ECONNREFUSED)},
      {"socket() fails", EXHAUST_DESCRIPTORS_LIBRARY,
       "[Halvarine] create socket fail! errno=" + std::to_string(EMFILE)},
      {"sigaction fails", FAIL_SIGACTION_LIBRARY, std::string("sigaction: ") + strerror(EINVAL)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const bool launched = !halvarine::launcherFromEnvironment().empty();
    if (c.preload != nullptr && launched) continue;  // the library is built for this host
    // A sanitizer runtime needs descriptors of its own to report anything.
    if (c.line.find("create socket fail") != std::string::npos &&
        getenv("HALVARINE_SANITIZED") != nullptr) {
      continue;
    }
    // Bound but not listening: the connect is refused.
    halvarine::UniqueFd stale;
    if (c.line.find("errno=" + std::to_string(ECONNREFUSED)) != std::string::npos) {
      stale = support::boundSocket(halvarine::CONTROLLER_SOCKET_PATH);
      ASSERT_TRUE(stale.valid()) << strerror(errno);
    }
    halvarine::ChildProcess p;
    const auto start = support::Clock::now();
    if (c.preload != nullptr) {
      // A sanitized worker must be told that its runtime need not be first.
      const char* asan = getenv("ASAN_OPTIONS");
      const std::string asanOptions =
          std::string("ASAN_OPTIONS=") + (asan ? asan : "") + ":verify_asan_link_order=0";
      halvarine::ChildProcess::Options preloaded;
      preloaded.env = {std::string("LD_PRELOAD=") + c.preload, asanOptions};
      ASSERT_TRUE(p.start({worker}, preloaded)) << p.error();
    } else {
      std::vector<std::string> argv = halvarine::launcherFromEnvironment();
      argv.push_back(worker);
      ASSERT_TRUE(p.start(argv)) << p.error();
    }
    ExitStatus st;
    ASSERT_TRUE(p.waitExit(5000, st)) << p.error();
    EXPECT_LT(support::secondsSince(start), 2.0) << "no retry, no wait";
    EXPECT_TRUE(st.exited && st.code == 1) << st.toString();
    EXPECT_EQ(std::vector<std::string>{c.line}, p.outputLines());
    unlink(halvarine::CONTROLLER_SOCKET_PATH);
  }
}

// ---- Ending

class ProcessEnd : public support::WorkerTest {};

TEST_F(ProcessEnd, PendLogsAnswersFinishesAndCloses) {
  // PEND and a CCHECK in one write: PEND's reply, then the end.
  ASSERT_TRUE(session.sendRaw(frameOf(Request::command("PENDING", 0x07, {"extra"})) +
                              frameOf(Request::command("CCHECK", 0x08))));
  EXPECT_EQ(hex(expectedReply(0x07, {"PENDING", "OK_"})), hex(receive(0x07).frame));
  EXPECT_TRUE(session.receiveEof(support::REPLY_TIMEOUT_MS)) << session.error();
  expectExit(0);
  EXPECT_EQ((std::vector<std::string>{"[Halvarine] recv PEND command!", FINISHED}), outputLines());
}

TEST_F(ProcessEnd, ControllerClosingInsideAFrameEndsTheProcess) {
  expectOnlyCcheckReply(0x01);
  ASSERT_TRUE(session.sendRaw(frameOf(Request::command("CCHECK", 0x02)).substr(0, 8)));
  session.connection().close();
  expectExit(0);
  EXPECT_EQ((std::vector<std::string>{"[readPacket()] read EOF!", FINISHED}), outputLines());
}

TEST_F(ProcessEnd, SlowSilenceOf60SecondsEndsTheProcess) {
  expectOnlyCcheckReply(0x01);
  const auto start = support::Clock::now();
  expectExit(0, 75);
  EXPECT_GE(support::secondsSince(start), 59.0);
  EXPECT_EQ((std::vector<std::string>{"[readPacket()] select timeout!", FINISHED}), outputLines());
}

// ---- The small commands without a stream

class SmallCommands : public support::WorkerTest {};

TEST_F(SmallCommands, CcheckReplyIsTheDocumentedFrameWhateverTheEcho) {
  EXPECT_EQ(hex(bytes({0x16, 0x16, 0x02, 0x00, 0xFD, 0x47, 0x52, 0x07, 0x00, 0x00, 0x0C, 0x00, 0x43,
                       0x43, 0x48, 0x45, 0x43, 0x4B, 0x0A, 0x4F, 0x4B, 0x5F, 0x0A, 0x0A, 0x03})),
            hex(call(Request::command("CCHECK", 0x07)).frame));
  for (int echo : {0x00, 0x03, 0x0A, 0x16, 0x80, 0xFF}) {
    SCOPED_TRACE(echo);
    expectOnlyCcheckReply(static_cast<unsigned char>(echo));
  }
}

// Pipelined, with longer words (served by prefix, echoed whole) and extra
// elements (ignored); none writes a line without a stream.
TEST_F(SmallCommands, RepliesBeforeAnyStreamInOrderByteExact) {
  Request extra = Request::command("CCHECK", 0x10, {"one"});
  extra.fields.push_back(Field::countedField(std::string("\0\n\x03", 3)));
  const std::vector<std::pair<Request, std::vector<std::string>>> script = {
      {extra, {"CCHECK", "OK_"}},
      {Request::command("GSIZE", 0x11, {"0000000000000500"}), {"GSIZE", "ERR"}},
      {Request::command("CLOSE", 0x12), {"CLOSE", "OK_"}},
      {Request::command("CCHECKX", 0x13), {"CCHECKX", "OK_"}},
      {Request::command("GSIZEX", 0x14), {"GSIZEX", "ERR"}},
      {Request::command("CLOSE_ALL", 0x15), {"CLOSE_ALL", "OK_"}},
      {Request::command("CLOSE", 0x16), {"CLOSE", "OK_"}},
  };
  std::string all;
  for (const auto& step : script) all += frameOf(step.first);
  ASSERT_TRUE(session.sendRaw(all));
  for (const auto& step : script) {
    EXPECT_EQ(hex(expectedReply(step.first.echo, step.second)),
              hex(receive(step.first.echo).frame));
  }
  EXPECT_EQ(std::vector<std::string>{}, outputLines());
}

// ---- Frames dropped: the next request is still served

class MalformedFrames : public support::WorkerTest {
 protected:
  void expectDropped(const std::string& raw, const std::vector<std::string>& lines) {
    ASSERT_TRUE(session.sendRaw(raw)) << session.error();
    expectOnlyCcheckReply(0x7E);
    EXPECT_EQ(lines, outputLines());
  }
};

TEST_F(MalformedFrames, UnknownWordsGetNoReply) {
  // Unknown, lower case, proper beginnings of a command, the empty word.
  for (const char* w : {"HELLO", "ccheck", "gsize", "close", "pend", "CCHEC", "GSIZ", "CLOS", "PEN",
                        "C", "", " CCHECK", "XCCHECK", "REA", "CONN"}) {
    ASSERT_TRUE(session.send(Request::command(w, 0x40)));
  }
  expectDropped(frameAround(0x41, ""), {});  // an empty body
  EXPECT_TRUE(session.worker().running());
}

TEST_F(MalformedFrames, LengthFieldTooSmallCutsTheFrameShort) {
  std::string f = frameOf(Request::command("CCHECK", 0x01));
  f[9] = 0;
  f[10] = 0;  // a 13-byte frame ending in 'C'; the rest is noise
  std::string g = frameOf(Request::command("GSIZE", 0x02));
  g[10] = static_cast<char>(g[10] - 1);
  std::string h = frameOf(Request::command("CCHECK", 0x03));
  h.back() = '\x04';  // wrong end mark
  expectDropped(f + g + h, {NO_ETX, NO_ETX, NO_ETX});
}

TEST_F(MalformedFrames, BadBodiesAreDroppedSilently) {
  const std::string counted = "CCHECK\n" + bytes({0x00, 0x00});
  expectDropped(frameAround(0x01, "CCHECK") + frameAround(0x02, "CCHECK\nOK") +
                    frameAround(0x03, counted + bytes({0x10, 0x00}) + "ab\n\n") +   // past the body
                    frameAround(0x04, counted + bytes({0x02, 0x00}) + "abc\n\n") +  // no 0x0A after
                    frameAround(0x05, counted) +                                    // cut prefix
                    frameAround(0x06, "\n") + frameAround(0x07, "\nCCHECK\n\n"),    // no word
                {});
}

// Noise before a frame, a frame split anywhere, the largest frame.
TEST_F(MalformedFrames, FramesSurviveNoiseAndAnyCut) {
  const std::string f = frameOf(Request::command("CLOSE", 0x06));
  ASSERT_TRUE(
      session.sendRaw("abc" + bytes({0x16, 0x02, 0x16, 0x16, 0x03}) + std::string(10000, 'g')));
  for (size_t cut = 1; cut < f.size(); ++cut) {
    SCOPED_TRACE(cut);
    ASSERT_TRUE(session.sendRaw(f.substr(0, cut)));
    usleep(3000);
    ASSERT_TRUE(session.sendRaw(f.substr(cut)));
    ASSERT_EQ(hex(expectedReply(0x06, {"CLOSE", "OK_"})), hex(receive(0x06).frame));
  }
  Request big = Request::command("CCHECK", 0x0C);
  big.fields.push_back(Field::countedField(std::string(0xFFFF - 13, '\n')));  // body 65,535
  ASSERT_EQ(65548u, frameOf(big).size());
  ASSERT_TRUE(session.sendRaw(frameOf(big)));
  EXPECT_EQ(hex(expectedReply(0x0C, {"CCHECK", "OK_"})), hex(receive(0x0C).frame));
  expectDropped("", {});
}

}  // namespace
