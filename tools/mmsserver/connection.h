#ifndef HALVARINE_TOOLS_MMSSERVER_CONNECTION_H
#define HALVARINE_TOOLS_MMSSERVER_CONNECTION_H

// One accepted client connection of a test server. Everything the server
// sends goes through send(), which applies the configured faults, so each
// protocol session is written as if nothing went wrong.

#include <stddef.h>
#include <stdint.h>

#include <string>

#include "tools/asf/asf_file.h"
#include "tools/mmsserver/server.h"

class Connection {
 public:
  // Takes ownership of fd. `stopFd`, when not -1, is a descriptor that turns
  // readable when the server stops; every wait watches it, so a stalled or
  // slow session ends promptly on shutdown.
  Connection(int fd, const Faults& faults, int stopFd = -1);
  ~Connection();  // closes (or resets) the socket
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // Reads exactly n bytes. False on end of stream, error, or 10 s of silence.
  bool readExact(void* buf, size_t n);
  // Reads an HTTP request head up to and including the blank line (at most
  // 64 KiB). False on end of stream, error, silence or an over-long head.
  bool readHttpHead(std::string& head);
  // True when the client has sent something (or closed) within timeoutMs.
  bool readable(int timeoutMs);

  // Sends all bytes through the fault policy. False when the session must
  // end: the client went away, or a fault (stall, reset) has taken over.
  bool send(const void* buf, size_t n);
  bool send(const std::string& bytes) { return send(bytes.data(), bytes.size()); }

  int64_t bytesSent() const { return sent_; }
  const Faults& faults() const { return faults_; }
  int fd() const { return fd_; }

 private:
  bool sendNow(const char* p, size_t n);  // no faults; false when the client is gone
  void stall();                           // until the client leaves or the server stops
  void reset();                           // RST instead of FIN

  int fd_;
  Faults faults_;
  int stopFd_;
  int64_t sent_ = 0;
};

// The servers' one readiness wait: `fd` ready for `events` (poll flags; -1
// waits for none), `stopFd` readable (-1: not watched), or `timeoutMs`
// passed (-1: no limit). Hang-up and errors on `fd` count as ready, so the
// next read or write reports them.
enum class WaitOutcome { READY, TIMEOUT, STOPPED, FAILED };
WaitOutcome waitFor(int fd, short events, int stopFd, int timeoutMs);

// One whole session of each protocol on an accepted connection: reads the
// client's requests, answers them and streams `file`. Returns when the
// session is over. Header-related faults (truncateHeader, absurdHeaderSize,
// absurdPacketSize) are the session's to apply; byte-count faults are
// applied by Connection::send.
void serveMmshConnection(Connection& conn, const AsfFile& file);
void serveMmstConnection(Connection& conn, const AsfFile& file);

#endif
