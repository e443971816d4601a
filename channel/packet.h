#ifndef HALVARINE_CHANNEL_PACKET_H
#define HALVARINE_CHANNEL_PACKET_H

// The frame that travels on the controller socket, and the conversions
// between frames, byte streams and parameter lists. No I/O here: see
// control_socket.h.
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

#include "base/be16.h"
#include "base/result_code.h"

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

// Sum of the body bytes modulo 65536, all bits inverted.
uint16_t bodyChecksum(const char* body, size_t len);

// Every way of taking the byte sum behind it (modulo 2^32) that this
// processor can run: a machine word at a time, the portable one used where
// the build may assume no vector unit (armhf), and the vector ones. The
// checksum uses the fastest; all are listed so that each is tested.
typedef uint32_t (*ByteSum)(const unsigned char* p, size_t len);
std::vector<ByteSum> byteSumVariants();

// The prefix that makes `length` data bytes behind it a counted field, written
// to the 4 bytes at `at`.
void putCountedPrefix(char* at, uint16_t length);

// The one framer, for replies and requests alike: the start sequence,
// `header` with its checksum and length filled in, a body of elements 1 to
// the last of `fields` (each written verbatim and followed by 0x0A) and the
// closing 0x0A, then the end mark. Element 0, the header of a list, is not
// written. The body is built straight into `out`, so an element is copied
// once. False, `out` untouched, when the body would not fit the length field.
bool buildFrame(const unsigned char header[FRAME_HEADER_LEN], const ParamList& fields, Packet& out);

// Reply frame from a list whose element 0 is the request's header.
// 0: `out` holds the frame.
// 0xFFFF: fewer than 2 elements (logged), `out` unchanged.
// 6: the body would not fit the 16-bit length field (logged), `out`
//    unchanged. The handlers refuse a request whose reply could not fit
//    before they act on it (see replyFits), so this is a last line of
//    defence: no frame with a truncated length is ever emitted.
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

// ---- Cutting frames out of a byte stream

// Where the first frame in `bytes` (`size` of them) lies, judged only by the
// start sequence and the length field. FRAME_FOUND: it begins at `start` and
// is `length` bytes long; FRAME_INCOMPLETE: it begins at `start` but has not
// all arrived; FRAME_NO_START: there is no start sequence. The worker drops
// what lies before a start; a controller, which expects nothing between
// frames, calls it an error.
enum FrameSearch { FRAME_FOUND, FRAME_INCOMPLETE, FRAME_NO_START };
FrameSearch findFrame(const char* bytes, size_t size, size_t& start, size_t& length);

// Largest run of bytes kept while no start sequence is in it: a controller
// that sends garbage cannot grow the receive buffer without limit. The bytes
// that may begin a start sequence split across reads are always kept.
static const size_t RECV_GARBAGE_LIMIT = 4096;

// Moves the first whole frame of `buffer` into `out`. Bytes in front of the
// first start sequence are dropped. 0 frame moved; 7 no whole frame yet.
ResultCode extractPacket(std::string& buffer, Packet& out);

static const ResultCode EXTRACT_NO_FRAME = 7;

#endif
