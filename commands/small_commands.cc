// The four commands without parameters: liveness, length, close and the
// acknowledgement of the end.

#include <stdio.h>

#include <iostream>

#include "commands/commands.h"
#include "commands/reply.h"
#include "mms/wrapper_mms.h"

namespace {

// A bare acknowledgement; the loop does any work that follows it.
ResultCode acknowledge(const ParamList& request, const char* literal) {
  if (!acceptRequest(request, 2, literal)) return COMMAND_REFUSED;
  ParamList reply = startReply(request);
  reply.push_back(STATUS_OK);
  return sendReply(reply);
}

}  // namespace

ResultCode commandCcheck(const ParamList& request) {
  return acknowledge(request, "CCHECK");
}

ResultCode commandPend(const ParamList& request) {
  return acknowledge(request, "PEND");
}

ResultCode commandClose(const ParamList& request) {
  if (!acceptRequest(request, 2, "CLOSE")) return COMMAND_REFUSED;
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
  if (!acceptRequest(request, 2, "GSIZE")) return COMMAND_REFUSED;
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
    // Sixteen characters of the length taken as signed 32-bit, so a length
    // of 2^31 or more shows a minus sign: controllers parse it that way.
    char field[17];
    snprintf(field, sizeof field, "%016d", static_cast<int32_t>(length));
    reply.push_back(STATUS_OK);
    reply.push_back(field);
  }
  return sendReply(reply);
}
