// The worker's contract at its edges: replies that could not fit a frame,
// descriptors beyond select's reach, a controller that has gone, and a
// controller that reads its replies late or not at all.

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "tests/support/support.h"

using halvarine::Reply;
using halvarine::Request;
using support::countDigits;

namespace {

class Contract : public support::StreamTest {
 protected:
  // An open stream and its reference bytes; `read` then continues it.
  void open(Transport t) {
    url = startServer(t).url();
    reference = referenceFor(url);
    ASSERT_EQ("OK_", connect(url).status());
  }
  // READ of `n`: must continue the reference where the last one stopped.
  void expectNextBytes(int n) {
    const Reply r = read(n);
    ASSERT_EQ("OK_", r.status());
    EXPECT_EQ(reference.substr(pos, n), r.values().at(1).bytes) << "at " << pos;
    pos += static_cast<size_t>(n);
  }
  std::string url, reference;
  size_t pos = 0;
};

// A word so long that the reply would not fit a frame is refused before
// anything is done; one byte shorter, the reply fills the frame exactly.
TEST_F(Contract, RequestsWhoseReplyCouldNotFitAreRefusedBeforeActing) {
  ASSERT_NO_FATAL_FAILURE(open(Transport::MMSH));
  expectNextBytes(1000);
  const size_t mark = session.worker().output().size();
  struct Refused {
    std::string word;
    std::vector<std::string> params;
  } const refused[] = {
      {"CLOSE" + std::string(65525, 'X'), {}},       // reply body 65,536
      {"CONNECT" + std::string(65523, 'X'), {"h"}},  // would replace the stream
      {"GSIZE" + std::string(65508, 'X'), {}},       // its length would not fit
      {"CCHECK" + std::string(65524, 'X'), {}},
      {"PEND" + std::string(65526, 'X'), {}},  // would end the worker
  };
  for (const Refused& r : refused) ASSERT_TRUE(session.send(request(r.word, r.params)));
  expectOnlyCcheckReply(nextEcho());
  expectNextBytes(1000);  // the stream is still open where it was
  // Only the loop's PEND line, never a handler's.
  EXPECT_EQ("[Halvarine] recv PEND command!\n", session.worker().output().substr(mark));

  const std::string longest = "CLOSE" + std::string(65524, 'X');
  const Request close = request(longest);
  const Reply r = call(close);
  EXPECT_EQ(support::expectedReply(close.echo, {longest, "OK_"}), r.frame);
  EXPECT_EQ(65548u, r.frame.size());
}

// A controller that leaks descriptors into the worker pushes its sockets
// past 1023, where select cannot watch them.
TEST_F(Contract, WholeStreamsWithMoreThanAThousandInheritedDescriptors) {
  session = halvarine::WorkerSession();
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
  for (Transport t : {Transport::MMST, Transport::MMSH}) {
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
  ASSERT_NO_FATAL_FAILURE(open(Transport::MMST));
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
// its echo byte says which reply went missing.
TEST_F(Contract, SlowReplyUnreadForLongerThanTheWriteWaitIsLostWhole) {
  ASSERT_NO_FATAL_FAILURE(open(Transport::MMSH));
  std::vector<Request> sent;
  for (int i = 0; i < 12; ++i) sent.push_back(request("READ", {countDigits(65511)}));
  for (const Request& req : sent) ASSERT_TRUE(session.send(req));
  sleep(7);
  std::vector<unsigned char> echoes;
  Reply r;
  while (session.connection().receive(2000, r)) echoes.push_back(r.echo);
  ASSERT_EQ(halvarine::ControllerConnection::Failure::TIMED_OUT, session.connection().failure())
      << session.connection().error();
  // Whole frames, in order, some missing.
  size_t next = 0;
  for (unsigned char echo : echoes) {
    while (next < sent.size() && sent[next].echo != echo) ++next;
    ASSERT_LT(next++, sent.size()) << "reply " << int(echo) << " out of order";
  }
  EXPECT_GT(echoes.size(), 0u);
  EXPECT_LT(echoes.size(), sent.size()) << "nothing was lost: the write wait never ran out";
}

// On a small send buffer a reply takes many writes. None may block: a
// controller that stops reading costs the reply, not the worker, which
// waits 5 s at the most and then takes SIGTERM at once.
TEST_F(Contract, SlowWritesNeverBlockPastTheirWaitOnASmallSendBuffer) {
  session = halvarine::WorkerSession();
  halvarine::WorkerSession::Options options;
  options.worker = support::workerPath();
  options.env = {std::string("LD_PRELOAD=") + SMALL_SEND_BUFFER_LIBRARY};
  if (!options.launcher.empty()) GTEST_SKIP() << "the preloaded library is built for this host";
  ASSERT_TRUE(session.start(options)) << session.error();
  ASSERT_NO_FATAL_FAILURE(open(Transport::MMSH));
  ASSERT_TRUE(session.send(request("READ", {countDigits(65511)})));
  sleep(6);  // past the write wait: the worker is back in its read wait
  const auto start = support::Clock::now();
  ASSERT_TRUE(session.worker().sendSignal(SIGTERM));
  halvarine::ExitStatus how;
  ASSERT_TRUE(session.worker().waitExit(1000, how)) << "blocked in a write";
  EXPECT_TRUE(how.exited && how.code == 0) << how.toString();
  EXPECT_LT(support::secondsSince(start), 1.0);
}

}  // namespace
