// Each fault of the test servers, seen from a client: libmms-fetch (the
// worker's library), ffmpeg where its view adds something, and a plain
// socket where the exact bytes matter.

#include <errno.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/servers/interop_support.h"
#include "tools/mmsserver/server.h"

namespace {

using Clock = std::chrono::steady_clock;

long long msSince(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

interop::RawExchange rawPlay(uint16_t port) {
  return interop::rawExchange(port, "GET /x HTTP/1.0\r\nPragma: xPlayStrm=1\r\n\r\n");
}

class FaultTest : public ::testing::Test {
 protected:
  FaultTest() {
    std::string error;
    EXPECT_TRUE(loadAsfFile(interop::samplePath(), sample_, error)) << error;
  }
  void startServer(const Faults& faults, const AsfFile& file) {
    ServerOptions options;
    options.faults = faults;
    server_.reset(new MmsTestServer(file, options));
    std::string error;
    ASSERT_TRUE(server_->start(error)) << error;
  }
  void startServer(const Faults& faults) { startServer(faults, sample_); }
  std::vector<std::string> fetchCommand() const {
    return {interop::libmmsFetchPath(), server_->url(), dir_.file("out")};
  }
  std::string fetched() const { return interop::readFile(dir_.file("out")); }

  AsfFile sample_;
  std::unique_ptr<MmsTestServer> server_;
  interop::TempDir dir_;
};

TEST_F(FaultTest, StallHoldsTheClientUntilTheServerStops) {
  Faults faults;
  faults.stallAfter = 50000;  // past the describe answer, early in the play answer
  startServer(faults);
  interop::Child fetch(fetchCommand());
  // Stalled, not ended: the client is still waiting for data.
  EXPECT_FALSE(fetch.wait(1500)) << fetch.output();

  auto start = Clock::now();
  server_.reset();
  EXPECT_LT(msSince(start), 1000);  // a stalled session does not hold up shutdown
  ASSERT_TRUE(fetch.wait(5000));
  EXPECT_EQ(fetch.exitCode(), 0) << fetch.output();
  std::string got = fetched();
  std::string all = asfStreamBytes(sample_);
  EXPECT_GE(got.size(), sample_.header.size());
  EXPECT_LT(got.size(), 50000u);
  EXPECT_EQ(interop::firstDifference(got, all.substr(0, got.size())), -1);
}

TEST_F(FaultTest, ResetEndsTheConnectionWithAnRst) {
  Faults faults;
  faults.resetAfter = 20000;
  startServer(faults);

  interop::RawExchange raw = rawPlay(server_->port());
  EXPECT_EQ(raw.error, ECONNRESET);
  EXPECT_LE(raw.bytes.size(), 20000u);

  interop::RunResult r = interop::run(fetchCommand(), 10000);
  ASSERT_FALSE(r.timedOut);
  EXPECT_EQ(r.exitCode, 0) << r.output;
  std::string got = fetched();
  EXPECT_LT(got.size(), 20000u);
  EXPECT_EQ(interop::firstDifference(got, asfStreamBytes(sample_).substr(0, got.size())), -1);
}

TEST_F(FaultTest, DripDeliversTheExactStreamSlowly) {
  AsfFile tiny;
  std::string error;
  ASSERT_TRUE(parseAsf(generateAsf(0, 128), tiny, error)) << error;
  Faults faults;
  faults.dripIntervalMs = 1;
  startServer(faults, tiny);

  auto start = Clock::now();
  interop::RunResult r = interop::run(fetchCommand(), 30000);
  ASSERT_FALSE(r.timedOut);
  EXPECT_EQ(r.exitCode, 0) << r.output;
  EXPECT_EQ(fetched(), asfStreamBytes(tiny));
  // Both answers carry the header, one byte per interval at the least.
  EXPECT_GE(msSince(start), static_cast<long long>(2 * tiny.header.size()));
}

TEST_F(FaultTest, RefusedConnectionFailsTheOpen) {
  Faults faults;
  faults.refuse = true;
  startServer(faults);
  interop::RunResult r = interop::run(fetchCommand(), 10000);
  EXPECT_FALSE(r.timedOut);
  EXPECT_EQ(r.exitCode, 1) << r.output;
  EXPECT_GE(server_->connectionsServed(), 1);
}

// A damaged header makes both clients give up promptly, neither hangs
// nor reads on into the packets.
TEST_F(FaultTest, HeaderFaultsFailTheOpen) {
  Faults truncated;
  truncated.truncateHeader = 100;
  Faults absurdHeader;
  absurdHeader.absurdHeaderSize = true;
  Faults absurdPacket;
  absurdPacket.absurdPacketSize = true;
  for (const Faults& faults : {truncated, absurdHeader, absurdPacket}) {
    SCOPED_TRACE(faults.truncateHeader >= 0 ? "truncateHeader"
                 : faults.absurdHeaderSize  ? "absurdHeaderSize"
                                            : "absurdPacketSize");
    startServer(faults);
    interop::RunResult r = interop::run(fetchCommand(), 15000);
    EXPECT_FALSE(r.timedOut);
    EXPECT_EQ(r.exitCode, 1) << r.output;
    interop::RunResult ff = interop::run({interop::ffmpegPath(), "-nostdin", "-loglevel", "error",
                                          "-i", server_->url(), "-c", "copy", "-f", "null", "-"},
                                         15000);
    EXPECT_FALSE(ff.timedOut);
    EXPECT_NE(ff.exitCode, 0) << ff.output;
  }

  // On the wire: the announced header, its first 100 bytes, then the end.
  startServer(truncated);
  interop::RawExchange raw = rawPlay(server_->port());
  size_t body = raw.bytes.find("\r\n\r\n") + 4;
  ASSERT_EQ(raw.bytes.size(), body + 12 + 100);
  EXPECT_EQ(getLe16(raw.bytes, body + 2), sample_.header.size() + 8);
  EXPECT_EQ(raw.bytes.compare(body + 12, 100, sample_.header, 0, 100), 0);

  // The absurd packet size is declared in the header, which is otherwise intact.
  startServer(absurdPacket);
  raw = rawPlay(server_->port());
  body = raw.bytes.find("\r\n\r\n") + 4;
  AsfFile declared;
  std::string error;
  ASSERT_TRUE(parseAsf(raw.bytes.substr(body + 12, sample_.header.size()), declared, error))
      << error;
  EXPECT_EQ(declared.packetSize, 0x40000000u);
}

}  // namespace
