// halvarine-fetch end to end: the real tool, the worker it starts, the test
// servers, libmms as the judge of the bytes and ffprobe as the judge of
// recordings. Every run must leave nothing: no worker, no socket file, no
// partial output unless asked for.

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <iterator>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/support.h"

using support::fileExists;
using support::RunResult;

namespace {

// The tool's exit statuses, as its --help lists them.
const int FETCHED = 0, PARTIAL = 18, TIMED_OUT = 28, CONTROLLER_TAKEN = 120, WORKER_FAILED = 122;

bool has(const std::string& output, const std::string& text) {
  return output.find(text) != std::string::npos;
}

// The worker's pid as --verbose announces it; 0 when absent.
pid_t workerPid(const std::string& output) {
  const size_t at = output.find("(pid ");
  return at == std::string::npos ? 0 : static_cast<pid_t>(atol(output.c_str() + at + 5));
}

template <typename Row>
std::string rowName(const ::testing::TestParamInfo<Row>& info) {
  return info.param.name;
}

class FetchTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(support::controllerPathFree(120)) << "another controller holds the socket";
    for (const char* name : {"http_proxy", "HTTP_PROXY", "no_proxy", "NO_PROXY"}) unsetenv(name);
  }

  MmsTestServer& serve(Transport transport, const Faults& faults = Faults(),
                       ServerOptions options = ServerOptions(),
                       const AsfFile& file = support::sampleAsf()) {
    options.transport = transport;
    options.faults = faults;
    servers.emplace_back(new MmsTestServer(file, options));
    std::string error;
    EXPECT_TRUE(servers.back()->start(error)) << error;
    return *servers.back();
  }

  // No worker, no socket file, no output file (unless `kept`), no partial.
  void expectNothingLeft(const std::string& output, bool kept = false) {
    support::expectNothingLeft(workerPid(output));
    EXPECT_FALSE(fileExists(out + ".partial")) << output;
    EXPECT_TRUE(kept || !fileExists(out)) << output;
  }

  // ffprobe reads the recording without a complaint; its header announces
  // its size and the whole data packets after it, which libmms reads back
  // when a server serves the file.
  void expectPlayable(const std::string& path) {
    const RunResult probe = support::run({"ffprobe", "-v", "error", path}, 30000);
    EXPECT_TRUE(probe.exitCode == 0 && probe.output.empty()) << probe.output;
    AsfFile rec;
    std::string error, replayed;
    ASSERT_TRUE(loadAsfFile(path, rec, error)) << error;
    EXPECT_EQ(support::readFile(path).size(), rec.fileSize);
    EXPECT_GE(rec.packets.size(), 2u);
    ASSERT_TRUE(support::libmmsStream(serve(Transport::MMST, {}, {}, rec).url(), replayed));
    EXPECT_EQ(-1, support::firstDifference(support::readFile(path), replayed));
  }

  std::vector<std::unique_ptr<MmsTestServer>> servers;
  support::TempDir dir;
  const std::string out = dir.file("out.asf");
};

// ---- Whole streams, and streams cut short: resumed where they stopped, or
// a failure

struct StreamRow {
  const char* name;
  Transport transport;
  Faults faults;
  int64_t declaredPackets;
  std::vector<std::string> args;
  int status;
  bool whole;  // the output is the whole stream as libmms reads it
};

Faults resetAfter(int64_t bytes, int firstConnections) {
  Faults f;
  f.resetAfter = bytes;
  f.firstConnections = firstConnections;
  return f;
}

class Stream : public FetchTest, public ::testing::WithParamInterface<StreamRow> {};

TEST_P(Stream, EndsWithWhatLibmmsGivesOrFails) {
  const StreamRow& row = GetParam();
  ServerOptions options;
  options.declaredPackets = row.declaredPackets;
  const std::string url = serve(row.transport, row.faults, options).url();
  std::string expected;
  ASSERT_TRUE(support::libmmsStream(serve(row.transport, Faults(), options).url(), expected));
  std::vector<std::string> args = {support::fetchToolPath(), url,  "-o", out, "-v", "--retry", "2",
                                   "--retry-delay",          "0.1"};
  args.insert(args.end(), row.args.begin(), row.args.end());
  const RunResult r = support::run(args, 60000);
  EXPECT_EQ(row.status, r.exitCode) << r.output;
  EXPECT_EQ(row.whole, support::firstDifference(expected, support::readFile(out)) == -1);
  EXPECT_EQ(row.status == PARTIAL, has(r.output, "halvarine-fetch: the stream ended")) << r.output;
  expectNothingLeft(r.output, row.whole);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, Stream,
    ::testing::Values(
        StreamRow{"Mmst", Transport::MMST, Faults(), -1, {}, FETCHED, true},
        StreamRow{"MmshWindow1", Transport::MMSH, Faults(), -1, {"--window", "1"}, FETCHED, true},
        StreamRow{"MmstResetOnce", Transport::MMST, resetAfter(100000, 1), -1, {}, FETCHED, true},
        // An MMSH open takes two connections: describe, then play.
        StreamRow{"MmshResetOnce", Transport::MMSH, resetAfter(100000, 2), -1, {}, FETCHED, true},
        StreamRow{"ResetEveryTime", Transport::MMST, resetAfter(100000, 0), -1, {}, PARTIAL, false},
        StreamRow{"AnnouncesMore", Transport::MMSH, Faults(), 80, {}, PARTIAL, false},
        StreamRow{"GoesOnPastItsLength", Transport::MMST, Faults(), 40, {}, FETCHED, true}),
    rowName<StreamRow>);

// While nobody reads the tool's output, the worker gets CCHECKs instead of
// the silence that would end it.
TEST_F(FetchTest, KeepAliveWhileTheOutputIsBlocked) {
  const std::string url = serve(Transport::MMST).url();
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

// ---- Stops the user asks for keep a playable recording

struct StopRow {
  const char* name;
  std::vector<std::string> args;
  int signal;  // sent once data flows; 0: none
  int status;
};

class Stop : public FetchTest, public ::testing::WithParamInterface<StopRow> {};

TEST_P(Stop, KeepsWholePacketsUnderTheFinalName) {
  ServerOptions live;
  live.live = true;
  live.rate = 40000;
  std::vector<std::string> args = {support::fetchToolPath(),
                                   serve(Transport::MMSH, Faults(), live).url(), "-o", out, "-v"};
  args.insert(args.end(), GetParam().args.begin(), GetParam().args.end());
  support::Child tool(args);
  if (GetParam().signal != 0) {
    // A broadcast's READs ask for four packets once the header is in.
    ASSERT_TRUE(tool.waitForOutput("[12800 data bytes]", 20000)) << tool.output();
    tool.signal(GetParam().signal);
  }
  ASSERT_TRUE(tool.wait(20000)) << tool.output();
  EXPECT_EQ(GetParam().status, tool.exitCode()) << tool.output();
  expectPlayable(out);
  expectNothingLeft(tool.output(), true);
}

INSTANTIATE_TEST_SUITE_P(Rows, Stop,
                         ::testing::Values(StopRow{"Duration", {"--duration", "1.5"}, 0, FETCHED},
                                           StopRow{"MaxBytes", {"--max-bytes", "30k"}, 0, FETCHED},
                                           StopRow{"Sigint", {}, SIGINT, 128 + SIGINT},
                                           StopRow{"Sigterm", {}, SIGTERM, 128 + SIGTERM},
                                           StopRow{"Sighup", {}, SIGHUP, 128 + SIGHUP}),
                         rowName<StopRow>);

// ---- The status line on a terminal, from the first moment

TEST_F(FetchTest, StatusLineFitsTheTerminal) {
  Faults faults;
  faults.dripIntervalMs = 1;  // the open alone takes seconds
  const std::string url = serve(Transport::MMSH, faults).url();
  // script gives the tool a terminal without a size: COLUMNS says it.
  const RunResult r = support::run(
      {"env", "COLUMNS=40", "script", "-qec",
       support::fetchToolPath() + " " + url + " -o " + out + " --duration 3 --count 400",
       "/dev/null"},
      60000);
  ASSERT_EQ(FETCHED, r.exitCode) << r.output;
  const std::string& screen = r.output;
  for (size_t at = screen.find("\r\x1b[K"); at != std::string::npos;
       at = screen.find("\r\x1b[K", at + 1)) {
    const std::string update = screen.substr(at + 4, screen.find_first_of("\r\n", at + 1) - at - 4);
    // Messages clear the line too, and take as many lines as they need.
    EXPECT_TRUE(has(update, "halvarine-fetch:") || update.size() < 40) << update;
  }
  size_t at = 0;
  for (const char* shown : {"\r\x1b[Kstarting the worker",
                            "\r\x1b[Kconnecting to 127.0.0.1:", "... 2 s", " of 216.3 KiB "}) {
    at = screen.find(shown, at);
    ASSERT_NE(std::string::npos, at) << shown << "\n" << screen;
  }
  expectNothingLeft(r.output, true);
}

// ---- Failures, each with its own exit status

// Words with {T}, {H}, {S}: an MMST, an MMSH and a stalled MMST server's
// port; {R} a refusing port; {BAD} an unresolvable name; {DIR} a directory.
struct FailureRow {
  const char* name;
  const char* env;
  const char* args;
  int status;
  const char* says;
  bool startsWorker;
};

class Failure : public FetchTest, public ::testing::WithParamInterface<FailureRow> {};

TEST_P(Failure, HasItsStatusAndSaysWhy) {
  halvarine::ControllerListener other;  // a controller that accepts nothing
  ASSERT_TRUE(GetParam().status != CONTROLLER_TAKEN || other.listen()) << other.error();
  Faults stall;
  stall.stallAfter = 100000;
  support::RefusingPort refusing;
  const std::map<std::string, std::string> values = {
      {"{T}", std::to_string(serve(Transport::MMST).port())},
      {"{H}", std::to_string(serve(Transport::MMSH).port())},
      {"{S}", std::to_string(serve(Transport::MMST, stall).port())},
      {"{R}", std::to_string(refusing.port())},
      {"{BAD}", support::unresolvableHost()},
      {"{DIR}", dir.path()}};
  std::vector<std::string> argv = {"env"};
  auto add = [&](std::string words) {
    for (const auto& v : values) {
      for (size_t at; (at = words.find(v.first)) != std::string::npos;) {
        words.replace(at, v.first.size(), v.second);
      }
    }
    std::istringstream in(words);
    argv.insert(argv.end(), std::istream_iterator<std::string>(in), {});
  };
  add(GetParam().env);
  add(support::fetchToolPath() + " -v -o " + out + " " + GetParam().args);
  const RunResult r = support::run(argv, 60000);
  EXPECT_EQ(GetParam().status, r.exitCode) << r.output;
  EXPECT_TRUE(has(r.output, GetParam().says)) << r.output;
  EXPECT_EQ(GetParam().startsWorker, has(r.output, "started worker")) << r.output;
  other.close();
  expectNothingLeft(r.output, GetParam().status == FETCHED);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, Failure,
    ::testing::Values(
        FailureRow{"Scheme", "", "ftp://127.0.0.1/x", 1, "unsupported scheme ftp://", false},
        FailureRow{"Ipv6", "", "mms://[::1]:{T}/x", 1, "IPv4 only", false},
        FailureRow{"Port", "", "mms://127.0.0.1:70000/x", 3, "not from 1 to 65535", false},
        FailureRow{"Host", "", "mms://{BAD}/x", 6, "cannot resolve host", true},
        FailureRow{"Proxy", "", "http://{BAD}:1/mms://127.0.0.1/x", 5, "the proxy's host", true},
        FailureRow{"Refused", "", "mms://127.0.0.1:{R}/x", 7, "connection refused", true},
        FailureRow{"NotMms", "", "mmsh://127.0.0.1:{T}/x", 8, "not an MMS server", true},
        FailureRow{"EnvProxy", "http_proxy=127.0.0.1:{H}", "mms://{BAD}/x", 0, "fetched", true},
        FailureRow{"NoProxy", "http_proxy=127.0.0.1:{H} no_proxy=invalid", "mms://{BAD}/x", 6,
                   "cannot resolve host", true},
        FailureRow{"Directory", "", "mms://127.0.0.1:{T}/x -o {DIR}", 23, "directory", false},
        FailureRow{"Taken", "", "mms://127.0.0.1/x", CONTROLLER_TAKEN, "another controller", false},
        FailureRow{"NoWorker", "", "mms://127.0.0.1/x --worker {DIR}/none", 121, "none", false},
        FailureRow{"Stalled", "", "mms://127.0.0.1:{S}/x --reply-timeout 2", TIMED_OUT,
                   "no reply to READ within 2 s", true}),
    rowName<FailureRow>);

TEST_F(FetchTest, WorkerKilledMidFetch) {
  Faults faults;
  faults.stallAfter = 100000;  // some data, then silence
  support::Child tool(
      {support::fetchToolPath(), serve(Transport::MMST, faults).url(), "-o", out, "-v"});
  ASSERT_TRUE(tool.waitForOutput("[65511 data bytes]", 20000)) << tool.output();
  const pid_t worker = workerPid(tool.output());
  ASSERT_GT(worker, 0) << tool.output();
  ASSERT_EQ(0, kill(worker, SIGKILL));
  ASSERT_TRUE(tool.wait(20000)) << tool.output();
  EXPECT_EQ(WORKER_FAILED, tool.exitCode()) << tool.output();
  EXPECT_TRUE(has(tool.output(), "the worker ended early (signal 9)")) << tool.output();
  EXPECT_TRUE(has(tool.output(), "removed the partial output")) << tool.output();
  expectNothingLeft(tool.output());
}

}  // namespace
