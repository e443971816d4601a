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

#include "tools/mmsserver/asf_file.h"

enum class Transport { MMSH, MMST };

// What the server does wrong. Byte counts are of the bytes the server sends
// on one connection, protocol bytes included.
struct Faults {
  bool refuse = false;             // close each connection right after accept
  int64_t stallAfter = -1;         // stop sending (keep the socket open)
  int64_t resetAfter = -1;         // RST the connection after this many bytes
  int dripIntervalMs = 0;          // send one byte, then sleep, repeatedly
  int64_t truncateHeader = -1;     // send only this many bytes of the ASF header, then close
  bool absurdHeaderSize = false;   // declare a header length far beyond the real one
  bool absurdPacketSize = false;   // declare a packet size far beyond the real one
  // Hazards of libmms 0.6.4, added by the hardening work.
};

struct ServerOptions {
  Transport transport = Transport::MMSH;
  std::string address = "127.0.0.1";
  uint16_t port = 0;               // 0: pick a free port
  Faults faults;
};

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

  bool start(std::string& error);   // binds, listens and starts serving
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
