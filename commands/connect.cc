#include <iostream>

#include "channel/protocol.h"
#include "commands/commands.h"
#include "commands/reply.h"
#include "mms/wrapper_mms.h"

ResultCode commandConnect(const ParamList& request) {
  if (!acceptRequest(request, 3, WORD_CONNECT, STATUS_REPLY_TAIL)) return COMMAND_REFUSED;
  const std::string url = request[2];
  std::cerr << "[commandConnect()] command size : " << request[1].size() << std::endl;
  ParamList reply = startReply(request);

  // Replacing the only owner destroys the old object, which closes its
  // stream, before the new one opens: one stream at a time, whatever the
  // outcome of this connect.
  g_wrapperMms.reset(new WrapperMms(url));
  const ResultCode rc = g_wrapperMms->connect();
  std::cerr << "[commandConnect()] MMS connect server!! : " << static_cast<int>(rc) << std::endl;

  reply.push_back(rc == RESULT_OK ? STATUS_OK : STATUS_ERR);
  return sendReply(reply);
}
