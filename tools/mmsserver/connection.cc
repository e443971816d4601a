#include "tools/mmsserver/connection.h"

#include <errno.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include "base/clock.h"
#include "base/wait.h"
#include "base/write_all.h"

namespace mmsserver {

namespace {

constexpr int READ_SILENCE_MS = 10000;
constexpr size_t MAX_HTTP_HEAD = 64 * 1024;
// How long a reset waits, at most, for its send queue to drain.
constexpr int RESET_DRAIN_MS = 2000;

}  // namespace

Connection::Connection(halvarine::UniqueFd fd, int stopFd) : fd_(std::move(fd)), stopFd_(stopFd) {}

Connection::~Connection() {
  if (!fd_.valid()) return;
  shutdown(fd_.get(), SHUT_WR);
  char scratch[4096];
  while (recv(fd_.get(), scratch, sizeof scratch, MSG_DONTWAIT) > 0) {
  }
}

bool Connection::readExact(void* buf, size_t n) {
  char* p = static_cast<char*>(buf);
  while (n > 0 && fd_.valid()) {
    const ssize_t got = recv(fd_.get(), p, n, MSG_DONTWAIT);
    if (got > 0) {
      p += got;
      n -= static_cast<size_t>(got);
      continue;
    }
    if (got == 0) return false;
    if (errno == EINTR) continue;
    if (errno != EAGAIN && errno != EWOULDBLOCK) return false;
    if (!readable(READ_SILENCE_MS)) return false;
  }
  return n == 0;
}

bool Connection::readHttpHead(std::string& head) {
  head.clear();
  char c;
  while (head.size() < MAX_HTTP_HEAD) {
    if (!readExact(&c, 1)) return false;
    head.push_back(c);
    const size_t size = head.size();
    if (c == '\n' && size >= 2 &&
        (head[size - 2] == '\n' || (size >= 4 && head.compare(size - 4, 4, "\r\n\r\n") == 0))) {
      return true;
    }
  }
  return false;
}

bool Connection::readable(int timeoutMs) {
  return fd_.valid() &&
         waitFdUntil(fd_.get(), WAIT_READABLE, nowMs() + timeoutMs, stopFd_) == WAIT_READY;
}

bool Connection::write(const char* p, size_t n) {
  if (!fd_.valid()) return n == 0;
  // A client may pause its reading for as long as it likes; only its leaving
  // or the server stopping ends the wait.
  size_t written = 0;
  return writeAll(fd_.get(), p, n, -1, written, stopFd_) == WAIT_READY;
}

bool Connection::pause(int ms) {
  // No descriptor to watch but the stop descriptor: its readiness is the stop.
  return waitFdUntil(stopFd_, WAIT_READABLE, nowMs() + ms) == WAIT_TIMEOUT;
}

void Connection::holdUntilClientLeaves() {
  char scratch[4096];
  while (fd_.valid() && waitFdUntil(fd_.get(), WAIT_READABLE, -1, stopFd_) == WAIT_READY) {
    const ssize_t got = recv(fd_.get(), scratch, sizeof scratch, MSG_DONTWAIT);
    if (got == 0) return;
    if (got < 0 && errno != EINTR && errno != EAGAIN && errno != EWOULDBLOCK) return;
  }
}

void Connection::finishSending() {
  if (fd_.valid()) shutdown(fd_.get(), SHUT_WR);
}

void Connection::reset() {
  if (!fd_.valid()) return;
  // A reset drops whatever still waits in the send queue, so a client that
  // reads slowly would lose some of the bytes before it, by timing.
  const int64_t deadline = nowMs() + RESET_DRAIN_MS;
  for (int queued = 0; ioctl(fd_.get(), SIOCOUTQ, &queued) == 0 && queued > 0;) {
    if (nowMs() >= deadline || !pause(10)) break;
  }
  linger hard{1, 0};
  setsockopt(fd_.get(), SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
  fd_.reset();
}

}  // namespace mmsserver
