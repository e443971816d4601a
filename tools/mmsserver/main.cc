// halvarine-mms-server: one test MMS server as a command, for manual work
// and benchmarks. Prints the URL it serves on standard output, then serves
// until SIGINT or SIGTERM, or until --max-connections connections are done.

#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <iostream>
#include <string>

#include "tools/mmsserver/server.h"

namespace {

const char USAGE[] =
    "usage: halvarine-mms-server [--transport mmsh|mmst] [--address A] [--port N]\n"
    "         [--file PATH | --generate BYTES [--packet-size N]] [--name NAME]\n"
    "         [--max-connections N] [--refuse] [--stall-after N] [--reset-after N]\n"
    "         [--drip-ms N] [--truncate-header N] [--absurd-header-size]\n"
    "         [--absurd-packet-size] [--slow-packet N --slow-bytes N [--slow-gap-ms N]]\n"
    "         [--extra-streams N] [--zero-size-object] [--extension-child-4gib]\n"
    "         [--endless-head-lines | --endless-head-line] [--continue-at-end]\n"
    "         [--close-before-play] [--first-connections N]\n"
    "         [--live] [--rate BYTES_PER_SECOND] [--declared-packets N]\n"
    "Byte counts of --stall-after and --reset-after include protocol bytes.\n"
    "--slow-packet sends the first --slow-bytes bytes of that data packet (from 0)\n"
    "one at a time, --slow-gap-ms apart (default 2500).\n"
    "The last six options send data that libmms 0.6.4 cannot survive.\n"
    "An MMSH stream takes two connections (describe, play).\n"
    "--first-connections N: the faults hit only the first N connections.\n"
    "--live serves a broadcast whose packets loop for ever; --rate paces any\n"
    "stream; --declared-packets makes the header announce N data packets.\n";

bool parseNumber(const char* text, long long min, long long& out) {
  char* end = nullptr;
  errno = 0;
  out = strtoll(text, &end, 10);
  return errno == 0 && end != text && *end == '\0' && out >= min;
}

}  // namespace

int main(int argc, char** argv) {
  ServerOptions options;
  std::string path = HALVARINE_SAMPLE_ASF;
  std::string name;
  long long generate = -1;
  long long packetSize = 8192;
  long long maxConnections = -1;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    bool hasValue = i + 1 < argc;
    long long n = 0;
    if (arg == "--refuse") {
      options.faults.refuse = true;
    } else if (arg == "--absurd-header-size") {
      options.faults.absurdHeaderSize = true;
    } else if (arg == "--absurd-packet-size") {
      options.faults.absurdPacketSize = true;
    } else if (arg == "--zero-size-object") {
      options.faults.zeroSizeObject = true;
    } else if (arg == "--extension-child-4gib") {
      options.faults.extensionChildOf4GiB = true;
    } else if (arg == "--endless-head-lines") {
      options.faults.endlessHeadLines = true;
    } else if (arg == "--endless-head-line") {
      options.faults.endlessHeadLine = true;
    } else if (arg == "--close-before-play") {
      options.faults.closeBeforePlay = true;
    } else if (arg == "--continue-at-end") {
      options.faults.continueAtEnd = true;
    } else if (arg == "--live") {
      options.live = true;
    } else if (!hasValue) {
      std::cerr << USAGE;
      return 2;
    } else if (arg == "--transport") {
      std::string t = argv[++i];
      if (t != "mmsh" && t != "mmst") {
        std::cerr << USAGE;
        return 2;
      }
      options.transport = t == "mmsh" ? Transport::MMSH : Transport::MMST;
    } else if (arg == "--address") {
      options.address = argv[++i];
    } else if (arg == "--file") {
      path = argv[++i];
    } else if (arg == "--name") {
      name = argv[++i];
    } else if (!parseNumber(argv[++i], 0, n)) {
      std::cerr << arg << ": not a number: " << argv[i] << "\n" << USAGE;
      return 2;
    } else if (arg == "--port" && n <= 65535) {
      options.port = static_cast<uint16_t>(n);
    } else if (arg == "--generate") {
      generate = n;
    } else if (arg == "--packet-size" && n <= 0xFFFFFFFF) {
      packetSize = n;
    } else if (arg == "--max-connections") {
      maxConnections = n;
    } else if (arg == "--stall-after") {
      options.faults.stallAfter = n;
    } else if (arg == "--reset-after") {
      options.faults.resetAfter = n;
    } else if (arg == "--drip-ms" && n <= 60000) {
      options.faults.dripIntervalMs = static_cast<int>(n);
    } else if (arg == "--truncate-header") {
      options.faults.truncateHeader = n;
    } else if (arg == "--slow-packet") {
      options.faults.slowPacket = n;
    } else if (arg == "--slow-bytes" && n <= 65535) {
      options.faults.slowBytes = static_cast<int>(n);
    } else if (arg == "--slow-gap-ms" && n <= 60000) {
      options.faults.slowGapMs = static_cast<int>(n);
    } else if (arg == "--first-connections" && n <= 1000000) {
      options.faults.firstConnections = static_cast<int>(n);
    } else if (arg == "--rate") {
      options.rate = n;
    } else if (arg == "--declared-packets") {
      options.declaredPackets = n;
    } else if (arg == "--extra-streams" && n <= 1000) {
      options.faults.extraStreams = static_cast<int>(n);
    } else {
      std::cerr << USAGE;
      return 2;
    }
  }

  AsfFile file;
  std::string error;
  if (generate >= 0) {
    if (!parseAsf(generateAsf(static_cast<uint64_t>(generate), static_cast<uint32_t>(packetSize)),
                  file, error)) {
      std::cerr << "generated stream does not parse: " << error << "\n";
      return 1;
    }
    if (name.empty()) name = "generated.asf";
  } else {
    if (!loadAsfFile(path, file, error)) {
      std::cerr << error << "\n";
      return 1;
    }
    if (name.empty()) name = path.substr(path.find_last_of('/') + 1);
  }

  // The server thread inherits this mask, so the signals reach sigtimedwait.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  MmsTestServer server(file, options);
  if (!server.start(error)) {
    std::cerr << error << "\n";
    return 1;
  }
  std::cout << server.url(name) << std::endl;

  const timespec tick{0, 100 * 1000 * 1000};
  while (maxConnections < 0 || server.connectionsServed() < maxConnections) {
    if (sigtimedwait(&stopSignals, nullptr, &tick) >= 0) break;
  }
  std::cerr << "served " << server.connectionsServed() << " connections\n";
  return 0;
}
