#include <string.h>

#include <boost/algorithm/string/predicate.hpp>
#include <iostream>

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
    {"CONNECT", commandConnect, false}, {"READ", commandRead, false},
    {"GSIZE", commandGsize, false},     {"CLOSE", commandClose, false},
    {"PEND", commandPend, true},        {"CCHECK", commandCcheck, false},
};

}  // namespace

CommandOutcome dispatchCommand(const ParamList& request) {
  if (request.size() < 2) return COMMAND_DROPPED;
  for (const CommandRow& row : COMMAND_TABLE) {
    if (!boost::algorithm::starts_with(request[1], row.literal)) continue;
    if (row.endsLoop) std::cerr << "[Halvarine] recv PEND command!" << std::endl;
    row.handler(request);  // the handler has answered (or refused) itself
    return row.endsLoop ? COMMAND_END : COMMAND_SERVED;
  }
  return COMMAND_DROPPED;
}
