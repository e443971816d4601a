// The worker against an MMSH server written by others: VLC's HTTP streaming
// output with the ASF mux. VLC streams in real time, as a live source does,
// so the worker reads a bounded amount rather than the whole sample.

#include <stdint.h>
#include <string.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/peers/peers_support.h"

namespace {

using peers::countLines;

// True when a describe request to VLC gets the ASF header back. VLC takes
// connections before its mux has a header, and then answers with HTTP
// headers alone.
bool servesAsfHeader(uint16_t port) {
  interop::RawExchange r = interop::rawExchange(port, "GET / HTTP/1.0\r\n\r\n");
  return r.bytes.find(std::string(peers::ASF_HEADER_GUID, 16)) != std::string::npos;
}

// cvlc serving the sample once over MMSH on 127.0.0.1, then ending. (Looped,
// it has no header to give for a moment at each turn, which would fail a
// CONNECT that came just then.) VLC will not run as root, so as root it runs
// as the unprivileged account, from a copy of the sample that account can
// read.
class VlcServer {
 public:
  bool start(std::string& error) {
    peers::Unprivileged account;
    if (peers::runningAsRoot() && !peers::unprivilegedAccount(account, error)) return false;
    const std::string sample = dir_.file("sample.asf");
    if (!interop::writeFile(sample, interop::readFile(interop::samplePath()))) {
      error = "cannot copy the sample to " + sample;
      return false;
    }
    port_ = peers::freeTcpPort("127.0.0.1");
    std::vector<std::string> argv = peers::dropPrivilegesPrefix(account);
    const std::vector<std::string> vlc = {
        "env", "HOME=" + dir_.path(), "cvlc", "-I", "dummy", "--play-and-exit", sample, "--sout",
        "#std{access=mmsh,mux=asfh,dst=127.0.0.1:" + std::to_string(port_) + "}"};
    argv.insert(argv.end(), vlc.begin(), vlc.end());
    process_.reset(new interop::Child(argv));
    if (peers::waitForListener("127.0.0.1", port_, 15000, process_.get())) {
      for (int i = 0; i < 100 && process_->running(); ++i) {
        if (servesAsfHeader(port_)) return true;
        usleep(50 * 1000);
      }
    }
    process_->running();
    error = "VLC did not serve on port " + std::to_string(port_) + ": " + process_->output();
    return false;
  }

  uint16_t port() const { return port_; }

 private:
  peers::SharedTempDir dir_;
  std::unique_ptr<interop::Child> process_;
  uint16_t port_ = 0;
};

// The ASF header object's size: the 64-bit little-endian value after its GUID.
uint64_t asfHeaderSize(const std::string& bytes) {
  uint64_t size = 0;
  for (int i = 7; i >= 0 && bytes.size() >= 24; --i) {
    size = (size << 8) | static_cast<unsigned char>(bytes[16 + i]);
  }
  return size;
}

class VlcTest : public peers::PeerTest {};

TEST_F(VlcTest, WorkerReadsVlcMmshOutputInBothUrlForms) {
  if (interop::findProgram("cvlc").empty()) {
    GTEST_SKIP() << "cvlc is not installed (Debian packages vlc-bin and vlc-plugin-base)";
  }
  startWorker();
  if (HasFatalFailure()) return;

  for (const char* scheme : {"mmsh://", "http://"}) {
    SCOPED_TRACE(scheme);
    VlcServer vlc;
    std::string error;
    ASSERT_TRUE(vlc.start(error)) << error;
    const std::string url = std::string(scheme) + "127.0.0.1:" + std::to_string(vlc.port()) + "/";
    ASSERT_EQ(call("CONNECT", {url}, 20).status(), "OK_");
    // About 36 KB a second for 6 s: up to 200 KB or 10 s, or until the end
    // of the file ends VLC's stream.
    Fetched got = readStream(32768, 200 * 1024, 10);
    EXPECT_TRUE(got.lastStatus == "OK_" || got.lastStatus == "EOF") << got.lastStatus;
    ASSERT_GE(got.bytes.size(), 24u);
    EXPECT_EQ(got.bytes.compare(0, 16, std::string(peers::ASF_HEADER_GUID, 16)), 0)
        << controller::hex(got.bytes.substr(0, 16));
    // The whole header and stream data behind it came through.
    const uint64_t headerSize = asfHeaderSize(got.bytes);
    EXPECT_GT(headerSize, 30u);
    EXPECT_GT(got.bytes.size(), headerSize);
    EXPECT_EQ(call("CLOSE").status(), "OK_");
  }

  const std::vector<std::string> lines = stderrLines();
  EXPECT_EQ(countLines(lines, "[WrapperMms::connect()] open MMSH stream success!"), 2u);
  EXPECT_EQ(countLines(lines, "[WrapperMms::connect()] open MMST stream!"), 0u);
  EXPECT_EQ(countLines(lines, "[WrapperMms::close()] close MMSH stream! "), 2u);
  endWorker();
}

}  // namespace
