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

// Sleeps until nowMs() reaches `deadlineMs`; a wait like the others (a safe
// point), which signals whose handlers return do not end.
void sleepUntil(int64_t deadlineMs);

// ---- Safe points
//
// A wait is a place where the waiting thread holds no lock: not the
// allocator's, not stdio's, not a library's. The one program that acts only
// at such places (the worker ends itself there on SIGTERM) installs hooks:
// `enterWait` runs at the start of every wait, just before its system call,
// `leaveWait` right after the call returns, and `atSafePoint` wherever code
// that knows it holds nothing calls safePoint(). What the hooks keep (the
// worker's "asleep in a wait" flag) lives with the program that installs
// them: the library, the tools and the test servers, whose threads wait at
// the same time, install none and so share nothing here but the hook table,
// set once before any thread starts.
struct SafePointHooks {
  void (*enterWait)() = nullptr;
  void (*leaveWait)() = nullptr;
  void (*atSafePoint)() = nullptr;
};
void setSafePointHooks(const SafePointHooks& hooks);
void safePoint();

#endif
