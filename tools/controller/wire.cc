#include "tools/controller/wire.h"

#include <stdio.h>

namespace controller {

namespace {

const unsigned char REQUEST_KIND = 'C';

// The wire form of one element as makePacket-style bodies carry it: counted
// fields take their 4-byte prefix in front of the data.
std::string wireElement(const Field& f) {
  if (!f.counted) return f.bytes;
  unsigned char prefix[COUNTED_PREFIX_LEN] = {COUNTED_FIELD_MARK, 0, 0, 0};
  putBe16(prefix + 1, static_cast<uint16_t>(f.bytes.size()));
  return std::string(reinterpret_cast<const char*>(prefix), sizeof prefix) + f.bytes;
}

bool fail(std::string* error, const std::string& what) {
  if (error) *error = what;
  return false;
}

std::string byteText(unsigned v) {
  char buf[8];
  snprintf(buf, sizeof buf, "0x%02X", v);
  return buf;
}

}  // namespace

Request Request::command(const std::string& word, unsigned char echo,
                         const std::vector<std::string>& params) {
  Request r;
  r.echo = echo;
  r.fields.push_back(Field::text(word));
  for (const std::string& p : params) r.fields.push_back(Field::text(p));
  return r;
}

bool encodeRequest(const Request& req, Packet& out) {
  for (const Field& f : req.fields) {
    if (f.counted && f.bytes.size() > 0xFFFF) return false;
  }
  // appendBody skips element 0, the header, which frameBody supplies.
  ParamList list(1);
  for (const Field& f : req.fields) list.push_back(wireElement(f));
  std::string body;
  appendBody(list, body);
  unsigned char header[FRAME_HEADER_LEN] = {0};
  header[HEADER_KIND] = REQUEST_KIND;
  header[HEADER_ECHO] = req.echo;
  return frameBody(header, body, out);
}

std::vector<Field> Reply::values() const {
  if (fields.size() <= 2) return {};
  return std::vector<Field>(fields.begin() + 2, fields.end());
}

bool decodeReply(const Packet& frame, unsigned char expectedEcho, Reply& out, std::string* error) {
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

std::string hex(const std::string& bytes) {
  std::string s;
  char buf[4];
  for (size_t i = 0; i < bytes.size(); ++i) {
    snprintf(buf, sizeof buf, i ? " %02X" : "%02X", static_cast<unsigned char>(bytes[i]));
    s += buf;
  }
  return s;
}

}  // namespace controller
