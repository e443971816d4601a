// The READ loop: a window of READs in flight, each reply judged and its
// bytes handed on in stream order (what becomes of them is the fetch
// policy's), and an output that is never waited on while replies wait.

#include <halvarine/stream_fetch.h>

#include <algorithm>
#include <deque>

#include "controller/fetch_policy.h"
#include "controller/output_queue.h"

namespace halvarine {

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

  auto end = [&](FetchStatus status, const std::string& why) {
    result.status = status;
    result.error = why;
    result.bytes = output.written();
    return result;
  };
  FetchPolicy policy(options, count, result.tail);

  for (;;) {
    while (!result.endOfStream && asked.size() < static_cast<size_t>(window) &&
           output.pending() < backlogLimit && policy.wanted(askedTotal) > 0) {
      const int64_t n = policy.wanted(askedTotal);
      if (!pipeline.send(WORD_READ, {formatCount(static_cast<int>(n))}))
        return end(pipeline.failure(), pipeline.error());
      asked.push_back(n);
      askedTotal += n;
    }
    if (!output.flush()) return end(FetchStatus::OUTPUT_FAILED, output.error());
    if (asked.empty() && output.pending() == 0 &&
        (result.endOfStream || policy.wanted(askedTotal) <= 0)) {
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
    ++result.reads;
    if (!policy.take(std::move(data), output)) {
      return end(FetchStatus::STOPPED, "the bytes read again differ from those written");
    }
    if (observer) observer->bytesReceived(policy.received());
  }
}

}  // namespace halvarine
