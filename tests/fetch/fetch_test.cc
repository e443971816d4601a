// halvarine-fetch end to end: the real tool, the real worker it starts, the
// test MMS servers on loopback, and libmms-fetch as the judge of the bytes.
// Every test checks that nothing is left behind: no worker, no socket file,
// no partial output unless it was asked for.

#include <errno.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tests/servers/interop_support.h"
#include "tools/controller/controller.h"
#include "tools/controller/stream_fetch.h"
#include "tools/mmsserver/server.h"

namespace {

using Clock = std::chrono::steady_clock;

// The tool's exit statuses, as its --help documents them.
const int FETCHED = 0;
const int CONTROLLER_TAKEN = 3;
const int NO_WORKER = 4;
const int WORKER_ENDED = 5;
const int CONNECT_ERR = 6;
const int TIMED_OUT = 8;
const int INTERRUPTED = 130;

const std::string SOCKET_PATH = controller::DEFAULT_SOCKET_PATH;

bool socketFileExists() {
  struct stat st;
  return lstat(SOCKET_PATH.c_str(), &st) == 0;
}

// A socket file nobody accepts on: what a controller that did not clean up
// leaves. (A file somebody accepts on belongs to another test run on this
// machine, started since.)
bool staleSocketLeft() {
  if (!socketFileExists()) return false;
  controller::ControllerListener probe;
  if (probe.listen(SOCKET_PATH)) return true;   // it was stale; now removed again
  return false;
}

// The path is fixed for the whole machine: another test run may hold it for
// a while. Waits until nobody accepts there.
bool waitForFreeSocket(int timeoutS) {
  const auto deadline = Clock::now() + std::chrono::seconds(timeoutS);
  while (Clock::now() < deadline) {
    controller::ControllerListener probe;
    if (probe.listen(SOCKET_PATH)) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
  }
  return false;
}

// The worker's pid, as the tool announces it with --verbose; 0 when absent.
pid_t workerPid(const std::string& output) {
  const std::string mark = "(pid ";
  size_t at = output.find(mark);
  return at == std::string::npos ? 0 : static_cast<pid_t>(atol(output.c_str() + at + mark.size()));
}

bool processGone(pid_t pid) { return kill(pid, 0) != 0 && errno == ESRCH; }

size_t occurrences(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

bool fileExists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

class FetchTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(waitForFreeSocket(120)) << "another controller holds " << SOCKET_PATH;
    std::string error;
    ASSERT_TRUE(loadAsfFile(interop::samplePath(), sample_, error)) << error;
  }

  // A server for the sample; its URL.
  std::string serve(Transport transport, const Faults& faults = Faults()) {
    ServerOptions options;
    options.transport = transport;
    options.faults = faults;
    servers_.emplace_back(new MmsTestServer(sample_, options));
    std::string error;
    EXPECT_TRUE(servers_.back()->start(error)) << error;
    return servers_.back()->url();
  }

  // The tool with `args`. It starts the halvarine beside it unless the
  // environment names another worker (a cross-built one run through
  // HALVARINE_WORKER_LAUNCHER) or the test names its own.
  std::vector<std::string> command(const std::vector<std::string>& args) const {
    std::vector<std::string> argv{HALVARINE_FETCH};
    argv.insert(argv.end(), args.begin(), args.end());
    const char* other = getenv("HALVARINE_WORKER");
    if (other != nullptr && *other != '\0' &&
        std::find(args.begin(), args.end(), "--worker") == args.end()) {
      argv.insert(argv.end(), {"--worker", other});
    }
    return argv;
  }

  interop::RunResult fetch(const std::vector<std::string>& args, int timeoutMs = 60000) {
    return interop::run(command(args), timeoutMs);
  }

  // The bytes libmms itself reads from `url`.
  std::string reference(const std::string& url) {
    const std::string path = dir_.file("reference.asf");
    interop::RunResult r = interop::run({interop::libmmsFetchPath(), url, path}, 60000);
    EXPECT_EQ(0, r.exitCode) << r.output;
    return interop::readFile(path);
  }

  // No worker, no socket file, no partial output.
  void expectNothingLeft(const std::string& output, const std::string& out) {
    EXPECT_FALSE(staleSocketLeft()) << output;
    EXPECT_FALSE(fileExists(out + ".partial")) << output;
    const pid_t pid = workerPid(output);
    if (pid > 0) {
      EXPECT_TRUE(processGone(pid)) << "worker " << pid << " left running\n" << output;
    }
  }

  AsfFile sample_;
  std::vector<std::unique_ptr<MmsTestServer>> servers_;
  interop::TempDir dir_;
};

// ---- whole streams

struct Case {
  Transport transport;
  int window;
};

class WholeFetch : public FetchTest, public ::testing::WithParamInterface<Case> {};

TEST_P(WholeFetch, GivesLibmmsBytesAndEndsCleanly) {
  const std::string url = serve(GetParam().transport);
  const std::string expected = reference(url);
  ASSERT_GT(expected.size(), 200000u);
  const std::string out = dir_.file("out.asf");
  interop::RunResult r =
      fetch({url, "-o", out, "--verbose", "--window", std::to_string(GetParam().window)});
  ASSERT_EQ(FETCHED, r.exitCode) << r.output;
  const std::string got = interop::readFile(out);
  EXPECT_EQ(expected.size(), got.size());
  EXPECT_EQ(-1, interop::firstDifference(expected, got));
  // Every READ past the end answers EOF, and the worker is ended with PEND.
  EXPECT_NE(std::string::npos, r.output.find("< READ EOF")) << r.output;
  EXPECT_NE(std::string::npos, r.output.find("< PEND OK_")) << r.output;
  EXPECT_NE(std::string::npos, r.output.find("[Halvarine] application finished !!")) << r.output;
  expectNothingLeft(r.output, out);
}

INSTANTIATE_TEST_SUITE_P(Transports, WholeFetch,
                         ::testing::Values(Case{Transport::MMST, 1}, Case{Transport::MMST, 4},
                                           Case{Transport::MMSH, 1}, Case{Transport::MMSH, 4}),
                         [](const ::testing::TestParamInfo<Case>& info) {
                           return std::string(info.param.transport == Transport::MMST ? "Mmst"
                                                                                      : "Mmsh") +
                                  "Window" + std::to_string(info.param.window);
                         });

TEST_F(FetchTest, MaxBytesStopsExactlyThereWithReadsInFlight) {
  const std::string url = serve(Transport::MMSH);
  const std::string expected = reference(url);
  const std::string out = dir_.file("head.asf");
  // 100000 is no multiple of the count: the last READ must ask for less.
  interop::RunResult r =
      fetch({url, "-o", out, "--max-bytes", "100000", "--count", "30000", "--window", "4", "-v"});
  ASSERT_EQ(FETCHED, r.exitCode) << r.output;
  EXPECT_EQ(expected.substr(0, 100000), interop::readFile(out));
  // 30000 three times and the 10000 left: no READ asks beyond the limit.
  EXPECT_EQ(4u, occurrences(r.output, "> READ ")) << r.output;
  EXPECT_NE(std::string::npos, r.output.find("> READ 00010000")) << r.output;
  expectNothingLeft(r.output, out);
}

TEST_F(FetchTest, StandardOutputCarriesTheStreamAloneWhenQuiet) {
  const std::string url = serve(Transport::MMST);
  const std::string expected = reference(url);
  // Small READs: hundreds of replies in order through a window of 8.
  interop::RunResult r = fetch({url, "--quiet", "--count", "1000", "--window", "8"});
  ASSERT_EQ(FETCHED, r.exitCode);
  EXPECT_EQ(expected.size(), r.output.size());
  EXPECT_EQ(-1, interop::firstDifference(expected, r.output));
  EXPECT_FALSE(staleSocketLeft());
}

// While nobody reads the tool's output, the worker gets CCHECKs instead of
// the silence that would end it, and the stream still arrives whole.
TEST_F(FetchTest, KeepAliveWhileTheOutputIsBlocked) {
  const std::string url = serve(Transport::MMST);
  const std::string expected = reference(url);
  const std::string out = dir_.file("late.asf");
  const std::string err = dir_.file("err.txt");
  interop::RunResult r = interop::run(
      {"bash", "-c",
       "set -o pipefail; \"$0\" \"$1\" -v --keep-alive 1 2>\"$2\" | (sleep 4; cat >\"$3\")",
       HALVARINE_FETCH, url, err, out},
      60000);
  const std::string log = interop::readFile(err);
  ASSERT_EQ(FETCHED, r.exitCode) << r.output << log;
  EXPECT_NE(std::string::npos, log.find("> CCHECK")) << log;
  EXPECT_NE(std::string::npos, log.find("< CCHECK OK_")) << log;
  EXPECT_EQ(-1, interop::firstDifference(expected, interop::readFile(out)));
  expectNothingLeft(log, out);
}

// ---- failures, each with its own exit status

TEST_F(FetchTest, RefusedPortIsConnectErr) {
  // A port that was free a moment ago: nobody accepts there.
  std::string url;
  {
    MmsTestServer gone(sample_, ServerOptions());
    std::string error;
    ASSERT_TRUE(gone.start(error)) << error;
    url = gone.url();
  }
  const std::string out = dir_.file("none.asf");
  interop::RunResult r = fetch({url, "-o", out, "-v"});
  EXPECT_EQ(CONNECT_ERR, r.exitCode) << r.output;
  EXPECT_NE(std::string::npos, r.output.find("CONNECT answered ERR")) << r.output;
  // The worker's own explanation is shown, and it was still ended politely.
  EXPECT_NE(std::string::npos, r.output.find("MMS connect server!! : 2")) << r.output;
  EXPECT_NE(std::string::npos, r.output.find("< PEND OK_")) << r.output;
  EXPECT_FALSE(fileExists(out));
  expectNothingLeft(r.output, out);
}

TEST_F(FetchTest, AnotherControllerKeepsItsSocket) {
  controller::ControllerListener other;
  ASSERT_TRUE(other.listen(SOCKET_PATH)) << other.error();
  const std::string out = dir_.file("none.asf");
  interop::RunResult r = fetch({serve(Transport::MMSH), "-o", out});
  EXPECT_EQ(CONTROLLER_TAKEN, r.exitCode) << r.output;
  EXPECT_NE(std::string::npos, r.output.find("another controller")) << r.output;
  // The other controller's socket is left alone.
  EXPECT_TRUE(socketFileExists());
  EXPECT_FALSE(fileExists(out));
  EXPECT_FALSE(fileExists(out + ".partial"));
}

TEST_F(FetchTest, MissingOrUnrunnableWorker) {
  const std::string url = serve(Transport::MMST);
  const std::string out = dir_.file("none.asf");
  interop::RunResult missing = fetch({url, "-o", out, "--worker", dir_.file("no-such-worker")});
  EXPECT_EQ(NO_WORKER, missing.exitCode) << missing.output;
  EXPECT_NE(std::string::npos, missing.output.find("no-such-worker")) << missing.output;

  const std::string plain = dir_.file("not-executable");
  ASSERT_TRUE(interop::writeFile(plain, "#!/bin/sh\n"));
  interop::RunResult unrunnable = fetch({url, "-o", out, "--worker", plain});
  EXPECT_EQ(NO_WORKER, unrunnable.exitCode) << unrunnable.output;
  EXPECT_NE(std::string::npos, unrunnable.output.find("not executable")) << unrunnable.output;
  EXPECT_FALSE(fileExists(out));
  expectNothingLeft(unrunnable.output, out);
}

TEST_F(FetchTest, WorkerThatEndsBeforeConnectingIsReportedWithItsWords) {
  if (!controller::launcherFromEnvironment().empty()) {
    GTEST_SKIP() << "the launcher runs ARM binaries, not this shell script";
  }
  const std::string fake = dir_.file("fake-worker");
  ASSERT_TRUE(interop::writeFile(fake, "#!/bin/sh\necho 'fake worker: out of luck' >&2\nexit 3\n"));
  ASSERT_EQ(0, chmod(fake.c_str(), 0755));
  const std::string out = dir_.file("none.asf");
  interop::RunResult r = fetch({serve(Transport::MMST), "-o", out, "--worker", fake});
  EXPECT_EQ(WORKER_ENDED, r.exitCode) << r.output;
  EXPECT_NE(std::string::npos, r.output.find("fake worker: out of luck")) << r.output;
  EXPECT_NE(std::string::npos, r.output.find("exit 3")) << r.output;
  EXPECT_FALSE(fileExists(out));
  expectNothingLeft(r.output, out);
}

TEST_F(FetchTest, WorkerKilledMidFetch) {
  Faults faults;
  faults.stallAfter = 100000;   // some data, then silence: the fetch is mid-way
  const std::string url = serve(Transport::MMST, faults);
  const std::string out = dir_.file("cut.asf");
  interop::Child tool(command({url, "-o", out, "-v"}));
  ASSERT_TRUE(tool.waitForOutput("< READ OK_", 20000)) << tool.output();
  const pid_t worker = workerPid(tool.output());
  ASSERT_GT(worker, 0) << tool.output();
  ASSERT_EQ(0, kill(worker, SIGKILL));
  ASSERT_TRUE(tool.wait(20000)) << tool.output();
  EXPECT_EQ(WORKER_ENDED, tool.exitCode()) << tool.output();
  EXPECT_NE(std::string::npos, tool.output().find("the worker ended early (signal 9)"))
      << tool.output();
  EXPECT_NE(std::string::npos, tool.output().find("removed the partial output")) << tool.output();
  EXPECT_FALSE(fileExists(out));
  expectNothingLeft(tool.output(), out);
}

TEST_F(FetchTest, StalledStreamTripsTheReplyTimeout) {
  Faults faults;
  faults.stallAfter = 100000;
  const std::string url = serve(Transport::MMST, faults);
  const std::string out = dir_.file("stalled.asf");
  const auto start = Clock::now();
  interop::RunResult r = fetch({url, "-o", out, "-v", "--reply-timeout", "2"});
  const auto took = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - start);
  EXPECT_EQ(TIMED_OUT, r.exitCode) << r.output;
  EXPECT_NE(std::string::npos, r.output.find("no reply to READ within 2 s")) << r.output;
  // Well before the worker's own 7-second wait for the server gives up.
  EXPECT_LT(took.count(), 7);
  EXPECT_FALSE(fileExists(out));
  expectNothingLeft(r.output, out);
}

// A slow stream whose replies keep coming must not trip the reply time-out,
// however long the whole fetch takes.
TEST_F(FetchTest, SlowButMovingStreamIsNotATimeOut) {
  Faults faults;
  faults.dripIntervalMs = 1;   // a 3200-byte packet takes over 3 s
  const std::string url = serve(Transport::MMST, faults);
  const std::string out = dir_.file("slow.asf");
  const auto start = Clock::now();
  // Three packets: longer in all than the reply time-out, never between replies.
  interop::RunResult r = fetch({url, "-o", out, "--max-bytes", "7000", "--count", "400",
                                "--window", "2", "--reply-timeout", "6"});
  const auto took = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - start);
  ASSERT_EQ(FETCHED, r.exitCode) << r.output;
  EXPECT_GT(took.count(), 6);
  EXPECT_EQ(7000u, interop::readFile(out).size());
  expectNothingLeft(r.output, out);
}

TEST_F(FetchTest, SigintMidFetchEndsEverything) {
  Faults faults;
  faults.dripIntervalMs = 1;   // a READ of 65511 bytes would take over a minute
  const std::string url = serve(Transport::MMSH, faults);
  const std::string out = dir_.file("dripping.asf");
  interop::Child tool(command({url, "-o", out, "-v"}));
  ASSERT_TRUE(tool.waitForOutput("> READ", 60000)) << tool.output();
  const auto start = Clock::now();
  tool.signal(SIGINT);
  ASSERT_TRUE(tool.wait(15000)) << tool.output();
  EXPECT_LT(std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - start).count(), 10);
  EXPECT_EQ(INTERRUPTED, tool.exitCode()) << tool.output();
  EXPECT_NE(std::string::npos, tool.output().find("interrupted by SIGINT")) << tool.output();
  EXPECT_FALSE(fileExists(out));
  expectNothingLeft(tool.output(), out);
}

TEST_F(FetchTest, SigtermKeepsThePartialOutputWhenAsked) {
  // The bytes to compare with come from a server that does not drip.
  const std::string expected = reference(serve(Transport::MMST));
  Faults faults;
  faults.dripIntervalMs = 1;
  const std::string url = serve(Transport::MMST, faults);
  const std::string out = dir_.file("kept.asf");
  interop::Child tool(command({url, "-o", out, "-v", "--count", "200", "--keep-partial"}));
  ASSERT_TRUE(tool.waitForOutput("< READ OK_ 00000200", 30000)) << tool.output();
  tool.signal(SIGTERM);
  ASSERT_TRUE(tool.wait(15000)) << tool.output();
  EXPECT_EQ(INTERRUPTED, tool.exitCode()) << tool.output();
  EXPECT_NE(std::string::npos, tool.output().find("kept the partial output")) << tool.output();
  EXPECT_FALSE(fileExists(out));
  const std::string partial = interop::readFile(out + ".partial");
  EXPECT_GE(partial.size(), 200u);
  EXPECT_EQ(expected.substr(0, partial.size()), partial);
  unlink((out + ".partial").c_str());
  expectNothingLeft(tool.output(), out);
}

TEST(FetchLimits, LargestReadCountFillsOneFrame) {
  // The reply to READ 65511 is exactly the largest body a frame carries.
  EXPECT_EQ(65511, controller::maxReadCount());
}

}  // namespace
