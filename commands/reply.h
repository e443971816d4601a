#ifndef HALVARINE_COMMANDS_REPLY_H
#define HALVARINE_COMMANDS_REPLY_H

// What every handler does around its own work: accept or refuse the request,
// start the reply with the request's header and word, send it.

#include <stddef.h>

#include "channel/packet.h"

// True when `request` has at least `minElements` elements (2 or more: the
// header and the word are always needed), its command word
// begins with `literal` (case-sensitive; a longer word is accepted), and a
// reply of that word and a tail of `replyTail` bytes (channel/protocol.h)
// fits one frame.
bool acceptRequest(const ParamList& request, size_t minElements, const char* literal,
                   size_t replyTail);

// A reply list holding copies of the request's header and command word.
ParamList startReply(const ParamList& request);

// Frames `reply` and sends it; returns writePacket's result.
ResultCode sendReply(const ParamList& reply);

#endif
