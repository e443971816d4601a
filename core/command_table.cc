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
    const ResultCode rc = row.handler(request);
    // The end belongs to the word, not to its acknowledgement: a PEND whose
    // reply could not be sent (or would not fit a frame) ends the worker
    // all the same, and the controller sees its socket end.
    if (row.endsLoop) return COMMAND_END;
    // Otherwise the handler has answered or refused by itself.
    return rc == COMMAND_REFUSED ? COMMAND_DROPPED : COMMAND_SERVED;
  }
  return COMMAND_DROPPED;
}
