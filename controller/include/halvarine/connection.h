#ifndef HALVARINE_CONNECTION_H
#define HALVARINE_CONNECTION_H

// The controller socket: the listener on its path, and the accepted
// connection over which requests go out and replies come back.
//
// Times are milliseconds. Owners release what they hold when destroyed;
// operations that can fail return false and leave the reason in error().
// Single-threaded use.

#include <halvarine/fd.h>
#include <halvarine/protocol.h>
#include <stdint.h>

#include <string>

namespace halvarine {

// The accepted connection: request frames out, reply frames in.
class ControllerConnection {
 public:
  // What the last failed operation met.
  enum class Failure {
    NONE,
    TIMED_OUT,  // nothing (more) came in time; a partly received frame is
                // kept, so receiving again picks it up where it stopped
    LOST,       // the worker closed its end, or the socket failed
    PROTOCOL,   // bytes that are not the expected reply, or a bad request
  };

  ControllerConnection() = default;
  explicit ControllerConnection(UniqueFd fd) : fd_(std::move(fd)) {}
  ControllerConnection(ControllerConnection&&) = default;
  ControllerConnection& operator=(ControllerConnection&&) = default;

  bool connected() const { return fd_.valid(); }
  int fd() const { return fd_.get(); }
  const std::string& error() const { return error_; }
  Failure failure() const { return failure_; }

  // Sends the request's frame, or `bytes` verbatim (for malformed input),
  // completely, waiting up to 5 s at a time for room. A worker that has gone
  // away is an error (LOST), not SIGPIPE.
  bool send(const Request& req);
  bool sendRaw(const std::string& bytes);

  // Receives the next frame and judges it as the reply to the request with
  // echo byte `echo` (decodeReply). The frame must start at the next byte
  // received: the worker sends nothing between frames. Waits up to
  // `timeoutMs` in all. Replies come in request order, so several requests
  // may be sent before their replies are received.
  bool receive(unsigned char echo, int timeoutMs, Reply& out);
  // The same for whatever reply comes next, whatever its echo byte: for a
  // controller that matches replies itself. A reply the worker could not
  // send within its write wait is lost whole, which a gap in the echo
  // bytes shows.
  bool receive(int timeoutMs, Reply& out);

  // True when the worker closes its end within `timeoutMs` with no further
  // bytes sent; bytes received instead are an error.
  bool receiveEof(int timeoutMs);

  // Closes the controller's end, as a controller that goes away does.
  void close() { fd_.reset(); }

 private:
  bool fill(size_t n, int64_t deadlineMs);
  // The next whole frame into `out.frame`, judged by nothing but its cut.
  bool receiveFrame(int timeoutMs, Reply& out);
  bool fail(const std::string& what, Failure kind = Failure::PROTOCOL);

  UniqueFd fd_;
  std::string buffer_;  // bytes received and not yet returned in a frame
  bool eof_ = false;
  std::string error_;
  Failure failure_ = Failure::NONE;
};

// The listening controller socket.
class ControllerListener {
 public:
  ControllerListener() = default;
  ~ControllerListener();
  ControllerListener(ControllerListener&& other) noexcept;
  ControllerListener& operator=(ControllerListener&& other) noexcept;
  ControllerListener(const ControllerListener&) = delete;
  ControllerListener& operator=(const ControllerListener&) = delete;

  // Why listen() failed.
  enum class Failure {
    NONE,
    TAKEN,     // another process holds the path: it accepts, or its queue is full
    UNUSABLE,  // the path cannot be a socket here (too long, not a socket, ...)
    SYSTEM,    // a system call failed
  };

  // Listens on `path`. Another process that listens there keeps it (TAKEN,
  // "another controller is running"), found out at once, even when it
  // accepts nothing. A socket file of this user's with nobody behind it is
  // removed and replaced; anything else in the way is left as it is and
  // named in error(), with its owner (UNUSABLE): a file that is not a
  // socket, another user's stale socket, a socket this user may not
  // connect to, a stale socket that cannot be removed. The file is removed
  // again on destruction, if it is still the one made here.
  bool listen(const std::string& path = CONTROLLER_SOCKET_PATH);

  // Accepts one connection, waiting up to `timeoutMs`.
  bool accept(int timeoutMs, ControllerConnection& out);

  bool listening() const { return fd_.valid(); }
  const std::string& path() const { return path_; }
  const std::string& error() const { return error_; }
  Failure failure() const { return failure_; }
  // Stops listening and removes the socket file.
  void close();

 private:
  bool fail(Failure kind, const std::string& what);

  UniqueFd fd_;
  std::string path_;
  // The socket file made here. Fixed widths: dev_t and ino_t change size
  // with _FILE_OFFSET_BITS on 32-bit systems, and the class must have one
  // layout whatever its user compiles with.
  uint64_t dev_ = 0;
  uint64_t ino_ = 0;
  std::string error_;
  Failure failure_ = Failure::NONE;
};

}  // namespace halvarine

#endif
