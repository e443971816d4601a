#ifndef HALVARINE_TOOLS_MMSSERVER_CONNECTION_H
#define HALVARINE_TOOLS_MMSSERVER_CONNECTION_H

// One accepted client connection of a test server. Everything the server
// sends goes through send(), which applies the configured faults, so each
// protocol session is written as if nothing went wrong.

#include <stddef.h>
#include <stdint.h>

#include <chrono>
#include <string>
#include <vector>

#include "tools/asf/asf_file.h"
#include "tools/mmsserver/server.h"

class Connection {
 public:
  // Takes ownership of fd. `stopFd`, when not -1, is a descriptor that turns
  // readable when the server stops; every wait watches it, so a stalled or
  // slow session ends promptly on shutdown. `rate` (bytes per second, 0: no
  // limit) paces everything sent.
  Connection(int fd, const Faults& faults, int stopFd = -1, int64_t rate = 0);
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
  bool pace(size_t& piece);               // waits for the rate; false when stopped

  int fd_;
  Faults faults_;
  int stopFd_;
  int64_t sent_ = 0;
  int64_t rate_;
  std::chrono::steady_clock::time_point firstSend_;
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
// The data packets one session sends: the file's, once; or, live, round and
// round for ever, each round's times moved on by the length of a round, as
// a broadcast that runs on has them.
class PacketSource {
 public:
  PacketSource(const AsfFile& file, bool live);
  bool has(size_t index) const { return !packets_.empty() && (live_ || index < packets_.size()); }
  // Packet `index` counted from the start of the session; valid until the next call.
  const std::string& at(size_t index);

 private:
  const std::vector<std::string>& packets_;
  const bool live_;
  const uint32_t roundMs_;  // the file's send duration
  std::string shifted_;
};

// `file` is the file as announced (announcedFile); a live stream's packets
// go round for ever.
void serveMmshConnection(Connection& conn, const AsfFile& file, const ServerOptions& options);
void serveMmstConnection(Connection& conn, const AsfFile& file, const ServerOptions& options);

#endif
