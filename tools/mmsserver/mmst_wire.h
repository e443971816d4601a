#ifndef HALVARINE_TOOLS_MMSSERVER_MMST_WIRE_H
#define HALVARINE_TOOLS_MMSSERVER_MMST_WIRE_H

// Framing of MMS over TCP as the test server speaks it. Two kinds of frame
// share one TCP stream:
//
//  - command messages: a 40-byte header (signature 0xB00BFACE, the "MMS "
//    seal, three redundant length fields, a sequence number, a timestamp,
//    the command id and its direction) followed by a body padded to a
//    multiple of 8 bytes;
//  - data packets (server to client only): an 8-byte prefix (location id,
//    play incarnation, flags, total length) followed by ASF bytes.
//
// Multi-byte fields are little-endian and go through the shared get/put
// helpers; every offset is checked against the bytes at hand before a read.
// Nothing here touches a socket, so the codec can be tested on plain byte
// strings.

#include <stddef.h>
#include <stdint.h>

#include <string>

#include "tools/asf/asf_file.h"

namespace mmst {

// ---- command messages --------------------------------------------------------

constexpr uint32_t kSignature = 0xB00BFACE;
constexpr uint32_t kSeal = 0x20534D4D;  // "MMS "
constexpr uint32_t kLeadWord = 0x00000001;

constexpr size_t kOffSignature = 4;
constexpr size_t kOffLength = 8;  // total - kLengthBias
constexpr size_t kOffSeal = 12;
constexpr size_t kOffChunkCount = 16;  // (total - kLengthBias) / 8
constexpr size_t kOffSequence = 20;
constexpr size_t kOffTimeSent = 24;     // 64 bits, 100-ns units
constexpr size_t kOffChunkLength = 32;  // (total - kChunkLengthBias) / 8
constexpr size_t kOffCommand = 36;      // 16 bits
constexpr size_t kOffDirection = 38;    // 16 bits
constexpr size_t kHeaderBytes = 40;

constexpr size_t kLeadBytes = 12;  // enough to learn a message's size
// The length fields count from offset 16 and offset 32 respectively.
constexpr size_t kLengthBias = 16;
constexpr size_t kChunkLengthBias = 32;
constexpr size_t kMaxMessageBytes = 64 * 1024;

constexpr uint16_t kToServer = 0x0003;
constexpr uint16_t kToClient = 0x0004;

// Commands a client sends.
namespace cs {
constexpr uint16_t kConnect = 0x01;
constexpr uint16_t kConnectFunnel = 0x02;
constexpr uint16_t kOpenFile = 0x05;
constexpr uint16_t kStartPlaying = 0x07;
constexpr uint16_t kCloseFile = 0x0D;
constexpr uint16_t kReadBlock = 0x15;
constexpr uint16_t kFunnelInfo = 0x18;
constexpr uint16_t kPong = 0x1B;
constexpr uint16_t kStreamSwitch = 0x33;
}  // namespace cs

// Commands the server sends.
namespace sc {
constexpr uint16_t kReportConnected = 0x01;
constexpr uint16_t kReportConnectedFunnel = 0x02;
constexpr uint16_t kReportStartedPlaying = 0x05;
constexpr uint16_t kReportOpenFile = 0x06;
constexpr uint16_t kReportReadBlock = 0x11;
constexpr uint16_t kReportFunnelInfo = 0x15;
constexpr uint16_t kPing = 0x1B;
constexpr uint16_t kReportEndOfStream = 0x1E;
constexpr uint16_t kReportStreamSwitch = 0x21;
}  // namespace sc

struct Command {
  uint16_t id = 0;
  uint16_t direction = 0;
  uint32_t sequence = 0;
  std::string body;  // everything after the 40-byte header, padding included
};

// Total size of the message whose first kLeadBytes bytes are `lead`, or 0
// when they are not the start of a command message or declare a size that
// is not a multiple of 8, smaller than the header or above kMaxMessageBytes.
inline size_t messageSize(const std::string& lead) {
  if (lead.size() < kLeadBytes || getLe32(lead, kOffSignature) != kSignature) return 0;
  const uint32_t length = getLe32(lead, kOffLength);
  if (length % 8 != 0 || length > kMaxMessageBytes - kLengthBias) return 0;
  const size_t total = static_cast<size_t>(length) + kLengthBias;
  return total < kHeaderBytes ? 0 : total;
}

// True when a `width`-byte field at `off` lies wholly inside `bytes`.
inline bool fits(const std::string& bytes, size_t off, size_t width) {
  return off <= bytes.size() && bytes.size() - off >= width;
}

// Judges one whole message. The three length fields must agree with each
// other and with the bytes given; false with a reason otherwise.
inline bool parseCommand(const std::string& bytes, Command& out, std::string& why) {
  const size_t total = messageSize(bytes);
  if (total == 0) {
    why = "not a command message header";
    return false;
  }
  if (total != bytes.size()) {
    why = "message length disagrees with the bytes read";
    return false;
  }
  // From here on every fixed field lies inside the header's 40 bytes.
  const uint32_t seal = getLe32(bytes, kOffSeal);
  const uint32_t chunkCount = getLe32(bytes, kOffChunkCount);
  const uint32_t chunkLength = getLe32(bytes, kOffChunkLength);
  if (seal != kSeal) {
    why = "protocol seal is not \"MMS \"";
    return false;
  }
  if (static_cast<uint64_t>(chunkCount) * 8 != total - kLengthBias ||
      static_cast<uint64_t>(chunkLength) * 8 != total - kChunkLengthBias) {
    why = "chunk counts disagree with the message length";
    return false;
  }
  out.sequence = getLe32(bytes, kOffSequence);
  out.id = getLe16(bytes, kOffCommand);
  out.direction = getLe16(bytes, kOffDirection);
  out.body = bytes.substr(kHeaderBytes);
  return true;
}

// One command message; `body` is padded with zeros to a multiple of 8.
inline std::string makeCommand(uint16_t direction, uint16_t id, uint32_t sequence,
                               uint64_t time100ns, const std::string& body) {
  const size_t padded = (body.size() + 7) / 8 * 8;
  const size_t total = kHeaderBytes + padded;
  std::string m;
  m.reserve(total);
  putLe32(m, kLeadWord);
  putLe32(m, kSignature);
  putLe32(m, static_cast<uint32_t>(total - kLengthBias));
  putLe32(m, kSeal);
  putLe32(m, static_cast<uint32_t>((total - kLengthBias) / 8));
  putLe32(m, sequence);
  putLe64(m, time100ns);
  putLe32(m, static_cast<uint32_t>((total - kChunkLengthBias) / 8));
  putLe16(m, id);
  putLe16(m, direction);
  m += body;
  m.append(padded - body.size(), '\0');
  return m;
}

// ---- data packets -----------------------------------------------------------

constexpr size_t kDataPrefixBytes = 8;
constexpr size_t kMaxDataPayload = 0xFFFF - kDataPrefixBytes;  // 16-bit total

constexpr uint8_t kHeaderIncarnation = 2;  // what both clients expect by default
// Flags of ASF header packets: the clients keep reading header packets while
// they see kHeaderMore and stop at kHeaderLast or kHeaderWhole.
constexpr uint8_t kHeaderMore = 0x04;
constexpr uint8_t kHeaderLast = 0x08;
constexpr uint8_t kHeaderWhole = 0x0C;

// The 8-byte prefix of a data packet that carries `payloadBytes` bytes
// (at most kMaxDataPayload).
inline std::string makeDataPrefix(uint32_t locationId, uint8_t incarnation, uint8_t flags,
                                  size_t payloadBytes) {
  std::string p;
  putLe32(p, locationId);
  p.push_back(static_cast<char>(incarnation));
  p.push_back(static_cast<char>(flags));
  putLe16(p, static_cast<uint16_t>(payloadBytes + kDataPrefixBytes));
  return p;
}

}  // namespace mmst

#endif
