#ifndef HALVARINE_TOOLS_MMSSERVER_CONNECTION_H
#define HALVARINE_TOOLS_MMSSERVER_CONNECTION_H

// One accepted client connection of a test server: the socket and nothing
// else. What goes out on it goes through a Link (faults.h), which applies
// the faults.

#include <halvarine/fd.h>
#include <stddef.h>
#include <stdint.h>

#include <string>

namespace mmsserver {

class Connection {
 public:
  // `stopFd`, when not -1, turns readable when the server stops; every wait
  // watches it, so a stalled or slow session ends promptly on shutdown.
  Connection(halvarine::UniqueFd fd, int stopFd);
  // Ends with a FIN, after taking what the client sent: unread bytes at
  // close would turn it into an RST and could cost the client the tail of
  // the stream. Nothing when reset() came first.
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // Reads exactly n bytes. False on end of stream, error, or 10 s of silence.
  bool readExact(void* buf, size_t n);
  // Reads an HTTP request head up to and including the blank line (at most
  // 64 KiB). False on end of stream, error, silence or an over-long head.
  bool readHttpHead(std::string& head);
  // True when the client has sent something (or closed) within timeoutMs.
  bool readable(int timeoutMs);

  // Writes all n bytes, waiting for as long as the client pauses its
  // reading. False when it has gone or the server stops.
  bool write(const char* p, size_t n);
  // Waits `ms` milliseconds; false when the server stops first.
  bool pause(int ms);
  // Takes and drops what the client sends until it leaves or the server stops.
  void holdUntilClientLeaves();
  // Shuts the sending side (a FIN) and keeps the socket for reading.
  void finishSending();
  // Ends the connection with an RST once what was written has left (a
  // bounded wait), so that "reset after N bytes" means the client has them.
  void reset();
  bool open() const { return fd_.valid(); }

 private:
  halvarine::UniqueFd fd_;
  int stopFd_;
};

}  // namespace mmsserver

#endif
