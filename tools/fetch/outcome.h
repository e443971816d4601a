#ifndef HALVARINE_TOOLS_FETCH_OUTCOME_H
#define HALVARINE_TOOLS_FETCH_OUTCOME_H

// How one fetch ended, and the exit status each way of ending has. The
// fetch says what happened; only exitStatus() knows the numbers, so that a
// new way of ending cannot pick a number of its own by accident.

#include <halvarine/controller.h>

namespace fetch {

enum class Ending {
  // Success.
  COMPLETED,         // the whole stream, or a broadcast that ended
  STOPPED_AS_ASKED,  // --duration or --max-bytes reached; the recording kept
  SIGNALED,          // a stop signal (Outcome::signal); what came is kept
  // Before the worker runs.
  BAD_USAGE,         // the command line
  UNSUPPORTED_URL,   // a scheme or address the worker cannot open
  CANNOT_START,      // the signal handlers or standard output cannot be set up
  MALFORMED_URL,     // also a URL the worker refused to take
  OUTPUT_FAILED,     // the output cannot be opened, written or finished
  NO_WORKER,         // the worker is missing or cannot be run
  CONTROLLER_TAKEN,  // no private socket, and the shared one is in the way
  WORKER_NOT_CONNECTED,
  // Opening the stream.
  PROXY_UNRESOLVED,
  HOST_UNRESOLVED,
  CANNOT_CONNECT,      // refused, unreachable, or the proxy refused
  CONNECT_TIMED_OUT,   // connecting, or the server did not answer
  NOT_MMS,             // not an MMS server, or its stream did not open
  HTTP_ERROR,          // the server answered 404, 403, ...
  NO_SUCH_FILE,        // the MMS server has no such file
  HEADER_READ_FAILED,  // READ answered ERR inside the stream's header
  HEADER_CUT_SHORT,    // the stream ended inside its header
  CANNOT_CONTINUE,     // --continue: the file is not this stream's start
  // Reading it.
  ENDED_EARLY,       // before its announced length, for good
  NOT_RESUMABLE,     // opened again, it was another stream or other bytes
  STALLED,           // no data for --retry-max-time
  NOTHING_RECORDED,  // --duration passed before any data came
  READ_FAILED,       // the worker answered ERR to a READ, for good
  LIVE_LOST,         // a live stream's connection, for good
  // The exchange with the worker.
  REPLY_TIMED_OUT,  // --reply-timeout
  DEADLINE,         // --timeout
  WORKER_FAILED,    // it died, closed the connection or broke the protocol
};

struct Outcome {
  Ending ending = Ending::COMPLETED;
  int signal = 0;  // SIGNALED: which one
};

// The exit status for `outcome` (the numbers are options.h's ExitCode).
int exitStatus(const Outcome& outcome);

// What a failed exchange with the worker ends the fetch with. DONE and
// STOPPED end nothing by themselves: COMPLETED and SIGNALED for them, and
// the caller looks closer.
Ending endingOf(halvarine::FetchStatus status);

// What a CONNECT the worker refused ends the fetch with, as its lines tell.
// NOT_MMS where asking the server itself may say more.
Ending endingOf(halvarine::ConnectFailure failure, bool viaProxy);

}  // namespace fetch

#endif
