// The test MMS servers against independent clients: libmms (libmms-fetch,
// the worker's own library, in its own process) must get the served header
// and packets byte for byte; ffmpeg's mmsh/mmst clients demux and remux, so
// their packets are compared instead, through framemd5 (stream, timestamps,
// size and payload MD5 of every packet) against the same file read directly.
// What each fault does to the worker is the fault matrix's (tests/faults).

#include <errno.h>
#include <stdlib.h>

#include <memory>
#include <string>

#include "tests/support/support.h"

using support::firstDifference;

namespace {

class ServerTest : public ::testing::TestWithParam<Transport> {
 protected:
  void start(ServerOptions options = {}, const AsfFile& file = support::sampleAsf()) {
    options.transport = GetParam();
    server.reset(new MmsTestServer(file, options));
    std::string error;
    EXPECT_TRUE(server->start(error)) << error;
  }
  // ffmpeg's name for the transport.
  std::string ffmpegUrl() const {
    return std::string(GetParam() == Transport::MMST ? "mmst" : "mmsh") +
           "://127.0.0.1:" + std::to_string(server->port()) + "/sample.asf";
  }
  // libmms-fetch's bytes, which must be a clean exit.
  std::string fetched() {
    std::string bytes;
    const support::RunResult r = support::libmmsFetch(server->url(), dir, bytes, 30000);
    EXPECT_EQ(0, r.exitCode) << r.output;
    return bytes;
  }

  std::unique_ptr<MmsTestServer> server;
  support::TempDir dir;
};

// Each connection a fresh session, ffmpeg's among them.
TEST_P(ServerTest, LibmmsAndFfmpegGetTheStreamOnEveryConnection) {
  start();
  const std::string want = asfStreamBytes(support::sampleAsf());
  const std::string fromFile = support::framemd5(support::samplePath(), dir);
  ASSERT_FALSE(fromFile.empty());
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(-1, firstDifference(fetched(), want)) << "fetch " << i;
    if (i == 1) {
      EXPECT_EQ(fromFile, support::framemd5(ffmpegUrl(), dir));
    }
  }
  const int perClient = GetParam() == Transport::MMSH ? 2 : 1;  // describe, then play
  for (int i = 0; i < 500 && server->connectionsServed() < 4 * perClient; ++i) usleep(10000);
  EXPECT_EQ(4 * perClient, server->connectionsServed());
}

// Packets so small that the MMST header needs three (flagged "more
// follows" then "last"), and a stream of 3 MB.
TEST_P(ServerTest, GeneratedStreamsArriveExactly) {
  for (const auto& shape : {std::make_pair(200 * 1024, 128), std::make_pair(3 << 20, 16000)}) {
    SCOPED_TRACE(shape.second);
    const std::string bytes =
        generateAsf(static_cast<uint64_t>(shape.first), static_cast<uint32_t>(shape.second));
    AsfFile file;
    std::string error;
    ASSERT_TRUE(parseAsf(bytes, file, error)) << error;
    ASSERT_EQ(bytes, asfStreamBytes(file));
    start({}, file);
    EXPECT_EQ(-1, firstDifference(fetched(), bytes));
    if (shape.second == 128) {
      ASSERT_GT(file.header.size(), 2u * 128);
      ASSERT_TRUE(support::writeFile(dir.file("gen.asf"), bytes));
      const std::string fromFile = support::framemd5(dir.file("gen.asf"), dir);
      ASSERT_FALSE(fromFile.empty()) << "ffmpeg cannot read the generated file";
      EXPECT_EQ(fromFile, support::framemd5(ffmpegUrl(), dir));
    }
  }
}

// A broadcast goes round for as long as one reads, its times moving on, so
// ffmpeg plays 15 s of a 6 s file in order; a declared length is what libmms
// reports while every packet still comes; faults of the first connections
// (two per MMSH open) spare the later ones.
TEST_P(ServerTest, LiveDeclaredLengthAndFirstConnections) {
  const AsfFile& sample = support::sampleAsf();
  const std::string whole = asfStreamBytes(sample);
  ServerOptions options;
  options.live = true;
  start(options);
  const support::RunResult ff =
      support::run({support::findProgram("ffmpeg"), "-nostdin", "-loglevel", "error", "-t", "15",
                    "-i", ffmpegUrl(), "-map", "0:a", "-c", "copy", "-f", "framemd5", "-"},
                   30000);
  ASSERT_EQ(0, ff.exitCode) << ff.output;
  long last = -1, frames = 0;
  for (size_t at = ff.output.find("\n0,"); at != std::string::npos;
       at = ff.output.find("\n0,", at + 1), ++frames) {
    const long dts = atol(ff.output.c_str() + at + 3);
    EXPECT_GT(dts, last) << "frame " << frames;
    last = dts;
  }
  EXPECT_GT(last, 14000) << "milliseconds";

  options.live = false;
  options.declaredPackets = 671089;  // 2^31 bytes and some
  start(options);
  std::string bytes;
  uint32_t length = 0;
  ASSERT_TRUE(support::libmmsStream(server->url(), bytes, &length));
  EXPECT_EQ(sample.header.size() + 671089ull * sample.packetSize, length);
  EXPECT_EQ(whole.size(), bytes.size());

  ServerOptions reset;
  reset.faults.resetAfter = 20000;
  reset.faults.firstConnections = GetParam() == Transport::MMSH ? 2 : 1;
  start(reset);
  EXPECT_LT(fetched().size(), 20000u);
  EXPECT_EQ(-1, firstDifference(fetched(), whole));
}

// The byte faults: a reset is an RST after the bytes before it, which the
// client gets; a drip delivers the stream exactly; a stall holds the client
// until the server stops, which ends the stalled session at once.
TEST_P(ServerTest, ByteFaultsKeepTheBytesBeforeThem) {
  const std::string whole = asfStreamBytes(support::sampleAsf());
  ServerOptions reset;
  reset.faults.resetAfter = 20000;
  start(reset);
  if (GetParam() == Transport::MMSH) {
    const support::RawExchange raw =
        support::rawExchange(server->port(), "GET /x HTTP/1.0\r\nPragma: xPlayStrm=1\r\n\r\n");
    EXPECT_EQ(ECONNRESET, raw.error);
    EXPECT_EQ(20000u, raw.bytes.size());
  }
  std::string got = fetched();
  EXPECT_EQ(0, whole.compare(0, got.size(), got));

  AsfFile tiny;
  std::string error;
  ASSERT_TRUE(parseAsf(generateAsf(0, 128), tiny, error)) << error;
  ServerOptions drip;
  drip.faults.dripIntervalMs = 1;
  start(drip, tiny);
  EXPECT_EQ(asfStreamBytes(tiny), fetched());

  ServerOptions stall;
  stall.faults.stallAfter = 50000;  // past the describe answer, early in the play answer
  start(stall);
  support::Child fetch({support::libmmsFetchPath(), server->url(), dir.file("out")});
  EXPECT_FALSE(fetch.wait(1500)) << "stalled, not ended: " << fetch.output();
  const auto begin = support::Clock::now();
  server.reset();
  EXPECT_LT(support::secondsSince(begin), 1.0) << "a stalled session held up the shutdown";
  ASSERT_TRUE(fetch.wait(5000));
  got = support::readFile(dir.file("out"));
  EXPECT_GE(got.size(), support::sampleAsf().header.size());
  EXPECT_EQ(0, whole.compare(0, got.size(), got));
}

INSTANTIATE_TEST_SUITE_P(Transports, ServerTest,
                         ::testing::Values(Transport::MMST, Transport::MMSH),
                         [](const ::testing::TestParamInfo<Transport>& info) {
                           return std::string(info.param == Transport::MMST ? "MMST" : "MMSH");
                         });

}  // namespace
