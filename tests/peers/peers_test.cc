// The worker against programs written by others: tinyproxy as a real HTTP
// proxy, VLC's MMSH streaming output as a real server, and the system's
// resolver and packet filter inside a network namespace of the test's own.

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/support/support.h"

using support::countLines;

namespace {

const std::string ASF_HEADER_GUID(
    "\x30\x26\xB2\x75\x8E\x66\xCF\x11\xA6\xD9\x00\xAA\x00\x62\xCE\x6C", 16);
const char OPEN_MMSH_OK[] = "[WrapperMms::connect()] open MMSH stream success!";
const char OPEN_MMST[] = "[WrapperMms::connect()] open MMST stream!";

bool runningAsRoot() {
  return geteuid() == 0;
}

// tinyproxy drops root on its own; VLC refuses to run as root. As root the
// helpers run as nobody, from a directory that account can read.
struct Helper {
  std::string user = "nobody", groupName = "nogroup";
  uid_t uid = 65534;
  gid_t gid = 65534;
  bool find(std::string& error) {
    const passwd* pw = getpwnam(user.c_str());
    const struct group* gr = getgrnam(groupName.c_str());
    if (pw == nullptr || gr == nullptr)
      return error = "no account " + user + ":" + groupName, false;
    uid = pw->pw_uid;
    gid = gr->gr_gid;
    return true;
  }
  std::vector<std::string> prefix() const {
    if (!runningAsRoot()) return {};
    return {"setpriv", "--reuid=" + std::to_string(uid), "--regid=" + std::to_string(gid),
            "--clear-groups"};
  }
};

class PeerTest : public support::StreamTest {
 protected:
  void SetUp() override {
    StreamTest::SetUp();
    if (!dir.path().empty()) chmod(dir.path().c_str(), 0755);
  }
  support::TempDir dir;
};

// ---- tinyproxy in front of the MMSH server on 127.0.0.2 (it will not
// relay to the address it listens on); libmms takes http://host:port.

TEST_F(PeerTest, WholeStreamThroughTinyproxyEqualsTheDirectRead) {
  MmsTestServer& server = startServer(Transport::MMSH, Faults(), "127.0.0.2");
  const std::string reference = referenceFor(server.url());
  const int servedDirectly = server.connectionsServed();

  const std::string log = dir.file("tinyproxy.log"), conf = dir.file("tinyproxy.conf");
  std::string settings;
  if (runningAsRoot()) {
    Helper account;
    std::string error;
    ASSERT_TRUE(account.find(error)) << error;
    ASSERT_TRUE(support::writeFile(log, ""));
    ASSERT_EQ(0, chown(log.c_str(), account.uid, account.gid));
    settings = "User " + account.user + "\nGroup " + account.groupName + "\n";
  }
  std::unique_ptr<support::Child> proxy;
  uint16_t port = 0;
  // The port is picked before tinyproxy binds it: another may take it first.
  for (int attempt = 0; attempt < 3 && proxy == nullptr; ++attempt) {
    port = support::freeTcpPort("127.0.0.1");
    ASSERT_TRUE(support::writeFile(
        conf, settings + "Port " + std::to_string(port) +
                  "\nListen 127.0.0.1\nAllow 127.0.0.1\nTimeout 30\nMaxClients 16\n"
                  "LogLevel Info\nLogFile \"" +
                  log + "\"\n"));
    proxy.reset(new support::Child({"tinyproxy", "-d", "-c", conf}));
    if (!support::waitForListener("127.0.0.1", port, 5000, proxy.get())) proxy.reset();
  }
  ASSERT_NE(nullptr, proxy) << "tinyproxy did not come up: " << support::readFile(log);
  const std::string proxyUrl = "http://127.0.0.1:" + std::to_string(port);

  // Both stream-URL forms behind the proxy.
  const std::string hostPart = server.url().substr(7);
  for (const std::string& streamUrl : {"mmsh://" + hostPart, "http://" + hostPart}) {
    SCOPED_TRACE(streamUrl);
    ASSERT_EQ("OK_", connect(proxyUrl + "/" + streamUrl, 30).status());
    const Fetched got = readStream(32768, reference.size() + 65536, 60);
    EXPECT_EQ("EOF", got.lastStatus);
    EXPECT_EQ(-1, support::firstDifference(got.bytes, reference));
    EXPECT_EQ("OK_", command("CLOSE").status());
  }
  // Every request went through the proxy: a describe and a play per stream.
  const std::string text = support::readFile(log);
  EXPECT_EQ(4u, support::occurrences(text, "GET /sample.asf HTTP/1.0")) << text;
  EXPECT_EQ(4u, support::occurrences(text, "Established connection to host \"127.0.0.2\"")) << text;
  for (int i = 0; i < 100 && server.connectionsServed() - servedDirectly < 4; ++i) usleep(20000);
  EXPECT_EQ(4, server.connectionsServed() - servedDirectly);
  const std::vector<std::string> lines = outputLines();
  EXPECT_EQ(2u, countLines(lines, "[WrapperMms::connect()] set proxy! : " + proxyUrl));
  EXPECT_EQ(2u, countLines(lines, OPEN_MMSH_OK));
  EXPECT_EQ(0u, countLines(lines, OPEN_MMST));
  endWorker();
}

// ---- VLC's HTTP streaming output with the ASF mux. VLC streams in real
// time, so the worker reads a bounded amount.

TEST_F(PeerTest, WorkerReadsVlcMmshOutputInBothUrlForms) {
  if (support::findProgram("cvlc").empty())
    GTEST_SKIP() << "cvlc (vlc-bin, vlc-plugin-base) absent";
  Helper account;
  std::string error;
  ASSERT_TRUE(!runningAsRoot() || account.find(error)) << error;
  const std::string sample = dir.file("sample.asf");
  ASSERT_TRUE(support::writeFile(sample, support::readFile(support::samplePath())));

  for (const char* scheme : {"mmsh://", "http://"}) {
    SCOPED_TRACE(scheme);
    // Played once: looped, VLC has no header for a moment at each turn.
    const uint16_t port = support::freeTcpPort("127.0.0.1");
    std::vector<std::string> argv = account.prefix();
    argv.insert(
        argv.end(),
        {"env", "HOME=" + dir.path(), "cvlc", "-I", "dummy", "--play-and-exit", sample, "--sout",
         "#std{access=mmsh,mux=asfh,dst=127.0.0.1:" + std::to_string(port) + "}"});
    support::Child vlc(argv);
    // VLC accepts before its mux has a header, and then sends none.
    bool serving = support::waitForListener("127.0.0.1", port, 15000, &vlc);
    for (int i = 0; serving; ++i) {
      const std::string head = support::rawExchange(port, "GET / HTTP/1.0\r\n\r\n").bytes;
      if (head.find(ASF_HEADER_GUID) != std::string::npos) break;
      serving = vlc.running() && i < 100;
      usleep(50000);
    }
    ASSERT_TRUE(serving) << "VLC did not serve: " << vlc.output();

    ASSERT_EQ(
        "OK_",
        connect(scheme + std::string("127.0.0.1:") + std::to_string(port) + "/", 20).status());
    // About 36 KB a second for 6 s.
    const Fetched got = readStream(32768, 200 * 1024, 10);
    EXPECT_TRUE(got.lastStatus == "OK_" || got.lastStatus == "EOF") << got.lastStatus;
    ASSERT_GE(got.bytes.size(), 24u);
    EXPECT_EQ(0, got.bytes.compare(0, 16, ASF_HEADER_GUID));
    // The whole header object, and stream data behind it.
    uint64_t headerSize = 0;
    for (int i = 7; i >= 0; --i)
      headerSize = (headerSize << 8) | static_cast<unsigned char>(got.bytes[16 + i]);
    EXPECT_GT(headerSize, 30u);
    EXPECT_GT(got.bytes.size(), headerSize);
    EXPECT_EQ("OK_", command("CLOSE").status());
  }
  const std::vector<std::string> lines = outputLines();
  EXPECT_EQ(2u, countLines(lines, OPEN_MMSH_OK));
  EXPECT_EQ(0u, countLines(lines, OPEN_MMST));
  EXPECT_EQ(2u, countLines(lines, "[WrapperMms::close()] close MMSH stream! "));
  endWorker();
}

// ---- A host name with two addresses whose first does not answer: in a
// network namespace of the test's own, /etc/hosts gives twohost.test both
// and a filter rule swallows every packet to the first. The worker and the
// server run in the namespace; the controller socket is a file, which
// reaches across.

const char DEAD[] = "127.0.5.1";
const char LIVE[] = "127.0.5.2";

class TwoAddress : public support::StreamTest {
 protected:
  void SetUp() override {}  // the worker starts inside the namespace
};

TEST_F(TwoAddress, SlowFirstAddressTimesOutThenTheSecondConnects) {
  if (!runningAsRoot()) GTEST_SKIP() << "network namespaces need root";
  if (support::findProgram("ip").empty()) GTEST_SKIP() << "ip (iproute2) is not installed";
  unsetenv("http_proxy");
  support::NetNamespace ns;
  std::string out;
  if (!ns.create(std::string(DEAD) + " twohost.test\n" + LIVE + " twohost.test\n", "", out)) {
    GTEST_SKIP() << "cannot make a network namespace here: " << out;
  }
  if (!ns.dropTo(DEAD, out)) GTEST_SKIP() << "no packet filter: " << out;
  ASSERT_TRUE(ns.exec({"getent", "hosts", "twohost.test"}, out)) << out;
  ASSERT_NE(std::string::npos, out.find(DEAD)) << out;
  ASSERT_NE(std::string::npos, out.find(LIVE)) << out;

  std::vector<std::string> argv = ns.prefix();
  argv.insert(argv.end(), {support::mmsServerPath(), "--transport", "mmst", "--address", LIVE});
  support::Child server(argv);
  ASSERT_TRUE(server.waitForOutput("\n", 10000)) << server.output();
  const std::string served = server.output().substr(0, server.output().find('\n'));
  const std::string prefix = std::string("mms://") + LIVE + ":";
  ASSERT_EQ(0, served.compare(0, prefix.size(), prefix)) << served;

  startWorker(ns.prefix());
  if (HasFatalFailure()) return;
  const auto start = support::Clock::now();
  EXPECT_EQ("OK_", connect("mms://twohost.test:" + served.substr(prefix.size()), 30).status());
  EXPECT_GE(support::secondsSince(start), 6.9);
  EXPECT_LT(support::secondsSince(start), 12.0);

  // One connection: the time-out on the first address, then the second.
  const std::vector<std::string> lines = outputLines();
  const long entry = support::findLine(lines, "[WrapperMms::io_tcp_connect]");
  const long timeout = support::findLine(lines, "ERR - timeout");
  const long failed = support::findLine(lines, "[WrapperMms::io_tcp_connect] connect failed.");
  const long success =
      support::findLine(lines, "[WrapperMms::connect()] open MMST stream success!");
  EXPECT_TRUE(entry >= 0 && entry < timeout && timeout < failed && failed < success)
      << entry << " " << timeout << " " << failed << " " << success;
  for (const char* once : {"ERR - timeout", "[WrapperMms::io_tcp_connect] connect failed.",
                           "[WrapperMms::io_tcp_connect]"}) {
    EXPECT_EQ(1u, countLines(lines, once)) << once;
  }
  const Fetched got = readStream(32768, 65536, 10);
  EXPECT_EQ(0, got.bytes.compare(0, 16, ASF_HEADER_GUID));
  EXPECT_EQ(65536u, got.bytes.size());
  endWorker();
}

}  // namespace
