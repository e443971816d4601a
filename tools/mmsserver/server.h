#ifndef HALVARINE_TOOLS_MMSSERVER_SERVER_H
#define HALVARINE_TOOLS_MMSSERVER_SERVER_H

// Test MMS servers on loopback: MMSH (MMS over HTTP) and MMST (MMS over TCP).
// They serve one AsfFile to each connection in turn, as fast as the client
// reads, and misbehave on purpose as their Faults say (fault_table.h; the
// table tools/mmsserver/faults.tsv describes each fault).

#include <stdint.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "tools/asf/asf_file.h"
#include "tools/mmsserver/fault_table.h"

namespace mmsserver {

enum class StreamProtocol { MMSH, MMST };

struct ServerOptions {
  StreamProtocol protocol = StreamProtocol::MMSH;
  std::string address = "127.0.0.1";
  uint16_t port = 0;  // 0: pick a free port
  Faults faults;
  // What the stream is, on every connection whatever the faults.
  // A broadcast: the header says so as live servers do (no length, not
  // seekable; libmms 0.6.4 then reports the header and 50 packets as its
  // length) and the packets go round for ever.
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

}  // namespace mmsserver

#endif
