// halvarine-fetch --help: the usage, the exit statuses (the list the README
// and the manual are checked against) and examples.

#include <stdio.h>

#include "tools/fetch/options.h"

namespace fetch {

namespace {

const char USAGE[] =
    "usage: halvarine-fetch [options] URL\n"
    "       halvarine-fetch [options] -O [--output-dir DIR] URL...\n"
    "\n"
    "Fetches or records MMS streams (mms://, mmst://, mmsh://, http://) through\n"
    "the halvarine worker, acting as its controller: one worker per stream.\n"
    "\n"
    "  -o, --output FILE       write the stream to FILE (default: standard output,\n"
    "                          which must not be a terminal); a regular file gets\n"
    "                          the bytes through FILE.partial, renamed when the\n"
    "                          fetch ends; a device, a FIFO or /dev/stdout is\n"
    "                          written in place; a link is followed and stays;\n"
    "                          one URL only\n"
    "  -O, --remote-name       write each stream to the file its URL names (the\n"
    "                          last path segment); needed with several URLs\n"
    "      --output-dir DIR    put the files of -O and a relative -o in DIR\n"
    "      --parallel N        with several URLs, fetch N at once, 1..64\n"
    "                          (default 4); the rest wait their turn\n"
    "      --duration TIME     record for TIME, then stop and keep the file\n"
    "      --max-bytes SIZE    stop after SIZE bytes, rounded down to a whole data\n"
    "                          packet (the header is always written)\n"
    "      --retry N           when the stream's connection ends early (before its\n"
    "                          announced length, a stall, a live stream's drop), open\n"
    "                          it again and go on, up to N times in a row without new\n"
    "                          data (default 5; 0: never)\n"
    "      --retry-delay TIME  the wait before the first retry, doubled for each\n"
    "                          further one (default 1 s)\n"
    "      --retry-max-time TIME  stop retrying once no new data has come for TIME;\n"
    "                          a server that stops sending ends the fetch with 28 when\n"
    "                          it has sent nothing for TIME (default 45 s; 0: no limit)\n"
    "  -C, --continue          go on with an earlier fetch of the same stream from\n"
    "                          FILE.partial (or FILE), after checking that the stream's\n"
    "                          header and the bytes read again are the file's; not\n"
    "                          for live streams\n"
    "      --no-keep           remove FILE.partial when the fetch fails (by default it\n"
    "                          is kept, finished like a stopped recording)\n"
    "      --timeout TIME      give up when the whole run takes longer\n"
    "      --reply-timeout TIME  give up when the worker sends no reply for TIME\n"
    "                          (default 60 s); the clock starts again at every reply\n"
    "      --keep-alive TIME   when no request has gone to the worker for TIME (a slow\n"
    "                          reader of the output holds the fetch up), send CCHECK;\n"
    "                          below 60 s (default 20 s)\n"
    "      --count N           bytes asked for by each READ, 1..65511 (default: 65511,\n"
    "                          or four data packets for a broadcast)\n"
    "      --window N          READ requests in flight at once, 1..64 (default 4)\n"
    "      --worker PATH       the worker binary (default: HALVARINE_WORKER, else the\n"
    "                          halvarine beside this program or in ../libexec/halvarine)\n"
    "  -q, --quiet             print errors only\n"
    "  -v, --verbose           show every request and reply, and the worker's lines;\n"
    "                          twice: the frames in hexadecimal too\n"
    "  -h, --help              show this text\n"
    "  -V, --version           show the version\n"
    "\n"
    "SIZE takes k, M and G (1024, 1024^2, 1024^3); TIME is seconds, with a\n"
    "fraction and s, m or h if wanted (0.5, 90, 1.5m, 2h).\n"
    "\n"
    "A stop asked for (--duration, --max-bytes, SIGINT, SIGTERM, SIGHUP) keeps what\n"
    "was received under FILE, cut at a data packet's end, with the header's sizes,\n"
    "packet counts and durations made to agree with it (a broadcast becomes a file\n"
    "of known length); a signal then ends the tool by that signal. A failure keeps\n"
    "FILE.partial, finished the same way, unless --no-keep. A live stream (a\n"
    "broadcast, or one the server announces as live) whose connection drops is\n"
    "opened again and recorded on, whole packets after the first header; an\n"
    "on-demand stream is resumed only when the bytes read again are those written,\n"
    "never spliced. http_proxy (or HTTP_PROXY) and no_proxy are honoured for\n"
    "mms://, mmsh:// and http:// streams.\n"
    "\n"
    "With several URLs each stream has its own line, and a summary names every\n"
    "stream that failed; the exit status is that of the first URL, in the order\n"
    "given, that failed (0 when none did).\n"
    "\n"
    "Each worker gets a controller socket of its own where the system allows user\n"
    "namespaces (or as root); -v says when the shared /tmp/zalProcess_Halvarine is\n"
    "used instead, and why.\n"
    "\n"
    "Exit status:\n";

const char EXAMPLES[] =
    "\n"
    "Examples:\n"
    "  halvarine-fetch mms://media.example/radio -o radio.asf --duration 1h\n"
    "  halvarine-fetch mmsh://127.0.0.1:8080/sample.asf -o sample.asf -v\n"
    "  halvarine-fetch mms://127.0.0.1:1755/sample.asf | ffprobe -\n"
    "  halvarine-fetch -O --output-dir radio mms://a.example/one mms://b.example/two\n";

}  // namespace

const std::vector<ExitStatusLine>& exitStatusLines() {
  static const std::vector<ExitStatusLine> lines = {
      {EXIT_OK, "fetched, or stopped as asked by --duration or --max-bytes"},
      {EXIT_UNSUPPORTED, "unsupported scheme, or an IPv6 address (the worker speaks IPv4)"},
      {EXIT_USAGE, "bad command line"},
      {EXIT_MALFORMED_URL, "malformed URL"},
      {EXIT_PROXY_UNRESOLVED, "cannot resolve the proxy's host"},
      {EXIT_HOST_UNRESOLVED, "cannot resolve the host"},
      {EXIT_CANNOT_CONNECT, "cannot connect: refused or unreachable (host or proxy)"},
      {EXIT_NOT_MMS, "not an MMS server, or it broke the protocol"},
      {EXIT_PARTIAL, "the stream ended before its announced length and could not be resumed"},
      {EXIT_HTTP_ERROR, "the server answered with an HTTP error (HTTP 404 Not Found, ...)"},
      {EXIT_WRITE, "the output cannot be written"},
      {EXIT_TIMED_OUT,
       "timed out: connecting, waiting for an answer, the server stalled (no data for "
       "--retry-max-time), --reply-timeout, --timeout"},
      {EXIT_CANNOT_CONTINUE, "--continue: the file is not the start of this stream, or it is live"},
      {EXIT_RECEIVE, "the worker failed to receive the stream's data"},
      {EXIT_NO_SUCH_FILE, "the MMS server has no such file"},
      {EXIT_CONTROLLER_TAKEN, "no private socket here, and the shared one is taken or blocked"},
      {EXIT_NO_WORKER, "the worker is missing or cannot be run"},
      {EXIT_WORKER_FAILED, "the worker died, did not connect, or broke the protocol"},
      {EXIT_LIVE_LOST,
       "a live stream's connection was lost and could not be opened again; the "
       "recording is kept"},
      {EXIT_SIGNALED + 1, "ended by SIGHUP (what was received is kept)"},
      {EXIT_SIGNALED + 2, "ended by SIGINT (what was received is kept)"},
      {EXIT_SIGNALED + 15, "ended by SIGTERM (what was received is kept)"},
  };
  return lines;
}

void printHelp() {
  fputs(USAGE, stdout);
  for (const ExitStatusLine& line : exitStatusLines())
    printf("  %3d  %s\n", line.code, line.meaning);
  fputs(EXAMPLES, stdout);
}

}  // namespace fetch
