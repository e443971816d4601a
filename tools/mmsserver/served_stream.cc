// What a test server serves, faults aside: the header as announced (a
// broadcast, a declared length) and the data packets, round and round for a
// live stream.

#include "tools/asf/asf_file.h"
#include "tools/asf/asf_packet.h"
#include "tools/mmsserver/server.h"
#include "tools/mmsserver/sessions.h"

namespace mmsserver {

AsfFile announcedFile(const AsfFile& file, const ServerOptions& options) {
  AsfFile announced = file;
  if (options.live && !options.faults.liveUnmarked) markBroadcast(announced.header);
  if (options.declaredPackets >= 0) {
    declarePackets(announced.header, static_cast<uint64_t>(options.declaredPackets),
                   file.packetSize);
  }
  return announced;
}

PacketSource::PacketSource(const AsfFile& file, bool live)
    : packets_(file.packets),
      live_(live),
      roundMs_(static_cast<uint32_t>(file.sendDuration100ns / 10000)) {}

const std::string& PacketSource::at(size_t index) {
  const std::string& packet = packets_[index % packets_.size()];
  const size_t round = index / packets_.size();
  if (round == 0 || roundMs_ == 0) return packet;
  shifted_ = packet;
  shiftPacketTimes(shifted_, static_cast<uint32_t>(round * roundMs_));
  return shifted_;
}

}  // namespace mmsserver
