// SIGTERM in every state of the worker: the notice, status 0 at once, and
// after the notice nothing but the close line of a stream the exit-time
// clean-up releases. Each test prints how long the worker took to end. (A
// name lookup that never ends is, like a spin in the library, a place
// outside any wait, which the grace timer ends.)

#include "core/termination.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <random>
#include <string>

#include "tests/support/support.h"

using halvarine::Reply;
using halvarine::Request;
using support::countDigits;

namespace {

const std::string NOTICE = "\n**** SIGINT ****\n";
const std::string CLOSE_MMSH = "[WrapperMms::close()] close MMSH stream! \n";
const std::string CLOSE_MMST = "[WrapperMms::close()] close MMST stream! \n";
// Generous for a loaded machine; the figures printed are what counts.
const int PROMPT_MS = 1000;

class Termination : public support::StreamTest {
 protected:
  // SIGTERM now; the worker must end with status 0 within PROMPT_MS.
  // Returns what it wrote from then on.
  std::string terminate(const std::string& state) {
    halvarine::ChildProcess& worker = session.worker();
    const size_t mark = worker.output().size();
    const auto start = nowMs();
    EXPECT_TRUE(worker.sendSignal(SIGTERM)) << worker.error();
    halvarine::ExitStatus how;
    EXPECT_TRUE(worker.waitExit(PROMPT_MS, how)) << state << ": still running";
    const double ms = secondsSince(start) * 1000;
    EXPECT_TRUE(how.exited && how.code == 0) << state << ": " << how.toString();
    std::cout << "[ observed ] SIGTERM " << state << ": ended in " << ms << " ms" << std::endl;
    const std::string& text = worker.output();
    return text.substr(std::min(mark, text.size()));
  }
};

TEST_F(Termination, WaitingForTheServerReleasesTheStreamAndSendsNoReply) {
  Faults stall;
  stall.stallAfter = 100000;
  ASSERT_EQ("OK_", connect(startServer(StreamProtocol::MMST, stall).url()).status());
  ASSERT_EQ("OK_", read(65511).status());
  ASSERT_TRUE(session.send(request("READ", {countDigits(65511)})));
  usleep(300000);  // the READ waits for bytes that do not come
  EXPECT_EQ(NOTICE + CLOSE_MMST, terminate("waiting for the server"));
  EXPECT_TRUE(session.receiveEof(support::REPLY_TIMEOUT_MS)) << session.error();
}

// A header object of size 0 sends libmms round a loop without a system
// call: no wait comes, and the grace timer ends the process.
TEST_F(Termination, SpinningInsideTheLibrary) {
  Faults zero;
  zero.zeroSizeObject = true;
  ASSERT_TRUE(session.send(request("CONNECT", {startServer(StreamProtocol::MMST, zero).url()})));
  ASSERT_TRUE(session.worker().waitForOutput("[WrapperMms::connect()] open MMST stream!\n", 10000))
      << session.worker().output();
  usleep(300000);
  EXPECT_EQ(NOTICE, terminate("spinning in the library"));
  EXPECT_TRUE(session.receiveEof(support::REPLY_TIMEOUT_MS)) << session.error();
}

// Full speed: READs in flight, the signal at a random moment, mostly while
// the worker works between its waits.
TEST_F(Termination, AtRandomMomentsOfAStreamAtFullSpeed) {
  const std::string urls[] = {startServer(StreamProtocol::MMSH).url(),
                              startServer(StreamProtocol::MMST).url()};
  std::mt19937 random(7);
  int cleanups = 0;
  const char* wanted = getenv("HALVARINE_TERM_TRIALS");  // 24 unless told
  const int trials = wanted != nullptr ? atoi(wanted) : 24;
  for (int i = 0; i < trials && !HasFailure(); ++i) {
    startWorker();
    ASSERT_EQ("OK_", connect(urls[i % 2]).status());
    for (int r = 0; r < 4; ++r) ASSERT_TRUE(session.send(request("READ", {countDigits(65511)})));
    usleep(std::uniform_int_distribution<int>(0, 3000)(random));
    const std::string after = terminate("at full speed");
    const size_t at = after.find(NOTICE);
    ASSERT_NE(std::string::npos, at) << after;
    const std::string tail = after.substr(at + NOTICE.size());
    EXPECT_TRUE(tail.empty() || tail == (i % 2 ? CLOSE_MMST : CLOSE_MMSH)) << after;
    cleanups += !tail.empty();
  }
  std::cout << "[ observed ] " << cleanups << " of " << trials
            << " ended with the exit-time clean-up" << std::endl;
}

// The shut-down's last line blocks past the grace (the worker's standard
// error is a one-page pipe of the test's own with room for PEND's line
// only): the signal is taken there and the line never follows the notice.
// The notice itself waits for the pipe, which is the one limit. The
// controller has had PEND's reply and the end of its socket before that
// line, whatever becomes of it.
TEST_F(Termination, DuringTheShutdownNoFurtherLineFollows) {
  const std::string pendLine = "[Halvarine] recv PEND command!\n";
  int fds[2];
  ASSERT_EQ(0, pipe2(fds, O_CLOEXEC));
  halvarine::UniqueFd readEnd(fds[0]), writeEnd(fds[1]);
  fcntl(readEnd.get(), F_SETFL, O_NONBLOCK);  // the worker's end blocks
  ASSERT_EQ(4096, fcntl(writeEnd.get(), F_SETPIPE_SZ, 4096));
  session = halvarine::WorkerSession();
  halvarine::WorkerSession::Options options;
  options.worker = support::workerPath();
  options.stderrFd = writeEnd.get();
  ASSERT_TRUE(session.start(options)) << session.error();
  const std::string filler(4096 - pendLine.size(), 'f');
  ASSERT_EQ(static_cast<ssize_t>(filler.size()),
            write(writeEnd.get(), filler.data(), filler.size()));
  const Request pend = request("PEND");
  ASSERT_TRUE(session.send(pend));
  usleep(200000);  // blocked
  EXPECT_EQ("OK_", receive(pend.echo).status());
  EXPECT_TRUE(session.receiveEof(1000)) << "the socket is still open";
  EXPECT_TRUE(session.worker().sendSignal(SIGTERM));
  usleep((TERMINATION_GRACE_MS + 200) * 1000);
  std::string text;
  char buf[4096];
  halvarine::ExitStatus how;
  for (bool ended = false; !ended;) {
    ended = session.worker().waitExit(0, how);
    for (ssize_t n; (n = ::read(readEnd.get(), buf, sizeof buf)) > 0;) text.append(buf, n);
  }
  EXPECT_TRUE(how.exited && how.code == 0) << how.toString();
  EXPECT_EQ(pendLine + NOTICE, text.substr(std::min(text.size(), filler.size())));
}

// The signal lands after the wait for a frame has ended, while the frame
// is read (a preloaded library sends it then): the worker ends before it
// serves the frame. CLOSE closes nothing itself; the exit-time clean-up
// releases the stream.
TEST_F(Termination, JustAfterAFrameArrivesTheFrameIsNotServed) {
  if (!startPreloaded(SIGNAL_AFTER_READ_LIBRARY, {"HALVARINE_TERM_AFTER=CLOSE\n"}))
    GTEST_SKIP() << "the preloaded library is built for this host";
  ASSERT_EQ("OK_", connect(startServer(StreamProtocol::MMSH).url()).status());
  const size_t mark = session.worker().output().size();
  ASSERT_TRUE(session.send(request("CLOSE")));
  halvarine::ExitStatus how;
  EXPECT_TRUE(session.worker().waitExit(PROMPT_MS, how)) << "still running";
  EXPECT_TRUE(how.exited && how.code == 0) << how.toString();
  EXPECT_TRUE(session.receiveEof(support::REPLY_TIMEOUT_MS)) << "a reply after SIGTERM";
  EXPECT_EQ(NOTICE + CLOSE_MMSH, session.worker().output().substr(mark));
}

// The grace timer's signal is the worker's own; SIGALRM is not: it does
// what the disposition the worker inherited says, with no notice. Ignored,
// it leaves the worker waiting for the controller, where SIGTERM releases
// the stream.
TEST_F(Termination, SigalrmKeepsTheDispositionTheWorkerInherited) {
  struct sigaction inherited = {}, saved;
  inherited.sa_handler = SIG_DFL;
  sigemptyset(&inherited.sa_mask);
  ASSERT_EQ(0, sigaction(SIGALRM, &inherited, &saved));
  startWorker();
  ASSERT_TRUE(session.worker().sendSignal(SIGALRM));
  halvarine::ExitStatus how;
  ASSERT_TRUE(session.worker().waitExit(PROMPT_MS, how)) << "default: still running";
  EXPECT_TRUE(how.signaled && how.signal == SIGALRM) << "default: " << how.toString();
  EXPECT_EQ("", session.worker().output()) << "default";

  // User-mode qemu catches every default-fatal signal on the host, even one
  // its guest ignores, so there the host poll fails with EINTR. A kernel
  // never wakes a wait for an ignored signal.
  if (!halvarine::launcherFromEnvironment().empty())
    GTEST_SKIP() << "an emulator wakes the wait for a signal its guest ignores";

  inherited.sa_handler = SIG_IGN;
  ASSERT_EQ(0, sigaction(SIGALRM, &inherited, nullptr));
  startWorker();
  sigaction(SIGALRM, &saved, nullptr);
  ASSERT_EQ("OK_", connect(startServer(StreamProtocol::MMSH).url()).status());
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(session.worker().sendSignal(SIGALRM));
  usleep(100000);
  expectOnlyCcheckReply(nextEcho());
  EXPECT_EQ(NOTICE + CLOSE_MMSH, terminate("waiting for the controller, ignoring SIGALRM"));
  EXPECT_TRUE(session.receiveEof(support::REPLY_TIMEOUT_MS)) << session.error();
}

}  // namespace
