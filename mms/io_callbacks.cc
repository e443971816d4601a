// The socket callbacks libmms uses for every connection of a stream. A
// transfer ends after MEDIA_TIMEOUT_S without progress (a read: without a
// byte; a write: without room); one that keeps moving is never cut off. The sockets stay in
// blocking mode for the library; the callbacks ask for non-blocking transfers call by call.
//
// The callbacks run inside library calls that hold no lock of their own, so
// the points between their system calls are safe points (base/wait.h).

#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <iostream>

#include "base/clock.h"
#include "base/wait.h"
#include "mms/read_batch.h"
#include "mms/wrapper_mms.h"

namespace {

const int MEDIA_TIMEOUT_S = 7;

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

// ---- Waiting for the bytes of a whole READ
//
// A socket that is polled wakes the worker at every TCP segment, about every
// 1.5 kB, though the library asks for whole packets and a READ takes many.
// The read callback therefore tells the kernel, through the socket's receive
// low-water mark, how many bytes to gather before it reports the socket
// readable: what the current READ may still need (ReadBatch), or at least
// the piece asked for. On a link of a few Mbit/s a 64 KiB READ then costs one
// wake-up, and every library read within it finds its bytes queued. The
// kernel still reports the socket readable at once on the end of the stream,
// on an error, and when its receive buffer fills, so no batch can hold up
// bytes that are there for good.
//
// With a batch to gather, readiness no longer comes with every byte, so the
// wait is cut into slices of a second, and after each slice that ended
// unready the callback asks TCP how long ago the socket last received data
// (TCP_INFO): under a second, and the stream is still coming, so the wait
// gathers on, at two system calls a second on a slow link; a second or
// more, and the stream has paused, so a transfer takes what came, which may
// be all the library asked for; MEDIA_TIMEOUT_S or more, and it is a stall.
// The kernel's clock runs across the library's reads, so a stall is
// reported 7 to 8 s after the last byte wherever it falls, and a stream
// that trickles however slowly is never cut off; a read that begins after
// the last byte counts its 7 s from its own start, as a fresh wait would. (A socket that is not TCP
// counts slices in which its queue did not grow instead.) Where a READ
// fills within a slice (above about 0.5 Mbit/s), slices never end unready.

const int READ_SLICE_S = 1;
const int STALL_SLICES = MEDIA_TIMEOUT_S / READ_SLICE_S;

// Far above a READ (65,511 bytes at most) and its packets' framing.
const long MAX_BATCH_BYTES = 1L << 18;

// Bytes the current READ may still take from the socket; 0 outside a READ.
long g_batchLeft = 0;

// The socket whose low-water mark was last set, the mark, and the most it
// may be on that socket. Setting it is a system call, and successive waits
// often ask for the same.
int g_lowWaterFd = -1;
int g_lowWater = 1;
long g_lowWaterCap = MAX_BATCH_BYTES;

void wakeWhenQueued(int fd, long bytes) {
  if (fd != g_lowWaterFd) {
    // A batch must fit in what the socket can hold unread, about half its
    // receive buffer (the other half is the kernel's overhead): a mark above
    // it would close the window before the kernel reports the socket ready.
    // Recent kernels grow the buffer for the mark, older ones wake early
    // when it fills; this bound is for those that do neither.
    int buffer = 0;
    socklen_t len = sizeof buffer;
    g_lowWaterCap = getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &buffer, &len) == 0 && buffer > 1
                        ? std::min(static_cast<long>(buffer / 2), MAX_BATCH_BYTES)
                        : 1;
    g_lowWaterFd = fd;
    g_lowWater = 1;  // the kernel's default on a socket not seen before
  }
  const int want = static_cast<int>(std::min(std::max(bytes, 1L), g_lowWaterCap));
  if (want == g_lowWater) return;
  // A socket that does not take the mark wakes at its first byte, as
  // without it; nothing else changes.
  if (setsockopt(fd, SOL_SOCKET, SO_RCVLOWAT, &want, sizeof want) == 0) g_lowWater = want;
}

// A new socket from io_tcp_connect may carry the number of one the library
// has closed, and starts with the kernel's default mark.
void forgetLowWater() {
  g_lowWaterFd = -1;
}

// io_read and io_write are one loop; this names the difference.
struct Transfer {
  const char* name;  // "[WrapperMms::io_read()] " ...
  WaitFor waitFor;
  const char* transferError;  // "read error! errno=" / "write error! errno="
  bool reading;               // a read of 0 is the end; waits gather a batch
};

const Transfer READ_TRANSFER = {"[WrapperMms::io_read()] ", WAIT_READABLE,
                                "read error! errno=", true};
const Transfer WRITE_TRANSFER = {"[WrapperMms::io_write()] ", WAIT_WRITABLE,
                                 "write error! errno=", false};

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

// How a read's waits have gone, where the kernel does not say when the last
// byte came: the slices in a row in which nothing arrived, and the bytes
// queued at the end of the last one. A wait begins after a transfer that
// found the queue empty or emptied it.
struct Quiet {
  int slices = 0;
  int queued = 0;
  // When the library's read began: a read that starts on a socket already
  // silent still waits MEDIA_TIMEOUT_S of its own before it calls it a stall.
  int64_t startedMs = nowMs();
};

// Milliseconds since the socket last received data, as TCP keeps it across
// the library's reads; -1 when the socket is not TCP.
long msSinceData(int fd) {
  tcp_info info;
  socklen_t len = sizeof info;
  if (getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &len) != 0 ||
      len < offsetof(tcp_info, tcpi_last_data_recv) + sizeof info.tcpi_last_data_recv) {
    return -1;
  }
  return static_cast<long>(info.tcpi_last_data_recv);
}

// One wait before a transfer: WAIT_READY when a transfer is to follow,
// whether the batch is there or the stream has paused with bytes queued.
WaitResult waitBeforeTransfer(const Transfer& t, int fd, mms_off_t left, Quiet& quiet) {
  if (!t.reading) return waitFd(fd, WAIT_WRITABLE, MEDIA_TIMEOUT_S);
  wakeWhenQueued(fd, std::max(static_cast<long>(left), g_batchLeft));
  for (;;) {
    const WaitResult ready = waitFd(fd, WAIT_READABLE, READ_SLICE_S);
    if (ready != WAIT_TIMEOUT) {
      quiet.slices = 0;
      return ready;
    }
    const long sinceData = msSinceData(fd);
    if (sinceData >= 0) {
      if (sinceData < READ_SLICE_S * 1000) continue;  // still coming
      if (std::min<int64_t>(sinceData, msSince(quiet.startedMs)) >= MEDIA_TIMEOUT_S * 1000) {
        return WAIT_TIMEOUT;
      }
      return WAIT_READY;  // paused: take what came
    }
    int queued = 0;
    if (ioctl(fd, FIONREAD, &queued) != 0) queued = -1;  // not known: try a transfer
    if (queued > quiet.queued) {
      quiet.queued = queued;
      quiet.slices = 0;
      continue;
    }
    if (++quiet.slices >= STALL_SLICES) return WAIT_TIMEOUT;
    if (queued != 0) return WAIT_READY;
  }
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
  // as one that would find nothing costs a system call for nothing.
  //
  // Because a transfer comes first, a descriptor that is not a socket, or
  // not open, is reported as a read or write error, never as a wait error:
  // the wait-error lines can only come from a wait that failed on a good
  // socket, which libmms, handing over only sockets it holds open, cannot
  // bring about.
  bool waitFirst = false;
  Quiet quiet;
  mms_off_t total = 0;
  while (total < num) {
    safePoint();
    if (waitFirst) {
      const WaitResult ready = waitBeforeTransfer(t, fd, num - total, quiet);
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
    quiet.queued = 0;  // what was queued has been taken, or the piece is whole
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
    if (t.reading) g_batchLeft = std::max(0L, g_batchLeft - static_cast<long>(n));
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

ReadBatch::ReadBatch(long bytes) {
  g_batchLeft = std::max(bytes, 0L);
}

ReadBatch::~ReadBatch() {
  g_batchLeft = 0;
}

mms_off_t WrapperMms::io_read(void* /*data*/, int socket, char* buf, mms_off_t num) {
  return transferAll(READ_TRANSFER, socket, buf, num);
}

mms_off_t WrapperMms::io_write(void* /*data*/, int socket, char* buf, mms_off_t num) {
  return transferAll(WRITE_TRANSFER, socket, buf, num);
}
