#ifndef HALVARINE_COMMANDS_COMMANDS_H
#define HALVARINE_COMMANDS_COMMANDS_H

// One handler per command word. Each takes the request list (element 0 the
// frame header, element 1 the command word, then the parameters) and returns
// 4 when it refuses the request (nothing sent, nothing logged, no state
// changed); otherwise it sends exactly one reply frame and returns what
// writePacket returned. Whether the command itself worked travels in the
// reply's status word ("OK_", "ERR", "EOF"), not in the result.

#include "channel/packet.h"

static const ResultCode COMMAND_REFUSED = 4;

ResultCode commandConnect(const ParamList& request);
ResultCode commandRead(const ParamList& request);
ResultCode commandGsize(const ParamList& request);
ResultCode commandClose(const ParamList& request);
ResultCode commandPend(const ParamList& request);
ResultCode commandCcheck(const ParamList& request);

// Body bytes of a READ success reply besides the data and the command word:
// "OK_" + 0x0A, eight digits + 0x0A, the counted-field prefix, the data's
// 0x0A and the list's closing 0x0A.
static const size_t READ_REPLY_FIXED = 4 + 9 + COUNTED_PREFIX_LEN + 1 + 1 + 1;

// The largest READ count whose reply fits a frame when the command word has
// `wordLength` bytes. Header-only: controllers size their requests with it.
inline int maxReadCount(size_t wordLength) {
  const size_t fixed = READ_REPLY_FIXED + wordLength;
  return fixed >= FRAME_MAX_BODY ? 0 : static_cast<int>(FRAME_MAX_BODY - fixed);
}

#endif
