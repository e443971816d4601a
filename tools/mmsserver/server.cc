#include "tools/mmsserver/server.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <halvarine/fd.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "base/wait.h"
#include "tools/mmsserver/sessions.h"

namespace mmsserver {

using halvarine::UniqueFd;

struct MmsTestServer::Impl {
  AsfFile file;
  ServerOptions options;
  UniqueFd listener;
  // The stop pipe: its read end turns readable (and stays so) when the
  // server is being destroyed, which wakes accept and every session wait.
  UniqueFd stopRead;
  UniqueFd stopWrite;
  uint16_t port = 0;
  int accepted = 0;
  std::atomic<int> served{0};
  std::thread thread;

  void run();
  void serveOne(UniqueFd fd);
};

MmsTestServer::MmsTestServer(const AsfFile& file, const ServerOptions& options) : impl_(new Impl) {
  impl_->file = announcedFile(file, options);
  impl_->options = options;
}

MmsTestServer::~MmsTestServer() {
  if (impl_->thread.joinable()) {
    const char stop = 's';
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
  UniqueFd listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  int one = 1;
  if (!listener.valid() ||
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
  impl_->listener = std::move(listener);
  impl_->port = ntohs(addr.sin_port);
  impl_->thread = std::thread([this] { impl_->run(); });
  return true;
}

uint16_t MmsTestServer::port() const {
  return impl_->port;
}

std::string MmsTestServer::url(const std::string& name) const {
  const char* scheme = impl_->options.protocol == StreamProtocol::MMSH ? "mmsh" : "mms";
  return std::string(scheme) + "://" + impl_->options.address + ":" + std::to_string(impl_->port) +
         "/" + name;
}

int MmsTestServer::connectionsServed() const {
  return impl_->served.load();
}

void MmsTestServer::Impl::run() {
  while (waitFdUntil(listener.get(), WAIT_READABLE, -1, stopRead.get()) == WAIT_READY) {
    UniqueFd fd(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!fd.valid()) continue;
    serveOne(std::move(fd));
    ++served;
  }
}

void MmsTestServer::Impl::serveOne(UniqueFd fd) {
  const int index = accepted++;
  Connection conn(std::move(fd), stopRead.get());
  Link link(conn, faultsForConnection(options.faults, index), options.rate, index);
  if (link.refused()) return;
  if (options.protocol == StreamProtocol::MMSH) {
    serveMmshConnection(link, file, options);
  } else {
    serveMmstConnection(link, file, options);
  }
}

}  // namespace mmsserver
