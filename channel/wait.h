#ifndef HALVARINE_CHANNEL_WAIT_H
#define HALVARINE_CHANNEL_WAIT_H

// The process's one readiness wait. Every blocking step of the worker (the
// controller socket and the media-server sockets alike) goes through here.

enum WaitFor { WAIT_READABLE, WAIT_WRITABLE };

enum WaitResult {
  WAIT_READY = 1,    // the descriptor is ready
  WAIT_TIMEOUT = 0,  // `seconds` passed without readiness
  WAIT_ERROR = -1    // the wait itself failed; errno tells why
};

// Waits up to `seconds` (whole seconds, 0 microseconds) for `fd`.
// A wait interrupted by a signal whose handler returned is reported as an
// error (errno EINTR), as select reports it.
//
// SIGTERM is held blocked everywhere else in the process and let through only
// for the duration of this wait (see installTerminationHandler), so the
// handler only ever runs while the main thread sleeps here and holds no lock.
WaitResult waitFd(int fd, WaitFor what, int seconds);

// The signal mask in force during waits. The process core sets it once at
// start-up, after blocking SIGTERM; until then waits use the current mask.
void setWaitSignalMask(const void* sigset);

#endif
