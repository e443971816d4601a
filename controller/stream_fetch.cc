// The READ loop: a window of READs in flight, the bytes kept or skipped in
// stream order, and an output that is never waited on while replies wait.

#include <halvarine/pipeline.h>

#include <algorithm>

#include "base/clock.h"
#include "controller/output_queue.h"

namespace halvarine {

// ---- the READ loop

StreamFetchResult fetchStream(RequestPipeline& pipeline, const StreamFetchOptions& options,
                              int outFd) {
  StreamFetchResult result;
  OutputQueue output(outFd);
  FetchObserver* observer = pipeline.observer();
  const int window = std::max(options.window, 1);
  const int count = std::min(std::max(options.count, 1), maxReadCount());
  // Past this much waiting for the output, the worker is asked for no more.
  const size_t backlogLimit = static_cast<size_t>(window) * static_cast<size_t>(count);
  std::deque<int64_t> asked;  // counts of the READs in flight, oldest first
  int64_t askedTotal = 0;     // the sum of `asked`
  uint64_t received = 0;

  auto end = [&](FetchStatus status, const std::string& why) {
    result.status = status;
    result.error = why;
    result.bytes = output.written();
    return result;
  };
  // The bytes kept, past those skipped, go out in whole units; what is left
  // of an incomplete unit waits in result.tail.
  std::string& held = result.tail;
  auto keep = [&](std::string data) {
    if (options.unit == 0) {
      if (options.witness != nullptr) options.witness->kept(data);
      output.add(std::move(data));
      return;
    }
    if (!held.empty()) {
      held += data;
      data.swap(held);
      held.clear();
    }
    const size_t whole = data.size() - data.size() % options.unit;
    held.assign(data, whole, std::string::npos);
    data.resize(whole);
    if (options.witness != nullptr) options.witness->kept(data);
    output.add(std::move(data));
  };
  auto wanted = [&]() -> int64_t {
    if (options.maxBytes < 0) return count;
    return std::min<int64_t>(count, options.maxBytes - static_cast<int64_t>(received) - askedTotal);
  };

  for (;;) {
    while (!result.endOfStream && asked.size() < static_cast<size_t>(window) &&
           output.pending() < backlogLimit && wanted() > 0) {
      const int64_t n = wanted();
      if (!pipeline.send(WORD_READ, {formatCount(static_cast<int>(n))}))
        return end(pipeline.failure(), pipeline.error());
      asked.push_back(n);
      askedTotal += n;
    }
    if (!output.flush()) return end(FetchStatus::OUTPUT_FAILED, output.error());
    if (asked.empty() && output.pending() == 0 && (result.endOfStream || wanted() <= 0)) {
      return end(FetchStatus::DONE, "");
    }

    if (pipeline.inFlight() == 0) {
      // Only the output holds the loop up: the worker idles meanwhile.
      if (!output.wait()) return end(FetchStatus::OUTPUT_FAILED, output.error());
      if (observer) {
        observer->waitingForOutput();
        observer->tick();
      }
      if (pipeline.deadlinePassed()) {
        return end(FetchStatus::DEADLINE, "the time for the whole run ran out while writing");
      }
      if (observer && observer->stopRequested()) {
        return end(FetchStatus::STOPPED, "stopped while writing");
      }
      if (!pipeline.keepAlive()) return end(pipeline.failure(), pipeline.error());
      continue;
    }

    Reply reply;
    std::string word;
    switch (pipeline.receive(reply, word)) {
      case RequestPipeline::Received::NOT_YET:
        continue;
      case RequestPipeline::Received::FAILED:
        return end(pipeline.failure(), pipeline.error());
      case RequestPipeline::Received::REPLY:
        break;
    }
    if (word != WORD_READ) continue;  // a keep-alive's answer

    const int64_t n = asked.front();
    asked.pop_front();
    askedTotal -= n;
    const std::string& status = reply.status();
    if (status == STATUS_ERR) return end(FetchStatus::REFUSED, "READ answered ERR");
    if (status == STATUS_EOF && reply.fields.size() == 2) {
      // Every READ after the end answers EOF too; those in flight drain.
      result.endOfStream = true;
      continue;
    }
    if (status != STATUS_OK || reply.fields.size() != 4 || !reply.fields[3].counted) {
      return end(FetchStatus::BAD_REPLY,
                 "READ reply is not OK_, a count and data: " + hex(reply.frame.substr(0, 64)));
    }
    std::string& data = reply.fields[3].bytes;
    if (data.empty() || static_cast<int64_t>(data.size()) > n ||
        reply.fields[2].bytes != formatCount(static_cast<int>(data.size()))) {
      return end(FetchStatus::BAD_REPLY, "READ of " + std::to_string(n) +
                                             " answered with count \"" + reply.fields[2].bytes +
                                             "\" and " + std::to_string(data.size()) + " bytes");
    }
    const uint64_t before = received;
    received += data.size();
    ++result.reads;
    if (before < options.skip && options.witness != nullptr &&
        !options.witness->skipped(data.substr(
            0, static_cast<size_t>(std::min<uint64_t>(options.skip - before, data.size()))))) {
      return end(FetchStatus::STOPPED, "the bytes read again differ from those written");
    }
    if (received > options.skip) {
      if (before < options.skip) data.erase(0, static_cast<size_t>(options.skip - before));
      keep(std::move(data));
    }
    if (observer) observer->bytesReceived(received);
  }
}

}  // namespace halvarine
