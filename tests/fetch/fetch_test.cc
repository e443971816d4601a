// halvarine-fetch end to end: the real tool, the worker it starts, the test
// servers, libmms as the judge of the bytes. Every run must leave nothing:
// no worker, no socket file, no partial output unless asked for.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "tests/support/support.h"

using support::fileExists;
using support::RunResult;

namespace {

// The tool's exit statuses, as its --help documents them.
const int FETCHED = 0;
const int CONTROLLER_TAKEN = 3;
const int NO_WORKER = 4;
const int WORKER_ENDED = 5;
const int CONNECT_ERR = 6;
const int TIMED_OUT = 8;
const int INTERRUPTED = 130;

bool has(const std::string& output, const std::string& text) {
  return output.find(text) != std::string::npos;
}

// The worker's pid as --verbose announces it; 0 when absent.
pid_t workerPid(const std::string& output) {
  const size_t at = output.find("(pid ");
  return at == std::string::npos ? 0 : static_cast<pid_t>(atol(output.c_str() + at + 5));
}

class FetchTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(support::controllerPathFree(120)) << "another controller holds the socket";
  }

  std::string serve(Transport transport, const Faults& faults = Faults()) {
    ServerOptions options;
    options.transport = transport;
    options.faults = faults;
    servers.emplace_back(new MmsTestServer(support::sampleAsf(), options));
    std::string error;
    EXPECT_TRUE(servers.back()->start(error)) << error;
    return servers.back()->url();
  }

  // The tool; a worker named by the environment (a cross-built one) is passed on.
  std::vector<std::string> command(const std::vector<std::string>& args) const {
    std::vector<std::string> argv{support::fetchToolPath()};
    argv.insert(argv.end(), args.begin(), args.end());
    const char* other = getenv("HALVARINE_WORKER");
    if (other != nullptr && *other != '\0' &&
        std::find(args.begin(), args.end(), "--worker") == args.end()) {
      argv.insert(argv.end(), {"--worker", other});
    }
    return argv;
  }

  RunResult fetch(const std::vector<std::string>& args) {
    return support::run(command(args), 60000);
  }

  // No worker, no socket file, no output file (unless `kept`), no partial.
  void expectNothingLeft(const std::string& output, bool kept = false) {
    support::expectNothingLeft(workerPid(output));
    EXPECT_FALSE(fileExists(out + ".partial")) << output;
    EXPECT_TRUE(kept || !fileExists(out)) << output;
  }

  std::vector<std::unique_ptr<MmsTestServer>> servers;
  support::TempDir dir;
  const std::string out = dir.file("out.asf");
};

// ---- Whole streams, window 1 and 4

class WholeFetch : public FetchTest,
                   public ::testing::WithParamInterface<std::pair<Transport, int>> {};

TEST_P(WholeFetch, GivesLibmmsBytesAndEndsCleanly) {
  const std::string url = serve(GetParam().first);
  std::string expected;
  ASSERT_TRUE(support::libmmsStream(url, expected));
  ASSERT_GT(expected.size(), 200000u);
  const RunResult r =
      fetch({url, "-o", out, "--verbose", "--window", std::to_string(GetParam().second)});
  ASSERT_EQ(FETCHED, r.exitCode) << r.output;
  EXPECT_EQ(-1, support::firstDifference(expected, support::readFile(out)));
  // Past the end every READ answers EOF; the worker is ended with PEND.
  for (const char* line : {"< READ EOF", "< PEND OK_", "[Halvarine] application finished !!"}) {
    EXPECT_TRUE(has(r.output, line)) << line << "\n" << r.output;
  }
  expectNothingLeft(r.output, true);
}

INSTANTIATE_TEST_SUITE_P(
    Transports, WholeFetch,
    ::testing::Values(std::make_pair(Transport::MMST, 1), std::make_pair(Transport::MMST, 4),
                      std::make_pair(Transport::MMSH, 1), std::make_pair(Transport::MMSH, 4)),
    [](const ::testing::TestParamInfo<std::pair<Transport, int>>& info) {
      return std::string(info.param.first == Transport::MMST ? "Mmst" : "Mmsh") + "Window" +
             std::to_string(info.param.second);
    });

TEST_F(FetchTest, MaxBytesStopsExactlyThereWithReadsInFlight) {
  const std::string url = serve(Transport::MMSH);
  std::string expected;
  ASSERT_TRUE(support::libmmsStream(url, expected));
  const RunResult r =
      fetch({url, "-o", out, "--max-bytes", "100000", "--count", "30000", "--window", "4", "-v"});
  ASSERT_EQ(FETCHED, r.exitCode) << r.output;
  EXPECT_EQ(expected.substr(0, 100000), support::readFile(out));
  // 30000 three times and the 10000 left: no READ asks beyond the limit.
  EXPECT_EQ(4u, support::occurrences(r.output, "> READ ")) << r.output;
  EXPECT_TRUE(has(r.output, "> READ 00010000")) << r.output;
  expectNothingLeft(r.output, true);
}

// While nobody reads the tool's output, the worker gets CCHECKs instead of
// the silence that would end it.
TEST_F(FetchTest, KeepAliveWhileTheOutputIsBlocked) {
  const std::string url = serve(Transport::MMST);
  std::string expected;
  ASSERT_TRUE(support::libmmsStream(url, expected));
  const std::string err = dir.file("err.txt");
  const RunResult r = support::run(
      {"bash", "-c",
       "set -o pipefail; \"$0\" \"$1\" -v --keep-alive 1 2>\"$2\" | (sleep 4; cat >\"$3\")",
       support::fetchToolPath(), url, err, out},
      60000);
  const std::string log = support::readFile(err);
  ASSERT_EQ(FETCHED, r.exitCode) << r.output << log;
  EXPECT_TRUE(has(log, "< CCHECK OK_")) << log;
  EXPECT_EQ(-1, support::firstDifference(expected, support::readFile(out)));
  expectNothingLeft(log, true);
}

// ---- The progress line on a terminal: the tool's standard error on a
// pseudo-terminal, a dripping server so the transfer takes seconds.

TEST_F(FetchTest, ProgressLineOnATerminalAndASlowStreamIsNoTimeOut) {
  Faults faults;
  faults.dripIntervalMs = 1;  // a 3200-byte packet takes over 3 s
  const std::string url = serve(Transport::MMST, faults);
  int master = -1, slave = -1;
  ASSERT_EQ(0, openpty(&master, &slave, nullptr, nullptr, nullptr));
  const halvarine::UniqueFd masterFd(master), slaveFd(slave);
  fcntl(master, F_SETFD, FD_CLOEXEC);
  fcntl(slave, F_SETFD, FD_CLOEXEC);
  const auto start = support::Clock::now();
  // Longer in all than the reply time-out, never between two replies.
  support::Child tool(command({url, "-o", out, "--max-bytes", "7000", "--count", "400", "--window",
                               "2", "--reply-timeout", "6"}),
                      slave);
  std::string screen;
  char buf[4096];
  while (support::secondsSince(start) < 60) {
    pollfd p{master, POLLIN, 0};
    if (poll(&p, 1, 200) > 0) {
      const ssize_t n = read(master, buf, sizeof buf);
      if (n > 0) screen.append(buf, static_cast<size_t>(n));
    }
    if (!tool.running()) break;
  }
  for (pollfd p{master, POLLIN, 0}; poll(&p, 1, 100) > 0;) {
    const ssize_t n = read(master, buf, sizeof buf);
    if (n <= 0) break;
    screen.append(buf, static_cast<size_t>(n));
  }
  ASSERT_TRUE(tool.wait(1000));
  ASSERT_EQ(FETCHED, tool.exitCode()) << screen << tool.output();
  EXPECT_GT(support::secondsSince(start), 6.0);
  EXPECT_EQ(7000u, support::readFile(out).size());

  // Each update clears the line; one shows bytes of the length, the
  // percentage, the rate and the time left.
  const std::regex line(
      "\r\x1b\\[K[0-9.]+ (B|KiB|MiB) of [0-9.]+ (B|KiB|MiB) +[0-9]+%  [0-9.]+ (B|KiB|MiB)/s"
      "(  [0-9]+:[0-9]{2}(:[0-9]{2})? left)?");
  size_t updates = 0, withTimeLeft = 0;
  for (size_t at = screen.find("\r\x1b[K"); at != std::string::npos;
       at = screen.find("\r\x1b[K", at + 1)) {
    const size_t end = std::min(screen.find_first_of("\r\n", at + 1), screen.size());
    const std::string update = screen.substr(at, end - at);
    if (update.size() == 4 || has(update, "halvarine-fetch:")) continue;  // cleared for a message
    ++updates;
    EXPECT_TRUE(std::regex_match(update, line)) << halvarine::hex(update);
    withTimeLeft += has(update, " left");
  }
  EXPECT_GE(updates, 2u) << screen;
  EXPECT_GE(withTimeLeft, 1u) << screen;
  expectNothingLeft(tool.output(), true);
}

// ---- Failures, each with its own exit status

TEST_F(FetchTest, RefusedPortIsConnectErr) {
  support::RefusingPort refusing;
  const RunResult r =
      fetch({"mms://127.0.0.1:" + std::to_string(refusing.port()) + "/x", "-o", out, "-v"});
  EXPECT_EQ(CONNECT_ERR, r.exitCode) << r.output;
  // The worker's own words are shown, and it was still ended politely.
  for (const char* text : {"CONNECT answered ERR", "MMS connect server!! : 2", "< PEND OK_"}) {
    EXPECT_TRUE(has(r.output, text)) << text << "\n" << r.output;
  }
  expectNothingLeft(r.output);
}

TEST_F(FetchTest, AnotherControllerKeepsItsSocket) {
  halvarine::ControllerListener other;
  ASSERT_TRUE(other.listen()) << other.error();
  const RunResult r = fetch({serve(Transport::MMSH), "-o", out});
  EXPECT_EQ(CONTROLLER_TAKEN, r.exitCode) << r.output;
  EXPECT_TRUE(has(r.output, "another controller")) << r.output;
  EXPECT_TRUE(fileExists(halvarine::CONTROLLER_SOCKET_PATH));
  EXPECT_FALSE(fileExists(out));
  EXPECT_FALSE(fileExists(out + ".partial"));
}

TEST_F(FetchTest, MissingOrUnrunnableWorker) {
  const std::string url = serve(Transport::MMST);
  const RunResult missing = fetch({url, "-o", out, "--worker", dir.file("no-such-worker")});
  EXPECT_EQ(NO_WORKER, missing.exitCode) << missing.output;
  EXPECT_TRUE(has(missing.output, "no-such-worker")) << missing.output;
  const std::string plain = dir.file("not-executable");
  ASSERT_TRUE(support::writeFile(plain, "#!/bin/sh\n"));
  const RunResult unrunnable = fetch({url, "-o", out, "--worker", plain});
  EXPECT_EQ(NO_WORKER, unrunnable.exitCode) << unrunnable.output;
  EXPECT_TRUE(has(unrunnable.output, "not executable")) << unrunnable.output;
  expectNothingLeft(unrunnable.output);
}

TEST_F(FetchTest, WorkerKilledMidFetch) {
  Faults faults;
  faults.stallAfter = 100000;  // some data, then silence
  support::Child tool(command({serve(Transport::MMST, faults), "-o", out, "-v"}));
  ASSERT_TRUE(tool.waitForOutput("< READ OK_", 20000)) << tool.output();
  const pid_t worker = workerPid(tool.output());
  ASSERT_GT(worker, 0) << tool.output();
  ASSERT_EQ(0, kill(worker, SIGKILL));
  ASSERT_TRUE(tool.wait(20000)) << tool.output();
  EXPECT_EQ(WORKER_ENDED, tool.exitCode()) << tool.output();
  EXPECT_TRUE(has(tool.output(), "the worker ended early (signal 9)")) << tool.output();
  EXPECT_TRUE(has(tool.output(), "removed the partial output")) << tool.output();
  expectNothingLeft(tool.output());
}

TEST_F(FetchTest, StalledStreamTripsTheReplyTimeout) {
  Faults faults;
  faults.stallAfter = 100000;
  const auto start = support::Clock::now();
  const RunResult r =
      fetch({serve(Transport::MMST, faults), "-o", out, "-v", "--reply-timeout", "2"});
  EXPECT_EQ(TIMED_OUT, r.exitCode) << r.output;
  EXPECT_TRUE(has(r.output, "no reply to READ within 2 s")) << r.output;
  EXPECT_LT(support::secondsSince(start), 7.0) << "before the worker's own 7-second wait";
  expectNothingLeft(r.output);
}

TEST_F(FetchTest, SigintMidFetchEndsEverything) {
  Faults faults;
  faults.dripIntervalMs = 1;  // a READ of 65511 bytes would take over a minute
  support::Child tool(command({serve(Transport::MMSH, faults), "-o", out, "-v"}));
  ASSERT_TRUE(tool.waitForOutput("> READ", 60000)) << tool.output();
  const auto start = support::Clock::now();
  tool.signal(SIGINT);
  ASSERT_TRUE(tool.wait(15000)) << tool.output();
  EXPECT_LT(support::secondsSince(start), 10.0);
  EXPECT_EQ(INTERRUPTED, tool.exitCode()) << tool.output();
  EXPECT_TRUE(has(tool.output(), "interrupted by SIGINT")) << tool.output();
  expectNothingLeft(tool.output());
}

}  // namespace
