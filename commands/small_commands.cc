// The four commands without parameters: liveness, length, close and the
// acknowledgement of the end.

#include <boost/algorithm/string/predicate.hpp>
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
  // The loop ends the worker after any PEND word; a word so long that the
  // acknowledgement would not fit a frame gets none (nothing sent, nothing
  // logged), and the end of the socket is the answer.
  const char* literal = WORD_PEND;
  if (request.size() >= 2 && boost::algorithm::starts_with(request[1], literal) &&
      !replyFits(request[1].size(), STATUS_REPLY_TAIL)) {
    return MAKE_TOO_LONG;
  }
  return acknowledge(request, literal);
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
  // Refused by the reply it would really get: ERR without an open stream;
  // with one, the length (an open stream always has one), so the library
  // is not asked when that reply would not fit.
  if (!acceptRequest(request, 2, WORD_GSIZE, STATUS_REPLY_TAIL)) return COMMAND_REFUSED;
  const bool open = g_wrapperMms && g_wrapperMms->isConnected();
  if (open && !replyFits(request[1].size(), GSIZE_REPLY_TAIL)) return COMMAND_REFUSED;
  ParamList reply = startReply(request);
  if (!open) {
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
