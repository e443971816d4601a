// The controller socket: the listener and the accepted connection.

#include <errno.h>
#include <halvarine/connection.h>
#include <pwd.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "base/clock.h"
#include "base/text.h"
#include "base/unix_address.h"
#include "base/wait.h"
#include "base/write_all.h"
#include "channel/packet.h"

namespace halvarine {

namespace {

// The wait for room to send: as long as the worker waits to send its reply.
const int SEND_WAIT_MS = 5000;
// A READ reply is one 64 KiB frame: read it in a few large pieces.
const size_t RECEIVE_CHUNK = 65536;

// "name (uid 1000)", or "uid 1000" for a user without a name here.
std::string ownerText(uid_t uid) {
  passwd pw, *found = nullptr;
  char buffer[1024];
  const std::string id = "uid " + std::to_string(uid);
  if (getpwuid_r(uid, &pw, buffer, sizeof buffer, &found) != 0 || found == nullptr) return id;
  return std::string(found->pw_name) + " (" + id + ")";
}

const char* fileKind(mode_t mode) {
  return S_ISREG(mode)    ? "regular file"
         : S_ISDIR(mode)  ? "directory"
         : S_ISLNK(mode)  ? "symbolic link"
         : S_ISFIFO(mode) ? "FIFO"
                          : "special file";
}

}  // namespace

// ---- ControllerConnection

bool ControllerConnection::fail(const std::string& what, Failure kind) {
  error_ = what;
  failure_ = kind;
  return false;
}

bool ControllerConnection::send(const Request& req) {
  std::string frame;
  if (!encodeRequest(req, frame)) return fail("request does not fit one frame");
  return sendRaw(frame);
}

bool ControllerConnection::sendRaw(const std::string& bytes) {
  if (!fd_.valid()) return fail("send: not connected", Failure::LOST);
  size_t sent = 0;
  // Sent without SIGPIPE: a worker that has gone away must not kill the
  // controller.
  const WaitResult w = writeAll(fd_.get(), bytes.data(), bytes.size(), SEND_WAIT_MS, sent);
  if (w == WAIT_TIMEOUT) return fail("send: the worker takes no data", Failure::TIMED_OUT);
  if (w != WAIT_READY) return fail(errnoText("send"), Failure::LOST);
  return true;
}

bool ControllerConnection::fill(size_t n, int64_t deadlineMs) {
  // Reads whatever is there before waiting, and in large pieces.
  char chunk[RECEIVE_CHUNK];
  while (buffer_.size() < n) {
    if (eof_) return fail("the worker closed the connection", Failure::LOST);
    const ssize_t got = ::recv(fd_.get(), chunk, sizeof chunk, MSG_DONTWAIT);
    if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
      const WaitResult w = waitFdUntil(fd_.get(), WAIT_READABLE, deadlineMs);
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

bool ControllerConnection::receiveFrame(int timeoutMs, Reply& out) {
  if (!fd_.valid()) return fail("receive: not connected", Failure::LOST);
  const int64_t deadline = nowMs() + timeoutMs;
  size_t length = 0;
  for (;;) {
    size_t start = 0;
    length = 0;
    const FrameSearch search = findFrame(buffer_.data(), buffer_.size(), start, length);
    if (search == FRAME_FOUND && start == 0) break;
    // The worker sends nothing between frames: a byte that cannot begin a
    // start sequence is an error as soon as it comes.
    const bool stray = search == FRAME_NO_START
                           ? buffer_.find_first_not_of('\x16') != std::string::npos
                           : start > 0;
    if (stray) return fail("bytes other than a frame start: " + hex(buffer_.substr(0, 16)));
    // The whole frame once its length is known, else whatever comes next.
    if (!fill(length > 0 ? length : buffer_.size() + 1, deadline)) {
      if (!buffer_.empty()) error_ += " (" + std::to_string(buffer_.size()) + " bytes of a frame)";
      return false;
    }
  }
  out.frame.assign(buffer_, 0, length);
  buffer_.erase(0, length);
  return true;
}

bool ControllerConnection::receive(unsigned char echo, int timeoutMs, Reply& out) {
  if (!receiveFrame(timeoutMs, out)) return false;
  std::string why;
  if (!decodeReply(out.frame, echo, out, &why)) return fail(why + "; frame " + hex(out.frame));
  return true;
}

bool ControllerConnection::receive(int timeoutMs, Reply& out) {
  if (!receiveFrame(timeoutMs, out)) return false;
  const unsigned char echo = out.frame.size() > FRAME_START_LEN + HEADER_ECHO
                                 ? out.frame[FRAME_START_LEN + HEADER_ECHO]
                                 : 0;
  std::string why;
  if (!decodeReply(out.frame, echo, out, &why)) return fail(why + "; frame " + hex(out.frame));
  return true;
}

bool ControllerConnection::receiveEof(int timeoutMs) {
  if (!fd_.valid()) return fail("receive: not connected", Failure::LOST);
  if (!buffer_.empty()) return fail("bytes received before the end: " + hex(buffer_));
  if (fill(1, nowMs() + timeoutMs))
    return fail("bytes received instead of the end: " + hex(buffer_));
  if (eof_) return true;
  error_ = "the worker did not close its end within " + std::to_string(timeoutMs) + " ms (" +
           error_ + ")";
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
      error_(std::move(other.error_)),
      failure_(other.failure_) {
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
    failure_ = other.failure_;
    other.path_.clear();
  }
  return *this;
}

bool ControllerListener::fail(Failure kind, const std::string& what) {
  failure_ = kind;
  error_ = what;
  return false;
}

bool ControllerListener::listen(const std::string& path) {
  close();
  failure_ = Failure::NONE;
  sockaddr_un addr;
  if (!unixAddress(path.c_str(), addr)) {
    return fail(Failure::UNUSABLE, "socket path unusable: \"" + path + "\"");
  }
  const sockaddr* sa = reinterpret_cast<const sockaddr*>(&addr);

  // Someone listening there already? Then this run must not steal the path.
  // The probe does not block: a listener whose queue is full (it accepts
  // nothing) makes a blocking connect wait for ever. Whatever is in the way
  // and belongs to another user stays: only a socket file of this user's
  // with nobody behind it (an earlier run that was killed) is replaced.
  struct stat st;
  if (lstat(path.c_str(), &st) == 0) {
    const std::string quoted = "\"" + path + "\"";
    const std::string owner = ownerText(st.st_uid);
    if (!S_ISSOCK(st.st_mode)) {
      return fail(Failure::UNUSABLE, quoted + " is in the way: a " + fileKind(st.st_mode) + " of " +
                                         owner + ", not a socket (left as it is)");
    }
    UniqueFd probe(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!probe.valid()) return fail(Failure::SYSTEM, errnoText("socket"));
    if (connect(probe.get(), sa, sizeof addr) == 0 || errno == EAGAIN) {
      return fail(Failure::TAKEN, "another controller is running: it listens on " + quoted);
    }
    if (errno == EACCES || errno == EPERM) {
      return fail(Failure::UNUSABLE, quoted + " is a socket of " + owner +
                                         " that this user may not connect to, so whether a "
                                         "controller runs there cannot be told (left as it is)");
    }
    if (errno != ECONNREFUSED) {
      return fail(Failure::SYSTEM, errnoText("probing " + quoted));
    }
    if (st.st_uid != geteuid()) {
      return fail(Failure::UNUSABLE, quoted + " is a stale socket of " + owner +
                                         " with nobody listening; it is not this user's to "
                                         "remove (left as it is)");
    }
    if (unlink(path.c_str()) != 0 && errno != ENOENT) {
      return fail(Failure::UNUSABLE, errnoText(quoted + " is a stale socket of " + owner +
                                               " with nobody listening, and it cannot be removed"));
    }
  }

  UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!fd.valid()) return fail(Failure::SYSTEM, errnoText("socket"));
  if (bind(fd.get(), sa, sizeof addr) != 0) {
    // Another controller won the path between the probe and here.
    if (errno == EADDRINUSE) {
      return fail(Failure::TAKEN, "another controller is running: it listens on \"" + path + "\"");
    }
    return fail(Failure::SYSTEM, errnoText("bind \"" + path + "\""));
  }
  if (lstat(path.c_str(), &st) != 0 || ::listen(fd.get(), 8) != 0) {
    const std::string why = errnoText("listen \"" + path + "\"");
    unlink(path.c_str());
    return fail(Failure::SYSTEM, why);
  }
  fd_ = std::move(fd);
  path_ = path;
  dev_ = st.st_dev;
  ino_ = st.st_ino;
  return true;
}

bool ControllerListener::accept(int timeoutMs, ControllerConnection& out) {
  if (!fd_.valid()) return fail(Failure::SYSTEM, "accept: not listening");
  const WaitResult w = waitFdUntil(fd_.get(), WAIT_READABLE, nowMs() + timeoutMs);
  if (w == WAIT_TIMEOUT) {
    return fail(Failure::SYSTEM, "nobody connected within " + std::to_string(timeoutMs) + " ms");
  }
  if (w == WAIT_ERROR) return fail(Failure::SYSTEM, errnoText("accept: wait"));
  UniqueFd conn(accept4(fd_.get(), nullptr, nullptr, SOCK_CLOEXEC));
  if (!conn.valid()) return fail(Failure::SYSTEM, errnoText("accept"));
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

}  // namespace halvarine
