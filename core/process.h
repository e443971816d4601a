#ifndef HALVARINE_CORE_PROCESS_H
#define HALVARINE_CORE_PROCESS_H

#include "channel/packet.h"

// Start-up, command loop and shut-down; returns the exit status.
int runProcess();

// What the loop does with one frame: drops it, serves it, or ends the loop.
enum CommandOutcome { COMMAND_DROPPED, COMMAND_SERVED, COMMAND_END };

// Finds the handler for the request's command word and calls it.
CommandOutcome dispatchCommand(const ParamList& request);

#endif
