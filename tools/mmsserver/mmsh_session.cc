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
// A live stream says "broadcast" where a stored file says "seekable", and
// its packets never end.

#include <ctype.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include <algorithm>

#include "tools/mmsserver/sessions.h"

namespace mmsserver {

namespace {

constexpr uint16_t CHUNK_ASF_HEADER = 0x4824;  // "$H"
constexpr uint16_t CHUNK_DATA = 0x4424;        // "$D"
constexpr uint16_t CHUNK_END = 0x4524;         // "$E"
constexpr uint16_t EXT_HEADER_LENGTH = 8;
constexpr uint16_t END_REASON_LENGTH = 4;
constexpr size_t MAX_CHUNK_BODY = 0xFFFF - EXT_HEADER_LENGTH;
constexpr uint8_t HEADER_AF_FLAGS = 0x0C;  // first and last piece of the header

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

// The header goes in chunks of at most MAX_CHUNK_BODY bytes (libmms joins
// them); an absurd size is the most one chunk can declare, with only the
// real header behind it.
const HeaderFraming HEADER_FRAMING = {
    MAX_CHUNK_BODY, MAX_CHUNK_BODY, false, [](uint64_t, size_t n, uint64_t) {
      return chunkHead(CHUNK_ASF_HEADER, 0, HEADER_AF_FLAGS,
                       static_cast<uint16_t>(n + EXT_HEADER_LENGTH));
    }};

}  // namespace

void serveMmshConnection(Link& link, const AsfFile& file, const ServerOptions& options) {
  std::string request;
  if (!link.connection().readHttpHead(request)) return;
  if (request.compare(0, 4, "GET ") != 0) {
    link.send(responseHead(405, "Method Not Allowed", nullptr));
    return;
  }
  if (file.packetSize > MAX_CHUNK_BODY) {
    link.send(responseHead(500, "Packets Too Large For Chunks", nullptr));
    return;
  }
  if (link.httpStatus() != 0) {
    const int status = link.httpStatus();
    const char* reason = status == 403   ? "Forbidden"
                         : status == 404 ? "Not Found"
                         : status == 502 ? "Bad Gateway"
                         : status == 503 ? "Service Unavailable"
                         : status < 400  ? "OK"
                                         : "Error";
    const std::string page =
        "<html><body>" + std::to_string(status) + " " + reason + "</body></html>\r\n";
    std::string head = responseHead(status, reason, nullptr);
    head.insert(head.size() - 2, "Content-Type: text/html\r\nContent-Length: " +
                                     std::to_string(page.size()) + "\r\n");
    link.send(head + page);
    return;
  }
  const bool play = isPlayRequest(request);
  if (play && !link.answersPlay()) return;
  if (!link.sendResponseHead(responseHead(
          200, "OK", play ? "application/x-mms-framed" : "application/vnd.ms.wms-hdr.asfv1",
          options.live ? "broadcast" : "seekable,stridx")) ||
      !link.sendHeader(link.header(file), HEADER_FRAMING) || !play) {
    return;
  }
  auto declared = static_cast<uint16_t>(file.packetSize + EXT_HEADER_LENGTH);
  PacketSource packets(file, options.live);
  for (size_t i = 0; packets.has(i); ++i) {
    if (!link.sendPacket(i, chunkHead(CHUNK_DATA, static_cast<uint32_t>(i), 0, declared),
                         packets.at(i))) {
      return;
    }
  }
  link.send(endChunk(link.anotherStreamFollows()));
  link.streamEnded();
}

}  // namespace mmsserver
