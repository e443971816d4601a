// Keeps a fuzz target off the network whatever URL it makes up. Linked into
// the target, these definitions take the place of the C library's for the
// whole process, libmms included:
//  - no name is ever looked up: gethostbyname answers 127.0.0.1 for every
//    name, the other resolver entry points fail;
//  - every IPv4 connect goes to one loopback port that this process holds
//    bound and never listens on, so it is refused at once; IPv6 connects
//    fail. Other address families (the controller's Unix socket) pass.
// The stream code still runs for real up to the refused connection.

#include <errno.h>
#include <netdb.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

int realConnect(int fd, const sockaddr* addr, socklen_t len) {
  return static_cast<int>(syscall(SYS_connect, fd, addr, len));
}

// A port nobody can listen on while we hold it bound; 0 if none was had.
uint16_t deadPort() {
  static uint16_t port = [] {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd == -1) return static_cast<uint16_t>(0);
    sockaddr_in addr;
    memset(&addr, 0, sizeof addr);
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
      close(fd);
      return static_cast<uint16_t>(0);
    }
    return ntohs(addr.sin_port);  // fd stays open for the process's life
  }();
  return port;
}

}  // namespace

extern "C" int connect(int fd, const sockaddr* addr, socklen_t len) {
  if (addr == nullptr || len < sizeof(sa_family_t)) return realConnect(fd, addr, len);
  if (addr->sa_family == AF_INET6) {
    errno = ENETUNREACH;
    return -1;
  }
  if (addr->sa_family != AF_INET) return realConnect(fd, addr, len);
  const uint16_t port = deadPort();
  if (port == 0) {
    errno = ENETUNREACH;
    return -1;
  }
  sockaddr_in loopback;
  memset(&loopback, 0, sizeof loopback);
  loopback.sin_family = AF_INET;
  loopback.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  loopback.sin_port = htons(port);
  return realConnect(fd, reinterpret_cast<const sockaddr*>(&loopback), sizeof loopback);
}

extern "C" hostent* gethostbyname(const char* name) {
  static in_addr loopback;
  static char* addresses[2];
  static char* aliases[1];
  static hostent entry;
  if (name == nullptr) {
    h_errno = HOST_NOT_FOUND;
    return nullptr;
  }
  loopback.s_addr = htonl(INADDR_LOOPBACK);
  addresses[0] = reinterpret_cast<char*>(&loopback);
  addresses[1] = nullptr;
  aliases[0] = nullptr;
  entry.h_name = const_cast<char*>(name);
  entry.h_aliases = aliases;
  entry.h_addrtype = AF_INET;
  entry.h_length = sizeof loopback;
  entry.h_addr_list = addresses;
  return &entry;
}

extern "C" hostent* gethostbyname2(const char*, int) {
  h_errno = HOST_NOT_FOUND;
  return nullptr;
}

extern "C" int gethostbyname_r(const char*, hostent*, char*, size_t, hostent** result, int* err) {
  *result = nullptr;
  *err = HOST_NOT_FOUND;
  return ENOENT;
}

extern "C" int getaddrinfo(const char*, const char*, const addrinfo*, addrinfo** result) {
  *result = nullptr;
  return EAI_FAIL;
}
