// The controller library's parts that need no worker: the diagnosis, child
// processes, the request pipeline against a scripted worker end, helpers.

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "base/unix_address.h"
#include "base/write_all.h"
#include "tests/support/support.h"

namespace {

const support::TempDir dir;

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
  const std::string noSocket = "[WrapperMms::io_tcp_connect] failed to create socket: 24";
  const std::string unreachable = " errno = 101 / msg = Network is unreachable";
  const std::string proxy = "[WrapperMms::connect()] set proxy! : http://proxy:3128";
  const struct Row {
    std::vector<std::string> lines;
    F failure;
    std::string host;
    int error;
    bool proxy;
  } rows[] = {
      {{}, F::UNKNOWN, "", 0, false},
      {{connected, quiet, "ERR - connect", refused}, F::UNKNOWN, "", 0, false},
      {{mmst}, F::URL_REFUSED, "", 0, false},
      {{mmst, quiet}, F::URL_REFUSED, "", 0, false},
      {{mmst, connected}, F::NOT_MMS, "", 0, false},
      {{mmst, connected, quiet}, F::NO_ANSWER, "", 0, false},
      {{mmst, connected, "[WrapperMms::io_write()] select timeout!"}, F::NOT_MMS, "", 0, false},
      {{mmst, unresolved + "nowhere.invalid"}, F::UNRESOLVED, "nowhere.invalid", 0, false},
      {{mmst, noSocket}, F::UNREACHABLE, "", 24, false},
      {{mmst, "ERR - connect", refused}, F::REFUSED, "", 111, false},
      {{mmst, "ERR - connect", unreachable}, F::UNREACHABLE, "", 101, false},
      {{mmst, "ERR - connect"}, F::UNREACHABLE, "", 0, false},
      {{mmst, "ERR - connect with select : 110"}, F::CONNECT_TIMED_OUT, "", 110, false},
      {{mmst, "ERR - connect with select : 111"}, F::REFUSED, "", 111, false},
      {{mmst, "ERR - timeout"}, F::CONNECT_TIMED_OUT, "", 0, false},
      // Two attempts: the later one wins only by getting further.
      {{mmst, "ERR - connect", refused, mmsh, connected}, F::NOT_MMS, "", 0, false},
      {{mmst, connected, mmsh, "ERR - connect", refused}, F::NOT_MMS, "", 0, false},
      {{mmst, unresolved + "a", mmsh, unresolved + "b"}, F::UNRESOLVED, "a", 0, false},
      {{proxy, mmsh, unresolved + "proxy"}, F::UNRESOLVED, "proxy", 0, true},
      {{"set proxy! : http://proxy:3128", mmsh}, F::URL_REFUSED, "", 0, false},
  };
  for (const Row& row : rows) {
    std::string trace;
    for (const std::string& line : row.lines) trace += line + " | ";
    SCOPED_TRACE(trace);
    const halvarine::ConnectDiagnosis d = halvarine::diagnoseConnect(row.lines);
    EXPECT_EQ(static_cast<int>(row.failure), static_cast<int>(d.failure));
    EXPECT_EQ(row.host, d.host);
    EXPECT_EQ(row.error, d.error);
    EXPECT_EQ(row.proxy, d.viaProxy);
  }
  // Each failure has words of its own; these two a person knows from
  // other tools.
  std::vector<std::string> texts;
  for (int f = 0; f <= static_cast<int>(F::NOT_MMS); ++f)
    texts.push_back(halvarine::connectFailureText(static_cast<F>(f)));
  std::sort(texts.begin(), texts.end());
  EXPECT_EQ(texts.end(), std::adjacent_find(texts.begin(), texts.end()));
  EXPECT_STREQ("connection refused", halvarine::connectFailureText(F::REFUSED));
  EXPECT_STREQ("cannot resolve host", halvarine::connectFailureText(F::UNRESOLVED));
}

// A child starts as asked whatever this process has set up, ends as it
// ended, and a program that cannot run says so at the start.
TEST(ChildProcess, StartsCleanEndsAsItEndedAndAFailedStartSaysWhy) {
  halvarine::ChildProcess missing;
  EXPECT_FALSE(missing.start({"halvarine-no-such-program"}));
  EXPECT_EQ(halvarine::ChildProcess::StartFailure::EXEC, missing.startFailure());
  EXPECT_EQ("exec \"halvarine-no-such-program\": No such file or directory", missing.error());
  EXPECT_EQ(-1, missing.pid());

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
      {"exit 3", false, "exit 3", ""},
      // The end of a child that closed its output first is seen too.
      {"exec 2>&-; sleep 0.2; exit 4", false, "exit 4", ""},
      {"kill -9 $$", false, "signal 9", ""},
      {"kill -TERM $$; exit 7", false, "signal 15", ""},
      {"kill -INT $$; exit 7", false, "signal 2", ""},
      {"cat; echo \"$HALVARINE_TEST_A $HALVARINE_TEST_B\" >&2; env | grep -c ^HALVARINE_TEST_A=",
       true, "exit 0", "new kept\n1\n"},
      {"echo out; echo err >&2", false, "exit 0", "err\n"},
      {"echo out; echo err >&2", true, "exit 0", "out\nerr\n"},
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
    EXPECT_EQ(row.output, child.output());
  }
  sigprocmask(SIG_SETMASK, &was, nullptr);
  signal(SIGTERM, SIG_DFL);
  unsetenv("HALVARINE_TEST_A");
  unsetenv("HALVARINE_TEST_B");

  // Waits that run out say so and leave the child running; the end of a
  // child that never writes the text ends the wait for it.
  halvarine::ChildProcess slow;
  ASSERT_TRUE(slow.start({"sh", "-c", "echo ready >&2; exec sleep 30"})) << slow.error();
  EXPECT_TRUE(slow.waitForOutput("ready", 10000));
  halvarine::ExitStatus st;
  EXPECT_FALSE(slow.waitExit(100, st));
  EXPECT_EQ("the child did not end within 100 ms", slow.error());
  EXPECT_TRUE(slow.running());
  EXPECT_TRUE(slow.sendSignal(SIGTERM)) << slow.error();
  EXPECT_TRUE(slow.waitExit(10000, st) && st.toString() == "signal 15") << st.toString();
  EXPECT_FALSE(slow.sendSignal(SIGTERM));
  halvarine::ChildProcess silent;
  ASSERT_TRUE(silent.start({"sh", "-c", "echo other >&2; sleep 0.2"})) << silent.error();
  const int64_t began = halvarine::monotonicMs();
  EXPECT_FALSE(silent.waitForOutput("never", 20000));
  EXPECT_LT(halvarine::monotonicMs() - began, 10000);
}

TEST(Programs, RunToTheEndOrKilledLinesAndThePath) {
  const halvarine::ProgramRun ran =
      halvarine::runProgram({"sh", "-c", "echo out; echo err >&2; exit 2"}, 10000);
  EXPECT_TRUE(ran.ended && !ran.succeeded());
  EXPECT_EQ("exit 2", ran.status.toString());
  EXPECT_EQ("out\nerr\n", ran.output);
  EXPECT_TRUE(halvarine::runProgram({"true"}, 10000).succeeded());
  const halvarine::ProgramRun stuck = halvarine::runProgram({"sleep", "30"}, 100);
  EXPECT_FALSE(stuck.ended || stuck.succeeded());
  const halvarine::ProgramRun missing = halvarine::runProgram({"halvarine-no-such-program"}, 100);
  EXPECT_FALSE(missing.ended);
  EXPECT_NE(std::string::npos, missing.output.find("No such file")) << missing.output;

  using Lines = std::vector<std::string>;
  EXPECT_EQ(Lines(), halvarine::splitLines(""));
  EXPECT_EQ(Lines({"a"}), halvarine::splitLines("a"));
  EXPECT_EQ(Lines({"a"}), halvarine::splitLines("a\n"));
  EXPECT_EQ(Lines({"a", "", "b"}), halvarine::splitLines("a\n\nb"));

  // Only a regular file that may be run counts, in PATH's order.
  const support::TempDir bin;
  ASSERT_EQ(0, mkdir(bin.file("d").c_str(), 0755));
  ASSERT_EQ(0, mkdir(bin.file("d/tool").c_str(), 0755));
  ASSERT_EQ(0, mkdir(bin.file("e").c_str(), 0755));
  ASSERT_EQ(0, mkdir(bin.file("f").c_str(), 0755));
  ASSERT_TRUE(support::writeFile(bin.file("e/tool"), "#!/bin/sh\n") &&
              support::writeFile(bin.file("f/tool"), "#!/bin/sh\n"));
  ASSERT_EQ(0, chmod(bin.file("f/tool").c_str(), 0755));
  ASSERT_EQ(0, chmod(bin.file("e/tool").c_str(), 0644));
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
// watchdog, order and ending without a worker's own timing in the way.
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

class Stopper : public halvarine::FetchObserver {
 public:
  bool stop = false;
  int ticks = 0;
  void tick() override { ++ticks; }
  bool stopRequested() override { return stop; }
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
  halvarine::RequestPipeline idle(again.conn, o);
  EXPECT_EQ(Received::FAILED, idle.receive(r, word));
  EXPECT_EQ(halvarine::FetchStatus::BAD_REPLY, idle.failure()) << idle.error();
}

// call() passes the replies to earlier requests by; a stop, the run's
// deadline and the end of the connection each end a wait as what they are.
TEST(Pipeline, CallsKeepAliveStopsDeadlinesAndThePoliteEnd) {
  halvarine::Reply r;
  {
    PipelineBench bench;
    halvarine::PipelineOptions o;
    o.keepAliveMs = 150;
    Stopper observer;
    halvarine::RequestPipeline p(bench.conn, o, &observer);
    EXPECT_TRUE(p.keepAlive());
    EXPECT_EQ(0u, p.inFlight()) << "a keep-alive before its time";
    ASSERT_TRUE(p.send("READ", {"10"}));
    bench.reply(1, "READ", "EOF");
    bench.reply(2, "GSIZE");
    EXPECT_TRUE(p.call("GSIZE", {}, r)) << p.error();
    EXPECT_EQ(2, r.echo);
    EXPECT_EQ("GSIZE", r.word());
    sleepUntil(halvarine::monotonicMs() + 200);
    EXPECT_TRUE(p.keepAlive());
    EXPECT_EQ(1u, p.inFlight()) << "no keep-alive after its time";
    bench.reply(3, "CCHECK");
    std::string word;
    halvarine::RequestPipeline::Received how;
    bench.receive(p, r, word, how);
    EXPECT_EQ("CCHECK", word);
    observer.stop = true;
    EXPECT_FALSE(p.call("GSIZE", {}, r));
    EXPECT_EQ(halvarine::FetchStatus::STOPPED, p.failure());
    EXPECT_GT(observer.ticks, 0);
    // PEND is answered in spite of the stop, after the reply still due.
    bench.reply(4, "GSIZE");
    bench.reply(5, "PEND");
    EXPECT_TRUE(p.finish(1000)) << p.error();
    EXPECT_EQ(0u, p.inFlight());
  }
  {
    PipelineBench bench;
    halvarine::PipelineOptions o;
    o.deadlineMs = halvarine::monotonicMs() + 200;
    halvarine::RequestPipeline p(bench.conn, o);
    EXPECT_FALSE(p.call("CONNECT", {"mms://x/y"}, r));
    EXPECT_EQ(halvarine::FetchStatus::DEADLINE, p.failure());
    EXPECT_TRUE(p.deadlinePassed());
    EXPECT_FALSE(p.finish(200));
    EXPECT_EQ(halvarine::FetchStatus::TIMED_OUT, p.failure());
    EXPECT_EQ("PEND not answered within 0.2 s", p.error());
    bench.reply(1, "CONNECT");
    bench.reply(2, "PEND", "ERR");
    EXPECT_FALSE(p.finish(1000)) << "PEND refused is no polite end";
    bench.worker.reset();
    EXPECT_FALSE(p.call("CCHECK", {}, r));
    EXPECT_EQ(halvarine::FetchStatus::LOST, p.failure());
  }
  std::vector<std::string> texts;
  for (int s = 0; s <= static_cast<int>(halvarine::FetchStatus::STOPPED); ++s)
    texts.push_back(halvarine::statusText(static_cast<halvarine::FetchStatus>(s)));
  std::sort(texts.begin(), texts.end());
  EXPECT_EQ(texts.end(), std::adjacent_find(texts.begin(), texts.end()));
}

// The write-everything loop on each kind of descriptor, its waits, and the
// sleep and address helpers beside it.
TEST(Helpers, WriteAllTakesEachKindOfDescriptorAndStopsAsTold) {
  const std::string big(1 << 20, 'x');
  size_t n = 0;
  int p[2];
  ASSERT_EQ(0, pipe(p));
  halvarine::UniqueFd readEnd(p[0]), writeEnd(p[1]);
  // A pipe nobody reads: what fits goes, then no wait, or a wait that runs
  // out, or a stop.
  EXPECT_EQ(WAIT_TIMEOUT, writeAll(writeEnd.get(), big.data(), big.size(), 0, n));
  EXPECT_GT(n, 0u);
  EXPECT_LT(n, big.size());
  const int64_t began = halvarine::monotonicMs();
  EXPECT_EQ(WAIT_TIMEOUT, writeAll(writeEnd.get(), big.data(), big.size(), 150, n));
  EXPECT_EQ(0u, n);
  EXPECT_GE(halvarine::monotonicMs() - began, 150);
  int stop[2];
  ASSERT_EQ(0, pipe(stop));
  halvarine::UniqueFd stopRead(stop[0]), stopWrite(stop[1]);
  ASSERT_EQ(1, write(stopWrite.get(), "s", 1));
  EXPECT_EQ(WAIT_STOPPED, writeAll(writeEnd.get(), big.data(), big.size(), -1, n, stopRead.get()));
  // A reader that went: EPIPE, where SIGPIPE is ignored (a pipe has no
  // MSG_NOSIGNAL).
  readEnd.reset();
  signal(SIGPIPE, SIG_IGN);
  EXPECT_EQ(WAIT_ERROR, writeAll(writeEnd.get(), "a", 1, -1, n));
  EXPECT_EQ(EPIPE, errno);
  signal(SIGPIPE, SIG_DFL);

  // A socket whose reader keeps reading gets all of it, in order.
  int fds[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds));
  halvarine::UniqueFd a(fds[0]), b(fds[1]);
  std::string got;
  const std::string file = dir.file("written");
  ASSERT_TRUE(support::writeFile(file, ""));
  {
    halvarine::UniqueFd out(open(file.c_str(), O_WRONLY | O_CLOEXEC));
    std::string counted;
    for (int i = 0; i < 100000; ++i) counted += std::to_string(i) + ",";
    EXPECT_EQ(WAIT_READY, writeAll(out.get(), counted.data(), counted.size(), 0, n));
    EXPECT_EQ(counted.size(), n);
    std::thread drain([&] {
      char chunk[4096];
      for (ssize_t r; (r = read(b.get(), chunk, sizeof chunk)) > 0;) got.append(chunk, r);
    });
    EXPECT_EQ(WAIT_READY, writeAll(a.get(), counted.data(), counted.size(), 5000, n));
    a.reset();
    drain.join();
    // The socket's reader has gone: EPIPE, and no signal even so.
    EXPECT_EQ(WAIT_ERROR, writeAll(b.get(), "a", 1, -1, n));
    EXPECT_EQ(EPIPE, errno);
    EXPECT_TRUE(got == counted) << got.size() << " bytes of " << counted.size();
  }

  const int64_t deadline = halvarine::monotonicMs() + 120;
  sleepUntil(deadline);
  EXPECT_GE(halvarine::monotonicMs(), deadline);

  sockaddr_un addr;
  EXPECT_TRUE(unixAddress("/run/x", addr) && std::string(addr.sun_path) == "/run/x");
  EXPECT_FALSE(unixAddress("", addr));
  EXPECT_FALSE(unixAddress(std::string(sizeof addr.sun_path, 'p').c_str(), addr));
  EXPECT_TRUE(unixAddress(std::string(sizeof addr.sun_path - 1, 'p').c_str(), addr));
}

}  // namespace
