#ifndef HALVARINE_TOOLS_CONTROLLER_SUPPORT_H
#define HALVARINE_TOOLS_CONTROLLER_SUPPORT_H

// Internal to the controller library: waits bounded by a deadline rather
// than by a time-out per wait, and error texts.

#include <string>

#include "channel/wait.h"

namespace controller {

// Monotonic clock reading, in seconds.
double nowSeconds();

// Deadline `timeoutS` seconds from now.
inline double deadlineIn(int timeoutS) {
  return nowSeconds() + timeoutS;
}

// Waits for `fd` until `deadline` through waitFd, in slices of at most
// `sliceS` whole seconds, retrying a wait cut short by a signal. Returns
// WAIT_READY, WAIT_TIMEOUT once the deadline has passed, or WAIT_ERROR.
// With a smaller slice the caller gets control back at least that often:
// WAIT_TIMEOUT before the deadline is returned for a slice that ran out.
WaitResult waitUntil(int fd, WaitFor what, double deadline, int sliceS = 3600);

// Sleeps about `ms` milliseconds.
void sleepMs(int ms);

// "what: " and the text of the current errno.
std::string errnoText(const std::string& what);

}  // namespace controller

#endif
