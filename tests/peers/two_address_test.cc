// A host name with two IPv4 addresses whose first does not answer, with
// the system's own resolver and packet filter: inside a network namespace
// of the test's own, /etc/hosts gives twohost.test both addresses and a
// filter rule swallows every packet to the first, so a connect to it hangs
// as one to a dead host does. The worker and the test server both run in
// the namespace; the controller socket is a file, which reaches across.

#include <stdint.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "tests/peers/peers_support.h"

namespace {

using peers::findLine;

const char DEAD_ADDRESS[] = "127.0.5.1";
const char LIVE_ADDRESS[] = "127.0.5.2";

class TwoAddressTest : public peers::PeerTest {};

TEST_F(TwoAddressTest, FirstAddressTimesOutThenTheSecondConnects) {
  if (!peers::runningAsRoot()) GTEST_SKIP() << "network namespaces need root";
  if (interop::findProgram("ip").empty()) GTEST_SKIP() << "ip (Debian iproute2) is not installed";
  peers::NetNamespace ns;
  std::string error;
  if (!ns.create(std::string(DEAD_ADDRESS) + " twohost.test\n" + LIVE_ADDRESS + " twohost.test\n",
                 error)) {
    GTEST_SKIP() << "cannot make a network namespace here: " << error;
  }
  if (!ns.dropTcpTo(DEAD_ADDRESS, error)) GTEST_SKIP() << error;

  // The namespace's resolver knows both addresses.
  std::string resolved;
  ASSERT_TRUE(ns.exec({"getent", "hosts", "twohost.test"}, &resolved)) << resolved;
  ASSERT_NE(resolved.find(DEAD_ADDRESS), std::string::npos) << resolved;
  ASSERT_NE(resolved.find(LIVE_ADDRESS), std::string::npos) << resolved;

  std::vector<std::string> serverArgv = ns.prefix();
  serverArgv.insert(serverArgv.end(), {interop::mmsServerPath(), "--transport", "mmst",
                                       "--address", LIVE_ADDRESS});
  interop::Child server(serverArgv);
  ASSERT_TRUE(server.waitForOutput("\n", 10000)) << server.output();
  // mms://127.0.5.2:PORT/sample.asf
  const std::string served = server.output().substr(0, server.output().find('\n'));
  const std::string prefix = std::string("mms://") + LIVE_ADDRESS + ":";
  ASSERT_EQ(served.compare(0, prefix.size(), prefix), 0) << served;
  const std::string url = "mms://twohost.test:" + served.substr(prefix.size());

  startWorker(ns.prefix());
  if (HasFatalFailure()) return;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(call("CONNECT", {url}, 30).status(), "OK_");
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_GE(seconds, 6.9);
  EXPECT_LT(seconds, 12.0);

  // One connection: the entry line, the time-out on the first address, the
  // failed attempt, and then the second address carries the stream.
  const std::vector<std::string> lines = stderrLines();
  const long entry = findLine(lines, "[WrapperMms::io_tcp_connect]");
  const long timeout = findLine(lines, "ERR - timeout");
  const long failed = findLine(lines, "[WrapperMms::io_tcp_connect] connect failed.");
  const long success = findLine(lines, "[WrapperMms::connect()] open MMST stream success!");
  EXPECT_TRUE(entry >= 0 && entry < timeout && timeout < failed && failed < success)
      << entry << " " << timeout << " " << failed << " " << success;
  EXPECT_EQ(peers::countLines(lines, "ERR - timeout"), 1u);
  EXPECT_EQ(peers::countLines(lines, "[WrapperMms::io_tcp_connect] connect failed."), 1u);
  EXPECT_EQ(peers::countLines(lines, "[WrapperMms::io_tcp_connect]"), 1u);

  Fetched got = readStream(32768, 65536, 10);
  EXPECT_EQ(got.bytes.compare(0, 16, std::string(peers::ASF_HEADER_GUID, 16)), 0);
  EXPECT_EQ(got.bytes.size(), 65536u);
  endWorker();
}

}  // namespace
