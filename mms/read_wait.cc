// ---- Waiting for the bytes of a whole READ
//
// A socket that is polled wakes the worker at every TCP segment, about every
// 1.5 kB, though the library asks for whole packets and a READ takes many.
// The read callback therefore tells the kernel, through the socket's receive
// low-water mark, how many bytes to gather before it reports the socket
// readable: what the current READ may still need (ReadBatch), or at least
// the piece asked for. On a link of a few Mbit/s a 64 KiB READ then costs one
// wake-up, and every library read within it finds its bytes queued. The
// kernel still reports the socket readable at once on the end of the stream,
// on an error, and when its receive buffer fills, so no batch can hold up
// bytes that are there for good.
//
// With a batch to gather, readiness no longer comes with every byte, so the
// wait is cut into slices of a second, and after each slice that ended
// unready the callback asks TCP how long ago the socket last received data
// (TCP_INFO): under a second, and the stream is still coming, so the wait
// gathers on, at two system calls a second on a slow link; a second or
// more, and the stream has paused, so a transfer takes what came, which may
// be all the library asked for; MEDIA_TIMEOUT_S or more, and it is a stall.
// The kernel's clock runs across the library's reads, so a stall is
// reported 7 to 8 s after the last byte wherever it falls, and a stream
// that trickles however slowly is never cut off. A READ that begins after
// the last byte counts its 7 s from its own start, as a fresh wait would;
// not each library read within it, which may begin a second or two after
// the last byte because the READ's wait held that byte until the pause
// showed (the stall then came 9 s after it). (Where TCP does not say, the
// waits note when they saw the queue grow.) Where a READ
// fills within a slice (above about 0.5 Mbit/s), slices never end unready.
//
// ---- Fast links
//
// The batch pays where the stream comes at the pace of its link, and costs
// where it comes faster than the worker passes it on (loopback, or a LAN far
// above the stream's rate): there the worker caught up with the server now
// and then, and slept until a whole READ was queued where it could have
// been copying the first packets while the server sent the rest, a tenth of
// the full-speed throughput. So the waits watch how they go. A batch of at
// least FAST_BATCH_BYTES met within FAST_WAIT_US (a rate of 20 MB/s or more,
// or bytes that were there already) marks the link fast: later waits wake
// at the first byte, as without a batch, and every library read transfers
// first. A wait that lasts FAST_WAIT_US or more marks it slow again: on a
// link of 8 Mbit/s a segment comes every 1.5 ms, so a fast mark there lasts
// a wait or two. On a slow link the first library read of a READ waits
// before it transfers, as the READ before took what the batch had gathered.

#include "mms/read_wait.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stddef.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <climits>

#include "mms/read_batch.h"

namespace {

const int READ_SLICE_S = 1;

// Far above a READ (65,511 bytes at most) and its packets' framing.
const long MAX_BATCH_BYTES = 1L << 18;

// Two or three segments: a batch a slow link cannot bring within FAST_WAIT_US
// (4 ms at 8 Mbit/s), and no more than the smallest READs ask for.
const long FAST_BATCH_BYTES = 4096;
const int64_t FAST_WAIT_US = 200;

// Bytes the current READ may still take from the socket; 0 outside a READ.
long g_batchLeft = 0;
// A READ has begun and its first library read has not.
bool g_readBegins = false;
// When the current READ began; -1 outside a READ.
int64_t g_readStartedMs = -1;
// The last waits found the bytes coming faster than the worker takes them.
bool g_fastLink = false;

// The socket whose low-water mark was last set, the mark, and the most it
// may be on that socket. Setting it is a system call, and successive waits
// often ask for the same.
int g_lowWaterFd = -1;
int g_lowWater = 1;
long g_lowWaterCap = MAX_BATCH_BYTES;

// Sets the mark (within what the socket can hold) and returns it.
long wakeWhenQueued(int fd, long bytes) {
  if (fd != g_lowWaterFd) {
    // A batch must fit in what the socket can hold unread, about half its
    // receive buffer (the other half is the kernel's overhead): a mark above
    // it would close the window before the kernel reports the socket ready.
    // Recent kernels grow the buffer for the mark, older ones wake early
    // when it fills; this bound is for those that do neither.
    int buffer = 0;
    socklen_t len = sizeof buffer;
    g_lowWaterCap = getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &buffer, &len) == 0 && buffer > 1
                        ? std::min(static_cast<long>(buffer / 2), MAX_BATCH_BYTES)
                        : 1;
    g_lowWaterFd = fd;
    g_lowWater = 1;  // the kernel's default on a socket not seen before
  }
  const int want = static_cast<int>(std::min(std::max(bytes, 1L), g_lowWaterCap));
  if (want == g_lowWater) return want;
  // A socket that does not take the mark wakes at its first byte, as
  // without it; nothing else changes.
  if (setsockopt(fd, SOL_SOCKET, SO_RCVLOWAT, &want, sizeof want) == 0) g_lowWater = want;
  return g_lowWater;
}

// When a wait last saw bytes come: it woke readable, or more was queued
// after a slice than before. It stands in for the kernel's clock where the
// kernel does not keep one (a socket that is not TCP, or qemu-user, which
// passes only the first word of TCP_INFO), up to a slice late, so a stall is
// still reported 7 to 8 s after the last byte. -1: none seen yet.
int64_t g_bytesSeenMs = -1;

// Milliseconds since the socket last received data, as TCP keeps it across
// the library's reads, or as the waits saw it. `queued` is what is queued
// for the taking where the waits had to look (-1: not known).
long msSinceData(int fd, ReadWaits& waits, int& queued) {
  queued = -1;
  tcp_info info;
  socklen_t len = sizeof info;
  if (getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &len) == 0 &&
      len >= offsetof(tcp_info, tcpi_last_data_recv) + sizeof info.tcpi_last_data_recv) {
    return static_cast<long>(info.tcpi_last_data_recv);
  }
  if (ioctl(fd, FIONREAD, &queued) != 0) queued = -1;  // not known: try a transfer
  if (queued > waits.queued) {
    waits.queued = queued;
    g_bytesSeenMs = nowMs();
  }
  return g_bytesSeenMs < 0 ? LONG_MAX : static_cast<long>(msSince(g_bytesSeenMs));
}

}  // namespace

int64_t readWaitsSinceMs() {
  return g_readStartedMs >= 0 ? g_readStartedMs : nowMs();
}

bool readWaitsFirst() {
  const bool first = g_readBegins;
  g_readBegins = false;
  return first && !g_fastLink;
}

WaitResult waitToRead(int fd, long left, ReadWaits& waits) {
  const long mark = wakeWhenQueued(fd, g_fastLink ? 1 : std::max(left, g_batchLeft));
  for (;;) {
    const int64_t startUs = nowUs();
    const WaitResult ready = waitFd(fd, WAIT_READABLE, READ_SLICE_S);
    if (ready != WAIT_TIMEOUT) {
      const int64_t endUs = nowUs();
      if (endUs - startUs >= FAST_WAIT_US) {
        g_fastLink = false;
      } else if (ready == WAIT_READY && mark >= FAST_BATCH_BYTES) {
        g_fastLink = true;
      }
      if (ready == WAIT_READY) g_bytesSeenMs = endUs / 1000;
      return ready;
    }
    g_fastLink = false;
    int queued = -1;
    const long sinceData = msSinceData(fd, waits, queued);
    if (sinceData < READ_SLICE_S * 1000) continue;  // still coming
    if (std::min<int64_t>(sinceData, msSince(waits.startedMs)) >= MEDIA_TIMEOUT_S * 1000) {
      return WAIT_TIMEOUT;
    }
    if (queued != 0) return WAIT_READY;  // paused: take what came
  }
}

void readTook(long n) {
  g_batchLeft = std::max(0L, g_batchLeft - n);
}

void forgetLowWater() {
  g_lowWaterFd = -1;
}

ReadBatch::ReadBatch(long bytes) {
  g_batchLeft = std::max(bytes, 0L);
  g_readBegins = g_batchLeft > 0;
  g_readStartedMs = nowMs();
}

ReadBatch::~ReadBatch() {
  g_batchLeft = 0;
  g_readBegins = false;
  g_readStartedMs = -1;
}
