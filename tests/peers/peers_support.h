#ifndef HALVARINE_TESTS_PEERS_PEERS_SUPPORT_H
#define HALVARINE_TESTS_PEERS_PEERS_SUPPORT_H

// The worker against programs that others wrote: a real HTTP proxy
// (tinyproxy), a real MMSH server (VLC's streaming output), and the
// system's own resolver and packet filter inside a private network
// namespace. Every process and file set up here belongs to an owner that
// removes it in its destructor, whatever the test did. Time-outs are in
// whole seconds unless the name says otherwise.

#include <gtest/gtest.h>
#include <stdint.h>
#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/servers/interop_support.h"
#include "tools/controller/controller.h"

namespace peers {

// A TCP port on `address` that was free a moment ago, for programs that
// must be told their port. 0 when none could be had.
uint16_t freeTcpPort(const std::string& address);

// True once something accepts TCP connections on address:port, trying
// until `timeoutMs` has passed or `child` (when given) has ended.
bool waitForListener(const std::string& address, uint16_t port, int timeoutMs,
                     interop::Child* child = nullptr);

// A TCP port on 127.0.0.1 that refuses connections: bound, never listening.
// It stays taken while the owner lives.
class RefusingPort {
 public:
  RefusingPort();
  bool valid() const { return fd_.valid(); }
  uint16_t port() const { return port_; }

 private:
  controller::UniqueFd fd_;
  uint16_t port_ = 0;
};

// Runs a command to its end (at most `timeoutMs`); true when it exited 0.
// `output` gets what it wrote.
bool runQuietly(const std::vector<std::string>& argv, std::string* output = nullptr,
                int timeoutMs = 10000);

// The account that helper daemons run as when the test runs as root
// (tinyproxy drops root on its own; VLC refuses to start as root), and the
// command prefix that runs a program as it: empty when the test does not
// run as root.
struct Unprivileged {
  std::string user = "nobody";
  std::string group = "nogroup";
  uid_t uid = 65534;
  gid_t gid = 65534;
};
bool runningAsRoot();
bool unprivilegedAccount(Unprivileged& out, std::string& error);
std::vector<std::string> dropPrivilegesPrefix(const Unprivileged& account);

// A directory the unprivileged account can read and enter (the usual private
// temporary directory is root's alone).
class SharedTempDir {
 public:
  SharedTempDir();
  const std::string& path() const { return dir_.path(); }
  std::string file(const std::string& name) const { return dir_.file(name); }

 private:
  interop::TempDir dir_;
};

// tinyproxy in the foreground on 127.0.0.1, allowing only 127.0.0.1, with
// its log in its own directory.
class TinyProxy {
 public:
  // Writes the configuration and starts the proxy; false with `error` set
  // when it does not come up listening within a few seconds.
  bool start(std::string& error);
  uint16_t port() const { return port_; }
  std::string log() const;
  // "http://127.0.0.1:PORT", the form that libmms takes for http_proxy.
  std::string url() const;

 private:
  SharedTempDir dir_;
  std::unique_ptr<interop::Child> process_;
  uint16_t port_ = 0;
};

// A network namespace of its own, with its loopback up (which owns all of
// 127.0.0.0/8) and an /etc/hosts of the test's choosing that `ip netns exec`
// puts in place for the programs run through prefix(). Deleted, hosts file
// and all, on destruction. Needs root.
class NetNamespace {
 public:
  NetNamespace() = default;
  ~NetNamespace();
  NetNamespace(const NetNamespace&) = delete;
  NetNamespace& operator=(const NetNamespace&) = delete;

  // `hosts` is the whole text of the namespace's hosts file.
  bool create(const std::string& hosts, std::string& error);
  // Makes every TCP packet to `address` vanish (nft, else iptables), so
  // connects to it hang rather than fail.
  bool dropTcpTo(const std::string& address, std::string& error);
  // Runs argv inside the namespace; true when it exited 0.
  bool exec(const std::vector<std::string>& argv, std::string* output = nullptr);
  // "ip netns exec NAME", to put before a command.
  std::vector<std::string> prefix() const;

 private:
  std::string name_;
  std::string configDir_;     // /etc/netns/NAME, when created here
  bool createdNetnsRoot_ = false;
};

// The worker through the controller library, with the stream requests and
// its standard error at hand; what it said is shown when a test fails.
class PeerTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Starts the worker that the environment names (workerFromEnvironment),
  // with `before` in front of the environment's launcher.
  void startWorker(const std::vector<std::string>& before = {});

  // One request and its reply, which must come within `timeoutS`.
  controller::Reply call(const std::string& word, const std::vector<std::string>& params = {},
                         int timeoutS = 10);

  // What a bounded read of an open stream delivered: the bytes of every
  // "OK_" reply in order, and the status word that ended the reads ("OK_"
  // when a limit was reached).
  struct Fetched {
    std::string bytes;
    std::string lastStatus;
  };
  // READs `chunk` bytes at a time until the stream says other than "OK_",
  // `maxBytes` have come or `maxSeconds` have passed.
  Fetched readStream(int chunk, size_t maxBytes, int maxSeconds);

  // PEND, its "OK_", and the worker's end with status 0.
  void endWorker();

  std::string stderrText() { return session_.worker().stderrText(); }
  std::vector<std::string> stderrLines() { return session_.worker().stderrLines(); }

  controller::WorkerSession session_;
  unsigned char echo_ = 0x20;
};

// The 16 bytes that open every ASF header object.
extern const char ASF_HEADER_GUID[16];

// How many lines are exactly `line`.
size_t countLines(const std::vector<std::string>& lines, const std::string& line);
// The index of the first line equal to `line` at or after `from`; -1 when none.
long findLine(const std::vector<std::string>& lines, const std::string& line, size_t from = 0);

}  // namespace peers

#endif
