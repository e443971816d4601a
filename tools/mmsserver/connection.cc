#include "tools/mmsserver/connection.h"

#include <errno.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

namespace {

constexpr int kReadSilenceMs = 10000;
constexpr size_t kMaxHttpHead = 64 * 1024;

}  // namespace

WaitOutcome waitFor(int fd, short events, int stopFd, int timeoutMs) {
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  for (;;) {
    pollfd fds[2] = {{fd, events, 0}, {stopFd, POLLIN, 0}};
    int wait = -1;
    if (timeoutMs >= 0) {
      // Rounded up: a 1 ms wait must not turn into a busy poll.
      auto leftUs =
          std::chrono::duration_cast<std::chrono::microseconds>(deadline - Clock::now()).count();
      wait = leftUs > 0 ? static_cast<int>((leftUs + 999) / 1000) : 0;
    }
    int n = poll(fds, stopFd >= 0 ? 2 : 1, wait);
    if (n < 0) {
      if (errno == EINTR) continue;
      return WaitOutcome::FAILED;
    }
    if (stopFd >= 0 && fds[1].revents != 0) return WaitOutcome::STOPPED;
    if (fd >= 0 && fds[0].revents != 0) return WaitOutcome::READY;
    if (n == 0) return WaitOutcome::TIMEOUT;
  }
}

Connection::Connection(int fd, const Faults& faults, int stopFd, int64_t rate)
    : fd_(fd), faults_(faults), stopFd_(stopFd), rate_(rate) {}

Connection::~Connection() {
  if (fd_ < 0) return;
  // Unread request bytes at close() would turn the FIN into an RST and could
  // cost the client the tail of the stream, so take what is already there.
  shutdown(fd_, SHUT_WR);
  char scratch[4096];
  while (recv(fd_, scratch, sizeof scratch, MSG_DONTWAIT) > 0) {
  }
  close(fd_);
}

bool Connection::readExact(void* buf, size_t n) {
  char* p = static_cast<char*>(buf);
  while (n > 0 && fd_ >= 0) {
    ssize_t got = recv(fd_, p, n, MSG_DONTWAIT);
    if (got > 0) {
      p += got;
      n -= static_cast<size_t>(got);
      continue;
    }
    if (got == 0) return false;
    if (errno == EINTR) continue;
    if (errno != EAGAIN && errno != EWOULDBLOCK) return false;
    if (waitFor(fd_, POLLIN, stopFd_, kReadSilenceMs) != WaitOutcome::READY) return false;
  }
  return n == 0;
}

bool Connection::readHttpHead(std::string& head) {
  head.clear();
  char c;
  while (head.size() < kMaxHttpHead) {
    if (!readExact(&c, 1)) return false;
    head.push_back(c);
    size_t size = head.size();
    if (c == '\n' && size >= 2 &&
        (head[size - 2] == '\n' || (size >= 4 && head.compare(size - 4, 4, "\r\n\r\n") == 0))) {
      return true;
    }
  }
  return false;
}

bool Connection::readable(int timeoutMs) {
  return fd_ >= 0 && waitFor(fd_, POLLIN, stopFd_, timeoutMs) == WaitOutcome::READY;
}

bool Connection::sendNow(const char* p, size_t n) {
  while (n > 0) {
    ssize_t put = ::send(fd_, p, n, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (put > 0) {
      p += put;
      n -= static_cast<size_t>(put);
      continue;
    }
    if (put < 0 && errno == EINTR) continue;
    if (put < 0 && errno != EAGAIN && errno != EWOULDBLOCK) return false;
    // A client may pause its reading for as long as it likes; only its
    // leaving or the server stopping ends the wait.
    if (waitFor(fd_, POLLOUT, stopFd_, -1) != WaitOutcome::READY) return false;
  }
  return true;
}

void Connection::stall() {
  char scratch[4096];
  for (;;) {
    if (waitFor(fd_, POLLIN, stopFd_, -1) != WaitOutcome::READY) return;
    ssize_t got = recv(fd_, scratch, sizeof scratch, MSG_DONTWAIT);
    if (got == 0) return;
    if (got < 0 && errno != EINTR && errno != EAGAIN && errno != EWOULDBLOCK) return;
  }
}

// Byte k goes out no sooner than k / rate seconds after the first, in
// pieces of a fiftieth of a second's worth.
bool Connection::pace(size_t& piece) {
  using namespace std::chrono;
  if (rate_ <= 0) return true;
  const auto now = steady_clock::now();
  if (sent_ == 0) firstSend_ = now;
  piece = std::min<size_t>(piece, static_cast<size_t>(std::max<int64_t>(1, rate_ / 50)));
  const auto due = firstSend_ + microseconds(sent_ * 1000000 / rate_);
  if (due <= now) return true;
  const int waitMs = static_cast<int>(duration_cast<milliseconds>(due - now).count()) + 1;
  return waitFor(-1, 0, stopFd_, waitMs) == WaitOutcome::TIMEOUT;
}

void Connection::reset() {
  // "Reset after N bytes" means the client's kernel has the N bytes: a reset
  // drops whatever still waits in our send queue, so a client that reads
  // slowly would otherwise lose some of them depending on timing. Waits a
  // bounded while for the queue to drain.
  for (int i = 0; i < 200; ++i) {
    int queued = 0;
    if (ioctl(fd_, SIOCOUTQ, &queued) != 0 || queued == 0) break;
    if (waitFor(fd_, 0, stopFd_, 10) == WaitOutcome::STOPPED) break;
  }
  linger hard{1, 0};
  setsockopt(fd_, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
  close(fd_);
  fd_ = -1;
}

bool Connection::send(const void* buf, size_t n) {
  if (fd_ < 0) return false;
  const char* p = static_cast<const char*>(buf);
  const bool drip = faults_.dripIntervalMs > 0;
  while (n > 0) {
    // Whichever byte-count fault comes first takes over at its count.
    bool stallFirst = faults_.stallAfter >= 0 &&
                      (faults_.resetAfter < 0 || faults_.stallAfter <= faults_.resetAfter);
    int64_t limit = stallFirst ? faults_.stallAfter : faults_.resetAfter;
    if (limit >= 0 && sent_ >= limit) {
      if (stallFirst) {
        stall();
      } else {
        reset();
      }
      return false;
    }
    size_t piece = drip ? 1 : n;
    if (limit >= 0 && static_cast<int64_t>(piece) > limit - sent_) {
      piece = static_cast<size_t>(limit - sent_);
    }
    if (!pace(piece)) return false;
    if (!sendNow(p, piece)) return false;
    p += piece;
    n -= piece;
    sent_ += static_cast<int64_t>(piece);
    if (drip && waitFor(-1, 0, stopFd_, faults_.dripIntervalMs) != WaitOutcome::TIMEOUT) {
      return false;
    }
  }
  return true;
}
