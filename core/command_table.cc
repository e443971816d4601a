#include <boost/algorithm/string/predicate.hpp>
#include <iostream>

#include "channel/protocol.h"
#include "commands/commands.h"
#include "core/process.h"

namespace {

struct CommandRow {
  const char* literal;
  ResultCode (*handler)(const ParamList&);
  bool endsLoop;
};

// Matched in this order by "the word begins with the literal". No literal
// begins another, so at most one row can match.
const CommandRow COMMAND_TABLE[] = {
    {WORD_CONNECT, commandConnect, false}, {WORD_READ, commandRead, false},
    {WORD_GSIZE, commandGsize, false},     {WORD_CLOSE, commandClose, false},
    {WORD_PEND, commandPend, true},        {WORD_CCHECK, commandCcheck, false},
};

}  // namespace

CommandOutcome dispatchCommand(const ParamList& request) {
  if (request.size() < 2) return COMMAND_DROPPED;
  for (const CommandRow& row : COMMAND_TABLE) {
    if (!boost::algorithm::starts_with(request[1], row.literal)) continue;
    if (row.endsLoop) std::cerr << "[Halvarine] recv PEND command!" << std::endl;
    // The handler has answered or refused by itself. A PEND it refused (its
    // reply would not fit a frame) was not acknowledged, so it ends nothing.
    if (row.handler(request) == COMMAND_REFUSED) return COMMAND_DROPPED;
    return row.endsLoop ? COMMAND_END : COMMAND_SERVED;
  }
  return COMMAND_DROPPED;
}
