// The support layer's sockets, ports, tinyproxy and network namespaces.

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>

#include "tests/support/support.h"

using halvarine::UniqueFd;

namespace support {

// ---- Sockets

namespace {

sockaddr_in inetAddress(const std::string& address, uint16_t port) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  inet_pton(AF_INET, address.c_str(), &addr.sin_addr);
  return addr;
}

UniqueFd boundToAnyPort(const std::string& address, uint16_t& port) {
  UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in addr = inetAddress(address, 0);
  socklen_t len = sizeof addr;
  port = 0;
  if (!fd.valid() || bind(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      getsockname(fd.get(), reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
    return UniqueFd();
  }
  port = ntohs(addr.sin_port);
  return fd;
}

}  // namespace

UniqueFd unixSocket(const std::string& path, bool connected) {
  UniqueFd fd(socket(AF_UNIX, SOCK_STREAM, 0));
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
  const sockaddr* a = reinterpret_cast<sockaddr*>(&addr);
  if ((connected ? connect(fd.get(), a, sizeof addr) : bind(fd.get(), a, sizeof addr)) != 0) {
    fd.reset();
  }
  return fd;
}

bool controllerPathFree(int timeoutS) {
  const int64_t start = nowMs();
  do {
    halvarine::ControllerListener probe;  // takes a stale file away, then its own
    if (probe.listen()) return true;
    usleep(500 * 1000);
  } while (msSince(start) < timeoutS * 1000);
  return false;
}

const std::string& privateTmpRefused() {
  static const std::string why = [] {
    const TempDir tmp;
    halvarine::ChildProcess::Options options;
    options.privateTmp = tmp.path();
    halvarine::ChildProcess child;
    halvarine::ExitStatus st;
    if (!child.start({"true"}, options)) return child.error();
    return child.waitExit(5000, st) && st.exited && st.code == 0 ? "" : st.toString();
  }();
  return why;
}

long openFds(pid_t pid) {
  std::error_code gone;
  const std::filesystem::directory_iterator fds("/proc/" + std::to_string(pid) + "/fd", gone);
  return gone ? -1 : std::distance(fds, std::filesystem::directory_iterator());
}

void expectNothingLeft(pid_t pid) {
  if (pid > 0) {
    EXPECT_TRUE(kill(pid, 0) != 0 && errno == ESRCH) << "process " << pid << " left";
  }
  // With private sockets the shared path is none of the tests' business:
  // another user's controller may be using it.
  if (privateTmpRefused().empty()) return;
  EXPECT_FALSE(fileExists(halvarine::CONTROLLER_SOCKET_PATH)) << "controller socket file left";
}

uint16_t freeTcpPort(const std::string& address) {
  uint16_t port = 0;
  boundToAnyPort(address, port);
  return port;
}

std::unique_ptr<Child> startTinyproxy(const TempDir& dir, uint16_t& port) {
  const std::string conf =
      "User nobody\nGroup nogroup\nListen 127.0.0.1\nAllow 127.0.0.1\nLogLevel Info\nPort ";
  std::unique_ptr<Child> proxy;
  // The port is picked before tinyproxy binds it: another may take it first.
  for (int attempt = 0; attempt < 3 && proxy == nullptr; ++attempt) {
    port = freeTcpPort("127.0.0.1");
    if (!writeFile(dir.file("conf"), conf + std::to_string(port) + "\n")) return nullptr;
    proxy.reset(new Child({"tinyproxy", "-d", "-c", dir.file("conf")}));
    if (!proxy->waitForOutput("Accepting connections", 5000)) proxy.reset();
  }
  return proxy;
}

// In the body: port_'s own initializer would undo what boundToAnyPort wrote.
RefusingPort::RefusingPort() {
  fd_ = boundToAnyPort("127.0.0.1", port_);
}

// ---- Network namespaces

namespace {

bool succeeds(const std::vector<std::string>& argv, std::string& output) {
  const halvarine::ProgramRun r = halvarine::runProgram(argv, 10000);
  output = r.output;
  return r.succeeded();
}

}  // namespace

NetNamespace::~NetNamespace() {
  if (name_.empty()) return;
  halvarine::runProgram({"ip", "netns", "delete", name_}, 10000);
  unlink((dir_ + "/hosts").c_str());
  rmdir(dir_.c_str());
  if (createdRoot_) rmdir("/etc/netns");
}

bool NetNamespace::create(const std::string& hosts, std::string& error) {
  const std::string name = "halvarine-test-" + std::to_string(getpid());
  if (!succeeds({"ip", "netns", "add", name}, error)) return false;
  name_ = name;
  struct stat st;
  createdRoot_ = stat("/etc/netns", &st) != 0 && mkdir("/etc/netns", 0755) == 0;
  dir_ = "/etc/netns/" + name_;
  if (mkdir(dir_.c_str(), 0755) != 0 || !writeFile(dir_ + "/hosts", hosts))
    return error = "cannot write " + dir_, false;
  return exec({"ip", "link", "set", "lo", "up"}, error);
}

bool NetNamespace::dropTo(const std::string& address, std::string& error) {
  const std::string t = "halvarine_test";
  return exec({"nft", "add", "table", "ip", t}, error) &&
         exec({"nft", "add", "chain", "ip", t, "input",
               "{ type filter hook input priority 0 ; policy accept ; }"},
              error) &&
         exec({"nft", "add", "rule", "ip", t, "input", "ip", "daddr", address, "drop"}, error);
}

bool NetNamespace::exec(const std::vector<std::string>& argv, std::string& output) {
  std::vector<std::string> full = prefix();
  full.insert(full.end(), argv.begin(), argv.end());
  return succeeds(full, output);
}

}  // namespace support
