// The MMS-over-TCP server against two independent clients, libmms (through
// libmms-fetch, the worker's own library) and ffmpeg's mmst client, and
// against a plain socket for what neither client checks.
//
// "The same stream" means two things here. libmms hands its caller the ASF
// header and then every data packet, so its bytes must equal the served
// header followed by the served packets, byte for byte. ffmpeg demuxes and
// remuxes, so its output bytes say nothing; instead both the served stream
// and the file itself go through ffmpeg's ASF demuxer with stream copy into
// framemd5 (every packet's stream, timestamps, size and payload MD5). Equal
// lists mean ffmpeg's client got every packet intact, in order, with its
// timing.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "tests/servers/interop_support.h"
#include "tools/mmsserver/mmst_wire.h"
#include "tools/mmsserver/server.h"

namespace {

using Clock = std::chrono::steady_clock;

std::string servedStream(const AsfFile& file) {
  std::string all = file.header;
  for (const std::string& p : file.packets) all += p;
  return all;
}

AsfFile loadSample() {
  AsfFile file;
  std::string error;
  EXPECT_TRUE(loadAsfFile(interop::samplePath(), file, error)) << error;
  return file;
}

// A generated stream with packets so small that its header needs several.
constexpr uint32_t kSmallPacket = 128;

struct Fetch {
  int exitCode = -1;
  std::string bytes;
  double seconds = 0;
};

Fetch fetchWithLibmms(const std::string& url, const interop::TempDir& dir) {
  const std::string out = dir.file("libmms.out");
  unlink(out.c_str());
  const auto start = Clock::now();
  interop::RunResult r = interop::run({interop::libmmsFetchPath(), url, out}, 30000);
  Fetch f;
  f.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  EXPECT_FALSE(r.timedOut) << url;
  f.exitCode = r.exitCode;
  f.bytes = interop::readFile(out);
  return f;
}

std::string mmstUrl(const MmsTestServer& server) {
  return "mmst://127.0.0.1:" + std::to_string(server.port()) + "/sample.asf";
}

// A plain client socket that closes itself.
class RawClient {
 public:
  explicit RawClient(uint16_t port) : fd_(socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    timeval tv{5, 0};
    setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    connected_ = connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
  }
  ~RawClient() { close(fd_); }
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;

  bool connected() const { return connected_; }
  bool send(const std::string& bytes) {
    return write(fd_, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
  }
  bool command(uint16_t id, const std::string& body) {
    return send(mmst::makeCommand(mmst::kToServer, id, sequence_++, 0, body));
  }
  // Exactly n bytes; fewer when the server closed or stayed silent for 5 s.
  std::string read(size_t n) {
    std::string got;
    char buf[65536];
    while (got.size() < n) {
      ssize_t r = ::read(fd_, buf, std::min(sizeof buf, n - got.size()));
      if (r <= 0) break;
      got.append(buf, static_cast<size_t>(r));
    }
    return got;
  }
  // The next command message; false on anything else.
  bool readCommand(mmst::Command& cmd) {
    std::string bytes = read(mmst::kLeadBytes);
    const size_t total = mmst::messageSize(bytes);
    if (total == 0) return false;
    bytes += read(total - bytes.size());
    std::string why;
    return mmst::parseCommand(bytes, cmd, why);
  }
  // True when the server closes the connection within the 5 s read limit.
  bool closedByServer() {
    char c;
    return ::read(fd_, &c, 1) == 0;
  }

 private:
  int fd_;
  bool connected_ = false;
  uint32_t sequence_ = 0;
};

std::string le32s(std::initializer_list<uint32_t> words) {
  std::string s;
  for (uint32_t w : words) putLe32(s, w);
  return s;
}

// The client side of the opening up to the open-file report, as both real
// clients do it. Returns the report, or a command with id 0.
mmst::Command openFile(RawClient& c) {
  mmst::Command report;
  mmst::Command ignored;
  if (c.command(mmst::cs::kConnect, le32s({0, 0x0004000B, 0x0003001C})) && c.readCommand(ignored) &&
      c.command(mmst::cs::kFunnelInfo, le32s({0x00F0F0F0, 0x0004000B})) && c.readCommand(ignored) &&
      c.command(mmst::cs::kConnectFunnel, le32s({0, 0xFFFFFFFF, 0, 0x00989680, 2})) &&
      c.readCommand(ignored) && c.command(mmst::cs::kOpenFile, le32s({1, 0xFFFFFFFF, 0, 0})) &&
      c.readCommand(report)) {
    return report;
  }
  return mmst::Command();
}

// The header request both clients send: header packets are to carry
// incarnation 2.
std::string headerRequest() {
  return le32s({1, 0, 0, 0x00800000, 0xFFFFFFFF, 0, 0, 0, 0, 0x40AC2000, 2, 0});
}

class MmstServerTest : public ::testing::Test {
 protected:
  void startServer(const AsfFile& file, const Faults& faults = Faults()) {
    ServerOptions options;
    options.transport = Transport::MMST;
    options.faults = faults;
    server_.reset(new MmsTestServer(file, options));
    std::string error;
    ASSERT_TRUE(server_->start(error)) << error;
  }

  // The count moves when a session ends, just after the client has gone.
  int servedAfterClientsLeft(int want) {
    const auto deadline = Clock::now() + std::chrono::seconds(5);
    while (server_->connectionsServed() < want && Clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return server_->connectionsServed();
  }

  static AsfFile smallPacketStream(const interop::TempDir& dir, std::string& path) {
    const std::string bytes = generateAsf(200 * 1024, kSmallPacket);
    path = dir.file("generated.asf");
    EXPECT_TRUE(interop::writeFile(path, bytes));
    AsfFile file;
    std::string error;
    EXPECT_TRUE(parseAsf(bytes, file, error)) << error;
    return file;
  }

  AsfFile sample_ = loadSample();
  std::unique_ptr<MmsTestServer> server_;
  interop::TempDir dir_;
};

TEST(MmstWire, CommandsRoundTripAtEveryPadding) {
  for (size_t n = 0; n <= 17; ++n) {
    const std::string body(n, '\x5A');
    const std::string m = mmst::makeCommand(mmst::kToClient, 0x06, 41, 123, body);
    ASSERT_EQ(m.size() % 8, 0u) << n;
    ASSERT_EQ(mmst::messageSize(m.substr(0, mmst::kLeadBytes)), m.size()) << n;
    mmst::Command cmd;
    std::string why;
    ASSERT_TRUE(mmst::parseCommand(m, cmd, why)) << n << ": " << why;
    EXPECT_EQ(cmd.id, 0x06);
    EXPECT_EQ(cmd.direction, mmst::kToClient);
    EXPECT_EQ(cmd.sequence, 41u);
    EXPECT_EQ(cmd.body.substr(0, n), body);
    EXPECT_EQ(cmd.body.find_first_not_of('\0', n), std::string::npos) << "padding is zeros";
  }
  // A data packet's length counts its own 8-byte prefix.
  const std::string prefix = mmst::makeDataPrefix(7, 4, 0, 3200);
  EXPECT_EQ(getLe32(prefix, 0), 7u);
  EXPECT_EQ(prefix[4], 4);
  EXPECT_EQ(getLe16(prefix, 6), 3208);
}

TEST(MmstWire, DamagedCommandsAreRejected) {
  const std::string good = mmst::makeCommand(mmst::kToServer, 0x05, 3, 0, std::string(20, 'x'));
  auto damaged = [&](size_t at, char value) {
    std::string m = good;
    m[at] = value;
    return m;
  };
  const std::pair<std::string, std::string> cases[] = {
      {"signature", damaged(mmst::kOffSignature, 0)},
      {"seal", damaged(mmst::kOffSeal + 3, 'X')},
      {"length not a multiple of 8", damaged(mmst::kOffLength, good[mmst::kOffLength] + 1)},
      {"length larger than the bytes", damaged(mmst::kOffLength, good[mmst::kOffLength] + 8)},
      {"chunk count", damaged(mmst::kOffChunkCount, good[mmst::kOffChunkCount] + 1)},
      {"chunk length", damaged(mmst::kOffChunkLength, good[mmst::kOffChunkLength] - 1)},
      {"length far beyond any message", damaged(mmst::kOffLength + 3, 0x7F)},
      {"shorter than the header", good.substr(0, mmst::kHeaderBytes - 8)},
      {"cut short by one byte", good.substr(0, good.size() - 1)},
      {"one byte too many", good + '\0'},
  };
  for (const auto& c : cases) {
    mmst::Command cmd;
    std::string why;
    EXPECT_FALSE(mmst::parseCommand(c.second, cmd, why)) << c.first;
  }
  EXPECT_EQ(mmst::messageSize(damaged(mmst::kOffLength + 3, 0x7F)), 0u);
  EXPECT_EQ(mmst::messageSize(good.substr(0, 8)), 0u);
}

TEST_F(MmstServerTest, FfmpegDemuxesTheSamePacketsAsFromTheFile) {
  ASSERT_FALSE(interop::ffmpegPath().empty());
  startServer(sample_);
  const std::string fromFile = interop::framemd5(interop::samplePath(), dir_);
  const std::string overMmst = interop::framemd5(mmstUrl(*server_), dir_);
  ASSERT_FALSE(fromFile.empty());
  EXPECT_EQ(overMmst, fromFile);
  EXPECT_EQ(servedAfterClientsLeft(1), 1);
}

// Intermediate header packets are flagged "more follows", the last one
// "last"; each client has to see the flags it stops on.
TEST_F(MmstServerTest, HeaderSentInSeveralPacketsReachesBothClients) {
  std::string path;
  const AsfFile file = smallPacketStream(dir_, path);
  ASSERT_GT(file.header.size(), 2 * kSmallPacket) << "the header must need three packets";
  startServer(file);
  const Fetch f = fetchWithLibmms(server_->url(), dir_);
  EXPECT_EQ(f.exitCode, 0);
  EXPECT_EQ(interop::firstDifference(f.bytes, servedStream(file)), -1);
  const std::string fromFile = interop::framemd5(path, dir_);
  ASSERT_FALSE(fromFile.empty());
  EXPECT_EQ(interop::framemd5(mmstUrl(*server_), dir_), fromFile);
}

// Each connection gets a fresh session: the whole stream, exactly, whatever
// came before it on the server, ffmpeg's client included.
TEST_F(MmstServerTest, LibmmsGetsExactlyTheServedStreamOnEveryConnection) {
  startServer(sample_);
  const std::string want = servedStream(sample_);
  for (int i = 0; i < 4; ++i) {
    if (i == 2) {
      EXPECT_FALSE(interop::framemd5(mmstUrl(*server_), dir_).empty());
    }
    const Fetch f = fetchWithLibmms(server_->url(), dir_);
    EXPECT_EQ(f.exitCode, 0) << "fetch " << i;
    EXPECT_EQ(f.bytes.size(), want.size()) << "fetch " << i;
    EXPECT_EQ(interop::firstDifference(f.bytes, want), -1) << "fetch " << i;
  }
  EXPECT_EQ(servedAfterClientsLeft(5), 5);
}

// Neither client reads the sizes of the open-file report, so they are
// checked here, honest and overstated.
TEST_F(MmstServerTest, OpenFileReportDeclaresSizesAndTheFaultsOverstateThem) {
  constexpr size_t kOffPacketSize = 52;
  constexpr size_t kOffPacketCount = 56;
  constexpr size_t kOffHeaderSize = 68;
  struct Case {
    const char* name;
    bool absurdHeader;
    bool absurdPacket;
  } const cases[] = {{"honest", false, false}, {"header", true, false}, {"packet", false, true}};
  for (const Case& c : cases) {
    Faults faults;
    faults.absurdHeaderSize = c.absurdHeader;
    faults.absurdPacketSize = c.absurdPacket;
    startServer(sample_, faults);
    RawClient client(server_->port());
    ASSERT_TRUE(client.connected());
    const mmst::Command report = openFile(client);
    ASSERT_EQ(report.id, mmst::sc::kReportOpenFile) << c.name;
    ASSERT_TRUE(mmst::fits(report.body, kOffHeaderSize, 4)) << c.name;
    EXPECT_EQ(getLe32(report.body, 0), 0u) << "result code, " << c.name;
    EXPECT_EQ(getLe64(report.body, kOffPacketCount), sample_.packets.size()) << c.name;
    const uint32_t header = getLe32(report.body, kOffHeaderSize);
    const uint32_t packet = getLe32(report.body, kOffPacketSize);
    if (c.absurdHeader) {
      EXPECT_GE(header, 1000 * sample_.header.size()) << c.name;
    } else {
      EXPECT_EQ(header, sample_.header.size()) << c.name;
    }
    if (c.absurdPacket) {
      EXPECT_GE(packet, 1000 * sample_.packetSize) << c.name;
    } else {
      EXPECT_EQ(packet, sample_.packetSize) << c.name;
    }
  }
}

// truncateHeader counts ASF header bytes, not prefixes: the client gets
// exactly that many, wherever the cut falls, and then the end of the
// connection.
TEST_F(MmstServerTest, TruncatedHeaderStopsAfterExactlyThatManyBytes) {
  std::string path;
  const AsfFile file = smallPacketStream(dir_, path);
  const int64_t cuts[] = {0, 50, kSmallPacket, kSmallPacket + 1,
                          static_cast<int64_t>(file.header.size())};
  for (int64_t cut : cuts) {
    Faults faults;
    faults.truncateHeader = cut;
    startServer(file, faults);
    RawClient client(server_->port());
    ASSERT_TRUE(client.connected());
    ASSERT_EQ(openFile(client).id, mmst::sc::kReportOpenFile);
    ASSERT_TRUE(client.command(mmst::cs::kReadBlock, headerRequest()));
    mmst::Command accepted;
    ASSERT_TRUE(client.readCommand(accepted));
    EXPECT_EQ(accepted.id, mmst::sc::kReportReadBlock);
    std::string header;
    for (;;) {
      const std::string prefix = client.read(mmst::kDataPrefixBytes);
      if (prefix.size() < mmst::kDataPrefixBytes) break;
      EXPECT_EQ(prefix[4], mmst::kHeaderIncarnation);
      header += client.read(getLe16(prefix, 6) - mmst::kDataPrefixBytes);
    }
    EXPECT_EQ(header, file.header.substr(0, static_cast<size_t>(cut))) << "cut at " << cut;
  }
}

TEST_F(MmstServerTest, HeaderFaultsMakeLibmmsFailPromptly) {
  struct Case {
    const char* name;
    Faults faults;
  };
  std::vector<Case> cases(5);
  cases[0] = {"truncate at 0", Faults()};
  cases[0].faults.truncateHeader = 0;
  cases[1] = {"truncate inside the header", Faults()};
  cases[1].faults.truncateHeader = static_cast<int64_t>(sample_.header.size() / 2);
  cases[2] = {"truncate after the header", Faults()};
  cases[2].faults.truncateHeader = static_cast<int64_t>(sample_.header.size());
  cases[3] = {"absurd header size", Faults()};
  cases[3].faults.absurdHeaderSize = true;
  cases[4] = {"absurd packet size", Faults()};
  cases[4].faults.absurdPacketSize = true;
  for (const Case& c : cases) {
    startServer(sample_, c.faults);
    const Fetch f = fetchWithLibmms(server_->url(), dir_);
    EXPECT_EQ(f.exitCode, 1) << c.name << ": libmms should not open the stream";
    EXPECT_TRUE(f.bytes.empty()) << c.name;
    EXPECT_LT(f.seconds, 5.0) << c.name;
  }
}

// What a client sends that neither real client would ends the session at
// once, and the next client is served as usual.
TEST_F(MmstServerTest, HostileClientsAreDroppedAndTheNextIsServed) {
  startServer(sample_);
  struct Case {
    const char* name;
    std::string bytes;
    bool openFirst;
  };
  std::string notToServer = mmst::makeCommand(mmst::kToClient, mmst::cs::kConnect, 0, 0, "");
  std::string huge = mmst::makeCommand(mmst::kToServer, mmst::cs::kConnect, 0, 0, "");
  huge[mmst::kOffLength + 2] = 0x7F;
  const Case cases[] = {
      {"an HTTP request", "GET /sample.asf HTTP/1.0\r\n\r\n", false},
      {"a command from the server's side", notToServer, false},
      {"a length beyond any message", huge, false},
      {"open file before connect",
       mmst::makeCommand(mmst::kToServer, mmst::cs::kOpenFile, 0, 0, le32s({1, 0, 0, 0})), false},
      {"an unknown command", mmst::makeCommand(mmst::kToServer, 0x77, 9, 0, le32s({0, 0})), true},
      {"more selected streams than entries",
       mmst::makeCommand(mmst::kToServer, mmst::cs::kStreamSwitch, 9, 0, le32s({3, 0x0001FFFF, 0})),
       true},
      {"start playing cut short",
       mmst::makeCommand(mmst::kToServer, mmst::cs::kStartPlaying, 9, 0, le32s({1, 0x0001FFFF})),
       true},
  };
  for (const Case& c : cases) {
    RawClient client(server_->port());
    ASSERT_TRUE(client.connected());
    if (c.openFirst) {
      ASSERT_EQ(openFile(client).id, mmst::sc::kReportOpenFile) << c.name;
    }
    ASSERT_TRUE(client.send(c.bytes)) << c.name;
    EXPECT_TRUE(client.closedByServer()) << c.name;
  }
  const std::size_t n = sizeof cases / sizeof cases[0];
  EXPECT_EQ(
      interop::firstDifference(fetchWithLibmms(server_->url(), dir_).bytes, servedStream(sample_)),
      -1);
  EXPECT_EQ(servedAfterClientsLeft(static_cast<int>(n) + 1), static_cast<int>(n) + 1);
}

}  // namespace
