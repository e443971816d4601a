#ifndef HALVARINE_STREAM_FETCH_H
#define HALVARINE_STREAM_FETCH_H

// The READ loop: a stream read through the worker with a window of READs in
// flight on a RequestPipeline, its bytes written to an output in stream
// order. A fetch can resume where an earlier one stopped (skip, witness),
// stop after a number of bytes, and write whole units only. Times are
// milliseconds. Single-threaded use.

#include <halvarine/pipeline.h>
#include <halvarine/protocol.h>
#include <stdint.h>

#include <string>

namespace halvarine {

// Sees a pass's bytes in stream order: those skipped and those kept. A
// resumed fetch checks with it that what the new connection says again is
// what the output already holds.
class StreamWitness {
 public:
  virtual ~StreamWitness() = default;
  // False ends the pass at once with STOPPED: these bytes are not the ones
  // they stand in for.
  virtual bool skipped(const std::string& bytes) = 0;
  // Bytes on their way to the output.
  virtual void kept(const std::string& bytes) = 0;
};

struct StreamFetchOptions {
  int count = maxReadCount();  // bytes asked for by each READ, 1..maxReadCount()
  int window = 4;              // READs in flight at once, at least 1
  // Stop after this many bytes received, skipped ones included; -1: the
  // whole stream.
  int64_t maxBytes = -1;
  // Resuming: the first `skip` bytes received are dropped, so that a stream
  // opened again (a new CONNECT) continues where an earlier fetch of it
  // stopped.
  uint64_t skip = 0;
  // When not 0, bytes reach the output only in whole units of this many,
  // counted from the first byte kept (an ASF stream's data packets,
  // say), so that however the fetch ends the output ends at a unit's end.
  uint32_t unit = 0;
  // Shown the bytes skipped and kept; null: none.
  StreamWitness* witness = nullptr;
};

// What the READ loop delivered.
struct StreamFetchResult {
  FetchStatus status = FetchStatus::DONE;
  uint64_t bytes = 0;        // written to the output
  bool endOfStream = false;  // a READ was answered "EOF"
  uint64_t reads = 0;        // READ replies with data
  std::string error;         // why, when status is not DONE
  // With a unit: the bytes received after the last whole unit, not
  // written. At the end of the stream the caller decides whether they
  // belong to the output.
  std::string tail;
};

// Reads the open stream with READs until "EOF" or `maxBytes`, writing the
// bytes to `outFd` in stream order (-1: count them only), less those
// skipped and the tail of an incomplete unit. Replies keep being
// received while the output is slow, so the worker is never left unable to
// send; no new READ goes out while more than a window's worth of bytes waits
// for the output. A pipe or terminal is written in pieces it takes without
// blocking; any other descriptor with plain writes (the caller ignores
// SIGPIPE, so a reader that goes away is OUTPUT_FAILED). The caller sends
// CONNECT before and ends the worker after; when the result is not DONE,
// replies may still be in flight.
StreamFetchResult fetchStream(RequestPipeline& pipeline, const StreamFetchOptions& options,
                              int outFd);

}  // namespace halvarine

#endif
