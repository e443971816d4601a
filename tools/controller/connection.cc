// The controller socket: the descriptor owner, the listener and the
// accepted connection.

#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "tools/controller/controller.h"
#include "tools/controller/support.h"

namespace controller {

namespace {

const int SEND_WAIT_S = 5;

bool socketAddress(const std::string& path, sockaddr_un& addr) {
  memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof addr.sun_path) return false;
  memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  return true;
}

}  // namespace

// ---- UniqueFd

UniqueFd& UniqueFd::operator=(UniqueFd&& other) noexcept {
  if (this != &other) reset(other.release());
  return *this;
}

int UniqueFd::release() {
  int fd = fd_;
  fd_ = -1;
  return fd;
}

void UniqueFd::reset(int fd) {
  if (fd_ >= 0) ::close(fd_);
  fd_ = fd;
}

// ---- ControllerConnection

bool ControllerConnection::fail(const std::string& what, Failure kind) {
  error_ = what;
  failure_ = kind;
  return false;
}

bool ControllerConnection::send(const Request& req) {
  Packet frame;
  if (!encodeRequest(req, frame)) return fail("request does not fit one frame");
  return sendRaw(frame);
}

bool ControllerConnection::sendRaw(const std::string& bytes) {
  if (!fd_.valid()) return fail("send: not connected", Failure::LOST);
  size_t sent = 0;
  while (sent < bytes.size()) {
    WaitResult w = waitUntil(fd_.get(), WAIT_WRITABLE, deadlineIn(SEND_WAIT_S));
    if (w == WAIT_TIMEOUT) return fail("send: worker does not take data", Failure::TIMED_OUT);
    if (w == WAIT_ERROR) return fail(errnoText("send: wait"), Failure::LOST);
    // MSG_NOSIGNAL: a worker that has gone away must not kill the controller.
    ssize_t n = ::send(fd_.get(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (n < 0) {
      if (errno == EINTR || errno == EAGAIN) continue;
      return fail(errnoText("send"), Failure::LOST);
    }
    sent += static_cast<size_t>(n);
  }
  return true;
}

bool ControllerConnection::fill(size_t n, double deadline) {
  // Reads whatever is there before waiting, and in large pieces: a READ
  // reply is one 64 KiB frame, which should cost a few reads, not a wait
  // per page.
  char chunk[65536];
  while (buffer_.size() < n) {
    if (eof_) return fail("worker closed the connection", Failure::LOST);
    ssize_t got = ::recv(fd_.get(), chunk, sizeof chunk, MSG_DONTWAIT);
    if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
      WaitResult w = waitUntil(fd_.get(), WAIT_READABLE, deadline);
      if (w == WAIT_TIMEOUT) return fail("no reply in time", Failure::TIMED_OUT);
      if (w == WAIT_ERROR) return fail(errnoText("receive: wait"), Failure::LOST);
      continue;
    }
    if (got < 0) return fail(errnoText("receive"), Failure::LOST);
    if (got == 0) {
      eof_ = true;
      continue;
    }
    buffer_.append(chunk, static_cast<size_t>(got));
  }
  return true;
}

bool ControllerConnection::receive(unsigned char echo, int timeoutS, Reply& out) {
  if (!fd_.valid()) return fail("receive: not connected", Failure::LOST);
  const double deadline = deadlineIn(timeoutS);
  if (!fill(FRAME_START_LEN, deadline)) {
    if (!buffer_.empty()) error_ += " (received " + hex(buffer_) + ")";
    return false;
  }
  const unsigned char start[] = {FRAME_SYN, FRAME_SYN, FRAME_STX};
  if (buffer_.compare(0, FRAME_START_LEN, reinterpret_cast<const char*>(start), FRAME_START_LEN) !=
      0) {
    return fail("bytes other than a frame start: " + hex(buffer_));
  }
  if (!fill(FRAME_LENGTH_OFFSET + 2, deadline)) return false;
  const size_t len =
      getBe16(reinterpret_cast<const unsigned char*>(buffer_.data()) + FRAME_LENGTH_OFFSET) +
      FRAME_OVERHEAD;
  if (!fill(len, deadline)) {
    error_ += " (frame of " + std::to_string(len) + " bytes, " + std::to_string(buffer_.size()) +
              " received)";
    return false;
  }
  out.frame.assign(buffer_, 0, len);
  buffer_.erase(0, len);
  std::string why;
  if (!decodeReply(out.frame, echo, out, &why)) return fail(why + "; frame " + hex(out.frame));
  return true;
}

bool ControllerConnection::receiveEof(int timeoutS) {
  if (!fd_.valid()) return fail("receive: not connected", Failure::LOST);
  if (!buffer_.empty()) return fail("bytes received before the end: " + hex(buffer_));
  if (fill(1, deadlineIn(timeoutS))) {
    return fail("bytes received instead of the end: " + hex(buffer_));
  }
  if (eof_) return true;
  error_ =
      "the worker did not close its end within " + std::to_string(timeoutS) + " s (" + error_ + ")";
  return false;
}

// ---- ControllerListener

ControllerListener::~ControllerListener() {
  close();
}

ControllerListener::ControllerListener(ControllerListener&& other) noexcept
    : fd_(std::move(other.fd_)),
      path_(std::move(other.path_)),
      dev_(other.dev_),
      ino_(other.ino_),
      error_(std::move(other.error_)) {
  other.path_.clear();
}

ControllerListener& ControllerListener::operator=(ControllerListener&& other) noexcept {
  if (this != &other) {
    close();
    fd_ = std::move(other.fd_);
    path_ = std::move(other.path_);
    dev_ = other.dev_;
    ino_ = other.ino_;
    error_ = std::move(other.error_);
    other.path_.clear();
  }
  return *this;
}

bool ControllerListener::listen(const std::string& path) {
  close();
  sockaddr_un addr;
  if (!socketAddress(path, addr)) {
    error_ = "socket path unusable: \"" + path + "\"";
    return false;
  }
  const sockaddr* sa = reinterpret_cast<const sockaddr*>(&addr);

  // Someone accepting there already? Then this run must not steal the path.
  struct stat st;
  if (lstat(path.c_str(), &st) == 0) {
    if (!S_ISSOCK(st.st_mode)) {
      error_ = "\"" + path + "\" exists and is not a socket";
      return false;
    }
    UniqueFd probe(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!probe.valid()) {
      error_ = errnoText("socket");
      return false;
    }
    if (connect(probe.get(), sa, sizeof addr) == 0) {
      error_ = "another controller is already listening on \"" + path + "\"";
      return false;
    }
    if (errno != ECONNREFUSED) {
      error_ = errnoText("probing \"" + path + "\"");
      return false;
    }
    if (unlink(path.c_str()) != 0 && errno != ENOENT) {
      error_ = errnoText("removing the stale socket \"" + path + "\"");
      return false;
    }
  }

  UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!fd.valid()) {
    error_ = errnoText("socket");
    return false;
  }
  if (bind(fd.get(), sa, sizeof addr) != 0) {
    error_ = errnoText("bind \"" + path + "\"");
    return false;
  }
  if (lstat(path.c_str(), &st) != 0) {
    error_ = errnoText("stat \"" + path + "\"");
    unlink(path.c_str());
    return false;
  }
  if (::listen(fd.get(), 8) != 0) {
    error_ = errnoText("listen \"" + path + "\"");
    unlink(path.c_str());
    return false;
  }
  fd_ = std::move(fd);
  path_ = path;
  dev_ = st.st_dev;
  ino_ = st.st_ino;
  return true;
}

bool ControllerListener::accept(int timeoutS, ControllerConnection& out) {
  if (!fd_.valid()) {
    error_ = "accept: not listening";
    return false;
  }
  WaitResult w = waitUntil(fd_.get(), WAIT_READABLE, deadlineIn(timeoutS));
  if (w == WAIT_TIMEOUT) {
    error_ = "nobody connected within " + std::to_string(timeoutS) + " s";
    return false;
  }
  if (w == WAIT_ERROR) {
    error_ = errnoText("accept: wait");
    return false;
  }
  UniqueFd conn(accept4(fd_.get(), nullptr, nullptr, SOCK_CLOEXEC));
  if (!conn.valid()) {
    error_ = errnoText("accept");
    return false;
  }
  out = ControllerConnection(std::move(conn));
  return true;
}

void ControllerListener::close() {
  if (!fd_.valid()) return;
  fd_.reset();
  // Remove the file only if it is still ours: a later listener may own the
  // path by now.
  struct stat st;
  if (lstat(path_.c_str(), &st) == 0 && st.st_dev == dev_ && st.st_ino == ino_) {
    unlink(path_.c_str());
  }
  path_.clear();
}

}  // namespace controller
