// halvarine-fetch and what servers say, against the real worker and the
// test servers: a stream the server announces as live is recorded on from
// the new connection's first packet, never resumed by skipping; through a
// real proxy (tinyproxy) the server's HTTP error and the proxy's own are
// told apart. --continue is run end to end (runs.tsv).

#include <gtest/gtest.h>
#include <halvarine/controller.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/support/support.h"
#include "tools/asf/asf_file.h"
#include "tools/mmsserver/server.h"

namespace {

struct Ran {
  int status = -1;
  std::string said;
};

Ran runFetch(const std::vector<std::string>& args) {
  std::vector<std::string> argv = {HALVARINE_FETCH};
  argv.insert(argv.end(), args.begin(), args.end());
  support::Child tool(argv);
  Ran ran;
  halvarine::ExitStatus st;
  EXPECT_TRUE(tool.waitExit(60000, st)) << "still running after 60 s:\n" << tool.output();
  ran.status = st.exited ? st.code : -1;
  ran.said = tool.output();
  return ran;
}

bool says(const Ran& ran, const std::string& text) {
  return ran.said.find(text) != std::string::npos;
}

class ServerAnswers : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(support::controllerPathFree(120)) << "another controller holds the socket";
    for (const char* name : {"http_proxy", "HTTP_PROXY", "no_proxy", "NO_PROXY"}) unsetenv(name);
  }
  support::TempDir dir;
  const std::string out = dir.file("out.asf");
};

// A server that says "live" in its protocol (not in the header) and cuts
// the first connection inside the first round of packets. Resuming by
// skipping would take the new connection's packets from where the first
// one stopped: a splice, on a real feed whose new connection starts where
// the broadcast is. The new connection's packets come whole, from its
// first, after the last whole packet of the first connection.
TEST_F(ServerAnswers, AStreamAnnouncedLiveAndCutOnceIsRecordedOnNotSpliced) {
  ServerOptions o;
  o.protocol = StreamProtocol::MMST;
  o.live = true;
  o.rate = 100000;
  o.faults.liveUnmarked = true;
  o.faults.resetAfter = 150000;
  o.faults.firstConnections = 1;
  const auto server = support::startMmsServer(support::sampleAsf(), o);
  ASSERT_FALSE(HasFailure());
  const Ran ran = runFetch({server->url(), "-o", out, "--duration", "3", "--retry-delay", "0.2"});
  EXPECT_EQ(0, ran.status) << ran.said;
  EXPECT_TRUE(says(ran, "announces this stream as live")) << ran.said;
  EXPECT_TRUE(says(ran, "recorded for --duration")) << ran.said;

  AsfFile rec;
  std::string error;
  ASSERT_TRUE(loadAsfFile(out, rec, error)) << error;
  const std::vector<std::string>& source = support::sampleAsf().packets;
  // The second connection begins where the first packet of the first did.
  size_t cut = 0;
  for (size_t i = 1; i < rec.packets.size() && cut == 0; ++i) {
    if (rec.packets[i] == source[0]) cut = i;
  }
  ASSERT_GT(cut, 0u) << "the new connection's first packet is not in the recording";
  ASSERT_LT(cut, source.size());
  for (size_t i = 0; i < rec.packets.size(); ++i) {
    const size_t from = i < cut ? i : i - cut;
    if (from >= source.size()) break;
    EXPECT_EQ(source[from], rec.packets[i]) << "packet " << i << " (cut after " << cut << ")";
  }
  const halvarine::ProgramRun probe = halvarine::runProgram({"ffprobe", "-v", "error", out}, 30000);
  EXPECT_TRUE(probe.succeeded() && probe.output.empty()) << probe.output;
}

// tinyproxy relays to the test server on 127.0.0.2 (not to the address it
// listens on). The server's 404 comes through as the server's; a server
// that cannot be reached is the proxy's refusal, which curl also reports
// as a failure to connect.
TEST_F(ServerAnswers, ThroughAProxyTheServersErrorAndTheProxysOwnAreToldApart) {
  if (halvarine::findOnPath("tinyproxy").empty()) GTEST_SKIP() << "tinyproxy";
  uint16_t port = 0;
  const std::unique_ptr<support::Child> proxy = support::startTinyproxy(dir, port);
  ASSERT_NE(nullptr, proxy) << "tinyproxy did not come up";
  ServerOptions o;
  o.protocol = StreamProtocol::MMSH;
  o.address = "127.0.0.2";
  o.faults.httpStatus = 404;
  const auto server = support::startMmsServer(support::sampleAsf(), o);
  ASSERT_FALSE(HasFailure());
  const std::string unreachable =
      "mmsh://127.0.0.2:" + std::to_string(support::freeTcpPort("127.0.0.2")) + "/x";
  setenv("http_proxy", ("127.0.0.1:" + std::to_string(port)).c_str(), 1);
  const Ran missing = runFetch({server->url(), "-o", out});
  const Ran refused = runFetch({unreachable, "-o", out});
  unsetenv("http_proxy");
  EXPECT_EQ(22, missing.status) << missing.said;
  EXPECT_TRUE(says(missing, "HTTP 404 Not Found (127.0.0.2:")) << missing.said;
  EXPECT_EQ(7, refused.status) << refused.said;
  EXPECT_TRUE(says(refused, "the proxy 127.0.0.1:" + std::to_string(port) + " refused: HTTP 5"))
      << refused.said;
}

}  // namespace
