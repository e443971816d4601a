#ifndef HALVARINE_CONTROLLER_FETCH_POLICY_H
#define HALVARINE_CONTROLLER_FETCH_POLICY_H

// What a fetch does with the stream's bytes, apart from how the READ loop
// gets them: how much the next READ may ask for under the byte limit, the
// bytes skipped when resuming (shown to the witness), and those kept,
// which reach the output in whole units.

#include <halvarine/stream_fetch.h>
#include <stdint.h>

#include <string>

#include "controller/output_queue.h"

namespace halvarine {

class FetchPolicy {
 public:
  // `count` is the READ count in force, `tail` where an incomplete unit
  // waits (StreamFetchResult::tail); both outlive the policy.
  FetchPolicy(const StreamFetchOptions& options, int count, std::string& tail)
      : options_(options), count_(count), held_(tail) {}

  // What the next READ may ask for with `asked` bytes already asked for and
  // not yet received: the count, less near the limit; 0 or less: nothing.
  int64_t wanted(int64_t asked) const;

  // The bytes of one READ reply, in stream order: those still to skip go to
  // the witness, the rest to `output`. False when the witness refuses them.
  bool take(std::string data, OutputQueue& output);

  // The stream bytes received so far, skipped ones included.
  uint64_t received() const { return received_; }

 private:
  void keep(std::string data, OutputQueue& output);

  const StreamFetchOptions& options_;
  const int count_;
  std::string& held_;
  uint64_t received_ = 0;
};

}  // namespace halvarine

#endif
