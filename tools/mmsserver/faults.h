#ifndef HALVARINE_TOOLS_MMSSERVER_FAULTS_H
#define HALVARINE_TOOLS_MMSSERVER_FAULTS_H

// Where the test servers' faults are injected, all of them: a Link is one
// connection as its faults shape it. The sessions speak their protocol
// through it as if nothing went wrong (they say what they send: protocol
// bytes, the header, a data packet) and ask it where the protocol leaves a
// choice; nothing else reads a Faults value.

#include <stddef.h>
#include <stdint.h>

#include <functional>
#include <random>
#include <string>

#include "tools/asf/asf_file.h"
#include "tools/mmsserver/connection.h"
#include "tools/mmsserver/fault_table.h"

namespace mmsserver {

// The faults connection `index` (from 0) of a server meets: all of
// `configured`, or none past its firstConnections.
Faults faultsForConnection(const Faults& configured, int index);

// How a transport frames the ASF header: pieces of at most `piece` bytes,
// each behind the prefix that `prefix` makes for the `n` bytes at `at` of a
// header of `total` bytes.
struct HeaderFraming {
  size_t piece = 0;
  // What an absurd header size declares. `fillAbsurd`: zeros follow the real
  // header up to it; otherwise the connection ends after the real header.
  uint64_t absurdBytes = 0;
  bool fillAbsurd = false;
  std::function<std::string(uint64_t at, size_t n, uint64_t total)> prefix;
};

class Link {
 public:
  // `rate`: bytes per second, 0 for as fast as the client reads. `index`
  // tells the connections of one server apart for the mutation.
  Link(Connection& conn, const Faults& faults, int64_t rate, int index);
  Connection& connection() { return conn_; }

  // True when the connection is to be closed unanswered at once.
  bool refused() const { return faults_.refuse; }
  // Sends protocol bytes. False when the session must end: the client went
  // away, or a fault (stall, reset) has taken over.
  bool send(const std::string& bytes) { return send(bytes.data(), bytes.size()); }
  bool send(const char* p, size_t n);
  // The file's header as served: with the objects the hazard faults add,
  // and an absurd packet size written in.
  std::string header(const AsfFile& file) const;
  // What to declare for a header of `real` bytes sent with `framing`, and
  // for packets of `real` bytes.
  uint64_t declaredHeaderSize(uint64_t real, const HeaderFraming& framing) const;
  uint32_t declaredPacketSize(uint32_t real) const;
  // Sends `header` in the transport's frames; false when the session must
  // end, a truncated or absurd header included.
  bool sendHeader(const std::string& header, const HeaderFraming& framing);
  // Sends data packet `index` (from the session's first): its prefix, then
  // its bytes, the first ones slowly where the slow-packet fault says so.
  bool sendPacket(size_t index, const std::string& prefix, const std::string& payload);
  // MMSH: sends a response head, or one that never ends (false then).
  bool sendResponseHead(const std::string& head);
  // MMSH: whether the play request is answered, and whether the end of the
  // stream announces another one.
  bool answersPlay() const { return !faults_.closeBeforePlay; }
  // MMSH: the HTTP status every request gets instead of the stream; 0: none.
  int httpStatus() const { return faults_.httpStatus; }
  // MMST: the file's opening fails with "no such file".
  bool noSuchFile() const { return faults_.noSuchFile; }
  bool anotherStreamFollows() const { return faults_.continueAtEnd; }
  // The stream is over; a mutated one ends its connection here, so that a
  // client left waiting inside a frame that grew sees the end at once.
  void streamEnded();

 private:
  // How one send is delivered under the mutation: its first dripUntil bytes
  // in pieces of dripPiece, gapMs apart; an RST after resetAt bytes.
  struct Delivery {
    size_t dripUntil = 0;
    size_t dripPiece = 1;
    int gapMs = 0;
    int64_t resetAt = -1;
  };
  Delivery mutate(std::string& bytes);
  bool deliver(const char* p, size_t n, const Delivery& how);
  bool pace(size_t& piece);
  uint64_t below(uint64_t bound) { return bound == 0 ? 0 : random_() % bound; }

  Connection& conn_;
  const Faults faults_;
  const int64_t rate_;
  int64_t sent_ = 0;
  int64_t firstSendMs_ = -1;
  std::mt19937_64 random_;
  uint64_t mutateOneIn_ = 0;  // a send in this many is mutated; 0: none
};

}  // namespace mmsserver

#endif
