#ifndef HALVARINE_TOOLS_FETCH_MANY_H
#define HALVARINE_TOOLS_FETCH_MANY_H

// Several URLs in one run of halvarine-fetch. Each stream is fetched by a
// run of this program of its own, for that URL and its file alone, so that
// each has its own worker, its own private controller socket and its own
// exit status; at most Options::parallel run at once and the rest wait
// their turn. On a terminal every stream has a line of its own, kept up to
// date (waiting, the bytes so far, done, failed); elsewhere each stream's
// end is one line. The streams' messages are shown with the stream's name.
//
// A summary line counts the streams fetched, stopped and not started, and
// names every stream that failed, with its exit status and what its run
// said. The exit status is that of the first URL, in the order given,
// whose run failed; else 0. A stop signal (SIGINT, SIGTERM, SIGHUP) is
// passed to the running streams, each keeping what it received, while
// streams not yet started stay so; the caller then ends by that signal.

#include "tools/fetch/options.h"

namespace fetch {

// `options` as parseOptions filled it, with more than one URL.
int fetchMany(const Options& options);

}  // namespace fetch

#endif
