// halvarine-fetch end to end, one run per row of runs.tsv: the real tool,
// the worker it starts and a test server, with libmms as the judge of whole
// streams, and ffprobe and ffmpeg's decoding as the judges of recordings.
// Whatever ends a run, it leaves no worker, no socket file or private
// directory behind, and a partial output only where the row says so.

#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/support.h"
#include "tools/asf/asf_file.h"

namespace {

struct Row {
  std::string name, server, command, waitFor, signal;
  std::string status;  // an exit status, or the signal that ends the tool
  std::string output;
  std::vector<std::string> says;
};

std::vector<Row> runs() {
  std::vector<Row> rows;
  for (std::vector<std::string> c : support::tableRows(HALVARINE_FETCH_RUNS)) {
    for (std::string& cell : c) cell = cell == "-" ? "" : cell;
    const std::string output = c.at(6);  // a row short of a column stops the program here
    rows.push_back({c[0], c[1], c[2], c[3], c[4], c[5], output, {c.begin() + 7, c.end()}});
  }
  return rows;
}

bool has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// The worker's pid as --verbose announces it; 0 when absent.
pid_t workerPid(const std::string& output) {
  const size_t at = output.find("(pid ");
  return at == std::string::npos ? 0 : static_cast<pid_t>(atol(output.c_str() + at + 5));
}

const std::map<std::string, int> SIGNALS = {
    {"HUP", SIGHUP}, {"INT", SIGINT}, {"TERM", SIGTERM}, {"KILL", SIGKILL}};

// How long a recording plays, in seconds, by its header as ffprobe reads
// it and by decoding every packet (ffmpeg's last "time="); -1 when the
// program fails.
double probedSeconds(const std::string& path) {
  const halvarine::ProgramRun run = halvarine::runProgram(
      {"ffprobe", "-v", "error", "-show_entries", "format=duration", "-of", "csv=p=0", path},
      30000);
  return run.succeeded() ? atof(run.output.c_str()) : -1;
}

double decodedSeconds(const std::string& path) {
  const halvarine::ProgramRun run = halvarine::runProgram(
      {"ffmpeg", "-nostdin", "-hide_banner", "-i", path, "-f", "null", "-"}, 30000);
  const size_t at = run.output.rfind("time=");
  int h = 0, m = 0;
  double sec = 0;
  if (!run.succeeded() || at == std::string::npos ||
      sscanf(run.output.c_str() + at, "time=%d:%d:%lf", &h, &m, &sec) != 3) {
    return -1;
  }
  return h * 3600 + m * 60 + sec;
}

// A recording cut short stands on its own: ffprobe reads it cleanly; it
// ends after a whole data packet, with a header that announces its size and
// packets, no broadcast, and a length that decoding it confirms.
void expectFinishedRecording(const std::string& path) {
  const halvarine::ProgramRun probe =
      halvarine::runProgram({"ffprobe", "-v", "error", path}, 30000);
  EXPECT_TRUE(probe.succeeded() && probe.output.empty()) << probe.output;
  const std::string written = support::readFile(path);
  AsfFile rec;
  std::string error;
  ASSERT_TRUE(parseAsf(written, rec, error)) << error;
  EXPECT_GE(rec.packets.size(), 2u);
  EXPECT_EQ(written.size(), rec.fileSize);
  EXPECT_EQ(written.size(), rec.header.size() + rec.packets.size() * rec.packetSize);
  EXPECT_FALSE(rec.broadcast);
  const double probed = probedSeconds(path), decoded = decodedSeconds(path);
  EXPECT_GT(decoded, 0.2) << path;
  EXPECT_NEAR(decoded, probed, 0.5) << "ffprobe says " << probed << " s, decoding " << decoded;
}

class Fetch : public ::testing::TestWithParam<Row> {};

TEST_P(Fetch, EndsAsItsRowSays) {
  const Row& row = GetParam();
  // A row that makes a mount namespace of its own (a /dev of its own, a
  // small file system) needs root.
  if (row.command.compare(0, 7, "unshare") == 0 && geteuid() != 0) {
    GTEST_SKIP() << "needs root for unshare --mount";
  }
  for (const char* name : {"http_proxy", "HTTP_PROXY", "no_proxy", "NO_PROXY"}) unsetenv(name);
  support::TempDir dir;
  const std::string out = dir.file("out.asf");
  // Where the tool makes its private socket's directory: empty again after.
  const std::string runtime = dir.file("run");
  ASSERT_EQ(0, mkdir(runtime.c_str(), 0700));
  setenv("XDG_RUNTIME_DIR", runtime.c_str(), 1);
  support::RefusingPort refusing;
  const std::string namespaced = "bash " HALVARINE_FETCH_NAMESPACE " ";
  std::map<std::string, std::string> values = {{"{tool}", HALVARINE_FETCH},
                                               {"{allow}", namespaced + "allow"},
                                               {"{forbid}", namespaced + "forbid"},
                                               {"{out}", out},
                                               {"{dir}", dir.path()},
                                               {"{refused}", std::to_string(refusing.port())},
                                               {"{bad}", support::UNRESOLVABLE_HOST},
                                               {"{sample}", HALVARINE_SAMPLE_ASF}};
  std::unique_ptr<support::Child> server;
  if (!row.server.empty()) {
    server.reset(new support::Child({"bash", "-c", "exec $0 " + row.server, HALVARINE_MMS_SERVER}));
    ASSERT_TRUE(server->waitForOutput("\n", 10000)) << server->output();
    const std::string url = server->output().substr(0, server->output().find('\n'));
    values["{url}"] = url;
    values["{host}"] = url.substr(url.find("://") + 3, url.rfind('/') - url.find("://") - 3);
  }
  std::unique_ptr<support::Child> proxy;
  if (has(row.command, "{proxy}")) {
    if (halvarine::findOnPath("tinyproxy").empty()) GTEST_SKIP() << "no tinyproxy";
    uint16_t port = 0;
    proxy = support::startTinyproxy(dir, port);
    ASSERT_NE(nullptr, proxy) << "tinyproxy did not come up";
    values["{proxy}"] = "127.0.0.1:" + std::to_string(port);
  }
  auto fill = [&](std::string text) {
    for (const auto& v : values) {
      for (size_t at; (at = text.find(v.first)) != std::string::npos;) {
        text.replace(at, v.first.size(), v.second);
      }
    }
    return text;
  };

  if (has(row.name, "AtOnce") && !support::privateTmpRefused().empty()) {
    GTEST_SKIP() << "no private sockets here: " << support::privateTmpRefused();
  }
  support::Child tool({"bash", "-c", fill(row.command)});
  if (!row.waitFor.empty()) {
    ASSERT_TRUE(tool.waitForOutput(row.waitFor, 20000)) << tool.output();
    const int sig = SIGNALS.at(row.signal.substr(row.signal.find(' ') + 1));
    const pid_t target = has(row.signal, "worker") ? workerPid(tool.output()) : tool.pid();
    // "group": the command's process group, as Ctrl-C on a terminal does.
    ASSERT_TRUE(target > 0 && kill(has(row.signal, "group") ? -target : target, sig) == 0)
        << tool.output();
  }
  halvarine::ExitStatus ended;
  ASSERT_TRUE(tool.waitExit(60000, ended)) << tool.output();
  const std::string& said = tool.output();
  if (ended.exited && ended.code == 125 &&
      has(row.command, "{allow}") + has(row.command, "{forbid}")) {
    GTEST_SKIP() << "no user namespace of the test's own here: " << said;
  }
  if (row.status.compare(0, 3, "SIG") == 0) {
    // Ended by the signal itself, as a shell running it in a loop must see.
    EXPECT_TRUE(ended.signaled && ended.signal == SIGNALS.at(row.status.substr(3)))
        << ended.toString() << "\n"
        << said;
  } else {
    EXPECT_EQ(row.status, ended.exited ? std::to_string(ended.code) : ended.toString()) << said;
  }
  size_t at = 0;
  for (const std::string& says : row.says) {
    if (says[0] == '!') {
      EXPECT_FALSE(has(said, fill(says.substr(1)))) << says << "\n" << said;
    } else if ((at = said.find(fill(says), at)) == std::string::npos) {
      ADD_FAILURE() << "does not say " << fill(says) << " (in this order)\n" << said;
      at = 0;
    }
  }
  // A row with a terminal gives it 40 columns: each update of the status
  // line fits them; messages take the lines they need.
  for (at = said.find("\r\x1b[K"); at != std::string::npos; at = said.find("\r\x1b[K", at + 1)) {
    const std::string update = said.substr(at + 4, said.find_first_of("\r\n", at + 4) - at - 4);
    EXPECT_TRUE(update.size() < 40 || has(update, "halvarine-fetch:")) << update;
  }

  support::expectNothingLeft(workerPid(said));
  EXPECT_TRUE(std::filesystem::is_empty(runtime)) << "a private socket's directory left";
  EXPECT_EQ(row.output == "partial", support::fileExists(out + ".partial")) << said;
  ASSERT_EQ(row.output != "none" && row.output != "partial", support::fileExists(out)) << said;
  const std::string written = support::readFile(out);
  if (row.output == "whole") {
    std::string expected;
    ASSERT_TRUE(LibmmsStream::readAll(values["{url}"], 0, expected));
    EXPECT_EQ(-1, support::firstDifference(expected, written));
  } else if (row.output == "playable") {
    expectFinishedRecording(out);
  } else if (row.output == "partial") {
    expectFinishedRecording(out + ".partial");
  }
}

INSTANTIATE_TEST_SUITE_P(Rows, Fetch, ::testing::ValuesIn(runs()),
                         [](const ::testing::TestParamInfo<Row>& row) { return row.param.name; });

}  // namespace
