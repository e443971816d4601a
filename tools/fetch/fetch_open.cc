// Opening the stream, and opening it again: CONNECT, GSIZE, the header,
// and why an open failed.

#include <string.h>

#include <algorithm>

#include "tools/asf/asf_file.h"
#include "tools/fetch/fetch.h"
#include "tools/fetch/probe.h"
#include "tools/fetch/stop.h"

using halvarine::FetchStatus;

namespace fetch {

namespace {

// A stream header longer than this is not one (libmms keeps 16 KiB of it).
const uint64_t MAX_HEADER = 1 << 20;
// The worker's lines when a transport opened the stream.
const char OPENED_MMST[] = "[WrapperMms::connect()] open MMST stream success!";
const char OPENED_MMSH[] = "[WrapperMms::connect()] open MMSH stream success!";

}  // namespace

Fetch::Opened Fetch::open(bool first) {
  Opened opened;
  if (first && !output_.continued().empty()) {
    // A live stream cannot be continued, whatever its header says; asked
    // now, while no connection of ours holds a server that serves one
    // client at a time.
    probed_ = true;
    announcedLive_ = askServerIfLive(url_, false, PROBE_MS);
  }
  display_.setPhase(std::string(first ? "connecting to " : "reconnecting to ") +
                    (url_.viaProxy ? "the proxy " : "") + url_.endpoint);
  const size_t mark = session_.worker().output().size();
  opened.result = Opened::Result::ENDED;
  halvarine::Reply reply;
  if (!pipeline_->call(halvarine::WORD_CONNECT, {url_.url}, reply)) {
    opened.outcome = fail(pipeline_->failure(), pipeline_->error(), "CONNECT");
    return opened;
  }
  if (reply.status() != halvarine::STATUS_OK) {
    std::string why;
    const Ending ending = connectFailure(mark, why);
    if (!first) {
      opened.result = Opened::Result::FAILED;
      opened.why = "; opening it again failed: " + why;
      return opened;
    }
    display_.error("cannot open " + options_.url + ": " + why);
    endWorker(true, PEND_GRACE_MS);
    opened.outcome = {ending};
    return opened;
  }
  if (!pipeline_->call(halvarine::WORD_GSIZE, {}, reply)) {
    opened.outcome = fail(pipeline_->failure(), pipeline_->error(), "GSIZE");
    return opened;
  }
  if (first && options_.durationMs > 0) {
    display_.stopAt(halvarine::monotonicMs() + options_.durationMs);
  }
  display_.setPhase(first ? "waiting for the stream's header"
                          : "reconnected; no header from the server yet");
  std::string header;
  const Opened read = readHeader(header);
  if (read.result != Opened::Result::OPENED) return read;
  opened.result = Opened::Result::OPENED;
  if (!first) {
    if (header != header_) opened.result = Opened::Result::OTHER_STREAM;
    return opened;
  }

  header_ = header;
  std::string error;
  isAsf_ =
      header.size() == asfStreamHeaderLength(header) && readAsfStreamHeader(header, asf_, error);
  if (!isAsf_) {
    display_.note("not a well-formed ASF stream header" +
                  (error.empty() ? "" : " (" + error + ")") +
                  ": it will not be resumed nor cut at its packets");
  }
  const int64_t announced = halvarine::replyLength(reply);
  length_ = announced > 0 && !(isAsf_ && asf_.broadcast) ? static_cast<uint64_t>(announced) : 0;
  display_.note(length_ > 0 ? "opened, " + std::to_string(length_) + " bytes (" +
                                  humanBytes(static_cast<double>(length_)) + ")"
                            : "opened a broadcast: it goes on until stopped");
  if (options_.maxBytes >= 0) {
    const int64_t data =
        std::max<int64_t>(0, options_.maxBytes - static_cast<int64_t>(header.size()));
    dataLimit_ = isAsf_ ? data - data % asf_.packetSize : data;
  }
  display_.startTransfer(length_);
  if (!output_.continued().empty()) {
    const Step taken = takeUpEarlierFetch(header);
    if (taken.ended) opened = {Opened::Result::ENDED, "", taken.outcome};
    return opened;
  }
  if (!output_.write(header, &g_stopSignal)) {
    opened.result = Opened::Result::ENDED;
    opened.outcome = g_stopSignal != 0
                         ? stopped()
                         : fail(FetchStatus::OUTPUT_FAILED, output_.error(), "the header");
    return opened;
  }
  display_.setBytes(header.size());
  return opened;
}

Fetch::Opened Fetch::readHeader(std::string& header) {
  Opened opened;
  uint64_t need = HEADER_OBJECT_FIXED_SIZE;
  bool sized = false;
  while (header.size() < need) {
    halvarine::Reply reply;
    const int count = static_cast<int>(
        std::min<uint64_t>(need - header.size(), static_cast<uint64_t>(halvarine::maxReadCount())));
    if (!pipeline_->call(halvarine::WORD_READ, {halvarine::formatCount(count)}, reply)) {
      opened.result = Opened::Result::ENDED;
      opened.outcome = fail(pipeline_->failure(), pipeline_->error(), "READ");
      return opened;
    }
    if (reply.status() == halvarine::STATUS_OK && reply.fields.size() == 4) {
      header += reply.fields[3].bytes;
    } else if (header_.empty()) {
      display_.error("the stream ended inside its header (READ answered " + reply.status() + ")");
      endWorker(true, PEND_GRACE_MS);
      opened.result = Opened::Result::ENDED;
      opened.outcome = {reply.status() == halvarine::STATUS_ERR ? Ending::HEADER_READ_FAILED
                                                                : Ending::HEADER_CUT_SHORT};
      return opened;
    } else {
      opened.result = Opened::Result::FAILED;
      opened.why = "; opened again, it ended inside its header";
      return opened;
    }
    if (!sized && header.size() >= need) {
      sized = true;
      const uint64_t length = asfStreamHeaderLength(header);
      if (length > need && length <= MAX_HEADER) need = length;
    }
  }
  return opened;
}

Fetch::Step Fetch::takeUpEarlierFetch(const std::string& header) {
  const std::string& name = output_.continued();
  EarlierFetch earlier;
  std::string error;
  std::string refusal;
  if (!isAsf_ || !readEarlierFetch(name, earlier, check_, error)) {
    refusal = isAsf_ ? error : "the stream is not a well-formed ASF stream";
  } else if (live()) {
    refusal = "the stream is live: a new connection starts where the broadcast is now";
  } else if (!sameStreamHeader(header, earlier.header)) {
    refusal = "it holds another stream (its header differs from the stream's)";
  }
  if (!refusal.empty()) {
    display_.endTransfer();
    display_.error("cannot continue " + name + ": " + refusal + "; the file is left as it was");
    endWorker(true, PEND_GRACE_MS);
    kept_ = true;  // as it was
    return Step::end({Ending::CANNOT_CONTINUE});
  }
  // New bytes go after its whole packets, once those read again matched.
  const uint64_t keep = header.size() + earlier.dataBytes;
  if (!output_.startContinuing(keep)) {
    return Step::end(fail(FetchStatus::OUTPUT_FAILED, output_.error(), "--continue"));
  }
  continuing_ = true;
  dataWritten_ = earlier.dataBytes;
  display_.setBytes(keep);
  display_.note("continuing " + name + " after " + std::to_string(keep) + " bytes (" +
                std::to_string(earlier.dataBytes / earlier.packetSize) +
                " data packets); they are read again and checked first");
  return Step::goOn();
}

Ending Fetch::connectFailure(size_t mark, std::string& why) {
  const std::string& text = session_.worker().output();
  const halvarine::ConnectDiagnosis d =
      halvarine::diagnoseConnect(halvarine::splitLines(text.substr(std::min(mark, text.size()))));
  const std::string where = (d.viaProxy ? "the proxy " : "") + url_.endpoint;
  why = halvarine::connectFailureText(d.failure);
  switch (d.failure) {
    case halvarine::ConnectFailure::UNRESOLVED:
      why = std::string("cannot resolve ") + (d.viaProxy ? "the proxy's host " : "host ") + d.host;
      break;
    case halvarine::ConnectFailure::UNREACHABLE:
      why += " (" + where + (d.error != 0 ? std::string(": ") + strerror(d.error) : "") + ")";
      break;
    case halvarine::ConnectFailure::REFUSED:
    case halvarine::ConnectFailure::CONNECT_TIMED_OUT:
    case halvarine::ConnectFailure::NO_ANSWER:
      why += " (" + where + ")";
      break;
    case halvarine::ConnectFailure::URL_REFUSED:
      break;
    case halvarine::ConnectFailure::NOT_MMS:
    case halvarine::ConnectFailure::UNKNOWN:
      // Connected, and the open failed: what did the server say?
      return askServerWhy(url_, where, PROBE_MS, why);
  }
  return endingOf(d.failure, d.viaProxy);
}

void Fetch::announceLive() {
  announcedLive_ = true;
  length_ = 0;
  display_.note(
      "the server announces this stream as live: it is recorded on from a new "
      "connection, never resumed by skipping");
}

bool Fetch::serverSaysLive() {
  probed_ = true;
  // The worker holds the connection that ended; a server that serves one
  // client at a time answers us only once it is closed.
  halvarine::Reply reply;
  if (pipeline_->inFlight() == 0) pipeline_->call(halvarine::WORD_CLOSE, {}, reply);
  // An mms:// URL opened over HTTP is asked over HTTP.
  const std::string& lines = session_.worker().output();
  const size_t http = lines.rfind(OPENED_MMSH);
  const size_t tcp = lines.rfind(OPENED_MMST);
  return askServerIfLive(
      url_, http != std::string::npos && (tcp == std::string::npos || http > tcp), PROBE_MS);
}

}  // namespace fetch
