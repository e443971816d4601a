#ifndef HALVARINE_TOOLS_FETCH_PROBE_H
#define HALVARINE_TOOLS_FETCH_PROBE_H

// Asking a server ourselves what the worker cannot tell us. The worker's
// lines say how far an open got, not what the server answered: an HTTP
// 404, an MMS server's "no such file" and a page that is no stream at all
// read the same there. Nor does the worker pass on whether the server
// announced a live stream when the stream header does not say so. One
// short exchange of our own, after the fact, tells both: the opening of
// MMS over TCP up to the file's opening, or one plain HTTP request as an
// MMS-over-HTTP client sends it (through the proxy when there is one).

#include <stdint.h>

#include <string>

#include "tools/fetch/outcome.h"
#include "tools/fetch/url.h"

namespace fetch {

struct ProbeAnswer {
  enum Kind {
    NO_CONNECTION,  // the connection was not made (`error` says why)
    SILENT,         // connected; nothing came within the wait, or it closed at once
    OTHER,          // something came that is neither HTTP nor MMS over TCP
    HTTP,           // an HTTP response head: status, reason
    MMST,           // an MMS-over-TCP server: mmsResult, live
  };
  Kind kind = NO_CONNECTION;
  std::string error;
  int status = 0;      // HTTP
  std::string reason;  // HTTP: "Not Found"
  // HTTP: the response announces an MMS stream (Pragma features); MMST: the
  // server opened the file.
  bool mms = false;
  bool live = false;       // announced as a broadcast: features "broadcast", or the MMST live flag
  uint32_t mmsResult = 0;  // MMST: the open's result, 0 for success (an HRESULT)
  bool opened = false;     // MMST: the open file report came
};

// "HTTP 404 Not Found"
std::string httpStatusText(const ProbeAnswer& answer);
// An MMS server's result that says the file is not there.
bool noSuchFile(uint32_t result);
// An MMS server's failure result in words where it is a common one:
// "no such file (0x80070002)".
std::string mmsResultText(uint32_t result);

// One request for `path` on `host`:`port` as an MMS-over-HTTP client
// describes a stream; through the proxy at `proxy` ("host:port") when not
// empty. Waits at most `timeoutMs` in all.
ProbeAnswer probeHttp(const std::string& host, int port, const std::string& path,
                      const std::string& proxy, int timeoutMs);

// MMS over TCP up to the opening of `path`, then closes.
ProbeAnswer probeMmst(const std::string& host, int port, const std::string& path, int timeoutMs);

// The open of `url` failed after the connection was made: asks the server
// (as the URL's transport speaks; an mms:// URL over TCP first, then HTTP)
// and returns how the fetch ends, with `why` for people: "HTTP 404 Not Found",
// a proxy's own refusal, an MMS server's "no such file", or "not an MMS
// server" only when it did not speak MMS. `where` is the host (or proxy)
// and port the worker connected to.
Ending askServerWhy(const PreparedUrl& url, const std::string& where, int timeoutMs,
                    std::string& why);

// Whether the server announces the stream of `url` as live; `overHttp`:
// the stream was opened over HTTP (an mms:// URL can be either).
bool askServerIfLive(const PreparedUrl& url, bool overHttp, int timeoutMs);

// What a probe's bytes say, apart from the socket: an HTTP head, or the
// server's MMST reports in the order they came (each a whole message).
ProbeAnswer readHttpHead(const std::string& head);

}  // namespace fetch

#endif
