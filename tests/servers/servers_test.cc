// The test MMS servers are every other test's ground truth, so they are held
// to clients written by others. libmms-fetch (the worker's own library, in
// its own process) must get the served header and packets byte for byte;
// ffmpeg's mmsh/mmst clients demux and remux, so their packets are compared
// instead, through framemd5 (stream, timestamps, size and payload MD5 of
// every packet) against the same file read directly. What each fault does
// is checked through the worker, in the fault matrix and the stream tests.

#include <unistd.h>

#include <memory>
#include <string>

#include "tests/support/support.h"

namespace {

// ffmpeg's per-packet digest of a URL or file, stream copied; "" when
// ffmpeg fails.
std::string framemd5(const std::string& input, const support::TempDir& dir) {
  const std::string out = dir.file("framemd5.txt");
  const halvarine::ProgramRun r =
      halvarine::runProgram({"ffmpeg", "-nostdin", "-hide_banner", "-loglevel", "error", "-y", "-i",
                             input, "-map", "0", "-c", "copy", "-f", "framemd5", out},
                            30000);
  return r.succeeded() ? support::readFile(out) : "";
}

struct Row {
  const char* name;
  StreamProtocol transport;
  uint64_t bytes;       // a generated file of about this size; 0: the sample
  uint32_t packetSize;  // of the generated file
};
void PrintTo(const Row& row, std::ostream* os) {
  *os << row.name;
}

// The sample rows first. Then packets so small that the MMST header takes
// three of them, flagged "more follows", then "last".
const Row ROWS[] = {{"MmstSample", StreamProtocol::MMST, 0, 0},
                    {"MmshSample", StreamProtocol::MMSH, 0, 0},
                    {"MmstTinyPackets", StreamProtocol::MMST, 200 * 1024, 128},
                    {"MmshTinyPackets", StreamProtocol::MMSH, 200 * 1024, 128}};

class Served : public ::testing::TestWithParam<Row> {
 protected:
  std::string ffmpegUrl() const {
    return (GetParam().transport == StreamProtocol::MMST ? "mmst" : "mmsh") +
           server->url().substr(server->url().find(':'));
  }

  std::unique_ptr<MmsTestServer> server;
  support::TempDir dir;
};

// Each connection is a session of its own: ffmpeg's, then two by libmms;
// the server counts every connection.
TEST_P(Served, LibmmsGetsTheBytesAndFfmpegThePacketsOnEveryConnection) {
  std::string path = HALVARINE_SAMPLE_ASF, error;
  if (GetParam().bytes != 0) {
    path = dir.file("generated.asf");
    ASSERT_TRUE(support::writeFile(path, generateAsf(GetParam().bytes, GetParam().packetSize)));
  }
  AsfFile file;
  ASSERT_TRUE(loadAsfFile(path, file, error)) << error;
  ASSERT_TRUE(file.packetSize != 128 || file.header.size() > 2u * 128) << "one header packet";
  ServerOptions options;
  options.protocol = GetParam().transport;
  server = support::startMmsServer(file, options);
  const std::string fromFile = framemd5(path, dir);
  ASSERT_FALSE(fromFile.empty()) << "ffmpeg cannot read " << path;
  EXPECT_EQ(fromFile, framemd5(ffmpegUrl(), dir)) << "ffmpeg";
  for (int i = 0; i < 2; ++i) {
    std::string got;
    EXPECT_TRUE(LibmmsStream::readAll(server->url(), 0, got));
    EXPECT_EQ(-1, support::firstDifference(got, asfStreamBytes(file))) << "libmms fetch " << i;
  }
  const int connections = GetParam().transport == StreamProtocol::MMSH ? 6 : 3;  // describe, play
  for (int i = 0; i < 500 && server->connectionsServed() < connections; ++i) usleep(10000);
  EXPECT_EQ(connections, server->connectionsServed());
}

INSTANTIATE_TEST_SUITE_P(Rows, Served, ::testing::ValuesIn(ROWS),
                         ::testing::PrintToStringParamName());

}  // namespace
