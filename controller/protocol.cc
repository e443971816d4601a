#include "channel/protocol.h"

#include <halvarine/protocol.h>
#include <stdio.h>
#include <stdlib.h>

#include "channel/packet.h"

namespace halvarine {

const char* const CONTROLLER_SOCKET_PATH = ::CONTROLLER_SOCKET_PATH;
const char* const WORD_CONNECT = ::WORD_CONNECT;
const char* const WORD_READ = ::WORD_READ;
const char* const WORD_GSIZE = ::WORD_GSIZE;
const char* const WORD_CLOSE = ::WORD_CLOSE;
const char* const WORD_PEND = ::WORD_PEND;
const char* const WORD_CCHECK = ::WORD_CCHECK;
const char* const STATUS_OK = ::STATUS_OK;
const char* const STATUS_ERR = ::STATUS_ERR;
const char* const STATUS_EOF = ::STATUS_EOF;

namespace {

const unsigned char REQUEST_KIND = 'C';

bool fail(std::string* error, const std::string& what) {
  if (error != nullptr) *error = what;
  return false;
}

std::string byteText(unsigned v) {
  char buf[8];
  snprintf(buf, sizeof buf, "0x%02X", v);
  return buf;
}

}  // namespace

int maxReadCount() {
  return ::maxReadCount(sizeof "READ" - 1);
}

std::string formatCount(int count) {
  return ::formatCount(count);
}

Request Request::command(const std::string& word, unsigned char echo,
                         const std::vector<std::string>& params) {
  Request r;
  r.echo = echo;
  r.fields.push_back(Field::text(word));
  for (const std::string& p : params) r.fields.push_back(Field::text(p));
  return r;
}

bool encodeRequest(const Request& req, std::string& frame) {
  // Element 0 of a list is its header, which the framer takes apart.
  ParamList list(1);
  for (const Field& f : req.fields) {
    if (!f.counted) {
      list.push_back(f.bytes);
      continue;
    }
    if (f.bytes.size() > FRAME_MAX_BODY) return false;
    std::string element(COUNTED_PREFIX_LEN, '\0');
    putCountedPrefix(&element[0], static_cast<uint16_t>(f.bytes.size()));
    list.push_back(element + f.bytes);
  }
  unsigned char header[FRAME_HEADER_LEN] = {0};
  header[HEADER_KIND] = REQUEST_KIND;
  header[HEADER_ECHO] = req.echo;
  return buildFrame(header, list, frame);
}

std::vector<Field> Reply::values() const {
  if (fields.size() <= 2) return {};
  return std::vector<Field>(fields.begin() + 2, fields.end());
}

bool decodeReply(const std::string& frame, unsigned char expectedEcho, Reply& out,
                 std::string* error) {
  const unsigned char* b = reinterpret_cast<const unsigned char*>(frame.data());
  const size_t n = frame.size();
  if (n < FRAME_OVERHEAD) return fail(error, "reply shorter than 13 bytes");
  if (b[0] != FRAME_SYN || b[1] != FRAME_SYN || b[2] != FRAME_STX) {
    return fail(error, "reply does not begin with 16 16 02: " + hex(frame.substr(0, 3)));
  }
  const unsigned char* h = b + FRAME_START_LEN;
  const size_t bodyLen = getBe16(h + HEADER_LENGTH);
  if (bodyLen + FRAME_OVERHEAD != n) {
    return fail(error, "reply length field " + std::to_string(bodyLen) + " does not match its " +
                           std::to_string(n) + " bytes");
  }
  if (b[n - 1] != FRAME_ETX) return fail(error, "reply end mark is " + byteText(b[n - 1]));
  static const size_t ZERO_BYTES[] = {0, 5, 8};
  for (size_t i : ZERO_BYTES) {
    if (h[i] != 0) {
      return fail(error, "reply header byte " + std::to_string(i) + " is " + byteText(h[i]));
    }
  }
  if (h[HEADER_KIND] != REPLY_KIND) {
    return fail(error, "reply header byte 3 is " + byteText(h[HEADER_KIND]) + ", not 'R'");
  }
  if (h[HEADER_ECHO] != expectedEcho) {
    return fail(error, "reply echo byte is " + byteText(h[HEADER_ECHO]) + ", expected " +
                           byteText(expectedEcho));
  }
  const char* body = frame.data() + FRAME_BODY_OFFSET;
  const uint16_t sum = bodyChecksum(body, bodyLen);
  if (getBe16(h + HEADER_CHECKSUM) != sum) {
    return fail(error, "reply checksum is " +
                           hex(frame.substr(FRAME_START_LEN + HEADER_CHECKSUM, 2)) +
                           ", the body's is " + byteText(sum >> 8) + " " + byteText(sum & 0xFF));
  }

  ParamList params;
  if (parsePacket(frame, params) != RESULT_OK) {
    return fail(error, "reply body has a malformed field: " +
                           hex(frame.substr(FRAME_BODY_OFFSET, bodyLen)));
  }
  if (params.size() < 3) return fail(error, "reply has no command word and status word");

  // Which elements came as counted fields, and that the body holds exactly
  // these fields and the closing 0x0A: walk the field boundaries without
  // copying the data again (a READ reply carries 64 KiB of it).
  std::vector<Field> fields;
  fields.reserve(params.size() - 1);
  size_t pos = 0;
  for (size_t i = 1; i < params.size(); ++i) {
    const bool counted = body[pos] == static_cast<char>(COUNTED_FIELD_MARK);
    if (counted && body[pos + 3] != 0) {
      return fail(error, "reply counted field " + std::to_string(i) + " has spare byte " +
                             byteText(static_cast<unsigned char>(body[pos + 3])));
    }
    pos += (counted ? COUNTED_PREFIX_LEN : 0) + params[i].size() + 1;
    fields.push_back(Field{std::move(params[i]), counted});
  }
  if (pos + 1 != bodyLen || body[pos] != static_cast<char>(FIELD_END)) {
    return fail(error, "reply body is not exactly its fields and the closing 0x0A: " +
                           hex(std::string(body, bodyLen)));
  }

  if (&out.frame != &frame) out.frame = frame;
  out.echo = h[HEADER_ECHO];
  out.fields = std::move(fields);
  return true;
}

int64_t replyLength(const Reply& reply) {
  if (reply.fields.size() != 3 || reply.status() != STATUS_OK) return -1;
  const std::string& field = reply.fields[2].bytes;
  if (field.size() != LENGTH_FIELD_LEN || reply.fields[2].counted) return -1;
  char* end = nullptr;
  const long long signedLength = strtoll(field.c_str(), &end, 10);
  if (*end != '\0' || signedLength < INT32_MIN || signedLength > INT32_MAX) return -1;
  return static_cast<int64_t>(static_cast<uint32_t>(static_cast<int32_t>(signedLength)));
}

std::string hex(const std::string& bytes) {
  std::string s;
  char buf[4];
  for (size_t i = 0; i < bytes.size(); ++i) {
    snprintf(buf, sizeof buf, i ? " %02X" : "%02X", static_cast<unsigned char>(bytes[i]));
    s += buf;
  }
  return s;
}

}  // namespace halvarine
