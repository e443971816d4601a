// The worker as a process and its contract with the controller: start-up,
// the ways it ends, the frames it drops or puts together, and the edges:
// replies that could not fit a frame, descriptors beyond select's reach, a
// controller that has gone, reads its replies late, or leaves them unread
// on a small send buffer.

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "tests/support/support.h"

using halvarine::ExitStatus;
using halvarine::Field;
using halvarine::hex;
using halvarine::Reply;
using halvarine::Request;
using support::bytes;
using support::countDigits;
using support::expectedReply;
using support::frameAround;

namespace {

const char NO_ETX[] = "[parsePacket()] no [ETX]!";
const char FINISHED[] = "[Halvarine] application finished !!";

std::string frameOf(const Request& req) {
  std::string p;
  EXPECT_TRUE(halvarine::encodeRequest(req, p));
  return p;
}

// ---- Start-up failures: one line, status 1, at once

TEST(StartUp, FailuresEndWithTheirLineAndStatus1) {
  const std::string worker = support::workerPath();
  ASSERT_FALSE(worker.empty());
  // The worker dials the fixed path: in a /tmp of its own where it can.
  const support::TempDir tmp;
  const bool shared = !support::privateTmpRefused().empty();
  ASSERT_TRUE(!shared || support::controllerPathFree(0));
  std::vector<std::string> argv = halvarine::launcherFromEnvironment();
  const bool launched = !argv.empty();
  argv.push_back(worker);
  struct Case {
    const char* what;
    std::string preload;  // run with this library preloaded
    std::string line;
  } const cases[] = {
      {"no controller", "", "[Halvarine] connect fail! errno=" + std::to_string(ENOENT)},
      {"socket() fails", EXHAUST_DESCRIPTORS_LIBRARY,
       "[Halvarine] create socket fail! errno=" + std::to_string(EMFILE)},
      {"sigaction fails", FAIL_SIGACTION_LIBRARY, std::string("sigaction: ") + strerror(EINVAL)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    // The libraries are built for this host; a sanitizer runtime needs
    // descriptors of its own to report anything.
    if ((!c.preload.empty() && launched) ||
        (c.preload == EXHAUST_DESCRIPTORS_LIBRARY && getenv("HALVARINE_SANITIZED") != nullptr)) {
      continue;
    }
    halvarine::ChildProcess::Options options;
    if (!shared) options.privateTmp = tmp.path();
    if (!c.preload.empty()) options.env = support::preloadEnv(c.preload);
    halvarine::ChildProcess p;
    const auto start = nowMs();
    ASSERT_TRUE(p.start(argv, options)) << p.error();
    ExitStatus st;
    ASSERT_TRUE(p.waitExit(5000, st)) << p.error();
    EXPECT_LT(secondsSince(start), 2.0) << "no retry, no wait";
    EXPECT_TRUE(st.exited && st.code == 1) << st.toString();
    EXPECT_EQ(std::vector<std::string>{c.line}, p.outputLines());
  }
}

// ---- Ending

class Process : public support::WorkerTest {};

TEST_F(Process, PendIsAnsweredThenTheWorkerFinishes) {
  // PEND and a CCHECK in one write: PEND's reply, then the end.
  ASSERT_TRUE(session.sendRaw(frameOf(Request::command("PENDING", 0x07, {"extra"})) +
                              frameOf(Request::command("CCHECK", 0x08))));
  EXPECT_EQ(hex(expectedReply(0x07, {"PENDING", "OK_"})), hex(receive(0x07).frame));
  EXPECT_TRUE(session.receiveEof(support::REPLY_TIMEOUT_MS)) << session.error();
  expectExit(0);
  EXPECT_EQ((std::vector<std::string>{"[Halvarine] recv PEND command!", FINISHED}), outputLines());
}

TEST_F(Process, ControllerClosingInsideAFrameEndsTheWorker) {
  ASSERT_TRUE(session.sendRaw(frameOf(Request::command("CCHECK", 0x02)).substr(0, 8)));
  session.connection().close();
  expectExit(0);
  EXPECT_EQ((std::vector<std::string>{"[readPacket()] read EOF!", FINISHED}), outputLines());
}

TEST_F(Process, SlowSilenceOf60SecondsEndsTheWorker) {
  const auto start = nowMs();
  expectExit(0, 75);
  EXPECT_GE(secondsSince(start), 59.0);
  EXPECT_EQ((std::vector<std::string>{"[readPacket()] select timeout!", FINISHED}), outputLines());
}

// Frames the worker must drop, with the lines it writes for them; the next
// request is still served. (Fields a frame cannot hold: the codec's unit
// test; which words get no reply: the request path's fuzz target.)
TEST_F(Process, MalformedFramesGetNoReply) {
  std::string small = frameOf(Request::command("CCHECK", 0x01));
  small[10] = 0;  // a 13-byte frame ending in 'C'; the rest is noise up to the next
  std::string shorter = frameOf(Request::command("GSIZE", 0x02));
  shorter[10] = static_cast<char>(shorter[10] - 1);
  std::string noEnd = frameOf(Request::command("CCHECK", 0x03));
  noEnd.back() = '\x04';
  ASSERT_TRUE(session.sendRaw(small + shorter + noEnd + frameAround(0x05, "CCHECK")));
  expectOnlyCcheckReply(0x7E);
  EXPECT_EQ((std::vector<std::string>{NO_ETX, NO_ETX, NO_ETX}), outputLines());
}

// Noise before a frame, a frame split anywhere, the largest frame, echo
// bytes that look like frame bytes. A word is served by its prefix and
// echoed whole; extra elements are ignored.
TEST_F(Process, FramesSurviveNoiseAndAnyCut) {
  const std::string f = frameOf(Request::command("CLOSE_ALL", 0x16, {"one"}));
  ASSERT_TRUE(
      session.sendRaw("abc" + bytes({0x16, 0x02, 0x16, 0x16, 0x03}) + std::string(10000, 'g')));
  for (size_t cut = 1; cut < f.size(); ++cut) {
    ASSERT_TRUE(session.sendRaw(f.substr(0, cut)));
    usleep(3000);
    ASSERT_TRUE(session.sendRaw(f.substr(cut)));
    ASSERT_EQ(hex(expectedReply(0x16, {"CLOSE_ALL", "OK_"})), hex(receive(0x16).frame)) << cut;
  }
  Request big = Request::command("CCHECK", 0x03);
  big.fields.push_back(Field::countedField(std::string(0xFFFF - 13, '\n')));  // body 65,535
  ASSERT_EQ(65548u, frameOf(big).size());
  ASSERT_TRUE(session.sendRaw(frameOf(big)));
  EXPECT_EQ(hex(expectedReply(0x03, {"CCHECK", "OK_"})), hex(receive(0x03).frame));
}

// ---- The edges of the contract

class Contract : public support::StreamTest {};

// A word so long that the reply would not fit a frame is refused before
// anything is done; one byte shorter, the reply fills the frame exactly.
// The end follows the word PEND however long: one whose reply would not fit
// gets none, and the worker ends as after any PEND.
TEST_F(Contract, RequestsWhoseReplyCouldNotFitAreRefusedBeforeActing) {
  ASSERT_NO_FATAL_FAILURE(openStream(StreamProtocol::MMSH));
  expectNext(1000);
  const size_t mark = session.worker().output().size();
  struct Refused {
    std::string word;
    std::vector<std::string> params;
  } const refused[] = {
      {"CLOSE" + std::string(65525, 'X'), {}},       // reply body 65,536
      {"CONNECT" + std::string(65523, 'X'), {"h"}},  // would replace the stream
      {"CCHECK" + std::string(65524, 'X'), {}},
  };
  for (const Refused& r : refused) ASSERT_TRUE(session.send(request(r.word, r.params)));
  expectOnlyCcheckReply(nextEcho());
  expectNext(1000);  // the stream is still open where it was
  EXPECT_EQ("", session.worker().output().substr(mark));

  const std::string longest = "CCHECK" + std::string(65523, 'X');
  const Request check = request(longest);
  const Reply r = call(check);
  EXPECT_EQ(support::expectedReply(check.echo, {longest, "OK_"}), r.frame);
  EXPECT_EQ(65548u, r.frame.size());
  ASSERT_TRUE(session.send(request("PEND" + std::string(65526, 'X'))));
  EXPECT_TRUE(session.receiveEof(support::REPLY_TIMEOUT_MS)) << session.error();
  expectExit(0);
  EXPECT_EQ(std::string("[Halvarine] recv PEND command!\n") +
                "[WrapperMms::close()] close MMSH stream! \n[Halvarine] MMS close!! : 0\n" +
                FINISHED + "\n",
            session.worker().output().substr(mark));
}

// GSIZE is refused by the reply it would really get: ERR without an open
// stream, the length with one. `status` "" means refused: no reply, and
// the library is not asked.
TEST_F(Contract, LongGsizeWordsAreRefusedOnlyWhenTheirOwnReplyCannotFit) {
  const auto check = [this](size_t wordLength, const std::string& status) {
    const std::string word = "GSIZE" + std::string(wordLength - 5, 'X');
    const Request req = request(word);
    if (status.empty()) {
      ASSERT_TRUE(session.send(req));
      expectOnlyCcheckReply(nextEcho());
      return;
    }
    const Reply r = call(req);
    EXPECT_EQ(status, r.status()) << wordLength;
    const size_t tail = status == "OK_" ? 22 : 5;  // with the length field, or without
    EXPECT_EQ(word.size() + 1 + tail + 13, r.frame.size()) << wordLength;
  };
  check(65513, "ERR");
  check(65529, "ERR");
  check(65530, "");
  EXPECT_EQ(std::vector<std::string>{}, outputLines());
  ASSERT_NO_FATAL_FAILURE(openStream(StreamProtocol::MMSH));
  newLines();
  check(65512, "OK_");
  check(65513, "");
  // The library was asked once: for the reply that fits.
  EXPECT_EQ(1u, support::countLines(newLines(), "[commandGsize()] MMS get size!! : 0"));
}

// A controller that leaks descriptors into the worker pushes its sockets
// past 1023, where select cannot watch them.
TEST_F(Contract, WholeStreamsWithMoreThanAThousandInheritedDescriptors) {
  rlimit limit;
  ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
  if (limit.rlim_cur < 1100) {
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 4096);
    if (limit.rlim_cur < 1100 || setrlimit(RLIMIT_NOFILE, &limit) != 0) {
      GTEST_SKIP() << "no room for 1,100 descriptors";
    }
  }
  std::vector<halvarine::UniqueFd> leaked;
  while (leaked.size() < 1030) leaked.emplace_back(::open("/dev/null", O_RDONLY));  // inherited
  startWorker();
  leaked.clear();
  if (HasFatalFailure()) return;
  EXPECT_GT(support::openFds(session.worker().pid()), 1030);
  for (StreamProtocol t : {StreamProtocol::MMST, StreamProtocol::MMSH}) {
    url = startServer(t).url();
    reference = referenceFor(url);
    ASSERT_EQ("OK_", connect(url).status());
    const Fetched got = readStream(65511, reference.size() + 1, 30);
    EXPECT_EQ("EOF", got.lastStatus);
    EXPECT_TRUE(got.bytes == reference);
  }
  endWorker();
}

// The reply goes to a controller that no longer reads: SIGPIPE, as the
// worker leaves that signal's default action alone.
TEST_F(Contract, ReplyToAControllerThatHasGoneEndsTheWorkerBySigpipe) {
  ASSERT_EQ(0, shutdown(session.connection().fd(), SHUT_RD));
  ASSERT_TRUE(session.send(request("CCHECK")));
  halvarine::ExitStatus how;
  ASSERT_TRUE(session.worker().waitExit(support::REPLY_TIMEOUT_MS, how));
  EXPECT_TRUE(how.signaled && how.signal == SIGPIPE) << how.toString();
}

// Thousands of requests in flight while the controller reads slowly: the
// worker waits for room before each reply, and every reply arrives whole.
TEST_F(Contract, PipelinedRequestsWithAReaderThatFallsBehind) {
  ASSERT_NO_FATAL_FAILURE(openStream(StreamProtocol::MMST));
  std::vector<Request> sent;
  for (int i = 0; i < 3000; ++i) {
    sent.push_back(i % 25 == 0 ? request("READ", {countDigits(1000)}) : request("CCHECK"));
  }
  std::thread writer([&] {
    for (const Request& req : sent) {
      if (!session.connection().send(req)) return;
    }
  });
  std::string data;
  for (size_t i = 0; i < sent.size() && !HasFailure(); ++i) {
    if (i % 500 == 0) usleep(200000);  // behind, then catching up
    const Reply r = receive(sent[i].echo);
    if (sent[i].fields[0].bytes == "READ" && r.status() == "OK_") data += r.values().at(1).bytes;
  }
  writer.join();
  EXPECT_TRUE(data == reference.substr(0, 120 * 1000));
}

// A controller that reads nothing for longer than the worker's 5-second
// write wait loses that reply whole: the next frame it reads is whole, and
// its echo byte says which reply went missing. So too on a system whose
// default send buffer is small, where the worker's request for room for
// two frames keeps a reply whole; without it, the reply in flight when the
// wait runs out is cut, and the controller reads a frame whose length runs
// into the next one.
TEST_F(Contract, SlowReplyUnreadForLongerThanTheWriteWaitIsLostWhole) {
  for (const bool smallBuffer : {false, true}) {
    SCOPED_TRACE(smallBuffer ? "small send buffer" : "default send buffer");
    if (smallBuffer && !startPreloaded(SMALL_SEND_BUFFER_LIBRARY)) continue;
    ASSERT_NO_FATAL_FAILURE(openStream(StreamProtocol::MMSH));
    std::vector<Request> sent;
    for (int i = 0; i < 12; ++i) sent.push_back(request("READ", {countDigits(65511)}));
    for (const Request& req : sent) ASSERT_TRUE(session.send(req));
    sleep(7);
    std::vector<unsigned char> echoes;
    Reply r;
    while (session.connection().receive(2000, r)) echoes.push_back(r.echo);
    ASSERT_EQ(halvarine::ControllerConnection::Failure::TIMED_OUT, session.connection().failure())
        << "after " << echoes.size() << " whole replies: " << session.connection().error();
    // Whole frames, in order, some missing.
    size_t next = 0;
    for (unsigned char echo : echoes) {
      while (next < sent.size() && sent[next].echo != echo) ++next;
      ASSERT_LT(next++, sent.size()) << "reply " << int(echo) << " out of order";
    }
    EXPECT_GT(echoes.size(), 0u);
    EXPECT_LT(echoes.size(), sent.size()) << "nothing was lost: the write wait never ran out";
  }
}

}  // namespace
