// Reading the worker's lines about a failed CONNECT. The texts matched here
// are the worker's own, written by its opening sequence and its socket
// callbacks.

#include <errno.h>
#include <halvarine/diagnosis.h>
#include <stdlib.h>

#include "base/text.h"

namespace halvarine {

namespace {

const char SET_PROXY[] = "[WrapperMms::connect()] set proxy! : ";
const char OPEN_MMST[] = "[WrapperMms::connect()] open MMST stream!";
const char OPEN_MMSH[] = "[WrapperMms::connect()] open MMSH stream!";
const char TCP_CONNECT[] = "[WrapperMms::io_tcp_connect]";
const char UNRESOLVED_HOST[] = "[WrapperMms::io_tcp_connect] unable to resolve host: ";
const char NO_SOCKET[] = "[WrapperMms::io_tcp_connect] failed to create socket: ";
// A connect that failed at once writes its errno on the line after this one.
const char CONNECT_ERR[] = "ERR - connect";
const char CONNECT_ERRNO[] = " errno = ";
const char CONNECT_ERR_LATER[] = "ERR - connect with select : ";
const char CONNECT_TIMEOUT[] = "ERR - timeout";
const char READ_TIMEOUT[] = "[WrapperMms::io_read()] select timeout!";

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
    if (startsWith(line, SET_PROXY)) {
      proxy = true;
    } else if (line == OPEN_MMST || line == OPEN_MMSH) {
      endAttempt();
      attempt = ConnectDiagnosis();
      attempt.failure = ConnectFailure::URL_REFUSED;
      inAttempt = true;
    } else if (!inAttempt) {
      continue;
    } else if (line == TCP_CONNECT) {
      // Connected, unless a failure follows before the library talks.
      attempt.failure = ConnectFailure::NOT_MMS;
    } else if (startsWith(line, UNRESOLVED_HOST, &rest)) {
      attempt.failure = ConnectFailure::UNRESOLVED;
      attempt.host = rest;
    } else if (startsWith(line, NO_SOCKET, &rest)) {
      attempt.failure = ConnectFailure::UNREACHABLE;
      attempt.error = atoi(rest.c_str());
    } else if (line == CONNECT_ERR) {
      attempt.failure = ConnectFailure::UNREACHABLE;
    } else if (startsWith(line, CONNECT_ERRNO, &rest) ||
               startsWith(line, CONNECT_ERR_LATER, &rest)) {
      attempt.error = atoi(rest.c_str());
      attempt.failure = connectErrno(attempt.error);
    } else if (line == CONNECT_TIMEOUT) {
      attempt.failure = ConnectFailure::CONNECT_TIMED_OUT;
    } else if (line == READ_TIMEOUT && attempt.failure == ConnectFailure::NOT_MMS) {
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
