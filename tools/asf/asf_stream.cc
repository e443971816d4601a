#include "tools/asf/asf_stream.h"

#include "tools/asf/asf_file.h"
#include "tools/asf/asf_packet.h"

uint64_t asfStreamHeaderLength(const std::string& start) {
  if (start.size() < HEADER_OBJECT_FIXED_SIZE || !guidAt(start, 0, HEADER_OBJECT)) return 0;
  const uint64_t headerObject = getLe64(start, GUID_SIZE);
  // The Data Object's start: GUID, size, file id, packet count, reserved.
  const uint64_t dataObjectStart = 50;
  if (headerObject < HEADER_OBJECT_FIXED_SIZE || headerObject > UINT64_MAX - dataObjectStart)
    return 0;
  return headerObject + dataObjectStart;
}

bool readAsfStreamHeader(const std::string& header, AsfStreamHeader& out, std::string& error) {
  // The header alone is an ASF file without packets.
  AsfFile file;
  if (!parseAsf(header, file, error)) return false;
  out.packetSize = file.packetSize;
  out.broadcast = file.broadcast;
  return true;
}

bool finishRecordingHeader(std::string& header, uint64_t packets, const std::string& first,
                           const std::string& last) {
  AsfStreamHeader h;
  std::string error;
  if (!readAsfStreamHeader(header, h, error)) return false;
  PacketTimes from, to;
  uint64_t spanMs = 0;
  if (packets > 0 && findPacketTimes(first, from) && findPacketTimes(last, to)) {
    const uint64_t end = uint64_t{to.sendMs} + to.durationMs;
    spanMs = end > from.sendMs ? end - from.sendMs : 0;
  }
  return declareRecording(header, packets, h.packetSize, spanMs);
}
