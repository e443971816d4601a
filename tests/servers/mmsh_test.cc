// The MMSH server against two independent clients, libmms (through
// libmms-fetch, the worker's own library) and ffmpeg's MMSH client, and
// against a plain socket for what neither client checks.
//
// "The same stream" means two things here. libmms hands its caller the ASF
// header and then every data packet, each padded to the packet size, so
// its bytes must equal the served header followed by the served packets,
// byte for byte (for the sample: the file up to its index object). ffmpeg
// demuxes and remuxes, so its output bytes say nothing; instead both the
// served stream and the file itself go through ffmpeg's ASF demuxer with
// stream copy into framemd5, which lists every packet's stream, timestamps,
// size and payload MD5. Equal lists mean ffmpeg's client got every packet
// intact, in order, with its timing.

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "tests/servers/interop_support.h"
#include "tools/mmsserver/server.h"

namespace {

using interop::run;
using interop::RunResult;

AsfFile loadSample() {
  AsfFile file;
  std::string error;
  EXPECT_TRUE(loadAsfFile(interop::samplePath(), file, error)) << error;
  return file;
}

// libmms-fetch's bytes for `url`, or "" with a test failure.
std::string fetchWithLibmms(const std::string& url, const interop::TempDir& dir) {
  std::string out = dir.file("libmms.out");
  RunResult r = run({interop::libmmsFetchPath(), url, out}, 30000);
  EXPECT_FALSE(r.timedOut);
  EXPECT_EQ(r.exitCode, 0) << r.output;
  return interop::readFile(out);
}

class MmshServerTest : public ::testing::Test {
 protected:
  void startServer(const AsfFile& file, const Faults& faults = Faults()) {
    ServerOptions options;
    options.transport = Transport::MMSH;
    options.faults = faults;
    server_.reset(new MmsTestServer(file, options));
    std::string error;
    ASSERT_TRUE(server_->start(error)) << error;
  }

  AsfFile sample_ = loadSample();
  std::unique_ptr<MmsTestServer> server_;
  interop::TempDir dir_;
};

TEST_F(MmshServerTest, LibmmsGetsTheHeaderThenEveryPacket) {
  startServer(sample_);
  std::string got = fetchWithLibmms(server_->url(), dir_);
  std::string want = asfStreamBytes(sample_);
  EXPECT_EQ(got.size(), want.size());
  EXPECT_EQ(interop::firstDifference(got, want), -1);
  // The sample's packets are whole, so this is the file up to its index.
  std::string file = interop::readFile(interop::samplePath());
  EXPECT_EQ(interop::firstDifference(got, file.substr(0, got.size())), -1);
  EXPECT_EQ(server_->connectionsServed(), 2);  // describe, then play
}

TEST_F(MmshServerTest, FfmpegDemuxesTheSamePacketsAsFromTheFile) {
  ASSERT_FALSE(interop::ffmpegPath().empty());
  startServer(sample_);
  std::string fromFile = interop::framemd5(interop::samplePath(), dir_);
  std::string overMmsh = interop::framemd5(server_->url(), dir_);
  ASSERT_FALSE(fromFile.empty());
  EXPECT_EQ(overMmsh, fromFile);
  EXPECT_EQ(server_->connectionsServed(), 2);
}

TEST_F(MmshServerTest, ServesClientsOneAfterAnother) {
  startServer(sample_);
  std::string want = asfStreamBytes(sample_);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(interop::firstDifference(fetchWithLibmms(server_->url(), dir_), want), -1)
        << "fetch " << i;
  }
  EXPECT_FALSE(interop::framemd5(server_->url(), dir_).empty());
  EXPECT_EQ(fetchWithLibmms(server_->url(), dir_).size(), want.size());
  EXPECT_EQ(server_->connectionsServed(), 10);
}

TEST_F(MmshServerTest, GeneratedStreamArrivesExactly) {
  AsfFile generated;
  std::string error;
  ASSERT_TRUE(parseAsf(generateAsf(3 * 1024 * 1024, 16000), generated, error)) << error;
  startServer(generated);
  std::string got = fetchWithLibmms(server_->url("big.asf"), dir_);
  std::string want = asfStreamBytes(generated);
  EXPECT_EQ(got.size(), want.size());
  EXPECT_EQ(interop::firstDifference(got, want), -1);
}

// The framing on the wire, including the fields both clients skip over:
// sequence numbers, the repeated length, the end chunk's reason.
TEST_F(MmshServerTest, FramesDescribeAndPlayAnswers) {
  startServer(sample_);
  const std::string describe =
      interop::rawExchange(server_->port(), "GET /sample.asf HTTP/1.0\r\n\r\n").bytes;
  const std::string play = interop::rawExchange(
      server_->port(), "GET /sample.asf HTTP/1.0\r\nPragma: xPlayStrm=1\r\n\r\n").bytes;

  auto bodyOf = [](const std::string& answer, const std::string& contentType) {
    EXPECT_EQ(answer.compare(0, 17, "HTTP/1.0 200 OK\r\n"), 0);
    EXPECT_NE(answer.find("Content-Type: " + contentType + "\r\n"), std::string::npos);
    size_t end = answer.find("\r\n\r\n");
    return end == std::string::npos ? std::string() : answer.substr(end + 4);
  };
  auto expectChunk = [](const std::string& body, size_t& at, uint16_t type, uint32_t seq,
                        const std::string& payload) {
    ASSERT_LE(at + 12 + payload.size(), body.size());
    EXPECT_EQ(getLe16(body, at), type);
    EXPECT_EQ(getLe16(body, at + 2), payload.size() + 8);
    EXPECT_EQ(getLe32(body, at + 4), seq);
    EXPECT_EQ(getLe16(body, at + 10), payload.size() + 8);
    EXPECT_EQ(body.compare(at + 12, payload.size(), payload), 0);
    at += 12 + payload.size();
  };

  std::string body = bodyOf(describe, "application/vnd.ms.wms-hdr.asfv1");
  size_t at = 0;
  expectChunk(body, at, 0x4824, 0, sample_.header);
  EXPECT_EQ(at, body.size());  // the header alone

  body = bodyOf(play, "application/x-mms-framed");
  at = 0;
  expectChunk(body, at, 0x4824, 0, sample_.header);
  for (size_t i = 0; i < sample_.packets.size(); ++i) {
    expectChunk(body, at, 0x4424, static_cast<uint32_t>(i), sample_.packets[i]);
    if (HasFailure()) return;
  }
  EXPECT_EQ(body.substr(at), std::string("\x24\x45\x04\x00\x00\x00\x00\x00", 8));

  std::string post = interop::rawExchange(server_->port(), "POST / HTTP/1.0\r\n\r\n").bytes;
  EXPECT_EQ(post.compare(0, 13, "HTTP/1.0 405 "), 0) << post;
}

// A proxy that keeps only the first Pragma line (tinyproxy) leaves the play
// request with nothing but its request counter; complete heads still go by
// "xPlayStrm=1" alone.
TEST_F(MmshServerTest, PlayRequestsAreKnownByTheirCounterWhenLaterPragmasAreLost) {
  startServer(sample_);
  auto contentTypeFor = [this](const std::string& pragmas) {
    std::string answer = interop::rawExchange(
        server_->port(), "GET /sample.asf HTTP/1.0\r\n" + pragmas + "\r\n").bytes;
    const std::string key = "Content-Type: ";
    size_t at = answer.find(key);
    if (at == std::string::npos) return answer;
    at += key.size();
    return answer.substr(at, answer.find("\r\n", at) - at);
  };
  const std::string describe = "application/vnd.ms.wms-hdr.asfv1";
  const std::string play = "application/x-mms-framed";
  const std::string first = "Pragma: no-cache,rate=1.000000,request-context=";
  const std::string guid = "Pragma: xClientGUID={c77e7400-738a-11d2-9add-0020af0a3278}\r\n";
  EXPECT_EQ(contentTypeFor(first + "1,max-duration=0\r\n"), describe);
  EXPECT_EQ(contentTypeFor(first + "2,max-duration=0\r\n"), play);
  EXPECT_EQ(contentTypeFor(first + "3,max-duration=0\r\n"), describe);  // a reconnect
  EXPECT_EQ(contentTypeFor(first + "4,max-duration=0\r\n"), play);
  EXPECT_EQ(contentTypeFor(first + "2,max-duration=0\r\n" + guid), describe);
  EXPECT_EQ(contentTypeFor(first + "1\r\n" + guid + "Pragma: xPlayStrm=1\r\n"), play);
  EXPECT_EQ(contentTypeFor("Pragma: request-context=x2\r\n"), describe);
}

// The command as benchmarks use it: URL on standard output, exit after
// --max-connections, or at SIGTERM.
TEST(MmsServerCommand, ServesTheSampleAndStops) {
  interop::TempDir dir;
  interop::Child server({interop::mmsServerPath(), "--max-connections", "2"});
  ASSERT_TRUE(server.waitForOutput("\n", 10000)) << server.output();
  std::string url = server.output().substr(0, server.output().find('\n'));
  EXPECT_EQ(url.compare(0, 17, "mmsh://127.0.0.1:"), 0) << url;
  EXPECT_EQ(fetchWithLibmms(url, dir), asfStreamBytes(loadSample()));
  EXPECT_TRUE(server.wait(5000));
  EXPECT_EQ(server.exitCode(), 0);

  interop::Child idle({interop::mmsServerPath(), "--generate", "100000"});
  ASSERT_TRUE(idle.waitForOutput("generated.asf\n", 10000)) << idle.output();
  idle.signal(SIGTERM);
  EXPECT_TRUE(idle.wait(5000));
  EXPECT_EQ(idle.exitCode(), 0);
}

}  // namespace
