#ifndef HALVARINE_DIAGNOSIS_H
#define HALVARINE_DIAGNOSIS_H

// Why the worker answered a CONNECT with "ERR", read from its diagnostic
// lines: the lines it wrote on its standard error from the CONNECT to the
// reply (ChildProcess::outputLines, from the line count taken just before
// sending). Their texts are fixed, so a controller can tell a person what
// went wrong instead of "the stream did not open".
//
// The worker tries one or two transports for a URL (an mms:// URL over MMST,
// then over MMSH); each attempt's lines show how far it got, and the attempt
// that got furthest names the failure. Pure code, no I/O.

#include <string>
#include <vector>

namespace halvarine {

// Declared in the order of how far an attempt got.
enum class ConnectFailure {
  UNKNOWN,            // no attempt in the lines
  URL_REFUSED,        // the library refused the URL before connecting anywhere
  UNRESOLVED,         // a host name did not resolve
  REFUSED,            // the TCP connection was refused
  UNREACHABLE,        // the TCP connection failed otherwise (no route, ...)
  CONNECT_TIMED_OUT,  // the TCP connection was not made within the worker's wait (7 s)
  NO_ANSWER,          // connected; the server sent nothing within the worker's wait
  NOT_MMS,            // connected; what came back is not an MMS stream, or the server hung up
};

struct ConnectDiagnosis {
  ConnectFailure failure = ConnectFailure::UNKNOWN;
  // The URL named a proxy: every connection went to the proxy, so a host
  // that did not resolve or refused is the proxy.
  bool viaProxy = false;
  std::string host;  // UNRESOLVED: the name that did not resolve
  int error = 0;     // REFUSED, UNREACHABLE, CONNECT_TIMED_OUT: errno of the connect, when said
};

ConnectDiagnosis diagnoseConnect(const std::vector<std::string>& workerLines);

// A few words for people: "cannot resolve host", "connection refused", ...
const char* connectFailureText(ConnectFailure failure);

}  // namespace halvarine

#endif
