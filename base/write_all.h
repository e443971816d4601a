#ifndef HALVARINE_BASE_WRITE_ALL_H
#define HALVARINE_BASE_WRITE_ALL_H

// The one write-everything loop of the controller library, the tools and the
// test servers. (The worker's frame writer keeps its own, shaped by its
// result codes.)

#include <stddef.h>

#include "base/wait.h"

// Writes `n` bytes from `p` to `fd` without ever blocking inside a call: a
// socket is sent to with MSG_DONTWAIT and MSG_NOSIGNAL (a peer that has gone
// is EPIPE, not a signal; a pipe's caller ignores SIGPIPE for that), a pipe
// or terminal is written, once it says it
// has room, at most PIPE_BUF bytes at a time, a regular file plainly. When
// the descriptor takes no more, waits for room up to `stallMs` each time
// (negative: no limit; 0: no wait), or until `stopFd`, when not -1, turns
// readable. `written` counts the bytes written. WAIT_READY once all are
// written; WAIT_TIMEOUT when the descriptor took nothing for `stallMs`;
// WAIT_STOPPED; WAIT_ERROR with errno set when a write or the wait failed.
WaitResult writeAll(int fd, const char* p, size_t n, int stallMs, size_t& written, int stopFd = -1);

#endif
