#include "tools/mmsserver/server.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tools/mmsserver/connection.h"

namespace {

// A descriptor that closes itself.
class Fd {
 public:
  Fd() = default;
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() { reset(); }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return fd_; }
  int release() {
    int fd = fd_;
    fd_ = -1;
    return fd;
  }
  void reset(int fd = -1) {
    if (fd_ >= 0) close(fd_);
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

}  // namespace

struct MmsTestServer::Impl {
  AsfFile file;
  ServerOptions options;
  Fd listener;
  // The stop pipe: its read end turns readable (and stays so) when the
  // server is being destroyed, which wakes accept and every session wait.
  Fd stopRead;
  Fd stopWrite;
  uint16_t port = 0;
  int accepted = 0;
  std::atomic<int> served{0};
  std::thread thread;

  void run();
  void serveOne(int fd);
};

MmsTestServer::MmsTestServer(const AsfFile& file, const ServerOptions& options) : impl_(new Impl) {
  impl_->file = announcedFile(file, options);
  impl_->options = options;
}

MmsTestServer::~MmsTestServer() {
  if (impl_->thread.joinable()) {
    char stop = 's';
    while (write(impl_->stopWrite.get(), &stop, 1) < 0 && errno == EINTR) {
    }
    impl_->thread.join();
  }
}

bool MmsTestServer::start(std::string& error) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(impl_->options.port);
  if (inet_pton(AF_INET, impl_->options.address.c_str(), &addr.sin_addr) != 1) {
    error = "not an IPv4 address: " + impl_->options.address;
    return false;
  }
  Fd listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  int one = 1;
  if (listener.get() < 0 ||
      setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) != 0 ||
      bind(listener.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      listen(listener.get(), 16) != 0) {
    error = "cannot listen on " + impl_->options.address + ":" +
            std::to_string(impl_->options.port) + ": " + strerror(errno);
    return false;
  }
  socklen_t len = sizeof addr;
  getsockname(listener.get(), reinterpret_cast<sockaddr*>(&addr), &len);
  int pipeFds[2];
  if (pipe2(pipeFds, O_CLOEXEC) != 0) {
    error = std::string("pipe: ") + strerror(errno);
    return false;
  }
  impl_->stopRead.reset(pipeFds[0]);
  impl_->stopWrite.reset(pipeFds[1]);
  impl_->listener.reset(listener.release());
  impl_->port = ntohs(addr.sin_port);
  impl_->thread = std::thread([this] { impl_->run(); });
  return true;
}

uint16_t MmsTestServer::port() const {
  return impl_->port;
}

std::string MmsTestServer::url(const std::string& name) const {
  const char* scheme = impl_->options.transport == Transport::MMSH ? "mmsh" : "mms";
  return std::string(scheme) + "://" + impl_->options.address + ":" + std::to_string(impl_->port) +
         "/" + name;
}

int MmsTestServer::connectionsServed() const {
  return impl_->served.load();
}

void MmsTestServer::Impl::run() {
  while (waitFor(listener.get(), POLLIN, stopRead.get(), -1) == WaitOutcome::READY) {
    int fd = accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;
    serveOne(fd);
    ++served;
  }
}

void MmsTestServer::Impl::serveOne(int fd) {
  const int first = options.faults.firstConnections;
  const Faults faults = first <= 0 || accepted++ < first ? options.faults : Faults();
  if (faults.refuse) {
    close(fd);
    return;
  }
  Connection conn(fd, faults, stopRead.get(), options.rate);
  if (options.transport == Transport::MMSH) {
    serveMmshConnection(conn, file, options);
  } else {
    serveMmstConnection(conn, file, options);
  }
}
