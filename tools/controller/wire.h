#ifndef HALVARINE_TOOLS_CONTROLLER_WIRE_H
#define HALVARINE_TOOLS_CONTROLLER_WIRE_H

// The controller's side of the frame format: request frames built and reply
// frames judged strictly. Pure code, no I/O; the byte layout itself is the
// worker's codec (channel/packet.h), used here, never restated.

#include <string>
#include <vector>

#include "channel/packet.h"

namespace controller {

// One body field. A text field travels as its bytes and 0x0A; a counted
// field as 0x00, its length (16-bit big-endian), 0x00, its bytes and 0x0A.
struct Field {
  std::string bytes;
  bool counted = false;

  static Field text(const std::string& bytes) { return Field{bytes, false}; }
  static Field countedField(const std::string& bytes) { return Field{bytes, true}; }
  bool operator==(const Field& other) const {
    return bytes == other.bytes && counted == other.counted;
  }
};

// A request as the controller sends it: the echo byte (header byte 4) and
// the body fields, the command word first. An empty text field ends the
// list on the wire, so an empty `fields[0]` sends a frame with no command.
struct Request {
  unsigned char echo = 0;
  std::vector<Field> fields;

  // The usual shape: a command word and text parameters.
  static Request command(const std::string& word, unsigned char echo,
                         const std::vector<std::string>& params = {});
};

// The whole frame for `req`: header 00, checksum, 'C', echo, 00, body length,
// 00 (the worker examines only the echo byte and the length). Returns false
// when the body does not fit the 16-bit length field; `out` is then untouched.
bool encodeRequest(const Request& req, Packet& out);

// A reply frame, checked and split into its fields.
struct Reply {
  Packet frame;               // the frame exactly as received
  unsigned char echo = 0;     // header byte 4
  std::vector<Field> fields;  // [0] command word, [1] status word, values

  const std::string& word() const { return fields.at(0).bytes; }
  const std::string& status() const { return fields.at(1).bytes; }
  // The fields after the status word.
  std::vector<Field> values() const;
};

// Judges one whole frame as a reply to the request whose echo byte was
// `expectedEcho`: start sequence, length field equal to the body's length,
// end mark, header bytes 0, 5 and 8 zero, checksum, 'R' in header byte 3,
// echo byte; the body must be well-formed fields followed by the closing
// 0x0A and nothing else, with at least a command word and a status word.
// Returns true and fills `out`, or false with the first fault in `error`.
// `frame` may be `out.frame` itself, which saves a copy of the frame.
bool decodeReply(const Packet& frame, unsigned char expectedEcho, Reply& out, std::string* error);

// Printable form of a byte string: hexadecimal bytes separated by blanks.
std::string hex(const std::string& bytes);

}  // namespace controller

#endif
