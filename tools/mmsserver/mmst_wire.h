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

constexpr uint32_t SIGNATURE = 0xB00BFACE;
constexpr uint32_t SEAL = 0x20534D4D;  // "MMS "
constexpr uint32_t LEAD_WORD = 0x00000001;

constexpr size_t OFF_SIGNATURE = 4;
constexpr size_t OFF_LENGTH = 8;  // total - LENGTH_BIAS
constexpr size_t OFF_SEAL = 12;
constexpr size_t OFF_CHUNK_COUNT = 16;  // (total - LENGTH_BIAS) / 8
constexpr size_t OFF_SEQUENCE = 20;
constexpr size_t OFF_TIME_SENT = 24;     // 64 bits, 100-ns units
constexpr size_t OFF_CHUNK_LENGTH = 32;  // (total - CHUNK_LENGTH_BIAS) / 8
constexpr size_t OFF_COMMAND = 36;       // 16 bits
constexpr size_t OFF_DIRECTION = 38;     // 16 bits
constexpr size_t HEADER_BYTES = 40;

constexpr size_t LEAD_BYTES = 12;  // enough to learn a message's size
// The length fields count from offset 16 and offset 32 respectively.
constexpr size_t LENGTH_BIAS = 16;
constexpr size_t CHUNK_LENGTH_BIAS = 32;
constexpr size_t MAX_MESSAGE_BYTES = 64 * 1024;

constexpr uint16_t TO_SERVER = 0x0003;
constexpr uint16_t TO_CLIENT = 0x0004;

// Commands a client sends.
namespace cs {
constexpr uint16_t CONNECT = 0x01;
constexpr uint16_t CONNECT_FUNNEL = 0x02;
constexpr uint16_t OPEN_FILE = 0x05;
constexpr uint16_t START_PLAYING = 0x07;
constexpr uint16_t CLOSE_FILE = 0x0D;
constexpr uint16_t READ_BLOCK = 0x15;
constexpr uint16_t FUNNEL_INFO = 0x18;
constexpr uint16_t PONG = 0x1B;
constexpr uint16_t STREAM_SWITCH = 0x33;
}  // namespace cs

// Commands the server sends.
namespace sc {
constexpr uint16_t REPORT_CONNECTED = 0x01;
constexpr uint16_t REPORT_CONNECTED_FUNNEL = 0x02;
constexpr uint16_t REPORT_STARTED_PLAYING = 0x05;
constexpr uint16_t REPORT_OPEN_FILE = 0x06;
constexpr uint16_t REPORT_READ_BLOCK = 0x11;
constexpr uint16_t REPORT_FUNNEL_INFO = 0x15;
constexpr uint16_t PING = 0x1B;
constexpr uint16_t REPORT_END_OF_STREAM = 0x1E;
constexpr uint16_t REPORT_STREAM_SWITCH = 0x21;
}  // namespace sc

struct Command {
  uint16_t id = 0;
  uint16_t direction = 0;
  uint32_t sequence = 0;
  std::string body;  // everything after the 40-byte header, padding included
};

// Total size of the message whose first LEAD_BYTES bytes are `lead`, or 0
// when they are not the start of a command message or declare a size that
// is not a multiple of 8, smaller than the header or above MAX_MESSAGE_BYTES.
inline size_t messageSize(const std::string& lead) {
  if (lead.size() < LEAD_BYTES || getLe32(lead, OFF_SIGNATURE) != SIGNATURE) return 0;
  const uint32_t length = getLe32(lead, OFF_LENGTH);
  if (length % 8 != 0 || length > MAX_MESSAGE_BYTES - LENGTH_BIAS) return 0;
  const size_t total = static_cast<size_t>(length) + LENGTH_BIAS;
  return total < HEADER_BYTES ? 0 : total;
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
  const uint32_t seal = getLe32(bytes, OFF_SEAL);
  const uint32_t chunkCount = getLe32(bytes, OFF_CHUNK_COUNT);
  const uint32_t chunkLength = getLe32(bytes, OFF_CHUNK_LENGTH);
  if (seal != SEAL) {
    why = "protocol seal is not \"MMS \"";
    return false;
  }
  if (static_cast<uint64_t>(chunkCount) * 8 != total - LENGTH_BIAS ||
      static_cast<uint64_t>(chunkLength) * 8 != total - CHUNK_LENGTH_BIAS) {
    why = "chunk counts disagree with the message length";
    return false;
  }
  out.sequence = getLe32(bytes, OFF_SEQUENCE);
  out.id = getLe16(bytes, OFF_COMMAND);
  out.direction = getLe16(bytes, OFF_DIRECTION);
  out.body = bytes.substr(HEADER_BYTES);
  return true;
}

// One command message; `body` is padded with zeros to a multiple of 8.
inline std::string makeCommand(uint16_t direction, uint16_t id, uint32_t sequence,
                               uint64_t time100ns, const std::string& body) {
  const size_t padded = (body.size() + 7) / 8 * 8;
  const size_t total = HEADER_BYTES + padded;
  std::string m;
  m.reserve(total);
  putLe32(m, LEAD_WORD);
  putLe32(m, SIGNATURE);
  putLe32(m, static_cast<uint32_t>(total - LENGTH_BIAS));
  putLe32(m, SEAL);
  putLe32(m, static_cast<uint32_t>((total - LENGTH_BIAS) / 8));
  putLe32(m, sequence);
  putLe64(m, time100ns);
  putLe32(m, static_cast<uint32_t>((total - CHUNK_LENGTH_BIAS) / 8));
  putLe16(m, id);
  putLe16(m, direction);
  m += body;
  m.append(padded - body.size(), '\0');
  return m;
}

// ---- data packets -----------------------------------------------------------

constexpr size_t DATA_PREFIX_BYTES = 8;
constexpr size_t MAX_DATA_PAYLOAD = 0xFFFF - DATA_PREFIX_BYTES;  // 16-bit total

constexpr uint8_t HEADER_INCARNATION = 2;  // what both clients expect by default
// Flags of ASF header packets: the clients keep reading header packets while
// they see HEADER_MORE and stop at HEADER_LAST or HEADER_WHOLE.
constexpr uint8_t HEADER_MORE = 0x04;
constexpr uint8_t HEADER_LAST = 0x08;
constexpr uint8_t HEADER_WHOLE = 0x0C;

// The 8-byte prefix of a data packet that carries `payloadBytes` bytes
// (at most MAX_DATA_PAYLOAD).
inline std::string makeDataPrefix(uint32_t locationId, uint8_t incarnation, uint8_t flags,
                                  size_t payloadBytes) {
  std::string p;
  putLe32(p, locationId);
  p.push_back(static_cast<char>(incarnation));
  p.push_back(static_cast<char>(flags));
  putLe16(p, static_cast<uint16_t>(payloadBytes + DATA_PREFIX_BYTES));
  return p;
}

}  // namespace mmst

#endif
