// The worker through a real forward proxy: tinyproxy on 127.0.0.1 in front
// of the MMSH test server on 127.0.0.2 (tinyproxy will not relay to the
// address it listens on). libmms takes http_proxy only as
// http://host:port, so that is the proxy part of the URLs here.

#include <stdint.h>
#include <string.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/peers/peers_support.h"
#include "tools/mmsserver/server.h"

namespace {

using peers::countLines;

const char SET_PROXY[] = "[WrapperMms::connect()] set proxy! : ";
const char OPEN_MMSH[] = "[WrapperMms::connect()] open MMSH stream!";
const char OPEN_MMST[] = "[WrapperMms::connect()] open MMST stream!";
const char MMSH_SUCCESS[] = "[WrapperMms::connect()] open MMSH stream success!";
const char MMSH_FAILED[] = "[WrapperMms::connect()] open MMSH stream failed! ";

// How often `text` occurs in `haystack`.
size_t occurrences(const std::string& haystack, const std::string& text) {
  size_t n = 0;
  for (size_t at = haystack.find(text); at != std::string::npos; at = haystack.find(text, at + 1)) {
    ++n;
  }
  return n;
}

class ProxyTest : public peers::PeerTest {
 protected:
  void SetUp() override {
    PeerTest::SetUp();
    std::string error;
    ASSERT_TRUE(loadAsfFile(interop::samplePath(), sample_, error)) << error;
    ServerOptions options;
    options.transport = Transport::MMSH;
    options.address = "127.0.0.2";
    server_.reset(new MmsTestServer(sample_, options));
    ASSERT_TRUE(server_->start(error)) << error;
  }

  // The stream as libmms reads it straight from the server with its own
  // I/O and the worker's bandwidth argument; the oracle for the worker.
  std::string directLibmmsRead() {
    const std::string out = dir_.file("direct.asf");
    interop::RunResult r =
        interop::run({interop::libmmsFetchPath(), server_->url(), out, "--bandwidth", "0"}, 30000);
    EXPECT_EQ(r.exitCode, 0) << r.output;
    return interop::readFile(out);
  }

  AsfFile sample_;
  std::unique_ptr<MmsTestServer> server_;
  interop::TempDir dir_;
};

TEST_F(ProxyTest, WholeStreamThroughTinyproxyEqualsTheDirectRead) {
  const std::string reference = directLibmmsRead();
  ASSERT_FALSE(reference.empty());
  const int servedDirectly = server_->connectionsServed();

  peers::TinyProxy proxy;
  std::string error;
  ASSERT_TRUE(proxy.start(error)) << error;
  startWorker();
  if (HasFatalFailure()) return;

  // Both stream-URL forms behind the proxy; http:// becomes mmsh:// for libmms.
  const std::string hostPart = server_->url().substr(strlen("mmsh://"));
  const std::vector<std::string> streamUrls = {"mmsh://" + hostPart, "http://" + hostPart};
  for (const std::string& streamUrl : streamUrls) {
    SCOPED_TRACE(streamUrl);
    ASSERT_EQ(call("CONNECT", {proxy.url() + "/" + streamUrl}, 30).status(), "OK_");
    Fetched got = readStream(32768, reference.size() + 65536, 60);
    EXPECT_EQ(got.lastStatus, "EOF");
    EXPECT_EQ(got.bytes.size(), reference.size());
    EXPECT_EQ(interop::firstDifference(got.bytes, reference), -1);
    EXPECT_EQ(call("CLOSE").status(), "OK_");
  }

  // Every request went through the proxy: a describe and a play per stream.
  const std::string log = proxy.log();
  EXPECT_EQ(occurrences(log, "GET /sample.asf HTTP/1.0"), 4u) << log;
  EXPECT_EQ(occurrences(log, "Established connection to host \"127.0.0.2\""), 4u) << log;
  // The server counts a connection once its session has returned, which
  // may be just after the worker saw the end of the stream.
  for (int i = 0; i < 100 && server_->connectionsServed() - servedDirectly < 4; ++i) usleep(20000);
  EXPECT_EQ(server_->connectionsServed() - servedDirectly, 4);

  const std::vector<std::string> lines = stderrLines();
  EXPECT_EQ(countLines(lines, SET_PROXY + proxy.url()), 2u);
  EXPECT_EQ(countLines(lines, OPEN_MMSH), 2u);
  EXPECT_EQ(countLines(lines, MMSH_SUCCESS), 2u);
  EXPECT_EQ(countLines(lines, OPEN_MMST), 0u);
  endWorker();
}

// A proxy that refuses fails the CONNECT without a try at the server
// itself; the next direct URL must not go to that proxy any more.
TEST_F(ProxyTest, RefusingProxyGivesErrAndLeavesNoProxyBehind) {
  peers::RefusingPort refusing;
  ASSERT_TRUE(refusing.valid());
  startWorker();
  if (HasFatalFailure()) return;

  const std::string proxyUrl = "http://127.0.0.1:" + std::to_string(refusing.port());
  EXPECT_EQ(call("CONNECT", {proxyUrl + "/" + server_->url()}, 30).status(), "ERR");
  EXPECT_EQ(server_->connectionsServed(), 0);
  std::vector<std::string> lines = stderrLines();
  EXPECT_EQ(countLines(lines, SET_PROXY + proxyUrl), 1u);
  EXPECT_EQ(countLines(lines, OPEN_MMST), 0u);
  EXPECT_EQ(countLines(lines, MMSH_FAILED + server_->url()), 1u);
  EXPECT_EQ(call("GSIZE").status(), "ERR");

  EXPECT_EQ(call("CONNECT", {server_->url()}, 30).status(), "OK_");
  Fetched got = readStream(32768, 65536, 10);
  EXPECT_EQ(got.bytes.compare(0, 16, std::string(peers::ASF_HEADER_GUID, 16)), 0);
  endWorker();
}

}  // namespace
