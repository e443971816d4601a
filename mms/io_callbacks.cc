// The socket callbacks libmms uses for every connection of a stream. A
// transfer ends after MEDIA_TIMEOUT_S without progress (a read: without a
// byte; a write: without room); one that keeps moving is never cut off. The
// sockets stay in blocking mode for the library; the callbacks ask for
// non-blocking transfers call by call. How a read waits is in read_wait.cc.
//
// The callbacks run inside library calls that hold no lock of their own, so
// the points between their system calls are safe points (base/wait.h).

#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <iostream>

#include "base/wait.h"
#include "mms/read_wait.h"
#include "mms/wrapper_mms.h"

namespace {

// Log writes may touch errno; the connect loop decides on the errno of the
// last failed system call, so every log write in it keeps errno as it was.
class KeepErrno {
 public:
  KeepErrno() : saved_(errno) {}
  ~KeepErrno() { errno = saved_; }
  int value() const { return saved_; }

 private:
  int saved_;
};

void logConnect(const char* text) {
  KeepErrno keep;
  std::cerr << "[WrapperMms::io_tcp_connect]" << text << std::endl;
}

void logConnectErr(const char* text) {
  KeepErrno keep;
  fputs(text, stderr);
}

int newTcpSocket() {
  return socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
}

bool setBlockingFlags(int fd, int flags) {
  return fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) != -1;
}

// Puts back the blocking mode that a failed attempt had switched off.
void restoreAfterFailure(int fd, bool wasNonBlocking, int savedFlags) {
  if (!wasNonBlocking && !setBlockingFlags(fd, savedFlags)) logConnectErr("ERR - set Blocking\n");
}

// One connection attempt to one address on `fd`. Returns true when `fd` is
// connected (and back in its former blocking mode).
bool tryAddress(int fd, const sockaddr_in& addr) {
  const int savedFlags = fcntl(fd, F_GETFL);
  if (savedFlags == -1) {
    logConnectErr("ERR - get socket option\n");
    return false;
  }
  const bool wasNonBlocking = (savedFlags & O_NONBLOCK) != 0;
  if (!wasNonBlocking && fcntl(fd, F_SETFL, savedFlags | O_NONBLOCK) == -1) {
    logConnectErr("ERR - set nonblocking\n");
    return false;
  }

  if (::connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0) {
    if (wasNonBlocking || setBlockingFlags(fd, savedFlags)) return true;
    logConnectErr("ERR - set Blocking\n");
    return false;
  }
  if (errno != EINPROGRESS) {
    {
      KeepErrno keep;
      fprintf(stderr, "ERR - connect\n errno = %d / msg = %s\n", keep.value(),
              strerror(keep.value()));
    }
    restoreAfterFailure(fd, wasNonBlocking, savedFlags);
    return false;
  }

  const WaitResult ready = waitFd(fd, WAIT_WRITABLE, MEDIA_TIMEOUT_S);
  if (ready != WAIT_READY) {
    if (ready == WAIT_TIMEOUT) {
      // The wait gave up on a connection in progress: say so in errno, as
      // connect left it, so the caller knows to start on a fresh socket.
      errno = EINPROGRESS;
      logConnectErr("ERR - timeout\n");
    } else {
      KeepErrno keep;
      fprintf(stderr, "ERR - select : %d\n", keep.value());
    }
    restoreAfterFailure(fd, wasNonBlocking, savedFlags);
    return false;
  }

  int pending = 0;
  socklen_t len = sizeof pending;
  if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &pending, &len) == -1) {
    {
      KeepErrno keep;
      fprintf(stderr, "ERR - getsockopt : %d\n", keep.value());
    }
    restoreAfterFailure(fd, wasNonBlocking, savedFlags);
    return false;
  }
  if (pending != 0) {
    errno = EINPROGRESS;
    {
      KeepErrno keep;
      fprintf(stderr, "ERR - connect with select : %d\n", pending);
    }
    restoreAfterFailure(fd, wasNonBlocking, savedFlags);
    return false;
  }
  if (!wasNonBlocking && !setBlockingFlags(fd, savedFlags)) logConnectErr("ERR - set Blocking\n");
  return true;
}

// io_read and io_write are one loop; this names the difference.
struct Transfer {
  const char* name;           // "[WrapperMms::io_read()] " ...
  const char* transferError;  // "read error! errno=" / "write error! errno="
  bool reading;               // a read of 0 is the end; waits gather a batch
};

const Transfer READ_TRANSFER = {"[WrapperMms::io_read()] ", "read error! errno=", true};
const Transfer WRITE_TRANSFER = {"[WrapperMms::io_write()] ", "write error! errno=", false};

// One transfer that does not block: it takes or gives what the socket has
// room or bytes for now, and EAGAIN when there are none.
ssize_t transferNow(const Transfer& t, int fd, char* buf, size_t len) {
  if (t.reading) return ::recv(fd, buf, len, MSG_DONTWAIT);
  // A server that has gone away must cost the stream, not the process:
  // no SIGPIPE, the error comes back as EPIPE instead.
  return ::send(fd, buf, len, MSG_DONTWAIT | MSG_NOSIGNAL);
}

// EWOULDBLOCK is the same number as EAGAIN on Linux.
bool mustWait(ssize_t n) {
  return n < 0 && errno == EAGAIN;
}

mms_off_t transferAll(const Transfer& t, int fd, char* buf, mms_off_t num) {
  errno = 0;
  if (buf == nullptr) {
    std::cerr << t.name << "invalid argument!" << std::endl;
    return -1;
  }
  if (fd == -1) {
    std::cerr << t.name << "invalid socket!" << std::endl;
    return -1;
  }
  if (num <= 0) return 0;

  // The first transfer goes ahead without a wait: when the bytes are already
  // there (at full speed, or queued by an earlier batched wait), one system
  // call moves them. Once the socket has been found empty (or full), or a
  // transfer moved less than was left, every further transfer waits first,
  // as one that would find nothing costs a system call for nothing. So does
  // the first library read of a READ on a slow link (read_wait.h).
  //
  // Because a transfer comes first, a descriptor that is not a socket, or
  // not open, is reported as a read or write error, not as a wait error
  // (but for that first read of a READ): the wait-error lines come from a
  // wait that failed on a good socket, which libmms, handing over only
  // sockets it holds open, cannot bring about.
  bool waitFirst = t.reading && readWaitsFirst();
  ReadWaits waits;
  mms_off_t total = 0;
  while (total < num) {
    safePoint();
    if (waitFirst) {
      const WaitResult ready = t.reading ? waitToRead(fd, static_cast<long>(num - total), waits)
                                         : waitFd(fd, WAIT_WRITABLE, MEDIA_TIMEOUT_S);
      if (ready == WAIT_TIMEOUT) {
        std::cerr << t.name << "select timeout!" << std::endl;
        return total > 0 ? total : -1;
      }
      if (ready == WAIT_ERROR) {
        const int err = errno;
        std::cerr << t.name << "select error! errno=" << err << std::endl;
        return total > 0 ? total : -1;
      }
    }
    const ssize_t n = transferNow(t, fd, buf + total, static_cast<size_t>(num - total));
    waitFirst = true;
    waits.queued = 0;  // what was queued has been taken, or the piece is whole
    if (mustWait(n)) continue;
    if (n < 0) {
      const int err = errno;
      std::cerr << t.name << t.transferError << err << std::endl;
      return total;
    }
    if (n == 0 && t.reading) {
      std::cerr << t.name << "EOF" << std::endl;
      return total;
    }
    total += n;
    if (t.reading) readTook(static_cast<long>(n));
  }
  return total;
}

}  // namespace

int WrapperMms::io_tcp_connect(void* /*data*/, const char* host, int port) {
  logConnect("");
  if (host == nullptr) {
    logConnect(" invalid argument!");
    return -1;
  }
  const hostent* h = gethostbyname(host);
  if (h == nullptr) {
    std::cerr << "[WrapperMms::io_tcp_connect] unable to resolve host: " << host << std::endl;
    return -1;
  }
  int fd = newTcpSocket();
  if (fd == -1) {
    const int err = errno;
    std::cerr << "[WrapperMms::io_tcp_connect] failed to create socket: " << err << std::endl;
    return -1;
  }
  // The library expects a blocking socket back.
  const int flags = fcntl(fd, F_GETFL);
  if (fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) == -1) {
    const int err = errno;
    std::cerr << "[WrapperMms::io_tcp_connect] can't put socket in "
                 "non-blocking mode: "
              << err << std::endl;
    ::close(fd);
    return -1;
  }
  if (h->h_addr_list == nullptr || h->h_addr_list[0] == nullptr) {
    ::close(fd);
    return -1;
  }

  for (char** entry = h->h_addr_list; *entry != nullptr; ++entry) {
    sockaddr_in addr;
    memset(&addr, 0, sizeof addr);
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port & 0xFFFF));
    memcpy(&addr.sin_addr, *entry, 4);
    if (tryAddress(fd, addr)) {
      forgetLowWater();
      return fd;
    }
    logConnect(" connect failed.");
    // A socket whose connect is still in progress cannot be pointed at
    // another address; anything else can be tried again as it is.
    if (errno == EINPROGRESS) {
      ::close(fd);
      fd = newTcpSocket();
    }
  }
  ::close(fd);
  return -1;
}

mms_off_t WrapperMms::io_read(void* /*data*/, int socket, char* buf, mms_off_t num) {
  return transferAll(READ_TRANSFER, socket, buf, num);
}

mms_off_t WrapperMms::io_write(void* /*data*/, int socket, char* buf, mms_off_t num) {
  return transferAll(WRITE_TRANSFER, socket, buf, num);
}
