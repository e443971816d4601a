// The test MMS servers against independent clients: libmms (libmms-fetch,
// the worker's own library, in its own process) must get the served header
// and packets byte for byte; ffmpeg's mmsh/mmst clients demux and remux, so
// their packets are compared instead, through framemd5 (stream, timestamps,
// size and payload MD5 of every packet) against the same file read directly.

#include <errno.h>

#include <memory>
#include <string>

#include "tests/support/support.h"

using support::firstDifference;
using support::RunResult;

namespace {

std::string schemeUrl(Transport t, const MmsTestServer& server) {
  return std::string(t == Transport::MMST ? "mmst" : "mmsh") +
         "://127.0.0.1:" + std::to_string(server.port()) + "/sample.asf";
}

class ServerTest : public ::testing::Test {
 protected:
  MmsTestServer& start(Transport t, const AsfFile& file, const Faults& faults = Faults(),
                       ServerOptions options = ServerOptions()) {
    options.transport = t;
    options.faults = faults;
    server.reset(new MmsTestServer(file, options));
    std::string error;
    EXPECT_TRUE(server->start(error)) << error;
    return *server;
  }
  // libmms-fetch's bytes, which must be a clean exit.
  std::string fetched(int timeoutMs = 30000) {
    std::string bytes;
    const RunResult r = support::libmmsFetch(server->url(), dir, bytes, timeoutMs);
    EXPECT_FALSE(r.timedOut);
    EXPECT_EQ(0, r.exitCode) << r.output;
    return bytes;
  }
  // The count moves when a session ends, just after the client has gone.
  int servedOnceSettled(int want) {
    for (int i = 0; i < 500 && server->connectionsServed() < want; ++i) usleep(10000);
    return server->connectionsServed();
  }

  std::unique_ptr<MmsTestServer> server;
  support::TempDir dir;
};

class BothServers : public ServerTest, public ::testing::WithParamInterface<Transport> {};

// Each connection a fresh session, ffmpeg's among them.
TEST_P(BothServers, LibmmsAndFfmpegGetTheStreamOnEveryConnection) {
  ASSERT_FALSE(support::findProgram("ffmpeg").empty());
  const AsfFile& sample = support::sampleAsf();
  start(GetParam(), sample);
  const std::string want = asfStreamBytes(sample);
  const std::string fromFile = support::framemd5(support::samplePath(), dir);
  ASSERT_FALSE(fromFile.empty());
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(-1, firstDifference(fetched(), want)) << "fetch " << i;
    if (i == 1) {
      EXPECT_EQ(fromFile, support::framemd5(schemeUrl(GetParam(), *server), dir));
    }
  }
  // The sample's packets are whole: the file up to its index object.
  EXPECT_EQ(0, support::readFile(support::samplePath()).compare(0, want.size(), want));
  const int perClient = GetParam() == Transport::MMSH ? 2 : 1;  // describe, then play
  EXPECT_EQ(4 * perClient, servedOnceSettled(4 * perClient));
}

// Packets so small that the MMST header needs three (flagged "more
// follows" then "last"), and a stream of 3 MB.
TEST_P(BothServers, GeneratedStreamsArriveExactly) {
  for (const auto& shape : {std::make_pair(200 * 1024, 128), std::make_pair(3 << 20, 16000)}) {
    SCOPED_TRACE(shape.second);
    const std::string bytes =
        generateAsf(static_cast<uint64_t>(shape.first), static_cast<uint32_t>(shape.second));
    AsfFile file;
    std::string error;
    ASSERT_TRUE(parseAsf(bytes, file, error)) << error;
    ASSERT_EQ(bytes, asfStreamBytes(file));
    start(GetParam(), file);
    EXPECT_EQ(-1, firstDifference(fetched(), bytes));
    if (shape.second == 128) {
      ASSERT_GT(file.header.size(), 2u * 128);
      ASSERT_TRUE(support::writeFile(dir.file("gen.asf"), bytes));
      const std::string fromFile = support::framemd5(dir.file("gen.asf"), dir);
      ASSERT_FALSE(fromFile.empty()) << "ffmpeg cannot read the generated file";
      EXPECT_EQ(fromFile, support::framemd5(schemeUrl(GetParam(), *server), dir));
    }
  }
}

// A damaged header: libmms gives up promptly with no bytes; ffmpeg (MMSH)
// fails too. Neither hangs or reads on into the packets.
TEST_P(BothServers, HeaderFaultsFailTheOpenPromptly) {
  Faults cut, absurdHeader, absurdPacket, cutAtZero;
  cut.truncateHeader = 100;
  cutAtZero.truncateHeader = 0;
  absurdHeader.absurdHeaderSize = true;
  absurdPacket.absurdPacketSize = true;
  for (const Faults& faults : {cut, cutAtZero, absurdHeader, absurdPacket}) {
    SCOPED_TRACE(faults.truncateHeader >= 0
                     ? "truncated at " + std::to_string(faults.truncateHeader)
                 : faults.absurdHeaderSize ? "absurd header size"
                                           : "absurd packet size");
    start(GetParam(), support::sampleAsf(), faults);
    std::string bytes;
    const auto begin = support::Clock::now();
    const RunResult r = support::libmmsFetch(server->url(), dir, bytes, 15000);
    EXPECT_LT(support::secondsSince(begin), 5.0);
    EXPECT_EQ(1, r.exitCode) << r.output;
    EXPECT_TRUE(bytes.empty());
    if (GetParam() == Transport::MMSH) {
      const RunResult ff =
          support::run({support::findProgram("ffmpeg"), "-nostdin", "-loglevel", "error", "-i",
                        server->url(), "-c", "copy", "-f", "null", "-"},
                       15000);
      EXPECT_FALSE(ff.timedOut);
      EXPECT_NE(0, ff.exitCode) << ff.output;
    }
  }
}

// A broadcast goes round for as long as one reads, its times moving on, so
// ffmpeg plays 15 s of a 6 s file in order; a declared length is what libmms
// reports while every packet still comes; faults of the first connections
// (two per MMSH open) spare the later ones.
TEST_P(BothServers, LiveDeclaredLengthAndFirstConnections) {
  const AsfFile& sample = support::sampleAsf();
  const std::string whole = asfStreamBytes(sample);
  ServerOptions live;
  live.live = true;
  start(GetParam(), sample, Faults(), live);
  const RunResult ff = support::run(
      {support::findProgram("ffmpeg"), "-nostdin", "-loglevel", "error", "-t", "15", "-i",
       schemeUrl(GetParam(), *server), "-map", "0:a", "-c", "copy", "-f", "framemd5", "-"},
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

  ServerOptions declared;
  declared.declaredPackets = 671089;  // 2^31 bytes and some
  start(GetParam(), sample, Faults(), declared);
  std::string bytes;
  uint32_t length = 0;
  ASSERT_TRUE(support::libmmsStream(server->url(), bytes, &length));
  EXPECT_EQ(sample.header.size() + 671089ull * sample.packetSize, length);
  EXPECT_EQ(whole.size(), bytes.size());

  Faults reset;
  reset.resetAfter = 20000;
  reset.firstConnections = GetParam() == Transport::MMSH ? 2 : 1;
  start(GetParam(), sample, reset);
  EXPECT_LT(fetched().size(), 20000u);
  EXPECT_EQ(-1, firstDifference(fetched(), whole));
}

INSTANTIATE_TEST_SUITE_P(Transports, BothServers,
                         ::testing::Values(Transport::MMST, Transport::MMSH),
                         [](const ::testing::TestParamInfo<Transport>& info) {
                           return std::string(info.param == Transport::MMST ? "MMST" : "MMSH");
                         });

// ---- The transfer faults, seen by libmms and a plain socket

std::string playRequest() {
  return "GET /x HTTP/1.0\r\nPragma: xPlayStrm=1\r\n\r\n";
}

TEST_F(ServerTest, StallHoldsTheClientUntilTheServerStops) {
  Faults faults;
  faults.stallAfter = 50000;  // past the describe answer, early in the play answer
  start(Transport::MMSH, support::sampleAsf(), faults);
  support::Child fetch({support::libmmsFetchPath(), server->url(), dir.file("out")});
  EXPECT_FALSE(fetch.wait(1500)) << "stalled, not ended: " << fetch.output();
  const auto begin = support::Clock::now();
  server.reset();
  EXPECT_LT(support::secondsSince(begin), 1.0) << "a stalled session held up the shutdown";
  ASSERT_TRUE(fetch.wait(5000));
  EXPECT_EQ(0, fetch.exitCode()) << fetch.output();
  const std::string got = support::readFile(dir.file("out"));
  EXPECT_GE(got.size(), support::sampleAsf().header.size());
  EXPECT_LT(got.size(), 50000u);
  EXPECT_EQ(0, asfStreamBytes(support::sampleAsf()).compare(0, got.size(), got));
}

TEST_F(ServerTest, ResetEndsTheConnectionWithAnRst) {
  Faults faults;
  faults.resetAfter = 20000;
  start(Transport::MMSH, support::sampleAsf(), faults);
  const support::RawExchange raw = support::rawExchange(server->port(), playRequest());
  EXPECT_EQ(ECONNRESET, raw.error);
  EXPECT_LE(raw.bytes.size(), 20000u);
  const std::string got = fetched(10000);
  EXPECT_LT(got.size(), 20000u);
  EXPECT_EQ(0, asfStreamBytes(support::sampleAsf()).compare(0, got.size(), got));
}

TEST_F(ServerTest, DripDeliversTheExactStreamByteByByte) {
  AsfFile tiny;
  std::string error;
  ASSERT_TRUE(parseAsf(generateAsf(0, 128), tiny, error)) << error;
  Faults faults;
  faults.dripIntervalMs = 1;
  start(Transport::MMSH, tiny, faults);
  const auto begin = support::Clock::now();
  EXPECT_EQ(asfStreamBytes(tiny), fetched());
  // Both answers carry the header, one byte per interval at the least.
  EXPECT_GE(support::secondsSince(begin) * 1000, 2.0 * tiny.header.size());
}

TEST_F(ServerTest, RefusedConnectionFailsTheOpen) {
  Faults faults;
  faults.refuse = true;
  start(Transport::MMSH, support::sampleAsf(), faults);
  std::string bytes;
  EXPECT_EQ(1, support::libmmsFetch(server->url(), dir, bytes, 10000).exitCode);
  EXPECT_GE(server->connectionsServed(), 1);
}

}  // namespace
