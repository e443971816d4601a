#include "commands/reply.h"

#include <boost/algorithm/string/predicate.hpp>

#include "channel/transport.h"

const char STATUS_OK[] = "OK_";
const char STATUS_ERR[] = "ERR";
const char STATUS_EOF[] = "EOF";

bool acceptRequest(const ParamList& request, size_t minElements, const char* literal) {
  return request.size() >= minElements && request.size() >= 2 &&
         boost::algorithm::starts_with(request[1], literal);
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
