#ifndef HALVARINE_TOOLS_MMSSERVER_SESSIONS_H
#define HALVARINE_TOOLS_MMSSERVER_SESSIONS_H

// The two protocol sessions and what they share, inside the servers.

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

#include "tools/asf/asf_file.h"
#include "tools/mmsserver/faults.h"
#include "tools/mmsserver/server.h"

namespace mmsserver {

// One whole session of each protocol on an accepted connection: reads the
// client's requests, answers them and streams `file`, the file as announced
// (announcedFile). Returns when the session is over.
void serveMmshConnection(Link& link, const AsfFile& file, const ServerOptions& options);
void serveMmstConnection(Link& link, const AsfFile& file, const ServerOptions& options);

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

}  // namespace mmsserver

#endif
