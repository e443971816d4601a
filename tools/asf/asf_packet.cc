#include "tools/asf/asf_packet.h"

namespace {

// Width of a field whose 2-bit length type is `type`: none, byte, word, dword.
size_t fieldWidth(unsigned type) {
  static const size_t WIDTHS[] = {0, 1, 2, 4};
  return WIDTHS[type & 3];
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

}  // namespace

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
  out.sendMs = readField(p, at, 4);
  out.durationMs = static_cast<uint16_t>(readField(p, at + 4, 2));
  at += 6;
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

bool shiftPacketTimes(std::string& packet, uint32_t deltaMs) {
  PacketTimes times;
  if (!findPacketTimes(packet, times)) return false;
  addLe32(packet, times.sendAt, deltaMs);
  for (size_t at : times.presentationAt) addLe32(packet, at, deltaMs);
  return true;
}
