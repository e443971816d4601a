// The worker against programs written by others: tinyproxy as a real HTTP
// proxy, VLC's MMSH streaming output as a real server, and the system's
// resolver and packet filter inside a network namespace of the test's own.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/support.h"
#include "tools/asf/asf_stream.h"

namespace {

const char OPEN_MMSH_OK[] = "[WrapperMms::connect()] open MMSH stream success!";
const char OPEN_MMST[] = "[WrapperMms::connect()] open MMST stream!";

// tinyproxy drops root on its own; VLC refuses to run as root, so as root it
// runs as nobody.
std::vector<std::string> asNobody(std::vector<std::string> argv) {
  if (geteuid() == 0) {
    argv.insert(argv.begin(), {"setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups"});
  }
  return argv;
}

// Sends `request` to 127.0.0.1:port and reads until the server closes.
std::string rawExchange(uint16_t port, const std::string& request) {
  halvarine::UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  std::string received;
  if (connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      write(fd.get(), request.data(), request.size()) != static_cast<ssize_t>(request.size())) {
    return received;
  }
  const timeval tv{10, 0};
  setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  char buf[65536];
  for (ssize_t n; (n = read(fd.get(), buf, sizeof buf)) > 0;) received.append(buf, n);
  return received;
}

void expectCounts(const std::vector<std::string>& lines,
                  const std::vector<std::pair<std::string, size_t>>& counts) {
  for (const auto& [line, count] : counts)
    EXPECT_EQ(count, support::countLines(lines, line)) << line;
}

class Peers : public support::StreamTest {};

// tinyproxy in front of the MMSH server on 127.0.0.2 (it will not relay to
// the address it listens on); libmms takes http://host:port as the proxy.
// (Which forms of URL name a proxy: the opening plan's test.)
TEST_F(Peers, WholeStreamThroughTinyproxyEqualsTheDirectRead) {
  MmsTestServer& server = startServer(StreamProtocol::MMSH, Faults(), "127.0.0.2");
  const std::string reference = referenceFor(server.url());
  const support::TempDir dir;
  uint16_t port = 0;
  const std::unique_ptr<support::Child> proxy = support::startTinyproxy(dir, port);
  ASSERT_NE(nullptr, proxy) << "tinyproxy did not come up";
  const std::string proxyUrl = "http://127.0.0.1:" + std::to_string(port);

  const std::string streamUrl = "http://" + server.url().substr(server.url().find("//") + 2);
  ASSERT_EQ("OK_", connect(proxyUrl + "/" + streamUrl, 30).status());
  const Fetched got = readStream(32768, reference.size() + 65536, 60);
  EXPECT_EQ("EOF", got.lastStatus);
  EXPECT_EQ(-1, support::firstDifference(got.bytes, reference));
  EXPECT_EQ("OK_", command("CLOSE").status());
  // Every connection, a describe and a play, went through it; two more
  // were libmms's direct read.
  const std::string log = proxy->output();
  size_t established = 0;
  for (const std::string& line : halvarine::splitLines(log))
    established += line.find("Established connection to host \"127.0.0.2\"") != std::string::npos;
  EXPECT_EQ(2u, established) << log;
  for (int i = 0; i < 100 && server.connectionsServed() < 4; ++i) usleep(20000);
  EXPECT_EQ(4, server.connectionsServed());
  expectCounts(
      outputLines(),
      {{"[WrapperMms::connect()] set proxy! : " + proxyUrl, 1}, {OPEN_MMSH_OK, 1}, {OPEN_MMST, 0}});
  endWorker();
}

// VLC's HTTP streaming output with the ASF mux, played once (looped, it has
// no header for a moment at each turn). It streams in real time, so the
// worker reads a bounded amount: the whole header and data behind it. (The
// http:// form's rewrite: the URL forms' test.)
TEST_F(Peers, WorkerReadsVlcMmshOutput) {
  if (halvarine::findOnPath("cvlc").empty()) GTEST_SKIP() << "cvlc (vlc-bin, vlc-plugin-base)";
  const support::TempDir home;  // nobody's, with a copy of the sample it can read
  chmod(home.path().c_str(), 0755);
  ASSERT_TRUE(support::writeFile(home.file("s.asf"), support::readFile(HALVARINE_SAMPLE_ASF)));
  const std::string headerGuid(reinterpret_cast<const char*>(HEADER_OBJECT.bytes), GUID_SIZE);
  const uint16_t port = support::freeTcpPort("127.0.0.1");
  const std::string address = "127.0.0.1:" + std::to_string(port);
  support::Child vlc(
      asNobody({"env", "HOME=" + home.path(), "cvlc", "-I", "dummy", "--play-and-exit",
                home.file("s.asf"), "--sout", "#std{access=mmsh,mux=asfh,dst=" + address + "}"}));
  // VLC accepts before its mux has a header, and then sends none.
  bool serving = false;
  for (int i = 0; i < 300 && !serving && vlc.running(); ++i) {
    usleep(50000);
    serving = rawExchange(port, "GET / HTTP/1.0\r\n\r\n").find(headerGuid) != std::string::npos;
  }
  ASSERT_TRUE(serving) << "VLC did not serve: " << vlc.output();

  ASSERT_EQ("OK_", connect("mmsh://" + address + "/", 20).status());
  const Fetched got = readStream(32768, 200 * 1024, 10);  // about 36 kB a second for 6 s
  EXPECT_TRUE(got.lastStatus == "OK_" || got.lastStatus == "EOF") << got.lastStatus;
  const uint64_t headerLength = asfStreamHeaderLength(got.bytes);
  EXPECT_GT(headerLength, HEADER_OBJECT_FIXED_SIZE);
  EXPECT_GT(got.bytes.size(), headerLength);
  EXPECT_EQ("OK_", command("CLOSE").status());
  expectCounts(
      outputLines(),
      {{OPEN_MMSH_OK, 1}, {OPEN_MMST, 0}, {"[WrapperMms::close()] close MMSH stream! ", 1}});
  endWorker();
}

// A host name with two addresses whose first does not answer: in a network
// namespace of the test's own, /etc/hosts gives twohost.test both and a
// filter rule swallows every packet to the first. The worker and the server
// run in the namespace; the controller socket is a file, which reaches
// across.
class TwoAddress : public support::StreamTest {
 protected:
  void SetUp() override {}  // the worker starts inside the namespace
};

TEST_F(TwoAddress, SlowFirstAddressTimesOutThenTheSecondConnectsOnOneConnect) {
  if (geteuid() != 0 || halvarine::findOnPath("ip").empty()) GTEST_SKIP() << "needs root and ip";
  unsetenv("http_proxy");
  support::NetNamespace ns;
  std::string out;
  if (!ns.create("127.0.5.1 twohost.test\n127.0.5.2 twohost.test\n", out)) GTEST_SKIP() << out;
  if (!ns.dropTo("127.0.5.1", out)) GTEST_SKIP() << "no packet filter: " << out;
  std::vector<std::string> argv = ns.prefix();
  argv.insert(argv.end(), {HALVARINE_MMS_SERVER, "--transport", "mmst", "--address", "127.0.5.2",
                           "--port", "1755"});
  support::Child server(argv);
  ASSERT_TRUE(server.waitForOutput("\n", 10000)) << server.output();

  ASSERT_NO_FATAL_FAILURE(startWorker(ns.prefix()));
  const auto start = nowMs();
  EXPECT_EQ("OK_", connect("mms://twohost.test/sample.asf", 30).status());
  EXPECT_GE(secondsSince(start), 6.9);
  EXPECT_LT(secondsSince(start), 12.0);
  // Each once, in this order.
  const std::vector<std::string> want = {"[WrapperMms::io_tcp_connect]", "ERR - timeout",
                                         "[WrapperMms::io_tcp_connect] connect failed.",
                                         "[WrapperMms::connect()] open MMST stream success!"};
  std::vector<std::string> seen;
  for (const std::string& line : outputLines())
    if (std::find(want.begin(), want.end(), line) != want.end()) seen.push_back(line);
  EXPECT_EQ(want, seen);
  const std::string head = asfStreamBytes(support::sampleAsf()).substr(0, 65536);
  EXPECT_EQ(-1, support::firstDifference(readStream(32768, 65536, 10).bytes, head));
  endWorker();
}

}  // namespace
