// libmms-fetch: reads a stream with libmms and its default I/O, the way a
// plain libmms client does, and writes the bytes to a file as they arrive.
// The reference client for tests and benchmarks.
//
//   libmms-fetch URL OUT [--count N] [--bandwidth BPS] [--read-size N] [--stats]
//
// mms:// and mmst:// open MMS over TCP, mmsh:// and http:// MMS over HTTP.
// --count stops after N bytes. --read-size asks libmms for N bytes per read
// (default 65536), as a worker's READ count does. Prints what libmms
// reported and how many bytes it delivered. --stats adds one line on
// standard error for the benchmarks, "stats bytes N elapsed SECONDS
// peak-rss KIB": the bytes delivered, the time from before the connect to
// after the last read (monotonic clock) and the process's peak resident
// size (VmHWM) at that moment. Exit status: 0 after reading (a short stream
// included), 1 when libmms cannot open the stream, 2 on bad usage or a
// failed write.

#include <errno.h>
#include <libmms/mms.h>
#include <libmms/mmsh.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

namespace {

struct FileCloser {
  void operator()(FILE* f) const { fclose(f); }
};
struct MmsCloser {
  void operator()(mms_t* m) const { mms_close(m); }
};
struct MmshCloser {
  void operator()(mmsh_t* m) const { mmsh_close(m); }
};

bool startsWith(const std::string& s, const char* prefix) {
  return s.compare(0, strlen(prefix), prefix) == 0;
}

// Reads until libmms delivers nothing more or `count` bytes are in.
template <typename ReadFn>
bool copyStream(ReadFn read, FILE* out, long long count, int readSize, long long& total) {
  std::vector<char> buf(static_cast<size_t>(readSize));
  total = 0;
  while (count < 0 || total < count) {
    long long want = static_cast<long long>(buf.size());
    if (count >= 0) want = std::min(want, count - total);
    int got = read(buf.data(), static_cast<int>(want));
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

double monotonicSeconds() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

// VmHWM of this process in KiB, -1 when /proc does not say.
long peakRssKiB() {
  std::unique_ptr<FILE, FileCloser> status(fopen("/proc/self/status", "r"));
  if (!status) return -1;
  char line[256];
  long kib = -1;
  while (fgets(line, sizeof line, status.get()) != nullptr) {
    if (sscanf(line, "VmHWM: %ld kB", &kib) == 1) break;
  }
  return kib;
}

}  // namespace

int main(int argc, char** argv) {
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
  for (int i = 3; i < argc; i += 2) {
    if (strcmp(argv[i], "--stats") == 0) {
      stats = true;
      --i;  // no value
    } else if (i + 1 >= argc) {
      fprintf(stderr, "libmms-fetch: %s needs a value\n", argv[i]);
      return 2;
    } else if (strcmp(argv[i], "--read-size") == 0) {
      readSize = atoi(argv[i + 1]);
      if (readSize <= 0) {
        fprintf(stderr, "libmms-fetch: bad --read-size %s\n", argv[i + 1]);
        return 2;
      }
    } else if (strcmp(argv[i], "--count") == 0) {
      count = atoll(argv[i + 1]);
    } else if (strcmp(argv[i], "--bandwidth") == 0) {
      bandwidth = atoi(argv[i + 1]);
    } else {
      fprintf(stderr, "libmms-fetch: unknown option %s\n", argv[i]);
      return 2;
    }
  }
  std::unique_ptr<FILE, FileCloser> out(fopen(argv[2], "wb"));
  if (!out) {
    fprintf(stderr, "libmms-fetch: cannot write %s: %s\n", argv[2], strerror(errno));
    return 2;
  }

  long long total = 0;
  bool written = false;
  const double started = monotonicSeconds();
  if (startsWith(url, "mms://") || startsWith(url, "mmst://")) {
    std::unique_ptr<mms_t, MmsCloser> mms(mms_connect(nullptr, nullptr, url.c_str(), bandwidth));
    if (!mms) {
      fprintf(stderr, "libmms-fetch: mms_connect failed for %s\n", url.c_str());
      return 1;
    }
    printf("length %u header %u packet %llu\n", mms_get_length(mms.get()),
           mms_get_asf_header_len(mms.get()),
           static_cast<unsigned long long>(mms_get_asf_packet_len(mms.get())));
    written = copyStream([&](char* buf, int len) { return mms_read(nullptr, mms.get(), buf, len); },
                         out.get(), count, readSize, total);
  } else if (startsWith(url, "mmsh://") || startsWith(url, "http://")) {
    std::unique_ptr<mmsh_t, MmshCloser> mmsh(
        mmsh_connect(nullptr, nullptr, url.c_str(), bandwidth));
    if (!mmsh) {
      fprintf(stderr, "libmms-fetch: mmsh_connect failed for %s\n", url.c_str());
      return 1;
    }
    printf("length %u header %u packet %u\n", mmsh_get_length(mmsh.get()),
           mmsh_get_asf_header_len(mmsh.get()), mmsh_get_asf_packet_len(mmsh.get()));
    written =
        copyStream([&](char* buf, int len) { return mmsh_read(nullptr, mmsh.get(), buf, len); },
                   out.get(), count, readSize, total);
  } else {
    fprintf(stderr, "libmms-fetch: not an MMS URL: %s\n", url.c_str());
    return 2;
  }
  const double elapsed = monotonicSeconds() - started;
  printf("read %lld\n", total);
  if (stats) {
    fprintf(stderr, "stats bytes %lld elapsed %.6f peak-rss %ld\n", total, elapsed, peakRssKiB());
  }
  if (!written) {
    fprintf(stderr, "libmms-fetch: write to %s failed\n", argv[2]);
    return 2;
  }
  return 0;
}
