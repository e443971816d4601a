// What a fetch does with the stream's bytes: the limit, the skip of a
// resume, whole units.

#include "controller/fetch_policy.h"

#include <algorithm>

namespace halvarine {

int64_t FetchPolicy::wanted(int64_t asked) const {
  if (options_.maxBytes < 0) return count_;
  return std::min<int64_t>(count_, options_.maxBytes - static_cast<int64_t>(received_) - asked);
}

bool FetchPolicy::take(std::string data, OutputQueue& output) {
  const uint64_t before = received_;
  const uint64_t skip = options_.skip;
  received_ += data.size();
  if (before < skip && options_.witness != nullptr &&
      !options_.witness->skipped(
          data.substr(0, static_cast<size_t>(std::min<uint64_t>(skip - before, data.size()))))) {
    return false;
  }
  if (received_ > skip) {
    if (before < skip) data.erase(0, static_cast<size_t>(skip - before));
    keep(std::move(data), output);
  }
  return true;
}

// The bytes kept, past those skipped, go out in whole units; what is left
// of an incomplete unit waits in held_.
void FetchPolicy::keep(std::string data, OutputQueue& output) {
  if (options_.unit != 0) {
    if (!held_.empty()) {
      held_ += data;
      data.swap(held_);
      held_.clear();
    }
    const size_t whole = data.size() - data.size() % options_.unit;
    held_.assign(data, whole, std::string::npos);
    data.resize(whole);
  }
  if (options_.witness != nullptr) options_.witness->kept(data);
  output.add(std::move(data));
}

}  // namespace halvarine
