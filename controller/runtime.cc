// The public face of the base layer's wait and allocator setting, so that
// programs built on the installed library reach them without its internals.

#include <halvarine/runtime.h>

#include "base/allocator.h"
#include "base/wait.h"

namespace halvarine {

namespace {

Ready waitFor(int fd, WaitFor what, int64_t deadlineMs) {
  switch (waitFdUntil(fd, what, deadlineMs)) {
    case WAIT_READY:
    case WAIT_STOPPED:
      return Ready::READY;
    case WAIT_TIMEOUT:
      return Ready::TIMED_OUT;
    case WAIT_ERROR:
      break;
  }
  return Ready::FAILED;
}

}  // namespace

Ready waitReadable(int fd, int64_t deadlineMs) {
  return waitFor(fd, WAIT_READABLE, deadlineMs);
}

Ready waitWritable(int fd, int64_t deadlineMs) {
  return waitFor(fd, WAIT_WRITABLE, deadlineMs);
}

void sleepUntil(int64_t deadlineMs) {
  ::sleepUntil(deadlineMs);
}

void keepReplyBuffersResident() {
  ::keepReplyBuffersResident();
}

}  // namespace halvarine
