#ifndef HALVARINE_CONTROLLER_H
#define HALVARINE_CONTROLLER_H

// The controller library: everything a program needs to drive the Halvarine
// worker. It listens on the controller socket, starts the worker, sends
// requests and judges the replies, and reads a stream with several READs in
// flight.
//
//   protocol.h       frames, fields, command and status words
//   connection.h     the listener and the accepted connection
//   session.h        one worker run: listener, child process, connection
//   pipeline.h       requests in flight, their replies, keep-alive
//   stream_fetch.h   the READ loop: a whole stream to an output
//   diagnosis.h      why a CONNECT failed, from the worker's lines
//   runtime.h        deadline waits on a descriptor, the allocator setting
//   url.h            the proxy form PROXY/URL as the worker splits it
//   child_process.h  the child-process owner the session uses
//   fd.h             the descriptor owner
//
// Link with pkg-config (halvarine-controller) or CMake
// (find_package(HalvarineController), target Halvarine::controller).

#include <halvarine/child_process.h>
#include <halvarine/connection.h>
#include <halvarine/diagnosis.h>
#include <halvarine/fd.h>
#include <halvarine/pipeline.h>
#include <halvarine/protocol.h>
#include <halvarine/runtime.h>
#include <halvarine/session.h>
#include <halvarine/stream_fetch.h>
#include <halvarine/url.h>

#endif
