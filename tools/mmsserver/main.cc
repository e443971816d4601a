// halvarine-mms-server: one test MMS server as a command, for manual work
// and benchmarks. Prints the URL it serves on standard output, then serves
// until SIGINT or SIGTERM, or until --max-connections connections are done.

#include <pthread.h>
#include <signal.h>
#include <time.h>

#include <iostream>
#include <string>
#include <vector>

#include "tools/common/number.h"
#include "tools/mmsserver/server.h"

namespace mmsserver {

namespace {

const char USAGE[] =
    "usage: halvarine-mms-server [--transport mmsh|mmst] [--address A] [--port N]\n"
    "         [--file PATH | --generate BYTES [--packet-size N]] [--name NAME]\n"
    "         [--max-connections N] [--live] [--rate BYTES_PER_SECOND]\n"
    "         [--declared-packets N] [FAULT...]\n"
    "--live serves a broadcast whose packets go round for ever; --rate paces any\n"
    "stream; --declared-packets makes the header announce N data packets.\n"
    "Faults (tools/mmsserver/faults.tsv says more):\n";

int usage(const std::string& error) {
  if (error.empty()) {
    std::cout << USAGE << faultUsage();
    return 0;
  }
  std::cerr << "halvarine-mms-server: " << error << " (--help lists the options)\n";
  return 2;
}

}  // namespace

int run(int argc, char** argv) {
  ServerOptions options;
  std::string path = HALVARINE_SAMPLE_ASF;
  std::string name;
  long long generate = -1;
  long long packetSize = 8192;
  long long maxConnections = -1;
  const std::vector<std::string> words(argv + 1, argv + argc);
  for (size_t i = 0; i < words.size();) {
    std::string error;
    const FaultWord fault = takeFaultOption(words, i, options.faults, error);
    if (fault == FaultWord::BAD) return usage(error);
    if (fault == FaultWord::TAKEN) continue;
    const std::string& arg = words[i++];
    if (arg == "--live") {
      options.live = true;
      continue;
    }
    if (i == words.size())
      return usage(arg == "--help" ? "" : "unknown option or no value: " + arg);
    const std::string& value = words[i++];
    // The option's value as a number up to `max`, or false with `bad` set.
    std::string bad;
    long long n = 0;
    const auto number = [&](long long max) {
      if (tools::parseNumber(value, 0, max, n, bad)) return true;
      bad = tools::numberWanted(arg, 0, max, value);
      return false;
    };
    if (arg == "--transport" && (value == "mmsh" || value == "mmst")) {
      options.protocol = value == "mmsh" ? StreamProtocol::MMSH : StreamProtocol::MMST;
    } else if (arg == "--address") {
      options.address = value;
    } else if (arg == "--file") {
      path = value;
    } else if (arg == "--name") {
      name = value;
    } else if (arg == "--port" && number(65535)) {
      options.port = static_cast<uint16_t>(n);
    } else if (arg == "--generate" && number(INT64_MAX)) {
      generate = n;
    } else if (arg == "--packet-size" && number(0xFFFFFFFF)) {
      packetSize = n;
    } else if (arg == "--max-connections" && number(INT64_MAX)) {
      maxConnections = n;
    } else if (arg == "--rate" && number(INT64_MAX)) {
      options.rate = n;
    } else if (arg == "--declared-packets" && number(INT64_MAX)) {
      options.declaredPackets = n;
    } else if (!bad.empty()) {
      return usage(bad);
    } else {
      return usage("bad option or value: " + arg + " " + value);
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

}  // namespace mmsserver

int main(int argc, char** argv) {
  return mmsserver::run(argc, argv);
}
