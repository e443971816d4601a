#ifndef HALVARINE_BASE_WAIT_H
#define HALVARINE_BASE_WAIT_H

// The one readiness wait. Every blocking step goes through here: the worker's
// waits on the controller socket and on the media servers' sockets, and those
// of the controller library, the tools and the test servers. It watches one
// descriptor with poll, so descriptor numbers have no upper limit.

#include <stdint.h>

enum WaitFor { WAIT_READABLE, WAIT_WRITABLE };

enum WaitResult {
  WAIT_READY = 1,    // ready, or failed: the next transfer tells which
  WAIT_TIMEOUT = 0,  // the time ran out first
  WAIT_ERROR = -1,   // the wait itself failed; errno tells why
  WAIT_STOPPED = 2,  // waitFdUntil only: the stop descriptor turned readable
};

// Waits up to `seconds` for `fd`. A signal whose handler returns ends the wait
// as an error (errno EINTR), as select reports it.
WaitResult waitFd(int fd, WaitFor what, int seconds);

// Waits until nowMs() reaches `deadlineMs` (negative: no limit) for `fd`, or,
// when `stopFd` is not -1, for `stopFd` to turn readable. Signals whose
// handlers return do not end the wait.
WaitResult waitFdUntil(int fd, WaitFor what, int64_t deadlineMs, int stopFd = -1);

// ---- Safe points
//
// A wait is a place where the waiting thread holds no lock: not the
// allocator's, not stdio's, not a library's. Code that may act only at such a
// place (the worker ends itself there on SIGTERM) registers a hook, which every
// wait runs on entry; code that knows it holds nothing either calls safePoint()
// itself.
void setSafePointHook(void (*hook)());
void safePoint();

// True from the hook's call at the start of a wait until its system call has
// returned: a signal handler that finds it true has interrupted the thread in
// a wait. Async-signal-safe.
bool sleepingInWait();

#endif
