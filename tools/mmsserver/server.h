#ifndef HALVARINE_TOOLS_MMSSERVER_SERVER_H
#define HALVARINE_TOOLS_MMSSERVER_SERVER_H

// Test MMS servers on loopback: MMSH (MMS over HTTP) and MMST (MMS over TCP).
// They serve one AsfFile to each connection in turn, as fast as the client
// reads, and can misbehave on purpose.

#include <stdint.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "tools/asf/asf_file.h"

enum class Transport { MMSH, MMST };

// What the server does wrong. Byte counts are of the bytes the server sends
// on one connection, protocol bytes included.
struct Faults {
  // The faults below apply to the first `firstConnections` TCP connections
  // the server accepts; later ones are served cleanly (0: every connection).
  // An MMSH open takes two: describe, then play.
  int firstConnections = 0;
  bool refuse = false;            // close each connection right after accept
  int64_t stallAfter = -1;        // stop sending (keep the socket open)
  int64_t resetAfter = -1;        // RST the connection after this many bytes
  int dripIntervalMs = 0;         // send one byte, then sleep, repeatedly
  int64_t truncateHeader = -1;    // send only this many bytes of the ASF header, then close
  bool absurdHeaderSize = false;  // declare a header length far beyond the real one
  bool absurdPacketSize = false;  // declare a packet size far beyond the real one
  // Slow bytes inside the stream: the first `slowBytes` bytes of data packet
  // `slowPacket` (counted from 0) go one at a time, `slowGapMs` apart. A gap
  // below the client's wait keeps the transfer moving; one above it cuts a
  // packet in two.
  int64_t slowPacket = -1;
  int slowBytes = 0;
  int slowGapMs = 2500;
  // MMSH: the play request's connection is closed unanswered, after the
  // describe request was served in full.
  bool closeBeforePlay = false;

  // Hazards of libmms 0.6.4: data that no wait can stop, since the client
  // never waits long or never waits at all.
  // A Stream Bitrate Properties Object in the header names this many more
  // streams, numbered from 1000. libmms writes one "ffff:N:2 " entry per
  // stream (up to 23) into a 230-byte stack buffer when it asks to play.
  int extraStreams = 0;
  // The Header Object's last child declares size 0: a header walk that
  // advances by declared sizes stands still.
  bool zeroSizeObject = false;
  // A Header Extension child declares 2^32 bytes, which is 0 when cut to 32
  // bits.
  bool extensionChildOf4GiB = false;
  // MMSH: the response head never ends, as short lines (endlessHeadLines)
  // or one line without end (endlessHeadLine), sent as fast as read.
  bool endlessHeadLines = false;
  bool endlessHeadLine = false;
  // MMSH: the end chunk says "another stream follows" every time.
  bool continueAtEnd = false;
};

// The ASF header as the server sends it under `faults`: the file's own
// header with the objects that the hazard faults add (and sizes and counts
// fixed so that the rest of the header still parses).
std::string servedHeader(const AsfFile& file, const Faults& faults);

// Sends data packet `index` (counted from 0) of the stream on `conn`,
// slowly where the slowPacket fault says so. False when the session must
// end. Both transports send their packets through it.
class Connection;
bool sendDataPacket(Connection& conn, const std::string& packet, size_t index);

struct ServerOptions {
  Transport transport = Transport::MMSH;
  std::string address = "127.0.0.1";
  uint16_t port = 0;  // 0: pick a free port
  Faults faults;
  // What the stream is, on every connection whatever the faults:
  // A broadcast: the header says so (no length, not seekable) and the
  // packets go round in a loop for ever.
  bool live = false;
  // Bytes per second on each connection, protocol bytes included; 0: as
  // fast as the client reads.
  int64_t rate = 0;
  // The header announces this many data packets (and the length they make)
  // while the server sends the packets it has; -1: the packets it has.
  int64_t declaredPackets = -1;
};

// The file as the server announces it under `options`: the header marked
// as a broadcast and announcing the declared packets; the rest (packets,
// the file's own duration) as they are.
AsfFile announcedFile(const AsfFile& file, const ServerOptions& options);

// Runs a server on its own thread until destroyed. Connections are served
// one after another, so a client that holds its connection open (or a stall)
// keeps the next one waiting in the listen queue. Destruction ends the
// current session at once and closes its connection.
class MmsTestServer {
 public:
  MmsTestServer(const AsfFile& file, const ServerOptions& options);
  ~MmsTestServer();
  MmsTestServer(const MmsTestServer&) = delete;
  MmsTestServer& operator=(const MmsTestServer&) = delete;

  bool start(std::string& error);  // binds, listens and starts serving
  uint16_t port() const;
  // mmsh://127.0.0.1:PORT/NAME or mms://127.0.0.1:PORT/NAME
  std::string url(const std::string& name = "sample.asf") const;
  // TCP connections accepted and finished, refused ones included. An MMSH
  // client opens two per stream (describe, then play).
  int connectionsServed() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

#endif
