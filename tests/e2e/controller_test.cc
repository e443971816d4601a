// The controller library itself, without the worker: request frames, the
// strict judging of replies, the listener, the connection against a fake
// worker in this process, and child processes run through /bin/sh.

#include <errno.h>
#include <signal.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/e2e/worker_test_support.h"
#include "tools/controller/controller.h"

using controller::ControllerConnection;
using controller::ControllerListener;
using controller::decodeReply;
using controller::encodeRequest;
using controller::ExitStatus;
using controller::Field;
using controller::hex;
using controller::Reply;
using controller::Request;
using controller::UniqueFd;
using controller::WorkerProcess;
using controller::WorkerSession;
using e2e::bytes;
using e2e::expectedReply;
using e2e::frameAround;

namespace {

// The documented CCHECK reply with echo byte 0x07.
const std::string CCHECK_REPLY =
    bytes({0x16, 0x16, 0x02, 0x00, 0xFD, 0x47, 0x52, 0x07, 0x00, 0x00, 0x0C, 0x00, 0x43,
           0x43, 0x48, 0x45, 0x43, 0x4B, 0x0A, 0x4F, 0x4B, 0x5F, 0x0A, 0x0A, 0x03});

// The documented READ reply carrying "abcde", echo byte 0x07.
const std::string READ_REPLY =
    bytes({0x16, 0x16, 0x02, 0x00, 0xFA, 0x3F, 0x52, 0x07, 0x00, 0x00, 0x1D, 0x00}) +
    bytes({0x52, 0x45, 0x41, 0x44, 0x0A, 0x4F, 0x4B, 0x5F, 0x0A, 0x30, 0x30, 0x30, 0x30, 0x30,
           0x30, 0x30, 0x35, 0x0A, 0x00, 0x00, 0x05, 0x00, 0x61, 0x62, 0x63, 0x64, 0x65, 0x0A,
           0x0A}) +
    bytes({0x03});

std::string privatePath() {
  static int counter = 0;
  return "/tmp/halvarine_ctl_test_" + std::to_string(getpid()) + "_" + std::to_string(++counter);
}

bool exists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

void writeAll(int fd, const std::string& data) {
  ASSERT_EQ(static_cast<ssize_t>(data.size()), write(fd, data.data(), data.size()));
}

std::string readSome(int fd, size_t n) {
  std::string s(n, '\0');
  size_t got = 0;
  while (got < n) {
    ssize_t r = read(fd, &s[got], n - got);
    if (r <= 0) break;
    got += static_cast<size_t>(r);
  }
  s.resize(got);
  return s;
}

// ---- Request frames

TEST(RequestFrames, CommandWithTextAndCountedFields) {
  Request req = Request::command("READ", 0x07, {"00032768"});
  req.fields.push_back(Field::countedField(std::string("a\nb\0", 4)));
  Packet f;
  ASSERT_TRUE(encodeRequest(req, f));
  std::string body = "READ\n00032768\n" + bytes({0x00, 0x00, 0x04, 0x00}) +
                     std::string("a\nb\0", 4) + "\n\n";
  EXPECT_EQ(hex(frameAround(0x07, body)), hex(f));
}

TEST(RequestFrames, EmptyWordIsALoneNewline) {
  Packet f;
  ASSERT_TRUE(encodeRequest(Request::command("", 0x01), f));
  EXPECT_EQ(hex(frameAround(0x01, "\n\n")), hex(f));
}

TEST(RequestFrames, OverlongCountedFieldIsRefused) {
  Request req = Request::command("X", 0x01);
  req.fields.push_back(Field::countedField(std::string(0x10000, 'a')));
  Packet f = "untouched";
  EXPECT_FALSE(encodeRequest(req, f));
  EXPECT_EQ("untouched", f);
}

// ---- Judging replies

TEST(ReplyFrames, DocumentedFramesDecode) {
  Reply r;
  std::string error;
  ASSERT_TRUE(decodeReply(CCHECK_REPLY, 0x07, r, &error)) << error;
  EXPECT_EQ("CCHECK", r.word());
  EXPECT_EQ("OK_", r.status());
  EXPECT_TRUE(r.values().empty());
  EXPECT_EQ(0x07, r.echo);
  EXPECT_EQ(CCHECK_REPLY, r.frame);

  ASSERT_TRUE(decodeReply(READ_REPLY, 0x07, r, &error)) << error;
  EXPECT_EQ("READ", r.word());
  EXPECT_EQ("OK_", r.status());
  ASSERT_EQ(2u, r.values().size());
  EXPECT_EQ(Field::text("00000005"), r.values()[0]);
  EXPECT_EQ(Field::countedField("abcde"), r.values()[1]);
}

TEST(ReplyFrames, EveryDamagedByteIsRejected) {
  for (const std::string& good : {CCHECK_REPLY, READ_REPLY}) {
    for (size_t i = 0; i < good.size(); ++i) {
      SCOPED_TRACE(i);
      std::string bad = good;
      bad[i] = static_cast<char>(bad[i] + 1);
      Reply r;
      std::string error;
      EXPECT_FALSE(decodeReply(bad, 0x07, r, &error));
      EXPECT_FALSE(error.empty());
    }
  }
}

TEST(ReplyFrames, EveryTruncationIsRejected) {
  for (size_t n = 0; n < CCHECK_REPLY.size(); ++n) {
    Reply r;
    std::string error;
    EXPECT_FALSE(decodeReply(CCHECK_REPLY.substr(0, n), 0x07, r, &error)) << n;
  }
}

TEST(ReplyFrames, WrongEchoIsRejected) {
  Reply r;
  std::string error;
  EXPECT_FALSE(decodeReply(CCHECK_REPLY, 0x08, r, &error));
  EXPECT_NE(std::string::npos, error.find("echo")) << error;
}

TEST(ReplyFrames, BodiesThatAreNotExactlyFieldsAreRejected) {
  const char* bodies[] = {
      "CCHECK\nOK_\n",            // no closing 0x0A
      "CCHECK\nOK_\n\nX\n\n",     // bytes after the closing 0x0A
      "CCHECK\n\nOK_\n\n",        // no status word
      "CCHECK\nOK_",              // field without its 0x0A
      "",                         // nothing
  };
  for (const char* body : bodies) {
    SCOPED_TRACE(hex(body));
    Reply r;
    std::string error;
    EXPECT_FALSE(decodeReply(frameAround(0x07, body, 'R'), 0x07, r, &error));
  }
  // A counted field whose spare byte is not 0.
  std::string body = "READ\nOK_\n" + bytes({0x00, 0x00, 0x01, 0x01}) + "a\n\n";
  Reply r;
  std::string error;
  EXPECT_FALSE(decodeReply(frameAround(0x07, body, 'R'), 0x07, r, &error));
  EXPECT_TRUE(decodeReply(expectedReply(0x07, {"GSIZE", "OK_", "0000000000000500"}), 0x07, r,
                          &error))
      << error;
  EXPECT_EQ("0000000000000500", r.values().at(0).bytes);
}

// ---- Listener

TEST(Listener, ListensAndRemovesItsSocketFile) {
  const std::string path = privatePath();
  {
    ControllerListener l;
    ASSERT_TRUE(l.listen(path)) << l.error();
    EXPECT_TRUE(exists(path));
    ControllerListener moved(std::move(l));
    EXPECT_FALSE(l.listening());
    EXPECT_TRUE(moved.listening());
    EXPECT_TRUE(exists(path));
  }
  EXPECT_FALSE(exists(path));
}

TEST(Listener, RefusesAPathWhereAnotherControllerListens) {
  const std::string path = privatePath();
  ControllerListener first;
  ASSERT_TRUE(first.listen(path)) << first.error();
  ControllerListener second;
  EXPECT_FALSE(second.listen(path));
  EXPECT_NE(std::string::npos, second.error().find("already listening")) << second.error();
  EXPECT_TRUE(exists(path));
  // The first one is untouched and still accepts.
  UniqueFd client = e2e::connectedSocket(path);
  EXPECT_TRUE(client.valid());
}

TEST(Listener, ReplacesAStaleSocketFile) {
  const std::string path = privatePath();
  ASSERT_TRUE(e2e::boundSocket(path).valid()) << strerror(errno);
  ASSERT_TRUE(exists(path));
  ControllerListener l;
  ASSERT_TRUE(l.listen(path)) << l.error();
  EXPECT_TRUE(e2e::connectedSocket(path).valid());
}

TEST(Listener, RefusesAPathThatIsNotASocket) {
  const std::string path = privatePath();
  std::ofstream(path) << "x";
  ControllerListener l;
  EXPECT_FALSE(l.listen(path));
  EXPECT_NE(std::string::npos, l.error().find("not a socket")) << l.error();
  EXPECT_TRUE(exists(path));
  unlink(path.c_str());
}

TEST(Listener, LeavesAPathThatAnotherListenerTookOver) {
  const std::string path = privatePath();
  ControllerListener a;
  ASSERT_TRUE(a.listen(path)) << a.error();
  unlink(path.c_str());
  ControllerListener b;
  ASSERT_TRUE(b.listen(path)) << b.error();
  a.close();
  EXPECT_TRUE(exists(path));
  EXPECT_TRUE(e2e::connectedSocket(path).valid());
}

TEST(Listener, AcceptTimesOut) {
  ControllerListener l;
  ASSERT_TRUE(l.listen(privatePath())) << l.error();
  ControllerConnection c;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(l.accept(1, c));
  const double took =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_GE(took, 0.9);
  EXPECT_LT(took, 2.5);
  EXPECT_FALSE(c.connected());
}

// ---- Connection against a fake worker

class FakeWorker : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(listener.listen(privatePath())) << listener.error();
    worker = e2e::connectedSocket(listener.path());
    ASSERT_TRUE(worker.valid());
    ASSERT_TRUE(listener.accept(1, conn)) << listener.error();
  }

  ControllerListener listener;
  UniqueFd worker;   // the fake worker's end
  ControllerConnection conn;
};

TEST_F(FakeWorker, SendsRequestFramesAndRawBytes) {
  ASSERT_TRUE(conn.send(Request::command("CCHECK", 0x07))) << conn.error();
  ASSERT_TRUE(conn.sendRaw("raw")) << conn.error();
  Packet expected;
  ASSERT_TRUE(encodeRequest(Request::command("CCHECK", 0x07), expected));
  EXPECT_EQ(hex(expected + "raw"), hex(readSome(worker.get(), expected.size() + 3)));
}

TEST_F(FakeWorker, ReceivesPipelinedRepliesInOrder) {
  writeAll(worker.get(), expectedReply(1, {"CCHECK", "OK_"}) + expectedReply(2, {"GSIZE", "ERR"}) +
                             READ_REPLY.substr(0, 20));
  Reply r;
  ASSERT_TRUE(conn.receive(1, 1, r)) << conn.error();
  EXPECT_EQ("CCHECK", r.word());
  ASSERT_TRUE(conn.receive(2, 1, r)) << conn.error();
  EXPECT_EQ("GSIZE", r.word());
  EXPECT_EQ("ERR", r.status());
  // The third arrives in two pieces.
  writeAll(worker.get(), READ_REPLY.substr(20));
  ASSERT_TRUE(conn.receive(7, 1, r)) << conn.error();
  EXPECT_EQ(READ_REPLY, r.frame);
}

TEST_F(FakeWorker, BytesBeforeAFrameAreAnError) {
  writeAll(worker.get(), "x" + CCHECK_REPLY);
  Reply r;
  EXPECT_FALSE(conn.receive(7, 1, r));
  EXPECT_NE(std::string::npos, conn.error().find("78 16 16 02")) << conn.error();
}

TEST_F(FakeWorker, BadReplyIsAnErrorThatShowsTheFrame) {
  std::string bad = CCHECK_REPLY;
  bad[6] = 'Q';
  writeAll(worker.get(), bad);
  Reply r;
  EXPECT_FALSE(conn.receive(7, 1, r));
  EXPECT_NE(std::string::npos, conn.error().find("header byte 3")) << conn.error();
}

TEST_F(FakeWorker, NoReplyTimesOut) {
  writeAll(worker.get(), CCHECK_REPLY.substr(0, 12));
  Reply r;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(conn.receive(7, 1, r));
  EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(), 2.5);
  EXPECT_NE(std::string::npos, conn.error().find("in time")) << conn.error();
}

TEST_F(FakeWorker, EndOfStreamInsideAFrameIsAnError) {
  writeAll(worker.get(), CCHECK_REPLY.substr(0, 12));
  worker.reset();
  Reply r;
  EXPECT_FALSE(conn.receive(7, 1, r));
  EXPECT_NE(std::string::npos, conn.error().find("closed")) << conn.error();
}

TEST_F(FakeWorker, ReceiveEof) {
  ControllerConnection other;
  EXPECT_FALSE(conn.receiveEof(1));
  EXPECT_NE(std::string::npos, conn.error().find("did not close")) << conn.error();
  writeAll(worker.get(), "z");
  EXPECT_FALSE(conn.receiveEof(1));
  EXPECT_NE(std::string::npos, conn.error().find("7A")) << conn.error();
  worker.reset();
  // A fresh connection whose peer closes cleanly.
  UniqueFd w2 = e2e::connectedSocket(listener.path());
  ASSERT_TRUE(listener.accept(1, other)) << listener.error();
  w2.reset();
  EXPECT_TRUE(other.receiveEof(1)) << other.error();
}

TEST_F(FakeWorker, SendingToAClosedPeerIsAnErrorNotSigpipe) {
  worker.reset();
  std::string big(1 << 20, 'x');
  EXPECT_FALSE(conn.sendRaw(big));
  EXPECT_FALSE(conn.error().empty());
}

// ---- Child processes

TEST(Child, CollectsEveryStderrLineAndTheExitCode) {
  WorkerProcess p;
  ASSERT_TRUE(p.start("/bin/sh", {"-c", "printf 'one\\n\\ntwo\\npartial' >&2; exit 3"})) << p.error();
  ExitStatus st;
  ASSERT_TRUE(p.waitExit(5, st)) << p.error();
  EXPECT_TRUE(st.exited);
  EXPECT_EQ(3, st.code);
  EXPECT_EQ((std::vector<std::string>{"one", "", "two", "partial"}), p.stderrLines());
  EXPECT_EQ("one\n\ntwo\npartial", p.stderrText());
  EXPECT_FALSE(p.running());
  // A second wait reports the same end.
  ASSERT_TRUE(p.waitExit(0, st));
  EXPECT_EQ("exit 3", st.toString());
}

TEST(Child, PassesExtraEnvironmentAndReadsNothingFromStdin) {
  WorkerProcess p;
  ASSERT_TRUE(p.start("/bin/sh", {"-c", "cat >&2; echo \"$http_proxy|$HOME\" >&2"},
                      {"http_proxy=http://proxy:3128/", "HOME=/nowhere"}))
      << p.error();
  ExitStatus st;
  ASSERT_TRUE(p.waitExit(5, st)) << p.error();
  EXPECT_EQ(std::vector<std::string>{"http://proxy:3128/|/nowhere"}, p.stderrLines());
}

TEST(Child, LargeStderrDoesNotBlockTheChild) {
  WorkerProcess p;
  ASSERT_TRUE(p.start("/bin/sh", {"-c", "head -c 300000 /dev/zero | tr '\\0' x >&2"}))
      << p.error();
  ExitStatus st;
  ASSERT_TRUE(p.waitExit(10, st)) << p.error();
  EXPECT_EQ(300000u, p.stderrText().size());
}

TEST(Child, SignalEndsTheChild) {
  WorkerProcess p;
  ASSERT_TRUE(p.start("/bin/sh", {"-c", "exec sleep 30"})) << p.error();
  ExitStatus st;
  EXPECT_FALSE(p.waitExit(1, st));
  EXPECT_TRUE(p.running());
  ASSERT_TRUE(p.sendSignal(SIGTERM)) << p.error();
  ASSERT_TRUE(p.waitExit(5, st)) << p.error();
  EXPECT_TRUE(st.signaled);
  EXPECT_EQ(SIGTERM, st.signal);
  EXPECT_FALSE(p.sendSignal(SIGTERM));
}

TEST(Child, DestructorKillsAndReaps) {
  pid_t pid;
  {
    WorkerProcess p;
    ASSERT_TRUE(p.start("/bin/sh", {"-c", "exec sleep 30"})) << p.error();
    pid = p.pid();
    WorkerProcess moved(std::move(p));
    EXPECT_FALSE(p.running());
    EXPECT_TRUE(moved.running());
  }
  // Reaped: the pid no longer names a child of ours.
  EXPECT_EQ(-1, kill(pid, 0));
  EXPECT_EQ(ESRCH, errno);
}

TEST(Child, ExecFailureIsReported) {
  WorkerProcess p;
  EXPECT_FALSE(p.start("/nonexistent/halvarine"));
  EXPECT_NE(std::string::npos, p.error().find("No such file")) << p.error();
  EXPECT_FALSE(p.running());
}

// ---- Session

TEST(Session, WorkerThatNeverConnectsFailsTheStartAndCleansUp) {
  WorkerSession s;
  WorkerSession::Options o;
  o.worker = "/bin/true";
  o.launcher.clear();   // a host program, whatever worker is under test
  o.socketPath = privatePath();
  o.acceptTimeoutS = 1;
  EXPECT_FALSE(s.start(o));
  EXPECT_NE(std::string::npos, s.error().find("exit 0")) << s.error();
  EXPECT_FALSE(exists(o.socketPath));
  EXPECT_FALSE(s.worker().running());
}

}  // namespace
