#ifndef HALVARINE_CHANNEL_PROTOCOL_H
#define HALVARINE_CHANNEL_PROTOCOL_H

// The words and fields both ends of the controller socket agree on: where the
// controller listens, the command words, the status words, the forms of the
// count and length fields, and how large a reply may grow. The worker's
// handlers and the controller library both take them from here.

#include <stddef.h>
#include <stdint.h>

#include <string>

#include "channel/packet.h"

// The controller listens here; the worker takes no arguments.
extern const char CONTROLLER_SOCKET_PATH[];  // "/tmp/zalProcess_Halvarine"

// Command words, matched by "the word begins with it".
extern const char WORD_CONNECT[];
extern const char WORD_READ[];
extern const char WORD_GSIZE[];
extern const char WORD_CLOSE[];
extern const char WORD_PEND[];
extern const char WORD_CCHECK[];

// Status words: three bytes each, the first field after the command word.
extern const char STATUS_OK[];   // "OK_"
extern const char STATUS_ERR[];  // "ERR"
extern const char STATUS_EOF[];  // "EOF", READ only
static const size_t STATUS_LEN = 3;

// READ's count, in requests and replies: eight decimal digits, "%08d".
static const size_t COUNT_FIELD_LEN = 8;
std::string formatCount(int count);

// GSIZE's length: the 32-bit length taken as signed, "%016d", so a length
// of 2^31 or more shows a minus sign and fifteen digits.
static const size_t LENGTH_FIELD_LEN = 16;
std::string formatLength(uint32_t length);

// ---- Reply sizes
//
// A reply's body is its command word, 0x0A, then its tail: the further
// fields with their 0x0As and the closing 0x0A. The tails' largest forms:

// A status word alone.
static const size_t STATUS_REPLY_TAIL = STATUS_LEN + 1 + 1;
// GSIZE's success: the status and the length field.
static const size_t GSIZE_REPLY_TAIL = STATUS_REPLY_TAIL + LENGTH_FIELD_LEN + 1;
// READ's success without its data: the status, the count field, and the
// counted field's prefix and 0x0A.
static const size_t READ_REPLY_TAIL =
    STATUS_REPLY_TAIL + COUNT_FIELD_LEN + 1 + COUNTED_PREFIX_LEN + 1;

// True when a reply whose command word has `wordLength` bytes and whose tail
// has `tail` bytes fits one frame.
inline bool replyFits(size_t wordLength, size_t tail) {
  return wordLength + 1 + tail <= FRAME_MAX_BODY;
}

// The largest READ count whose reply fits a frame when the command word has
// `wordLength` bytes: 65511 for "READ". 0 when not even an empty read fits.
inline int maxReadCount(size_t wordLength) {
  return replyFits(wordLength, READ_REPLY_TAIL)
             ? static_cast<int>(FRAME_MAX_BODY - wordLength - 1 - READ_REPLY_TAIL)
             : 0;
}

#endif
