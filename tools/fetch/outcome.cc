#include "tools/fetch/outcome.h"

#include "tools/fetch/options.h"

namespace fetch {

int exitStatus(const Outcome& outcome) {
  switch (outcome.ending) {
    case Ending::COMPLETED:
    case Ending::STOPPED_AS_ASKED:
      return EXIT_OK;
    case Ending::SIGNALED:
      return EXIT_SIGNALED + outcome.signal;
    case Ending::UNSUPPORTED_URL:
      return EXIT_UNSUPPORTED;
    case Ending::BAD_USAGE:
    case Ending::CANNOT_START:
      return EXIT_USAGE;
    case Ending::MALFORMED_URL:
      return EXIT_MALFORMED_URL;
    case Ending::OUTPUT_FAILED:
      return EXIT_WRITE;
    case Ending::NO_WORKER:
      return EXIT_NO_WORKER;
    case Ending::CONTROLLER_TAKEN:
      return EXIT_CONTROLLER_TAKEN;
    case Ending::WORKER_NOT_CONNECTED:
    case Ending::WORKER_FAILED:
      return EXIT_WORKER_FAILED;
    case Ending::PROXY_UNRESOLVED:
      return EXIT_PROXY_UNRESOLVED;
    case Ending::HOST_UNRESOLVED:
      return EXIT_HOST_UNRESOLVED;
    case Ending::CANNOT_CONNECT:
      return EXIT_CANNOT_CONNECT;
    case Ending::CONNECT_TIMED_OUT:
    case Ending::STALLED:
    case Ending::NOTHING_RECORDED:
    case Ending::REPLY_TIMED_OUT:
    case Ending::DEADLINE:
      return EXIT_TIMED_OUT;
    case Ending::NOT_MMS:
    case Ending::HEADER_CUT_SHORT:
      return EXIT_NOT_MMS;
    case Ending::HTTP_ERROR:
      return EXIT_HTTP_ERROR;
    case Ending::NO_SUCH_FILE:
      return EXIT_NO_SUCH_FILE;
    case Ending::HEADER_READ_FAILED:
    case Ending::READ_FAILED:
      return EXIT_RECEIVE;
    case Ending::CANNOT_CONTINUE:
      return EXIT_CANNOT_CONTINUE;
    case Ending::ENDED_EARLY:
    case Ending::NOT_RESUMABLE:
      return EXIT_PARTIAL;
    case Ending::LIVE_LOST:
      return EXIT_LIVE_LOST;
  }
  return EXIT_WORKER_FAILED;
}

Ending endingOf(halvarine::FetchStatus status) {
  switch (status) {
    case halvarine::FetchStatus::DONE:
      return Ending::COMPLETED;
    case halvarine::FetchStatus::STOPPED:
      return Ending::SIGNALED;
    case halvarine::FetchStatus::REFUSED:
      return Ending::READ_FAILED;
    case halvarine::FetchStatus::TIMED_OUT:
      return Ending::REPLY_TIMED_OUT;
    case halvarine::FetchStatus::DEADLINE:
      return Ending::DEADLINE;
    case halvarine::FetchStatus::OUTPUT_FAILED:
      return Ending::OUTPUT_FAILED;
    case halvarine::FetchStatus::LOST:
    case halvarine::FetchStatus::BAD_REPLY:
      return Ending::WORKER_FAILED;
  }
  return Ending::WORKER_FAILED;
}

Ending endingOf(halvarine::ConnectFailure failure, bool viaProxy) {
  switch (failure) {
    case halvarine::ConnectFailure::UNRESOLVED:
      return viaProxy ? Ending::PROXY_UNRESOLVED : Ending::HOST_UNRESOLVED;
    case halvarine::ConnectFailure::REFUSED:
    case halvarine::ConnectFailure::UNREACHABLE:
      return Ending::CANNOT_CONNECT;
    case halvarine::ConnectFailure::CONNECT_TIMED_OUT:
    case halvarine::ConnectFailure::NO_ANSWER:
      return Ending::CONNECT_TIMED_OUT;
    case halvarine::ConnectFailure::URL_REFUSED:
      return Ending::MALFORMED_URL;
    case halvarine::ConnectFailure::NOT_MMS:
    case halvarine::ConnectFailure::UNKNOWN:
      return Ending::NOT_MMS;
  }
  return Ending::NOT_MMS;
}

}  // namespace fetch
