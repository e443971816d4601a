// MMS over HTTP, the server side. A client asks twice, each time on a new
// connection: first without "xPlayStrm=1" to describe the stream (we answer
// with the ASF header alone), then with it to play (the header again, every
// data packet, and the end-of-stream chunk). Every piece travels as a chunk:
// a 4-byte head (type, little-endian length of what follows) and, for the
// header and data chunks, an 8-byte extension (sequence number, two flag
// bytes, the length again); the end chunk carries a 4-byte reason instead.
//
// Behind an HTTP proxy that forwards only the first of several same-named
// headers (tinyproxy does), the play request arrives without "xPlayStrm=1";
// isPlayRequest() then goes by the request counter in the first Pragma line.
//
// The header faults as this transport shows them: truncateHeader announces
// the whole header, sends its first bytes and closes; absurdHeaderSize
// announces a 0xFFFF-byte header chunk (the most 16 bits say), sends the
// real header and closes; absurdPacketSize declares 1 GiB packets in the
// File Properties Object and otherwise streams as usual.
//
// The hazard faults of this transport: a response head that never ends, and
// an end chunk that announces another stream each time it is sent.

#include <ctype.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include <algorithm>

#include "tools/mmsserver/connection.h"

namespace {

constexpr uint16_t CHUNK_ASF_HEADER = 0x4824;  // "$H"
constexpr uint16_t CHUNK_DATA = 0x4424;        // "$D"
constexpr uint16_t CHUNK_END = 0x4524;         // "$E"
constexpr uint16_t EXT_HEADER_LENGTH = 8;
constexpr uint16_t END_REASON_LENGTH = 4;
constexpr size_t MAX_CHUNK_BODY = 0xFFFF - EXT_HEADER_LENGTH;
constexpr uint8_t HEADER_AF_FLAGS = 0x0C;  // first and last piece of the header
// What absurdPacketSize declares: far past what either client buffers
// (libmms takes up to 100 KiB, ffmpeg 64 KiB).
constexpr uint32_t ABSURD_PACKET_SIZE = 0x40000000;

// `declared` is what the length fields say; normally the body's own length.
std::string chunkHead(uint16_t type, uint32_t sequence, uint8_t afFlags, uint16_t declared) {
  std::string head;
  putLe16(head, type);
  putLe16(head, declared);
  putLe32(head, sequence);
  head.push_back('\0');  // incarnation
  head.push_back(static_cast<char>(afFlags));
  putLe16(head, declared);
  return head;
}

// `another`: announce a new stream instead of the end (reason 1, not 0).
std::string endChunk(bool another) {
  std::string chunk;
  putLe16(chunk, CHUNK_END);
  putLe16(chunk, END_REASON_LENGTH);
  putLe32(chunk, another ? 1 : 0);
  return chunk;
}

// A response head without end: the status line, then header lines (or one
// line) for as long as the client takes them. Returns when it has left or
// the server stops.
void sendEndlessHead(Connection& conn) {
  const Faults& faults = conn.faults();
  if (!conn.send("HTTP/1.0 200 OK\r\n")) return;
  if (faults.endlessHeadLine && !conn.send("X-Filler: ")) return;
  std::string block;
  while (block.size() < 4096) block += faults.endlessHeadLine ? "aaaaaaaa" : "X-Filler: a\r\n";
  while (conn.send(block)) {
  }
}

// Where `token` first occurs in `head`, ignoring case; npos when nowhere.
size_t findInHead(const std::string& head, const char* token) {
  // Heads are short.
  size_t n = strlen(token);
  for (size_t i = 0; i + n <= head.size(); ++i) {
    if (strncasecmp(head.c_str() + i, token, n) == 0) return i;
  }
  return std::string::npos;
}

bool pragmaHas(const std::string& head, const char* token) {
  return findInHead(head, token) != std::string::npos;
}

// The number after "request-context=", or -1 when there is none.
long requestContext(const std::string& head) {
  static const char KEY[] = "request-context=";
  size_t at = findInHead(head, KEY);
  if (at == std::string::npos) return -1;
  const char* digits = head.c_str() + at + strlen(KEY);
  return isdigit(static_cast<unsigned char>(*digits)) ? strtol(digits, nullptr, 10) : -1;
}

// The explicit "xPlayStrm=1" decides whenever the client's later Pragma
// lines got through, which the client GUID line (sent in both requests by
// libmms and ffmpeg) shows. Without them, the request counter decides:
// libmms and ffmpeg number a stream's requests from 1, describe first and
// play second, and libmms reconnects with another such pair, so an even
// counter is a play request.
bool isPlayRequest(const std::string& head) {
  if (pragmaHas(head, "xPlayStrm=1")) return true;
  if (pragmaHas(head, "xClientGUID=")) return false;
  long context = requestContext(head);
  return context > 0 && context % 2 == 0;
}

// `features`: what the stream allows, "seekable,stridx" for a stored file,
// "broadcast" for a live one.
std::string responseHead(int status, const char* reason, const char* contentType,
                         const char* features = nullptr) {
  std::string head = "HTTP/1.0 " + std::to_string(status) + " " + reason + "\r\n";
  head += "Server: halvarine-mms-server\r\n";
  if (contentType != nullptr) {
    head += std::string("Content-Type: ") + contentType + "\r\n";
    head += "Cache-Control: no-cache\r\n";
    head += "Pragma: no-cache\r\n";
    head += "Pragma: client-id=1\r\n";
    head += std::string("Pragma: features=\"") + features + "\"\r\n";
  }
  head += "\r\n";
  return head;
}

// Sends the ASF header as header chunks, applying the header faults. False
// when the session must end here.
bool sendHeader(Connection& conn, const AsfFile& file) {
  const Faults& faults = conn.faults();
  std::string header = servedHeader(file, faults);
  if (faults.absurdPacketSize) patchPacketSize(header, ABSURD_PACKET_SIZE);
  if (faults.absurdHeaderSize) {
    // The most a 16-bit chunk length can claim, with far fewer bytes behind it.
    if (conn.send(chunkHead(CHUNK_ASF_HEADER, 0, HEADER_AF_FLAGS, 0xFFFF))) conn.send(header);
    return false;
  }
  size_t limit = header.size();
  if (faults.truncateHeader >= 0) {
    limit = std::min(limit, static_cast<size_t>(faults.truncateHeader));
  }
  // A header too long for one chunk goes in several; libmms joins them.
  for (size_t at = 0; at < header.size(); at += MAX_CHUNK_BODY) {
    size_t body = std::min(MAX_CHUNK_BODY, header.size() - at);
    auto declared = static_cast<uint16_t>(body + EXT_HEADER_LENGTH);
    if (!conn.send(chunkHead(CHUNK_ASF_HEADER, 0, HEADER_AF_FLAGS, declared))) return false;
    if (at + body > limit) {
      conn.send(header.data() + at, limit > at ? limit - at : 0);
      return false;
    }
    if (!conn.send(header.data() + at, body)) return false;
  }
  return true;
}

}  // namespace

void serveMmshConnection(Connection& conn, const AsfFile& file, const ServerOptions& options) {
  std::string request;
  if (!conn.readHttpHead(request)) return;
  if (request.compare(0, 4, "GET ") != 0) {
    conn.send(responseHead(405, "Method Not Allowed", nullptr));
    return;
  }
  if (file.packetSize > MAX_CHUNK_BODY) {
    conn.send(responseHead(500, "Packets Too Large For Chunks", nullptr));
    return;
  }
  if (conn.faults().endlessHeadLines || conn.faults().endlessHeadLine) {
    sendEndlessHead(conn);
    return;
  }
  const bool play = isPlayRequest(request);
  if (play && conn.faults().closeBeforePlay) return;
  if (!conn.send(responseHead(
          200, "OK", play ? "application/x-mms-framed" : "application/vnd.ms.wms-hdr.asfv1",
          options.live ? "broadcast" : "seekable,stridx"))) {
    return;
  }
  if (!sendHeader(conn, file) || !play) return;
  auto declared = static_cast<uint16_t>(file.packetSize + EXT_HEADER_LENGTH);
  PacketSource packets(file, options.live);
  for (size_t i = 0; packets.has(i); ++i) {
    if (!conn.send(chunkHead(CHUNK_DATA, static_cast<uint32_t>(i), 0, declared)) ||
        !sendDataPacket(conn, packets.at(i), i)) {
      return;
    }
  }
  conn.send(endChunk(conn.faults().continueAtEnd));
}

bool sendDataPacket(Connection& conn, const std::string& packet, size_t index) {
  const Faults& faults = conn.faults();
  if (faults.slowPacket < 0 || index != static_cast<size_t>(faults.slowPacket)) {
    return conn.send(packet);
  }
  const size_t slow = std::min(packet.size(), static_cast<size_t>(std::max(faults.slowBytes, 0)));
  for (size_t b = 0; b < slow; ++b) {
    if (!conn.send(packet.data() + b, 1)) return false;
    // Waits out the gap unless the client speaks or leaves first; either
    // way the next send tells.
    conn.readable(faults.slowGapMs);
  }
  return conn.send(packet.data() + slow, packet.size() - slow);
}
