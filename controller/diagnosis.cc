// Reading the worker's lines about a failed CONNECT. The texts matched here
// are the worker's own, written by its opening sequence and its socket
// callbacks.

#include <errno.h>
#include <halvarine/diagnosis.h>
#include <stdlib.h>

#include "base/text.h"
#include "base/worker_log.h"

namespace halvarine {

namespace {

ConnectFailure connectErrno(int error) {
  if (error == ECONNREFUSED) return ConnectFailure::REFUSED;
  if (error == ETIMEDOUT) return ConnectFailure::CONNECT_TIMED_OUT;
  return ConnectFailure::UNREACHABLE;
}

}  // namespace

ConnectDiagnosis diagnoseConnect(const std::vector<std::string>& lines) {
  ConnectDiagnosis best;
  ConnectDiagnosis attempt;
  bool inAttempt = false;
  bool proxy = false;
  auto endAttempt = [&]() {
    if (inAttempt && attempt.failure > best.failure) best = attempt;
    inAttempt = false;
  };
  std::string rest;
  for (const std::string& line : lines) {
    if (startsWith(line, LOG_SET_PROXY)) {
      proxy = true;
    } else if (line == LOG_OPEN_MMST || line == LOG_OPEN_MMSH) {
      endAttempt();
      attempt = ConnectDiagnosis();
      attempt.failure = ConnectFailure::URL_REFUSED;
      inAttempt = true;
    } else if (!inAttempt) {
      continue;
    } else if (line == LOG_TCP_CONNECT) {
      // Connected, unless a failure follows before the library talks.
      attempt.failure = ConnectFailure::NOT_MMS;
    } else if (startsWith(line, LOG_UNRESOLVED_HOST, &rest)) {
      attempt.failure = ConnectFailure::UNRESOLVED;
      attempt.host = rest;
    } else if (startsWith(line, LOG_NO_SOCKET, &rest)) {
      attempt.failure = ConnectFailure::UNREACHABLE;
      attempt.error = atoi(rest.c_str());
    } else if (line == LOG_CONNECT_ERR) {
      attempt.failure = ConnectFailure::UNREACHABLE;
    } else if (startsWith(line, LOG_CONNECT_ERRNO, &rest) ||
               startsWith(line, LOG_CONNECT_ERR_LATER, &rest)) {
      attempt.error = atoi(rest.c_str());
      attempt.failure = connectErrno(attempt.error);
    } else if (line == LOG_CONNECT_TIMEOUT) {
      attempt.failure = ConnectFailure::CONNECT_TIMED_OUT;
    } else if (attempt.failure == ConnectFailure::NOT_MMS &&
               startsWith(line, LOG_READ_NAME, &rest) && rest == LOG_SELECT_TIMEOUT) {
      attempt.failure = ConnectFailure::NO_ANSWER;
    }
  }
  endAttempt();
  best.viaProxy = proxy;
  return best;
}

const char* connectFailureText(ConnectFailure failure) {
  switch (failure) {
    case ConnectFailure::UNKNOWN:
      return "the stream did not open";
    case ConnectFailure::URL_REFUSED:
      return "the URL was refused before any connection";
    case ConnectFailure::UNRESOLVED:
      return "cannot resolve host";
    case ConnectFailure::REFUSED:
      return "connection refused";
    case ConnectFailure::UNREACHABLE:
      return "cannot connect";
    case ConnectFailure::CONNECT_TIMED_OUT:
      return "connection timed out";
    case ConnectFailure::NO_ANSWER:
      return "connected, but the server did not answer";
    case ConnectFailure::NOT_MMS:
      return "not an MMS server, or it broke the protocol";
  }
  return "?";
}

}  // namespace halvarine
