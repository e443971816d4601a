#ifndef HALVARINE_TOOLS_FETCH_URL_H
#define HALVARINE_TOOLS_FETCH_URL_H

// The stream URL checked before the worker is started, and turned into what
// CONNECT sends: the scheme in lower case, and the worker's proxy form
// (PROXY/URL) when http_proxy applies.

#include <string>

#include "tools/fetch/outcome.h"

namespace fetch {

struct PreparedUrl {
  bool usable = true;
  Ending problem = Ending::MALFORMED_URL;  // when not usable, with `why`
  std::string why;                         // for people: "unsupported scheme ftp://; ..."
  std::string url;                         // what CONNECT sends
  std::string endpoint;   // "host:port" of the first connection (the proxy's, through one)
  bool viaProxy = false;  // connections go to an HTTP proxy
  // The stream's own scheme (lower case), host, port and the rest from its
  // path on ("/" when none), whoever the connections go to; for asking the
  // server ourselves what it said (probe.h).
  std::string scheme;
  std::string host;
  int port = 0;
  std::string path;
};

// Checks `url` as the worker can open it: mms://, mmst:// (MMS over TCP),
// mmsh://, http:// (MMS over HTTP), or the worker's proxy form
// http://PROXY:PORT/URL. `proxy` and `noProxy` are the environment's
// http_proxy (or HTTP_PROXY) and no_proxy (or NO_PROXY), empty when unset;
// the proxy serves every URL but mmst:// ones (MMS over TCP takes no HTTP
// proxy) and those whose host no_proxy names ("*", a host, or a domain and
// its subdomains, separated by commas).
PreparedUrl prepareUrl(const std::string& url, const std::string& proxy,
                       const std::string& noProxy);

// The same with the proxy settings read from the environment.
PreparedUrl prepareUrlFromEnvironment(const std::string& url);

}  // namespace fetch

#endif
