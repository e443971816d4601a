#include "channel/packet.h"

#include <iostream>

uint16_t bodyChecksum(const char* body, size_t len) {
  // A 16-bit sum that simply wraps is the checksum's own arithmetic, and it
  // lets the compiler add many bytes per step in 16-bit lanes. This is the
  // worker's hottest loop: every byte of every READ reply passes here.
  const unsigned char* p = reinterpret_cast<const unsigned char*>(body);
  uint16_t sum = 0;
  for (size_t i = 0; i < len; ++i) sum = static_cast<uint16_t>(sum + p[i]);
  return static_cast<uint16_t>(~sum);
}

void appendBody(const ParamList& params, std::string& body) {
  for (size_t i = 1; i < params.size(); ++i) {
    body.append(params[i]);
    body.push_back(static_cast<char>(FIELD_END));
  }
  body.push_back(static_cast<char>(FIELD_END));
}

bool frameBody(const unsigned char header[FRAME_HEADER_LEN], const std::string& body, Packet& out) {
  if (body.size() > FRAME_MAX_BODY) return false;
  unsigned char head[FRAME_BODY_OFFSET] = {FRAME_SYN, FRAME_SYN, FRAME_STX};
  unsigned char* h = head + FRAME_START_LEN;
  for (size_t i = 0; i < FRAME_HEADER_LEN; ++i) h[i] = header[i];
  putBe16(h + HEADER_CHECKSUM, bodyChecksum(body.data(), body.size()));
  putBe16(h + HEADER_LENGTH, static_cast<uint16_t>(body.size()));

  out.clear();
  out.reserve(body.size() + FRAME_OVERHEAD);
  out.append(reinterpret_cast<const char*>(head), sizeof head);
  out.append(body);
  out.push_back(static_cast<char>(FRAME_ETX));
  return true;
}

ResultCode makePacket(const ParamList& params, Packet& out) {
  if (params.size() < 2) {
    std::cerr << "[makePacket()] parameter list is empty!" << std::endl;
    return MAKE_EMPTY_LIST;
  }
  // The reply body is built straight into the frame, behind room for the
  // start sequence and header, so the data of a READ reply is copied once.
  size_t bodyLen = 1;
  for (size_t i = 1; i < params.size(); ++i) bodyLen += params[i].size() + 1;
  if (bodyLen > FRAME_MAX_BODY) {
    std::cerr << "[makePacket()] reply too long! " << bodyLen << std::endl;
    return MAKE_TOO_LONG;
  }

  out.clear();
  out.reserve(bodyLen + FRAME_OVERHEAD);
  out.append(FRAME_BODY_OFFSET, '\0');
  appendBody(params, out);
  out.push_back(static_cast<char>(FRAME_ETX));

  unsigned char* f = reinterpret_cast<unsigned char*>(&out[0]);
  f[0] = FRAME_SYN;
  f[1] = FRAME_SYN;
  f[2] = FRAME_STX;
  unsigned char* h = f + FRAME_START_LEN;
  putBe16(h + HEADER_CHECKSUM, bodyChecksum(out.data() + FRAME_BODY_OFFSET, bodyLen));
  h[HEADER_KIND] = REPLY_KIND;
  // Element 0 is a request header; a shorter one has no echo byte to give.
  h[HEADER_ECHO] =
      params[0].size() > HEADER_ECHO ? static_cast<unsigned char>(params[0][HEADER_ECHO]) : 0;
  putBe16(h + HEADER_LENGTH, static_cast<uint16_t>(bodyLen));
  return RESULT_OK;
}

ResultCode parsePacket(const Packet& frame, ParamList& params) {
  if (frame.size() < FRAME_OVERHEAD) {
    std::cerr << "[parsePacket()] packet is empty!" << std::endl;
    return PARSE_MALFORMED;
  }
  const unsigned char* f = reinterpret_cast<const unsigned char*>(frame.data());
  if (f[0] != FRAME_SYN || f[1] != FRAME_SYN || f[2] != FRAME_STX) {
    std::cerr << "[parsePacket()] no [SYN][SYN][STX] !" << std::endl;
    return PARSE_MALFORMED;
  }
  if (f[frame.size() - 1] != FRAME_ETX) {
    std::cerr << "[parsePacket()] no [ETX]!" << std::endl;
    return PARSE_MALFORMED;
  }

  params.clear();
  params.emplace_back(frame, FRAME_START_LEN, FRAME_HEADER_LEN);

  // The length field was already used to cut the frame; the body is what
  // lies between the header and the end mark.
  size_t pos = FRAME_BODY_OFFSET;
  const size_t end = frame.size() - 1;
  while (pos < end) {
    if (f[pos] == COUNTED_FIELD_MARK) {
      if (end - pos < COUNTED_PREFIX_LEN) return PARSE_MALFORMED;
      const size_t len = getBe16(f + pos + 1);
      const size_t data = pos + COUNTED_PREFIX_LEN;
      if (end - data < len + 1 || f[data + len] != FIELD_END) return PARSE_MALFORMED;
      params.emplace_back(frame, data, len);
      pos = data + len + 1;
      continue;
    }
    const size_t nl = frame.find(static_cast<char>(FIELD_END), pos);
    if (nl == std::string::npos || nl >= end) return PARSE_MALFORMED;
    if (nl == pos) return RESULT_OK;  // an empty field ends the list
    params.emplace_back(frame, pos, nl - pos);
    pos = nl + 1;
  }
  return RESULT_OK;
}
