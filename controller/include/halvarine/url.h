#ifndef HALVARINE_URL_H
#define HALVARINE_URL_H

// The URL forms a CONNECT may carry, as the worker reads them: a stream URL
// (mms://, mmst://, mmsh://, http://), or the proxy form PROXY/URL, which
// it splits at the first of the markers below that occurs (case matters),
// sending every connection to PROXY and opening URL over MMSH through it.
// A tool that checks a URL before the worker sees it splits it the same way.

#include <stddef.h>

#include <string>

namespace halvarine {

// The markers in the order the worker looks for them.
extern const char* const PROXY_MARKERS[];
extern const size_t PROXY_MARKER_COUNT;

// True, with `proxy` ("http://HOST:PORT") and `target` (the stream URL) set,
// when `url` is a proxy form; false, both untouched, when it is not.
bool splitProxyForm(const std::string& url, std::string& proxy, std::string& target);

}  // namespace halvarine

#endif
