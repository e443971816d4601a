#ifndef HALVARINE_TOOLS_FETCH_STOP_H
#define HALVARINE_TOOLS_FETCH_STOP_H

// The stop signals, SIGINT, SIGTERM and SIGHUP (the terminal closed), only
// set a flag; the tool's waits come back often enough to look at it, so the
// worker is ended, the recording kept and the socket file removed on the way
// out as on any other path. Once that is done, endByStopSignal() ends the
// process by the signal itself, as a shell expects of a program that was
// interrupted: a loop of fetches then stops at Ctrl-C instead of going on.

#include <signal.h>

namespace fetch {

// The stop signal received, 0 while none has come.
extern volatile sig_atomic_t g_stopSignal;

// Installs the handlers, and ignores SIGPIPE (a closed output is a write
// error, not a death). False, with errno set, when one cannot be installed.
bool installStopHandlers();

// "SIGINT", "SIGTERM" or "SIGHUP".
const char* stopSignalName(int sig);

// Returns only when no stop signal came.
void endByStopSignal();

}  // namespace fetch

#endif
