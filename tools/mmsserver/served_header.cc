// What a test server serves: the header as announced (a broadcast, a declared
// length) with the objects that the hazard faults add, and the data packets,
// round and round for a live stream.

#include "tools/asf/asf_file.h"
#include "tools/mmsserver/connection.h"
#include "tools/mmsserver/server.h"

namespace {

// The first stream number the extra streams of the extraStreams fault take:
// four digits each, so 23 of them overflow any buffer sized for two.
constexpr uint16_t kFirstExtraStream = 1000;
constexpr size_t kHeaderObjectCountAt = 24;

// Appends `object` to the Header Object's children in `header`, fixing the
// Header Object's size and child count; the Data Object's start stays last.
void appendHeaderObject(std::string& header, const std::string& object) {
  if (header.size() < kHeaderObjectFixedSize || !guidAt(header, 0, kHeaderObject)) return;
  const uint64_t size = getLe64(header, kGuidSize);
  if (size > header.size()) return;
  header.insert(static_cast<size_t>(size), object);
  std::string field;
  putLe64(field, size + object.size());
  header.replace(kGuidSize, 8, field);
  field.clear();
  putLe32(field, getLe32(header, kHeaderObjectCountAt) + 1);
  header.replace(kHeaderObjectCountAt, 4, field);
}

std::string streamBitrateProperties(int streams) {
  std::string o;
  putGuid(o, kStreamBitrateProperties);
  putLe64(o, kObjectHeadSize + 2 + 6 * static_cast<uint64_t>(streams));
  putLe16(o, static_cast<uint16_t>(streams));
  for (int i = 0; i < streams; ++i) {
    putLe16(o, static_cast<uint16_t>(kFirstExtraStream + i));
    putLe32(o, 8000);  // average bit rate
  }
  return o;
}

// An object head with nothing behind it that declares `declared` bytes.
std::string objectHead(const Guid& g, uint64_t declared) {
  std::string o;
  putGuid(o, g);
  putLe64(o, declared);
  return o;
}

// A Header Extension Object whose one child declares `childSize` bytes.
std::string headerExtensionWithChild(uint64_t childSize) {
  const std::string child = objectHead(kPadding, childSize);
  std::string o;
  putGuid(o, kHeaderExtension);
  putLe64(o, 46 + child.size());
  putGuid(o, kExtensionReserved);
  putLe16(o, 6);
  putLe32(o, static_cast<uint32_t>(child.size()));
  return o + child;
}

}  // namespace

AsfFile announcedFile(const AsfFile& file, const ServerOptions& options) {
  AsfFile announced = file;
  if (options.live) markBroadcast(announced.header);
  if (options.declaredPackets >= 0) {
    declarePackets(announced.header, static_cast<uint64_t>(options.declaredPackets),
                   file.packetSize);
  }
  return announced;
}

std::string servedHeader(const AsfFile& file, const Faults& faults) {
  std::string header = file.header;
  if (faults.extraStreams > 0)
    appendHeaderObject(header, streamBitrateProperties(faults.extraStreams));
  if (faults.extensionChildOf4GiB) appendHeaderObject(header, headerExtensionWithChild(1ULL << 32));
  // Last, so that every other object has been seen when a walk stops here.
  if (faults.zeroSizeObject) appendHeaderObject(header, objectHead(kPadding, 0));
  return header;
}

namespace {

// Width of a field whose 2-bit length type is `type`: none, byte, word, dword.
size_t fieldWidth(unsigned type) {
  static const size_t kWidths[] = {0, 1, 2, 4};
  return kWidths[type & 3];
}

uint32_t readField(const std::string& p, size_t at, size_t width) {
  uint32_t v = 0;
  for (size_t i = 0; i < width; ++i)
    v |= static_cast<uint32_t>(static_cast<uint8_t>(p[at + i])) << (8 * i);
  return v;
}

void addLe32(std::string& p, size_t at, uint32_t delta) {
  const uint32_t v = readField(p, at, 4) + delta;
  for (size_t i = 0; i < 4; ++i) p[at + i] = static_cast<char>(v >> (8 * i));
}

// Where the times (ms) of one ASF data packet sit: its send time, and the
// presentation time of each payload that has one.
struct PacketTimes {
  size_t sendAt = 0;
  std::vector<size_t> presentationAt;
};

// False when the packet does not parse as far as its payload heads.
bool findPacketTimes(const std::string& p, PacketTimes& out) {
  out = PacketTimes();
  size_t at = 0;
  auto fits = [&](size_t n) { return at <= p.size() && p.size() - at >= n; };
  if (!fits(1)) return false;
  const uint8_t ec = static_cast<uint8_t>(p[0]);
  at = (ec & 0x80) && (ec & 0x60) == 0 ? 1 + (ec & 0x0F) : 0;
  if (!fits(2)) return false;
  const uint8_t lengthFlags = static_cast<uint8_t>(p[at]);
  const uint8_t propertyFlags = static_cast<uint8_t>(p[at + 1]);
  at += 2 + fieldWidth(lengthFlags >> 5) + fieldWidth(lengthFlags >> 1) +
        fieldWidth(lengthFlags >> 3);
  if (!fits(6)) return false;
  out.sendAt = at;
  at += 6;  // send time, duration
  const bool multiple = lengthFlags & 0x01;
  size_t payloads = 1;
  unsigned payloadLengthType = 0;
  if (multiple) {
    if (!fits(1)) return false;
    payloads = static_cast<uint8_t>(p[at]) & 0x3F;
    payloadLengthType = static_cast<uint8_t>(p[at]) >> 6;
    ++at;
  }
  const size_t objectWidth = fieldWidth(propertyFlags >> 4);
  const size_t offsetWidth = fieldWidth(propertyFlags >> 2);
  const size_t replicatedWidth = fieldWidth(propertyFlags);
  for (size_t n = 0; n < payloads; ++n) {
    if (!fits(1 + objectWidth + offsetWidth + replicatedWidth)) return false;
    at += 1 + objectWidth;
    const size_t offsetAt = at;
    at += offsetWidth;
    const uint32_t replicated = readField(p, at, replicatedWidth);
    at += replicatedWidth;
    if (replicated == 1 && offsetWidth == 4) {
      out.presentationAt.push_back(offsetAt);  // compressed: the offset is the time
    } else if (replicated >= 8 && fits(8)) {
      out.presentationAt.push_back(at + 4);
    }
    at += replicated == 1 ? 1 : replicated;
    if (!multiple) break;
    const size_t lengthWidth = fieldWidth(payloadLengthType);
    if (!fits(lengthWidth)) return false;
    const uint32_t length = readField(p, at, lengthWidth);
    at += lengthWidth;
    if (!fits(length)) return false;
    at += length;
  }
  return true;
}

// Moves every time of the packet on by `deltaMs`; false as findPacketTimes.
bool shiftPacketTimes(std::string& packet, uint32_t deltaMs) {
  PacketTimes times;
  if (!findPacketTimes(packet, times)) return false;
  addLe32(packet, times.sendAt, deltaMs);
  for (size_t at : times.presentationAt) addLe32(packet, at, deltaMs);
  return true;
}

}  // namespace

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
