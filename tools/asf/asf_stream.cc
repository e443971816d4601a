#include "tools/asf/asf_stream.h"

#include "tools/asf/asf_file.h"

uint64_t asfStreamHeaderLength(const std::string& start) {
  if (start.size() < kHeaderObjectFixedSize || !guidAt(start, 0, kHeaderObject)) return 0;
  const uint64_t headerObject = getLe64(start, kGuidSize);
  // The Data Object's start: GUID, size, file id, packet count, reserved.
  const uint64_t dataObjectStart = 50;
  if (headerObject < kHeaderObjectFixedSize || headerObject > UINT64_MAX - dataObjectStart)
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
