// The four commands without parameters: liveness, length, close and the
// acknowledgement of the end.

#include <iostream>

#include "channel/protocol.h"
#include "commands/commands.h"
#include "commands/reply.h"
#include "mms/wrapper_mms.h"

namespace {

// A bare acknowledgement; the loop does any work that follows it.
ResultCode acknowledge(const ParamList& request, const char* literal) {
  if (!acceptRequest(request, 2, literal, STATUS_REPLY_TAIL)) return COMMAND_REFUSED;
  ParamList reply = startReply(request);
  reply.push_back(STATUS_OK);
  return sendReply(reply);
}

}  // namespace

ResultCode commandCcheck(const ParamList& request) {
  return acknowledge(request, WORD_CCHECK);
}

ResultCode commandPend(const ParamList& request) {
  return acknowledge(request, WORD_PEND);
}

ResultCode commandClose(const ParamList& request) {
  if (!acceptRequest(request, 2, WORD_CLOSE, STATUS_REPLY_TAIL)) return COMMAND_REFUSED;
  ParamList reply = startReply(request);
  if (!g_wrapperMms || !g_wrapperMms->isConnected()) {
    reply.push_back(STATUS_OK);  // nothing to close
  } else {
    const ResultCode rc = g_wrapperMms->close();
    std::cerr << "[commandClose()] MMS close!! : " << static_cast<int>(rc) << std::endl;
    reply.push_back(rc == RESULT_OK ? STATUS_OK : STATUS_ERR);
  }
  return sendReply(reply);
}

ResultCode commandGsize(const ParamList& request) {
  // Refused by the size of its largest reply, the one with the length, even
  // when this one would carry only ERR: which it is depends on the stream.
  if (!acceptRequest(request, 2, WORD_GSIZE, GSIZE_REPLY_TAIL)) return COMMAND_REFUSED;
  ParamList reply = startReply(request);
  if (!g_wrapperMms || !g_wrapperMms->isConnected()) {
    reply.push_back(STATUS_ERR);
    return sendReply(reply);
  }
  uint32_t length = 0;
  const ResultCode rc = g_wrapperMms->getLength(length);
  std::cerr << "[commandGsize()] MMS get size!! : " << static_cast<int>(rc) << std::endl;
  if (rc != RESULT_OK) {
    reply.push_back(STATUS_ERR);
  } else {
    reply.push_back(STATUS_OK);
    reply.push_back(formatLength(length));
  }
  return sendReply(reply);
}
