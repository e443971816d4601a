#include "commands/reply.h"

#include <boost/algorithm/string/predicate.hpp>

#include "channel/control_socket.h"
#include "channel/protocol.h"

bool acceptRequest(const ParamList& request, size_t minElements, const char* literal,
                   size_t replyTail) {
  return request.size() >= minElements && boost::algorithm::starts_with(request[1], literal) &&
         replyFits(request[1].size(), replyTail);
}

ParamList startReply(const ParamList& request) {
  ParamList reply;
  reply.reserve(5);
  reply.push_back(request[0]);
  reply.push_back(request[1]);
  return reply;
}

ResultCode sendReply(const ParamList& reply) {
  Packet frame;
  makePacket(reply, frame);
  return writePacket(frame);
}
