// libmms-fetch: reads a stream with libmms and its default I/O, the way a
// plain libmms client does, and writes the bytes to a file as they arrive.
// The reference client for tests and benchmarks.
//
//   libmms-fetch URL OUT [--count N] [--bandwidth BPS] [--read-size N] [--stats]
//
// --count stops after N bytes. --read-size asks libmms for N bytes per read
// (default 65536), as a worker's READ count does. Prints what libmms
// reported and how many bytes it delivered. --stats adds one line on
// standard error for the benchmarks, "stats bytes N elapsed SECONDS
// peak-rss KIB": the bytes delivered, the time from before the connect to
// after the last read (monotonic clock) and the process's peak resident
// size (VmHWM) at that moment. Exit status: 0 after reading (a short stream
// included), 1 when libmms cannot open the stream (or it is not an MMS
// URL), 2 on bad usage or a failed write.

#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "base/clock.h"
#include "base/file.h"
#include "base/proc_status.h"
#include "tools/common/number.h"
#include "tools/libmms-fetch/libmms_stream.h"

namespace libmmsfetch {
namespace {

// Reads until libmms delivers nothing more or `count` bytes are in.
bool copyStream(LibmmsStream& stream, FILE* out, long long count, int readSize, long long& total) {
  std::vector<char> buf(static_cast<size_t>(readSize));
  total = 0;
  while (count < 0 || total < count) {
    long long want = static_cast<long long>(buf.size());
    if (count >= 0) want = std::min(want, count - total);
    int got = stream.read(buf.data(), static_cast<int>(want));
    if (got <= 0) break;
    // Flushed at once: a fetch killed at a time-out still leaves its bytes.
    if (fwrite(buf.data(), 1, static_cast<size_t>(got), out) != static_cast<size_t>(got) ||
        fflush(out) != 0) {
      return false;
    }
    total += got;
  }
  return true;
}

// The value of `option` as a number from `min` to `max`, or a line on
// standard error.
bool number(const char* option, const char* text, long long min, long long max, long long& value) {
  std::string why;
  if (tools::parseNumber(text, min, max, value, why)) return true;
  fprintf(stderr, "libmms-fetch: %s\n", tools::numberWanted(option, min, max, text).c_str());
  return false;
}

}  // namespace

int run(int argc, char** argv) {
  if (argc < 3) {
    fprintf(stderr,
            "usage: libmms-fetch URL OUT [--count N] [--bandwidth BPS] [--read-size N] "
            "[--stats]\n");
    return 2;
  }
  std::string url = argv[1];
  long long count = -1;
  int bandwidth = 1000 * 1000 * 1000;  // every stream fits: libmms keeps the header intact
  int readSize = 64 * 1024;
  bool stats = false;
  long long n = 0;
  for (int i = 3; i < argc; i += 2) {
    if (strcmp(argv[i], "--stats") == 0) {
      stats = true;
      --i;  // no value
    } else if (i + 1 >= argc) {
      fprintf(stderr, "libmms-fetch: %s needs a value\n", argv[i]);
      return 2;
    } else if (strcmp(argv[i], "--read-size") == 0) {
      if (!number(argv[i], argv[i + 1], 1, INT_MAX, n)) return 2;
      readSize = static_cast<int>(n);
    } else if (strcmp(argv[i], "--count") == 0) {
      if (!number(argv[i], argv[i + 1], 0, LLONG_MAX, count)) return 2;
    } else if (strcmp(argv[i], "--bandwidth") == 0) {
      if (!number(argv[i], argv[i + 1], 1, INT_MAX, n)) return 2;
      bandwidth = static_cast<int>(n);
    } else {
      fprintf(stderr, "libmms-fetch: unknown option %s\n", argv[i]);
      return 2;
    }
  }
  UniqueFile out(fopen(argv[2], "wb"));
  if (!out) {
    fprintf(stderr, "libmms-fetch: cannot write %s: %s\n", argv[2], strerror(errno));
    return 2;
  }

  const int64_t started = nowMs();
  LibmmsStream stream;
  if (!stream.open(url, bandwidth)) {
    fprintf(stderr, "libmms-fetch: libmms cannot open %s\n", url.c_str());
    return 1;
  }
  printf("length %u header %u packet %llu\n", stream.length(), stream.headerLength(),
         static_cast<unsigned long long>(stream.packetLength()));
  long long total = 0;
  const bool written = copyStream(stream, out.get(), count, readSize, total);
  const double elapsed = secondsSince(started);
  printf("read %lld\n", total);
  if (stats) {
    fprintf(stderr, "stats bytes %lld elapsed %.6f peak-rss %ld\n", total, elapsed,
            procStatusKb(getpid(), "VmHWM"));
  }
  if (!written) {
    fprintf(stderr, "libmms-fetch: write to %s failed\n", argv[2]);
    return 2;
  }
  return 0;
}

}  // namespace libmmsfetch

int main(int argc, char** argv) {
  return libmmsfetch::run(argc, argv);
}
