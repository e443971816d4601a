#include <stdlib.h>

#include <new>
#include <string>

#include "channel/protocol.h"
#include "commands/commands.h"
#include "commands/reply.h"
#include "mms/wrapper_mms.h"

ResultCode commandRead(const ParamList& request) {
  if (!acceptRequest(request, 3, WORD_READ, STATUS_REPLY_TAIL)) return COMMAND_REFUSED;
  if (request[2].size() != COUNT_FIELD_LEN) return COMMAND_REFUSED;
  ParamList reply = startReply(request);
  if (!g_wrapperMms || !g_wrapperMms->isConnected()) {
    reply.push_back(STATUS_ERR);
    return sendReply(reply);
  }

  try {
    const int count = atoi(request[2].c_str());
    // A reply carries at most 65,535 body bytes; a count it could not carry,
    // or a negative one, is refused before the stream is touched so that no
    // byte of the stream is lost.
    if (count < 0 || count > maxReadCount(request[1].size())) {
      reply.push_back(STATUS_ERR);
      return sendReply(reply);
    }
    // The library writes behind room for the counted-field prefix, and the
    // buffer then becomes the reply's last element as it is: the frame is
    // the only copy of the data.
    std::string buffer(static_cast<size_t>(count) + COUNTED_PREFIX_LEN, '\0');
    int n = 0;
    const ResultCode rc = g_wrapperMms->read(&buffer[COUNTED_PREFIX_LEN], count, n);
    // A count the library reports outside 1..count (a negative error value
    // passed through as a count) cannot describe bytes in the buffer.
    if (rc == RESULT_OK && n > 0 && n <= count) {
      reply.push_back(STATUS_OK);
      reply.push_back(formatCount(n));
      putCountedPrefix(&buffer[0], static_cast<uint16_t>(n));
      buffer.resize(static_cast<size_t>(n) + COUNTED_PREFIX_LEN);
      reply.push_back(std::move(buffer));
    } else if (rc == MMS_NO_DATA) {
      reply.push_back(STATUS_EOF);
    } else {
      reply.push_back(STATUS_ERR);
    }
  } catch (const std::bad_alloc&) {
    reply.push_back(STATUS_ERR);
  }
  return sendReply(reply);
}
