// The controller library's parts that need no worker: the diagnosis, child
// processes, programs on PATH, the request pipeline against a scripted worker end.

#include <errno.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "base/wait.h"
#include "base/write_all.h"
#include "tests/support/support.h"

namespace {

// The worker's lines from a CONNECT to its "ERR", as it writes them, and what
// they say: the attempt that got furthest names the failure.
TEST(Diagnosis, TheFurthestAttemptNamesTheFailure) {
  using F = halvarine::ConnectFailure;
  const std::string mmst = "[WrapperMms::connect()] open MMST stream!";
  const std::string mmsh = "[WrapperMms::connect()] open MMSH stream!";
  const std::string connected = "[WrapperMms::io_tcp_connect]";
  const std::string unresolved = "[WrapperMms::io_tcp_connect] unable to resolve host: ";
  const std::string quiet = "[WrapperMms::io_read()] select timeout!";
  const std::string refused = " errno = 111 / msg = Connection refused";
  const std::string unreachable = " errno = 101 / msg = Network is unreachable";
  const std::string proxy = "[WrapperMms::connect()] set proxy! : http://proxy:3128";
  const struct Row {
    std::vector<std::string> lines;
    F failure;
    std::string host = "";
    int error = 0;
    bool proxy = false;
  } rows[] = {
      {{connected, quiet, "ERR - connect", refused}, F::UNKNOWN},
      {{mmst, quiet}, F::URL_REFUSED},
      {{mmst, connected, quiet}, F::NO_ANSWER},
      {{mmst, connected, "[WrapperMms::io_write()] select timeout!"}, F::NOT_MMS},
      {{mmst, "[WrapperMms::io_tcp_connect] failed to create socket: 24"}, F::UNREACHABLE, "", 24},
      {{mmst, "ERR - connect", unreachable}, F::UNREACHABLE, "", 101},
      {{mmst, "ERR - connect"}, F::UNREACHABLE},
      {{mmst, "ERR - connect with select : 110"}, F::CONNECT_TIMED_OUT, "", 110},
      {{mmst, "ERR - timeout"}, F::CONNECT_TIMED_OUT},
      // Two attempts: the later one wins only by getting further.
      {{mmst, "ERR - connect", refused, mmsh, connected}, F::NOT_MMS},
      {{mmst, connected, mmsh, "ERR - connect", refused}, F::NOT_MMS},
      {{mmst, unresolved + "a", mmsh, unresolved + "b"}, F::UNRESOLVED, "a"},
      {{proxy, mmsh, unresolved + "proxy"}, F::UNRESOLVED, "proxy", 0, true},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.lines.back());
    const halvarine::ConnectDiagnosis d = halvarine::diagnoseConnect(row.lines);
    EXPECT_EQ(static_cast<int>(row.failure), static_cast<int>(d.failure));
    EXPECT_EQ(row.host, d.host);
    EXPECT_EQ(row.error, d.error);
    EXPECT_EQ(row.proxy, d.viaProxy);
  }
}

// A child starts as asked whatever this process has set up, ends as it
// ended, and a program that cannot run says so at the start.
TEST(ChildProcess, StartsCleanEndsAsItEndedAndAFailedStartSaysWhy) {
  halvarine::ChildProcess missing;
  EXPECT_FALSE(missing.start({"halvarine-no-such-program"}));
  EXPECT_EQ(halvarine::ChildProcess::StartFailure::EXEC, missing.startFailure());
  EXPECT_EQ("exec \"halvarine-no-such-program\": No such file or directory", missing.error());

  // Ignored and blocked here, default in the child; stdin is /dev/null; the
  // environment's own HALVARINE_TEST_A is replaced, not doubled.
  setenv("HALVARINE_TEST_A", "old", 1);
  setenv("HALVARINE_TEST_B", "kept", 1);
  signal(SIGTERM, SIG_IGN);
  sigset_t blocked, was;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGINT);
  sigprocmask(SIG_BLOCK, &blocked, &was);
  const struct Row {
    std::string script;
    bool captureStdout;
    std::string status;
    std::string output;
  } rows[] = {
      // The end of a child that closed its output first is seen too.
      {"exec 2>&-; sleep 0.2; exit 4", false, "exit 4", ""},
      {"kill -TERM $$; exit 7", false, "signal 15", ""},
      {"kill -INT $$; exit 7", false, "signal 2", ""},
      {"cat; echo \"$HALVARINE_TEST_A $HALVARINE_TEST_B\" >&2; env | grep -c ^HALVARINE_TEST_A=",
       true, "exit 0", "new kept\n1\n"},
      {"echo out; echo err >&2", false, "exit 0", "err\n"},
      {"echo out; echo err >&2", true, "exit 0", "out\nerr\n"},
      // More than a pipe holds: the child is never blocked on its stderr.
      {"head -c 300000 /dev/zero | tr '\\0' x >&2", false, "exit 0", std::string(300000, 'x')},
  };
  halvarine::ChildProcess child;  // started again for each row: nothing of the last one stays
  for (const Row& row : rows) {
    SCOPED_TRACE(row.script);
    halvarine::ChildProcess::Options o;
    o.captureStdout = row.captureStdout;
    o.env = {"HALVARINE_TEST_A=new"};
    ASSERT_TRUE(child.start({"sh", "-c", row.script}, o)) << child.error();
    halvarine::ExitStatus st;
    ASSERT_TRUE(child.waitExit(10000, st)) << child.error();
    EXPECT_EQ(row.status, st.toString());
    EXPECT_TRUE(row.output == child.output()) << child.output().substr(0, 100);
  }
  sigprocmask(SIG_SETMASK, &was, nullptr);
  signal(SIGTERM, SIG_DFL);
  unsetenv("HALVARINE_TEST_A");
  unsetenv("HALVARINE_TEST_B");

  // Waits that run out say so and leave the child running; the end of a
  // child that never writes the text ends the wait for it; a child whose
  // owner goes is killed and reaped.
  halvarine::ChildProcess slow;
  ASSERT_TRUE(slow.start({"sh", "-c", "echo ready >&2; exec sleep 30"})) << slow.error();
  EXPECT_TRUE(slow.waitForOutput("ready", 10000));
  halvarine::ExitStatus st;
  EXPECT_FALSE(slow.waitExit(100, st));
  EXPECT_EQ("the child did not end within 100 ms", slow.error());
  const pid_t pid = slow.pid();
  EXPECT_TRUE(halvarine::ChildProcess(std::move(slow)).running());
  EXPECT_TRUE(kill(pid, 0) == -1 && errno == ESRCH) << "child " << pid << " left";
  halvarine::ChildProcess silent;
  ASSERT_TRUE(silent.start({"sh", "-c", "echo other >&2; sleep 0.2"})) << silent.error();
  const int64_t began = halvarine::monotonicMs();
  EXPECT_FALSE(silent.waitForOutput("never", 20000));
  EXPECT_LT(halvarine::monotonicMs() - began, 10000);
}

TEST(Programs, RunToTheEndOrKilledAndThePath) {
  const halvarine::ProgramRun ran =
      halvarine::runProgram({"sh", "-c", "echo out; echo err >&2; exit 2"}, 10000);
  EXPECT_TRUE(ran.ended && !ran.succeeded());
  EXPECT_EQ("out\nerr\n", ran.output);
  const halvarine::ProgramRun stuck = halvarine::runProgram({"sleep", "30"}, 100);
  EXPECT_FALSE(stuck.ended || stuck.succeeded());

  // Only a regular file that may be run counts, in PATH's order.
  const support::TempDir bin;
  for (const char* d : {"d", "d/tool", "e", "f"}) ASSERT_EQ(0, mkdir(bin.file(d).c_str(), 0755));
  ASSERT_TRUE(support::writeFile(bin.file("e/tool"), "#!/bin/sh\n") &&
              support::writeFile(bin.file("f/tool"), "#!/bin/sh\n"));
  ASSERT_EQ(0, chmod(bin.file("f/tool").c_str(), 0755));
  const std::string path = getenv("PATH");
  setenv("PATH", (bin.file("d") + ":" + bin.file("e") + ":" + bin.file("f")).c_str(), 1);
  const std::string found = halvarine::findOnPath("tool");
  setenv("PATH", (bin.file("d") + "::" + bin.file("e")).c_str(), 1);
  const std::string none = halvarine::findOnPath("tool");
  setenv("PATH", path.c_str(), 1);
  EXPECT_EQ(bin.file("f/tool"), found);
  EXPECT_EQ("", none);
}

// A worker end that answers only what it is told to: the request pipeline's
// watchdog and ending without a worker's own timing in the way.
struct PipelineBench {
  halvarine::UniqueFd worker;
  halvarine::ControllerConnection conn;
  PipelineBench() {
    int fds[2];
    EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds));
    worker.reset(fds[0]);
    conn = halvarine::ControllerConnection(halvarine::UniqueFd(fds[1]));
  }
  void reply(unsigned char echo, const std::string& word, const std::string& status = "OK_") {
    const std::string frame = support::expectedReply(echo, {word, status});
    EXPECT_EQ(static_cast<ssize_t>(frame.size()), write(worker.get(), frame.data(), frame.size()));
  }
  // Receives until something other than NOT_YET; the milliseconds it took.
  int64_t receive(halvarine::RequestPipeline& p, halvarine::Reply& r, std::string& word,
                  halvarine::RequestPipeline::Received& how) {
    const int64_t began = halvarine::monotonicMs();
    while ((how = p.receive(r, word)) == halvarine::RequestPipeline::Received::NOT_YET) {
    }
    return halvarine::monotonicMs() - began;
  }
};

TEST(Pipeline, TheWatchdogCountsFromTheLaterOfSendingAndTheLastReply) {
  using Received = halvarine::RequestPipeline::Received;
  PipelineBench bench;
  halvarine::PipelineOptions o;
  o.replyTimeoutMs = 600;
  o.keepAliveMs = 0;
  halvarine::RequestPipeline p(bench.conn, o);
  halvarine::Reply r;
  std::string word;
  Received how;
  // A later request does not excuse the overdue reply to an earlier one.
  ASSERT_TRUE(p.send("GSIZE"));
  sleepUntil(halvarine::monotonicMs() + 400);
  ASSERT_TRUE(p.send("CCHECK"));
  EXPECT_LT(bench.receive(p, r, word, how), 450);
  EXPECT_EQ(Received::FAILED, how);
  EXPECT_EQ(halvarine::FetchStatus::TIMED_OUT, p.failure());
  EXPECT_EQ("no reply to GSIZE within 0.6 s", p.error());

  // A reply gives the next request in flight its full time again.
  PipelineBench again;
  halvarine::RequestPipeline q(again.conn, o);
  ASSERT_TRUE(q.send("GSIZE") && q.send("CCHECK"));
  sleepUntil(halvarine::monotonicMs() + 400);
  again.reply(1, "GSIZE");
  EXPECT_EQ(Received::REPLY, (again.receive(q, r, word, how), how));
  EXPECT_EQ("GSIZE", word);
  const int64_t waited = again.receive(q, r, word, how);
  EXPECT_EQ(Received::FAILED, how);
  EXPECT_GE(waited, 500) << "timed out from the request's sending";
  EXPECT_EQ("no reply to CCHECK within 0.6 s", q.error());
}

// A keep-alive goes only when nothing was sent for its time; the run's
// deadline and the end of the connection each end a wait as what they are;
// PEND refused is no polite end.
TEST(Pipeline, KeepAlivesDeadlinesAndThePoliteEnd) {
  halvarine::Reply r;
  PipelineBench bench;
  halvarine::PipelineOptions o;
  o.keepAliveMs = 150;
  o.deadlineMs = halvarine::monotonicMs() + 400;
  halvarine::RequestPipeline p(bench.conn, o);
  EXPECT_TRUE(p.keepAlive() && p.inFlight() == 0u) << "a keep-alive before its time";
  sleepUntil(halvarine::monotonicMs() + 200);
  EXPECT_TRUE(p.keepAlive() && p.inFlight() == 1u) << "no keep-alive after its time";
  EXPECT_FALSE(p.call("CONNECT", {"mms://x/y"}, r));
  EXPECT_EQ(halvarine::FetchStatus::DEADLINE, p.failure());
  EXPECT_FALSE(p.finish(200));
  EXPECT_EQ(halvarine::FetchStatus::TIMED_OUT, p.failure());
  EXPECT_EQ("PEND not answered within 0.2 s", p.error());
  bench.reply(1, "CCHECK");
  bench.reply(2, "CONNECT");
  bench.reply(3, "PEND", "ERR");
  EXPECT_FALSE(p.finish(1000));
  bench.worker.reset();
  EXPECT_FALSE(p.call("CCHECK", {}, r));
  EXPECT_EQ(halvarine::FetchStatus::LOST, p.failure());
}

// A pipe nobody reads: what fits goes, then the wait runs out, or a stop
// ends it; the controller's sends and the test servers rely on both.
TEST(WriteAll, AWaitRunsOutOrIsStopped) {
  const std::string big(1 << 20, 'x');
  size_t n = 0;
  int p[2], stop[2];
  ASSERT_EQ(0, pipe(p));
  ASSERT_EQ(0, pipe(stop));
  halvarine::UniqueFd readEnd(p[0]), writeEnd(p[1]), stopRead(stop[0]), stopWrite(stop[1]);
  const int64_t began = halvarine::monotonicMs();
  EXPECT_EQ(WAIT_TIMEOUT, writeAll(writeEnd.get(), big.data(), big.size(), 150, n));
  EXPECT_GE(halvarine::monotonicMs() - began, 150);
  ASSERT_EQ(1, write(stopWrite.get(), "s", 1));
  EXPECT_EQ(WAIT_STOPPED, writeAll(writeEnd.get(), big.data(), big.size(), -1, n, stopRead.get()));
}

}  // namespace
