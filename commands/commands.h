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

// The largest READ count whose reply fits a frame when the command word has
// `wordLength` bytes: the body holds the word, the status, the 8-digit count,
// the counted-field prefix and four field ends besides the data.
int maxReadCount(size_t wordLength);

#endif
