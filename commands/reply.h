#ifndef HALVARINE_COMMANDS_REPLY_H
#define HALVARINE_COMMANDS_REPLY_H

// What every handler does around its own work: accept or refuse the request,
// start the reply with the request's header and word, send it.

#include <stddef.h>

#include "channel/packet.h"

extern const char STATUS_OK[];   // "OK_"
extern const char STATUS_ERR[];  // "ERR"
extern const char STATUS_EOF[];  // "EOF"

// True when `request` has at least `minElements` elements and its command
// word begins with `literal` (case-sensitive; a longer word is accepted).
bool acceptRequest(const ParamList& request, size_t minElements, const char* literal);

// A reply list holding copies of the request's header and command word.
ParamList startReply(const ParamList& request);

// Frames `reply` and sends it; returns writePacket's result.
ResultCode sendReply(const ParamList& reply);

#endif
