#ifndef HALVARINE_TOOLS_FETCH_OPTIONS_H
#define HALVARINE_TOOLS_FETCH_OPTIONS_H

// halvarine-fetch's command line and its exit statuses.

#include <stdint.h>

#include <string>

namespace fetch {

// What the exit status tells a script. Documented in --help and the README.
enum ExitCode {
  EXIT_FETCHED = 0,           // the stream, or --max-bytes of it, was written
  EXIT_OTHER = 1,             // anything else: the worker broke the protocol, ...
  EXIT_USAGE = 2,             // bad command line
  EXIT_CONTROLLER_TAKEN = 3,  // another controller listens on the socket path
  EXIT_NO_WORKER = 4,         // the worker binary is missing or cannot run
  EXIT_WORKER_ENDED = 5,      // the worker ended early or dropped the connection
  EXIT_CONNECT_ERR = 6,       // CONNECT answered ERR: the stream did not open
  EXIT_READ_ERR = 7,          // a READ answered ERR
  EXIT_TIMED_OUT = 8,         // --reply-timeout or --timeout ran out
  EXIT_OUTPUT = 9,            // the output could not be written
  EXIT_INTERRUPTED = 130,     // SIGINT or SIGTERM
};

struct Options {
  std::string url;
  std::string outPath;  // empty or "-": standard output
  std::string worker;   // empty: the halvarine beside this program
  int count = 0;        // 0: the largest a reply carries
  int window = 4;
  int64_t maxBytes = -1;  // -1: the whole stream
  int timeoutS = 0;       // whole run; 0: none
  int replyTimeoutS = 60;
  int keepAliveS = 20;
  bool keepPartial = false;
  int verbosity = 1;  // 0 --quiet, 1 normal, 2 --verbose, 3 -vv (frames in hex)
};

// Fills `out` from the command line. Returns -1 to go on, or the status to
// exit with at once (after --help or --version, or a usage error, which it
// has reported).
int parseOptions(int argc, char** argv, Options& out);

}  // namespace fetch

#endif
