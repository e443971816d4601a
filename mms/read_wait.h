#ifndef HALVARINE_MMS_READ_WAIT_H
#define HALVARINE_MMS_READ_WAIT_H

// How the read callback waits for a media server's bytes: how many it lets
// the kernel gather before it wakes (what the current READ may still need,
// see ReadBatch), and when a wait that is not met is a stall. Private to the
// socket callbacks (io_callbacks.cc).

#include <stdint.h>

#include "base/clock.h"
#include "base/wait.h"

// A transfer ends after this long without progress (a read: without a byte;
// a write: without room).
const int MEDIA_TIMEOUT_S = 7;

// When the current READ began (its library reads may begin later, as the
// READ's wait took its bytes); outside a READ, now.
int64_t readWaitsSinceMs();

// How one library read's waits have gone: the bytes queued at the end of
// the last slice, where the kernel does not say when the last byte came. A
// wait begins after a transfer that found the queue empty or emptied it,
// or, at the start of a READ on a slow link, before the first transfer.
struct ReadWaits {
  int queued = 0;
  // Since when the worker has waited for these bytes: a read that starts on
  // a socket already silent still waits MEDIA_TIMEOUT_S of its own before it
  // calls it a stall.
  int64_t startedMs = readWaitsSinceMs();
};

// Called as a library read begins: true when it should wait before its
// first transfer, which on a slow link at the start of a READ would find
// the socket empty, a system call for nothing.
bool readWaitsFirst();

// One wait before a read transfer of the `left` bytes the library still
// wants: WAIT_READY when a transfer is to follow, whether the bytes are
// there or the stream has paused with bytes queued; WAIT_TIMEOUT on a stall.
WaitResult waitToRead(int fd, long left, ReadWaits& waits);

// A read transfer took `n` bytes from the socket.
void readTook(long n);

// A new socket from io_tcp_connect may carry the number of one the library
// has closed, and starts with the kernel's default mark.
void forgetLowWater();

#endif
