#ifndef HALVARINE_CHANNEL_PACKET_H
#define HALVARINE_CHANNEL_PACKET_H

// The frame that travels on the controller socket, and the two conversions
// between frames and parameter lists. No I/O here: see transport.h.
//
//   offset 0..2    0x16 0x16 0x02           start sequence
//   offset 3..11   9-byte header            see HEADER_* below
//   offset 12..    body of N bytes          newline-ended fields, then 0x0A
//   offset 12+N    0x03                     end mark
//
// A field is either text (bytes up to 0x0A, first byte not 0x00) or counted
// (0x00, 16-bit big-endian length L, one spare byte, L data bytes, 0x0A).

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

#include "channel/result_code.h"

typedef std::string Packet;  // one whole frame
typedef std::vector<std::string> ParamList;

static const unsigned char FRAME_SYN = 0x16;
static const unsigned char FRAME_STX = 0x02;
static const unsigned char FRAME_ETX = 0x03;
static const unsigned char FIELD_END = 0x0A;
static const unsigned char COUNTED_FIELD_MARK = 0x00;

static const size_t FRAME_START_LEN = 3;  // SYN SYN STX
static const size_t FRAME_HEADER_LEN = 9;
static const size_t FRAME_BODY_OFFSET = FRAME_START_LEN + FRAME_HEADER_LEN;  // 12
static const size_t FRAME_OVERHEAD = FRAME_BODY_OFFSET + 1;                  // 13
static const size_t FRAME_LENGTH_OFFSET = 9;  // body length, big-endian, from frame start
static const size_t FRAME_MAX_BODY = 0xFFFF;
static const size_t FRAME_MAX_LEN = FRAME_MAX_BODY + FRAME_OVERHEAD;  // 65548

// Header bytes, counted from the header's first byte (frame offset - 3).
static const size_t HEADER_CHECKSUM = 1;  // 2 bytes, big-endian
static const size_t HEADER_KIND = 3;      // 'R' in replies
static const size_t HEADER_ECHO = 4;      // copied from the request
static const size_t HEADER_LENGTH = 6;    // 2 bytes, big-endian
static const unsigned char REPLY_KIND = 'R';

static const size_t COUNTED_PREFIX_LEN = 4;  // 0x00, L high, L low, 0x00

// Big-endian 16-bit wire values: the only way this code reads or writes them.
inline uint16_t getBe16(const unsigned char* p) {
  return static_cast<uint16_t>((p[0] << 8) | p[1]);
}
inline void putBe16(unsigned char* p, uint16_t v) {
  p[0] = static_cast<unsigned char>(v >> 8);
  p[1] = static_cast<unsigned char>(v & 0xFF);
}

// Sum of the body bytes modulo 65536, all bits inverted.
uint16_t bodyChecksum(const char* body, size_t len);

// The body that makePacket writes for elements 1..end of a list: each element
// verbatim plus 0x0A, then one closing 0x0A. Appended to `body`.
void appendBody(const ParamList& params, std::string& body);

// Builds a whole frame around `body` with the given 9 header bytes, filling
// in the checksum and the length. Returns false, leaving `out` untouched,
// when the body does not fit the 16-bit length field.
bool frameBody(const unsigned char header[FRAME_HEADER_LEN], const std::string& body, Packet& out);

// Reply frame from a list whose element 0 is the request's header.
// 0: `out` holds the frame.
// 0xFFFF: fewer than 2 elements (logged), `out` unchanged.
// 6: the body would not fit the 16-bit length field (logged), `out`
//    unchanged. Command handlers bound their replies so this never happens;
//    it is here so that no frame with a truncated length is ever emitted.
ResultCode makePacket(const ParamList& params, Packet& out);

static const ResultCode MAKE_EMPTY_LIST = 0xFFFF;
static const ResultCode MAKE_TOO_LONG = 6;

// Request list from a whole frame: element 0 is the 9 header bytes, then one
// element per body field.
// 0: parsed. 5: malformed; start, end mark and size faults are logged and
// leave `params` untouched, body faults are silent and leave `params` with
// the header and the fields read before the fault.
ResultCode parsePacket(const Packet& frame, ParamList& params);

static const ResultCode PARSE_MALFORMED = 5;

#endif
