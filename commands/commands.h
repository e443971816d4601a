#ifndef HALVARINE_COMMANDS_COMMANDS_H
#define HALVARINE_COMMANDS_COMMANDS_H

// One handler per command word. Each takes the request list (element 0 the
// frame header, element 1 the command word, then the parameters) and returns
// 4 when it refuses the request (nothing sent, nothing logged, no state
// changed); otherwise it sends exactly one reply frame and returns what
// writePacket returned. Whether the command itself worked travels in the
// reply's status word ("OK_", "ERR", "EOF"), not in the result.
//
// A request whose reply could not fit one frame (a command word of tens of
// kilobytes) is refused like a malformed one, before anything is done: a
// reply that cannot be sent must not follow a command that was carried out.
// The reply that counts is the one the request would really get (GSIZE
// without an open stream gets ERR, not a length). PEND is the exception: the
// end is the loop's, and follows whatever commandPend returns.

#include "channel/packet.h"

static const ResultCode COMMAND_REFUSED = 4;

ResultCode commandConnect(const ParamList& request);
ResultCode commandRead(const ParamList& request);
ResultCode commandGsize(const ParamList& request);
ResultCode commandClose(const ParamList& request);
ResultCode commandPend(const ParamList& request);
ResultCode commandCcheck(const ParamList& request);

#endif
