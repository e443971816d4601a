#ifndef HALVARINE_TOOLS_ASF_ASF_PACKET_H
#define HALVARINE_TOOLS_ASF_ASF_PACKET_H

// Inside one ASF data packet: where its times sit and what they say. The
// test servers move a live stream's times on as it goes round; a recording
// reads its first and last packets' times to say how long it is.

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

struct PacketTimes {
  size_t sendAt = 0;        // the 32-bit send time (ms); its 16-bit duration (ms) follows
  uint32_t sendMs = 0;      // what they hold
  uint16_t durationMs = 0;  //
  std::vector<size_t> presentationAt;  // each payload's 32-bit presentation time (ms)
};

// Reads the packet's head and payload heads. False when they do not parse
// within the packet's bytes.
bool findPacketTimes(const std::string& packet, PacketTimes& out);

// Moves every time of the packet on by `deltaMs`; false as findPacketTimes.
bool shiftPacketTimes(std::string& packet, uint32_t deltaMs);

#endif
