#include "tests/peers/peers_support.h"

#include <arpa/inet.h>
#include <grp.h>
#include <netinet/in.h>
#include <pwd.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <iostream>

using controller::Reply;
using controller::Request;

namespace peers {

const char ASF_HEADER_GUID[16] = {'\x30', '\x26', '\xB2', '\x75', '\x8E', '\x66', '\xCF', '\x11',
                                  '\xA6', '\xD9', '\x00', '\xAA', '\x00', '\x62', '\xCE', '\x6C'};

namespace {

sockaddr_in inetAddress(const std::string& address, uint16_t port) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  inet_pton(AF_INET, address.c_str(), &addr.sin_addr);
  return addr;
}

// A socket bound to address:0, and the port the system gave it.
controller::UniqueFd boundToAnyPort(const std::string& address, uint16_t& port) {
  controller::UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in addr = inetAddress(address, 0);
  socklen_t len = sizeof addr;
  if (!fd.valid() || bind(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      getsockname(fd.get(), reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
    port = 0;
    return controller::UniqueFd();
  }
  port = ntohs(addr.sin_port);
  return fd;
}

double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

uint16_t freeTcpPort(const std::string& address) {
  uint16_t port = 0;
  boundToAnyPort(address, port);
  return port;
}

bool waitForListener(const std::string& address, uint16_t port, int timeoutMs,
                     interop::Child* child) {
  const auto start = std::chrono::steady_clock::now();
  while (secondsSince(start) * 1000 < timeoutMs) {
    if (child != nullptr && !child->running()) return false;
    controller::UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in addr = inetAddress(address, port);
    if (connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) return true;
    usleep(50 * 1000);
  }
  return false;
}

RefusingPort::RefusingPort() : fd_(boundToAnyPort("127.0.0.1", port_)) {}

bool runQuietly(const std::vector<std::string>& argv, std::string* output, int timeoutMs) {
  interop::RunResult r = interop::run(argv, timeoutMs);
  if (output != nullptr) *output = r.output;
  return !r.timedOut && r.exitCode == 0;
}

bool runningAsRoot() { return geteuid() == 0; }

bool unprivilegedAccount(Unprivileged& out, std::string& error) {
  const passwd* pw = getpwnam(out.user.c_str());
  const group* gr = getgrnam(out.group.c_str());
  if (pw == nullptr || gr == nullptr) {
    error = "no account " + out.user + ":" + out.group + " to run helper daemons as";
    return false;
  }
  out.uid = pw->pw_uid;
  out.gid = gr->gr_gid;
  return true;
}

std::vector<std::string> dropPrivilegesPrefix(const Unprivileged& account) {
  if (!runningAsRoot()) return {};
  return {"setpriv", "--reuid=" + std::to_string(account.uid),
          "--regid=" + std::to_string(account.gid), "--clear-groups"};
}

SharedTempDir::SharedTempDir() {
  if (!dir_.path().empty()) chmod(dir_.path().c_str(), 0755);
}

bool TinyProxy::start(std::string& error) {
  const std::string logFile = dir_.file("tinyproxy.log");
  const std::string confFile = dir_.file("tinyproxy.conf");
  std::string conf;
  if (runningAsRoot()) {
    // As root tinyproxy drops to this account, which must be able to write
    // its log.
    Unprivileged account;
    if (!unprivilegedAccount(account, error)) return false;
    if (!interop::writeFile(logFile, "") ||
        chown(logFile.c_str(), account.uid, account.gid) != 0) {
      error = "cannot prepare " + logFile;
      return false;
    }
    conf += "User " + account.user + "\nGroup " + account.group + "\n";
  }
  // The port is chosen before tinyproxy binds it, so another program may
  // take it in between: try a few.
  for (int attempt = 0; attempt < 3; ++attempt) {
    port_ = freeTcpPort("127.0.0.1");
    const std::string text = conf + "Port " + std::to_string(port_) +
                             "\nListen 127.0.0.1\nAllow 127.0.0.1\nTimeout 30\nMaxClients 16\n"
                             "LogLevel Info\nLogFile \"" + logFile + "\"\n";
    if (!interop::writeFile(confFile, text)) {
      error = "cannot write " + confFile;
      return false;
    }
    process_.reset(new interop::Child({"tinyproxy", "-d", "-c", confFile}));
    if (waitForListener("127.0.0.1", port_, 5000, process_.get())) return true;
    process_->running();
    error = "tinyproxy did not come up on port " + std::to_string(port_) + ": " +
            process_->output() + log();
    process_.reset();
  }
  return false;
}

std::string TinyProxy::log() const { return interop::readFile(dir_.file("tinyproxy.log")); }

std::string TinyProxy::url() const { return "http://127.0.0.1:" + std::to_string(port_); }

NetNamespace::~NetNamespace() {
  if (name_.empty()) return;
  // Deleting the namespace ends its interfaces and filter rules with it.
  runQuietly({"ip", "netns", "delete", name_});
  if (!configDir_.empty()) {
    unlink((configDir_ + "/hosts").c_str());
    rmdir(configDir_.c_str());
  }
  if (createdNetnsRoot_) rmdir("/etc/netns");
}

bool NetNamespace::create(const std::string& hosts, std::string& error) {
  const std::string name = "halvarine-peers-" + std::to_string(getpid());
  std::string output;
  if (!runQuietly({"ip", "netns", "add", name}, &output)) {
    error = "ip netns add failed: " + output;
    return false;
  }
  name_ = name;
  struct stat st;
  if (stat("/etc/netns", &st) != 0) {
    if (mkdir("/etc/netns", 0755) != 0) {
      error = "cannot create /etc/netns";
      return false;
    }
    createdNetnsRoot_ = true;
  }
  const std::string dir = "/etc/netns/" + name_;
  if (mkdir(dir.c_str(), 0755) != 0) {
    error = "cannot create " + dir;
    return false;
  }
  configDir_ = dir;
  if (!interop::writeFile(dir + "/hosts", hosts)) {
    error = "cannot write " + dir + "/hosts";
    return false;
  }
  if (!exec({"ip", "link", "set", "lo", "up"}, &output)) {
    error = "cannot bring up the namespace's loopback: " + output;
    return false;
  }
  return true;
}

bool NetNamespace::dropTcpTo(const std::string& address, std::string& error) {
  std::string nftOutput;
  const std::string table = "halvarine_peers";
  if (exec({"nft", "add", "table", "ip", table}, &nftOutput) &&
      exec({"nft", "add", "chain", "ip", table, "output",
            "{ type filter hook output priority 0 ; policy accept ; }"},
           &nftOutput) &&
      exec({"nft", "add", "rule", "ip", table, "output", "ip", "daddr", address, "tcp", "dport",
            "1-65535", "drop"},
           &nftOutput)) {
    return true;
  }
  std::string iptablesOutput;
  if (exec({"iptables", "-A", "OUTPUT", "-d", address, "-p", "tcp", "-j", "DROP"},
           &iptablesOutput)) {
    return true;
  }
  error = "neither nft nor iptables could add a drop rule (nft: " + nftOutput +
          "; iptables: " + iptablesOutput + ")";
  return false;
}

bool NetNamespace::exec(const std::vector<std::string>& argv, std::string* output) {
  std::vector<std::string> full = prefix();
  full.insert(full.end(), argv.begin(), argv.end());
  return runQuietly(full, output);
}

std::vector<std::string> NetNamespace::prefix() const { return {"ip", "netns", "exec", name_}; }

void PeerTest::SetUp() {
  // The worker inherits this environment; a proxy of the machine's must not
  // reach libmms in the tests of direct URLs.
  unsetenv("http_proxy");
}

void PeerTest::TearDown() {
  if (!HasFailure()) return;
  for (const std::string& line : stderrLines()) std::cerr << "worker stderr: " << line << "\n";
}

void PeerTest::startWorker(const std::vector<std::string>& before) {
  controller::WorkerSession::Options options;
  options.worker = controller::workerFromEnvironment();
  ASSERT_FALSE(options.worker.empty())
      << "no worker binary: neither HALVARINE_WORKER nor HALVARINE_BUILT_WORKER is set";
  options.launcher.insert(options.launcher.begin(), before.begin(), before.end());
  ASSERT_TRUE(session_.start(options)) << session_.error();
}

Reply PeerTest::call(const std::string& word, const std::vector<std::string>& params,
                     int timeoutS) {
  Reply r;
  EXPECT_TRUE(session_.call(Request::command(word, echo_++, params), timeoutS, r))
      << word << ": " << session_.error();
  if (r.fields.size() < 2) r.fields.resize(2);  // a failed call reads as empty words
  return r;
}

PeerTest::Fetched PeerTest::readStream(int chunk, size_t maxBytes, int maxSeconds) {
  char digits[16];
  snprintf(digits, sizeof digits, "%08d", chunk);
  Fetched out;
  const auto start = std::chrono::steady_clock::now();
  while (out.bytes.size() < maxBytes && secondsSince(start) < maxSeconds) {
    Reply r = call("READ", {digits});
    out.lastStatus = r.status();
    if (r.status() != "OK_") break;
    const std::vector<controller::Field> values = r.values();
    if (values.size() != 2 || !values[1].counted) {
      ADD_FAILURE() << "READ reply without its counted data field";
      break;
    }
    EXPECT_EQ(atoi(values[0].bytes.c_str()), static_cast<int>(values[1].bytes.size()));
    out.bytes += values[1].bytes;
  }
  return out;
}

void PeerTest::endWorker() {
  EXPECT_EQ(call("PEND").status(), "OK_");
  controller::ExitStatus st;
  ASSERT_TRUE(session_.worker().waitExit(5, st)) << session_.worker().error();
  EXPECT_TRUE(st.exited && st.code == 0) << st.toString();
}

size_t countLines(const std::vector<std::string>& lines, const std::string& line) {
  size_t n = 0;
  for (const std::string& l : lines) n += l == line ? 1 : 0;
  return n;
}

long findLine(const std::vector<std::string>& lines, const std::string& line, size_t from) {
  for (size_t i = from; i < lines.size(); ++i) {
    if (lines[i] == line) return static_cast<long>(i);
  }
  return -1;
}

}  // namespace peers
