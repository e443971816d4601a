#ifndef HALVARINE_TOOLS_FETCH_OPTIONS_H
#define HALVARINE_TOOLS_FETCH_OPTIONS_H

// halvarine-fetch's command line and its exit statuses.

#include <stdint.h>

#include <string>
#include <vector>

namespace fetch {

// What the exit status tells a script: curl's number where curl has one
// for the same failure, numbers above curl's range for what only a worker's
// controller meets, 128 + the signal for a stop by signal.
enum ExitCode {
  EXIT_OK = 0,                  // the stream was fetched, or stopped as asked
  EXIT_UNSUPPORTED = 1,         // a scheme (or an IPv6 address) the worker cannot open
  EXIT_USAGE = 2,               // bad command line
  EXIT_MALFORMED_URL = 3,       // the URL is malformed
  EXIT_PROXY_UNRESOLVED = 5,    // cannot resolve the proxy's host
  EXIT_HOST_UNRESOLVED = 6,     // cannot resolve the host
  EXIT_CANNOT_CONNECT = 7,      // connection refused or failed (host or proxy)
  EXIT_NOT_MMS = 8,             // not an MMS server, or it broke the protocol
  EXIT_PARTIAL = 18,            // the stream ended before its announced length
  EXIT_HTTP_ERROR = 22,         // the server answered with an HTTP error (404, 403, ...)
  EXIT_WRITE = 23,              // the output cannot be written
  EXIT_TIMED_OUT = 28,          // a time-out: connecting, a stall, --reply-timeout, --timeout
  EXIT_CANNOT_CONTINUE = 33,    // --continue: the file is not the start of this stream
  EXIT_RECEIVE = 56,            // the worker failed to receive the stream's data (READ ERR)
  EXIT_NO_SUCH_FILE = 78,       // the MMS server has no such file
  EXIT_CONTROLLER_TAKEN = 120,  // another controller holds the controller socket
  EXIT_NO_WORKER = 121,         // the worker binary is missing or cannot be run
  EXIT_WORKER_FAILED = 122,     // the worker died, did not connect or broke the protocol
  EXIT_LIVE_LOST = 123,         // a live stream's connection was lost for good
  EXIT_SIGNALED = 128,          // + SIGHUP, SIGINT or SIGTERM: ended by that signal, as a
                                // shell reports it
};

// The exit statuses as --help lists them, one line each, in order.
struct ExitStatusLine {
  int code;
  const char* meaning;
};
const std::vector<ExitStatusLine>& exitStatusLines();
// --help, on standard output.
void printHelp();

// Streams fetched at once by default with several URLs: each holds a
// worker, a private socket and a connection; four keep a small machine
// responsive and the status display readable.
const int DEFAULT_PARALLEL = 4;

struct Options {
  std::string url;      // the first URL
  std::string outPath;  // empty or "-": standard output
  // With several URLs: each URL, and the file it goes to (-O), in order.
  std::vector<std::string> urls, outPaths;
  int parallel = DEFAULT_PARALLEL;
  // The options given that concern each stream, in a canonical spelling
  // ("--max-bytes", "10k"): what each stream's own run is given.
  std::vector<std::string> streamArgs;
  std::string worker;  // empty: looked up (see findWorker)
  int count = 0;       // 0: chosen for the stream
  int window = 4;
  int64_t maxBytes = -1;   // -1: no limit
  int64_t durationMs = 0;  // record this long; 0: no limit
  int64_t timeoutMs = 0;   // the whole run; 0: none
  int64_t replyTimeoutMs = 60000;
  int64_t keepAliveMs = 20000;
  int retries = 5;  // resumptions in a row that bring nothing new
  int64_t retryDelayMs = 1000;
  // Retries stop once no new byte has come for this long (a stall counts
  // from its start); 0: only --retry bounds them.
  int64_t retryMaxTimeMs = 45000;
  bool continueFetch = false;  // -C: go on from FILE.partial (or FILE)
  bool keepOnFailure = true;   // a failure keeps FILE.partial; --no-keep removes it
  int verbosity = 1;           // 0 --quiet, 1 normal, 2 --verbose, 3 -vv (frames in hex)
};

enum class Parsed {
  RUN,        // `out` says what to fetch
  ANSWERED,   // --help or --version was shown: nothing more to do
  BAD_USAGE,  // reported on standard error
};
// Fills `out` from the command line.
Parsed parseOptions(int argc, char** argv, Options& out);

// The file name -O takes from `url`: its last path segment, without a
// query or fragment. Empty, with `why` set, when that is empty, "." or "..".
std::string remoteFileName(const std::string& url, std::string& why);

// "10k", "1.5M", "2G" (factors of 1024) or plain bytes. False when malformed.
bool parseSize(const std::string& text, int64_t& bytes);
// "0.5", "30s", "1.5m", "2h": seconds, with a fraction and a unit. False
// when malformed.
bool parseTime(const std::string& text, int64_t& ms);

}  // namespace fetch

#endif
