#ifndef HALVARINE_MMS_OPENING_PLAN_H
#define HALVARINE_MMS_OPENING_PLAN_H

// How a URL is opened, worked out from the URL alone: whether the stream is
// reached through an HTTP proxy, and which protocols are tried in which
// order with which target. Pure: no environment, no library, no log line.

#include <string>
#include <vector>

#include "mms/stream_type.h"

struct OpeningAttempt {
  StreamType transport;  // the protocol: STREAM_MMST or STREAM_MMSH
  std::string target;    // the URL handed to the library
};

struct OpeningPlan {
  // PROXY/SCHEME://... : the proxy (possibly empty) goes to the library
  // through http_proxy. Otherwise http_proxy is removed.
  bool viaProxy = false;
  std::string proxy;
  // Tried in order until one opens the stream.
  std::vector<OpeningAttempt> attempts;
};

// The markers are tried in the order "/mms://", "/mmst://", "/mmsh://",
// "/http://", each over the whole URL: the order decides which one splits a
// URL that holds several. A proxy form opens over MMSH only; a direct form
// over MMSH only for "mmsh://" and "http://", else over MMST and then MMSH
// with the same string. MMSH gets "http://" as "mmsh://". Schemes are
// matched case-sensitively.
OpeningPlan planOpening(const std::string& url);

#endif
