#ifndef HALVARINE_PROTOCOL_H
#define HALVARINE_PROTOCOL_H

// The controller's side of the frame format: request frames built and reply
// frames judged strictly, and the words both sides agree on. Pure code, no
// I/O. Frames are built and cut by the worker's own codec, compiled into
// this library, so both sides agree byte for byte. The layout:
//
//   frame    0x16 0x16 0x02, 9-byte header, body, 0x03
//   header   0x00, checksum (2), kind, echo byte, 0x00, body length (2), 0x00
//   body     fields, each ended by 0x0A, then one more 0x0A
//   field    text (no 0x0A, first byte not 0x00) or counted (0x00, length
//            (2, big-endian), 0x00, the bytes)
//
// A reply carries the request's echo byte: a controller tells replies apart
// by it, and the worker answers requests strictly in order.

#include <stdint.h>

#include <string>
#include <vector>

namespace halvarine {

// Where the worker connects: the controller listens here.
extern const char* const CONTROLLER_SOCKET_PATH;  // "/tmp/zalProcess_Halvarine"

// Command words.
extern const char* const WORD_CONNECT;  // "CONNECT": one parameter, the stream URL
extern const char* const WORD_READ;     // "READ": one parameter, the count as 8 digits
extern const char* const WORD_GSIZE;    // "GSIZE": the stream's length
extern const char* const WORD_CLOSE;    // "CLOSE": closes the stream
extern const char* const WORD_PEND;     // "PEND": the worker answers, then ends
extern const char* const WORD_CCHECK;   // "CCHECK": is the worker alive?

// Status words, the first field after the command word in every reply.
extern const char* const STATUS_OK;   // "OK_"
extern const char* const STATUS_ERR;  // "ERR"
extern const char* const STATUS_EOF;  // "EOF": READ at the end of the stream

// The largest count a READ may ask for: the most one reply carries (65511).
int maxReadCount();

// READ's count field: eight digits, zero-padded.
std::string formatCount(int count);

// One body field. A text field travels as its bytes and 0x0A; a counted
// field as 0x00, its length, 0x00, its bytes and 0x0A, and may hold any byte.
struct Field {
  std::string bytes;
  bool counted = false;

  static Field text(const std::string& bytes) { return Field{bytes, false}; }
  static Field countedField(const std::string& bytes) { return Field{bytes, true}; }
  bool operator==(const Field& other) const {
    return bytes == other.bytes && counted == other.counted;
  }
};

// A request as the controller sends it: the echo byte and the body fields,
// the command word first. An empty text field ends the list on the wire, so
// an empty `fields[0]` sends a frame with no command.
struct Request {
  unsigned char echo = 0;
  std::vector<Field> fields;

  // The usual shape: a command word and text parameters.
  static Request command(const std::string& word, unsigned char echo,
                         const std::vector<std::string>& params = {});
};

// The whole frame for `req`, header kind 'C'. False, `frame` untouched, when
// the body would not fit one frame (65,535 bytes).
bool encodeRequest(const Request& req, std::string& frame);

// A reply frame, checked and split into its fields.
struct Reply {
  std::string frame;          // the frame exactly as received
  unsigned char echo = 0;     // header byte 4
  std::vector<Field> fields;  // [0] command word, [1] status word, values

  const std::string& word() const { return fields.at(0).bytes; }
  const std::string& status() const { return fields.at(1).bytes; }
  // The fields after the status word.
  std::vector<Field> values() const;
};

// Judges one whole frame as the reply to the request whose echo byte was
// `expectedEcho`: start sequence, length field equal to the body's length,
// end mark, header bytes 0, 5 and 8 zero, checksum, 'R' in header byte 3,
// echo byte; the body must be well-formed fields followed by the closing
// 0x0A and nothing else, with at least a command word and a status word.
// True with `out` filled, or false with the first fault in `error` (may be
// null). `frame` may be `out.frame` itself, which saves a copy.
bool decodeReply(const std::string& frame, unsigned char expectedEcho, Reply& out,
                 std::string* error);

// GSIZE's length as a number. The worker sends the 32-bit length as signed
// ("%016d"), so a length of 2^31 or more arrives with a minus sign; it is
// taken back to its unsigned value here. -1 when the reply is not "OK_" with
// a well-formed length field.
int64_t replyLength(const Reply& gsizeReply);

// Printable form of bytes: hexadecimal, separated by blanks.
std::string hex(const std::string& bytes);

}  // namespace halvarine

#endif
