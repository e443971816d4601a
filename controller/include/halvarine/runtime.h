#ifndef HALVARINE_RUNTIME_H
#define HALVARINE_RUNTIME_H

// What a controller program needs around the protocol and that the library
// already has: a wait on one descriptor until a deadline, a sleep until
// one, and the allocator setting that READ replies want. Deadlines are
// readings of monotonicMs() (pipeline.h). Single-threaded use.

#include <stdint.h>

namespace halvarine {

enum class Ready {
  READY,      // ready, or failed: the next transfer tells which
  TIMED_OUT,  // the deadline came first
  FAILED,     // the wait itself failed; errno tells why
};

// Waits for `fd` to turn readable (or writable) until `deadlineMs`; a
// negative deadline waits without limit. Signals whose handlers return do
// not end the wait.
Ready waitReadable(int fd, int64_t deadlineMs);
Ready waitWritable(int fd, int64_t deadlineMs);

// Returns once monotonicMs() has reached `deadlineMs`.
void sleepUntil(int64_t deadlineMs);

// Each READ reply allocates and frees buffers of up to 64 KiB; with the
// allocator's default trim threshold every free hands the heap top back to
// the system and the next reply faults the same pages in again. A program
// that reads streams calls this once at its start.
void keepReplyBuffersResident();

}  // namespace halvarine

#endif
