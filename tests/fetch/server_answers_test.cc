// halvarine-fetch against the real worker and a test server that announces
// a live stream: it is recorded on from the new connection's first packet,
// never resumed by skipping. What other servers say is run end to end
// (runs.tsv).

#include <gtest/gtest.h>
#include <halvarine/controller.h>
#include <stdlib.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/support/support.h"
#include "tools/asf/asf_file.h"
#include "tools/mmsserver/server.h"

namespace {

// A server that says "live" in its protocol (not in the header) and cuts
// the first connection inside the first round of packets. Resuming by
// skipping would take the new connection's packets from where the first
// one stopped: a splice, on a real feed whose new connection starts where
// the broadcast is. The new connection's packets come whole, from its
// first, after the last whole packet of the first connection.
TEST(ServerAnswers, AStreamAnnouncedLiveAndCutOnceIsRecordedOnNotSpliced) {
  ASSERT_TRUE(support::controllerPathFree(120)) << "another controller holds the socket";
  for (const char* name : {"http_proxy", "HTTP_PROXY", "no_proxy", "NO_PROXY"}) unsetenv(name);
  support::TempDir dir;
  const std::string out = dir.file("out.asf");
  ServerOptions o;
  o.protocol = StreamProtocol::MMST;
  o.live = true;
  o.rate = 100000;
  o.faults.liveUnmarked = true;
  o.faults.resetAfter = 150000;
  o.faults.firstConnections = 1;
  const auto server = support::startMmsServer(support::sampleAsf(), o);
  ASSERT_FALSE(HasFailure());
  support::Child tool(
      {HALVARINE_FETCH, server->url(), "-o", out, "--duration", "3", "--retry-delay", "0.2"});
  halvarine::ExitStatus ended;
  ASSERT_TRUE(tool.waitExit(60000, ended)) << tool.output();
  EXPECT_TRUE(ended.exited && ended.code == 0) << ended.toString() << "\n" << tool.output();
  EXPECT_NE(std::string::npos, tool.output().find("announces this stream as live"))
      << tool.output();
  EXPECT_NE(std::string::npos, tool.output().find("recorded for --duration")) << tool.output();

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

}  // namespace
