#include "tools/fetch/options.h"

#include <errno.h>
#include <halvarine/controller.h>
#include <stdlib.h>

#include <iostream>

namespace fetch {

namespace {

const char USAGE[] =
    "usage: halvarine-fetch URL [-o FILE] [options]\n"
    "\n"
    "Fetches an MMS stream through the halvarine worker: listens on the\n"
    "controller socket /tmp/zalProcess_Halvarine, starts the worker, sends\n"
    "CONNECT URL and GSIZE, READs until the stream ends, then PEND.\n"
    "\n"
    "  -o, --output FILE     write the stream to FILE (default: standard output,\n"
    "                        which must not be a terminal). The bytes go to\n"
    "                        FILE.partial first and are renamed to FILE at the end.\n"
    "  --count N             bytes asked for by each READ, 1..65511 (default 65511,\n"
    "                        the most one reply carries)\n"
    "  --window N            READ requests in flight at once, 1..64 (default 4)\n"
    "  --max-bytes N         stop after N bytes of the stream\n"
    "  --timeout S           give up when the whole fetch takes longer than S seconds\n"
    "  --reply-timeout S     give up when the worker sends no reply for S seconds\n"
    "                        (default 60); the clock starts again at every reply\n"
    "  --keep-alive S        when the worker has had no request for S seconds (a slow\n"
    "                        reader of the output holds the fetch up), send CCHECK so\n"
    "                        it does not end after its 60 s of silence; 1..59\n"
    "                        (default 20)\n"
    "  --keep-partial        on failure keep FILE.partial (default: remove it)\n"
    "  --worker PATH         the worker binary (default: halvarine beside this\n"
    "                        program); HALVARINE_WORKER_LAUNCHER, when set, is a\n"
    "                        command that runs it (such as qemu-arm)\n"
    "  -q, --quiet           print errors only\n"
    "  -v, --verbose         show every request and reply, and the worker's\n"
    "                        standard error; twice: the frames in hexadecimal too\n"
    "  -h, --help            show this text\n"
    "  -V, --version         show the version\n"
    "\n"
    "Progress goes to standard error: a live line on a terminal, a line every\n"
    "10 seconds otherwise.\n"
    "\n"
    "Exit status:\n"
    "  0    the stream (or --max-bytes of it) was written\n"
    "  1    another failure (the worker broke the protocol, a system call failed)\n"
    "  2    bad command line\n"
    "  3    another controller already listens on the controller socket\n"
    "  4    the worker binary is missing or cannot be run\n"
    "  5    the worker ended early or dropped the connection\n"
    "  6    CONNECT answered ERR: the worker could not open the stream\n"
    "  7    a READ answered ERR\n"
    "  8    time-out (--reply-timeout or --timeout)\n"
    "  9    the output could not be written\n"
    "  130  interrupted (SIGINT or SIGTERM)\n"
    "On every failure the worker is ended, the socket file removed and a\n"
    "partial FILE removed unless --keep-partial.\n"
    "\n"
    "Examples:\n"
    "  halvarine-fetch mms://media.example/live -o live.asf --max-bytes 10000000\n"
    "  halvarine-fetch mmsh://127.0.0.1:8080/sample.asf -o sample.asf --window 1 -v\n"
    "  halvarine-fetch mms://127.0.0.1:1755/sample.asf | ffprobe -\n";

int usageError(const std::string& what) {
  std::cerr << "halvarine-fetch: " << what << "\n"
            << "Try 'halvarine-fetch --help' for more information.\n";
  return EXIT_USAGE;
}

bool parseNumber(const std::string& text, long long min, long long max, long long& out) {
  char* end = nullptr;
  errno = 0;
  out = strtoll(text.c_str(), &end, 10);
  return errno == 0 && !text.empty() && *end == '\0' && out >= min && out <= max;
}

}  // namespace

int parseOptions(int argc, char** argv, Options& out) {
  const int maxCount = halvarine::maxReadCount();
  out.count = maxCount;
  bool haveUrl = false;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    std::string value;
    bool inlineValue = false;
    if (arg.rfind("--", 0) == 0 && arg.find('=') != std::string::npos) {
      value = arg.substr(arg.find('=') + 1);
      arg = arg.substr(0, arg.find('='));
      inlineValue = true;
    }
    // Takes the option's value from "--name=value" or the next argument.
    auto takeValue = [&]() -> bool {
      if (inlineValue) return true;
      if (i + 1 >= argc) return false;
      value = argv[++i];
      return true;
    };
    // A number option: its value within [min, max].
    auto number = [&](long long min, long long max, long long& n) -> bool {
      return takeValue() && parseNumber(value, min, max, n);
    };
    long long n = 0;
    if (arg == "-h" || arg == "--help") {
      std::cout << USAGE;
      return EXIT_FETCHED;
    } else if (arg == "-V" || arg == "--version") {
      std::cout << "halvarine-fetch " << HALVARINE_VERSION << "\n";
      return EXIT_FETCHED;
    } else if (arg == "-q" || arg == "--quiet") {
      out.verbosity = 0;
    } else if (arg == "-v" || arg == "--verbose") {
      out.verbosity = out.verbosity < 2 ? 2 : 3;
    } else if (arg == "-vv") {
      out.verbosity = 3;
    } else if (arg == "--keep-partial") {
      out.keepPartial = true;
    } else if (arg == "-o" || arg == "--output") {
      if (!takeValue() || value.empty()) return usageError(arg + " needs a file name");
      out.outPath = value;
    } else if (arg == "--worker") {
      if (!takeValue() || value.empty()) return usageError("--worker needs a path");
      out.worker = value;
    } else if (arg == "--count") {
      if (!number(1, maxCount, n)) {
        return usageError("--count needs a number from 1 to " + std::to_string(maxCount));
      }
      out.count = static_cast<int>(n);
    } else if (arg == "--window") {
      if (!number(1, 64, n)) return usageError("--window needs a number from 1 to 64");
      out.window = static_cast<int>(n);
    } else if (arg == "--max-bytes") {
      if (!number(0, INT64_MAX, n)) return usageError("--max-bytes needs a byte count");
      out.maxBytes = n;
    } else if (arg == "--timeout") {
      if (!number(1, 1000000, n)) return usageError("--timeout needs seconds, at least 1");
      out.timeoutS = static_cast<int>(n);
    } else if (arg == "--reply-timeout") {
      if (!number(1, 1000000, n)) return usageError("--reply-timeout needs seconds, at least 1");
      out.replyTimeoutS = static_cast<int>(n);
    } else if (arg == "--keep-alive") {
      // At 60 s of silence the worker ends; a keep-alive must come sooner.
      if (!number(1, 59, n)) return usageError("--keep-alive needs seconds from 1 to 59");
      out.keepAliveS = static_cast<int>(n);
    } else if (arg.size() > 1 && arg[0] == '-') {
      return usageError("unknown option " + arg);
    } else if (haveUrl) {
      return usageError("only one URL, please (got \"" + out.url + "\" and \"" + arg + "\")");
    } else {
      out.url = arg;
      haveUrl = true;
    }
  }
  if (!haveUrl) return usageError("which stream? Give its URL (mms://, mmsh://, http://)");
  return -1;
}

}  // namespace fetch
