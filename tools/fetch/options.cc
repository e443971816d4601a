#include "tools/fetch/options.h"

#include <getopt.h>
#include <halvarine/controller.h>
#include <math.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <iostream>

#include "tools/common/number.h"

namespace fetch {

namespace {

Parsed usageError(const std::string& what) {
  std::cerr << "halvarine-fetch: " << what << "\n"
            << "Try 'halvarine-fetch --help' for more information.\n";
  return Parsed::BAD_USAGE;
}

// A decimal number with an optional fraction, then one of `units` (each a
// suffix and its factor; "" for none). False unless the whole text is that.
bool parseScaled(const std::string& text, const std::vector<std::pair<std::string, double>>& units,
                 double& out) {
  size_t end = 0;
  while (end < text.size() && (isdigit(static_cast<unsigned char>(text[end])) || text[end] == '.'))
    ++end;
  const std::string number = text.substr(0, end);
  if (number.empty() || number.find('.') != number.rfind('.') || number == ".") return false;
  for (const auto& unit : units) {
    if (text.compare(end, std::string::npos, unit.first) == 0) {
      out = atof(number.c_str()) * unit.second;
      return isfinite(out) && out < 9.2e18;
    }
  }
  return false;
}

// A plain decimal number within [min, max].
bool parseCount(const std::string& text, long long min, long long max, long long& out) {
  std::string ignored;  // the option's own line says what is wanted
  return tools::parseNumber(text, min, max, out, ignored);
}

enum LongOnly {
  OPT_DURATION = 256,
  OPT_MAX_BYTES,
  OPT_RETRY,
  OPT_RETRY_DELAY,
  OPT_RETRY_MAX_TIME,
  OPT_KEEP_PARTIAL,
  OPT_NO_KEEP,
  OPT_TIMEOUT,
  OPT_REPLY_TIMEOUT,
  OPT_KEEP_ALIVE,
  OPT_COUNT,
  OPT_WINDOW,
  OPT_WORKER,
  OPT_OUTPUT_DIR,
  OPT_PARALLEL,
};

const option LONG_OPTIONS[] = {
    {"output", required_argument, nullptr, 'o'},
    {"remote-name", no_argument, nullptr, 'O'},
    {"output-dir", required_argument, nullptr, OPT_OUTPUT_DIR},
    {"parallel", required_argument, nullptr, OPT_PARALLEL},
    {"duration", required_argument, nullptr, OPT_DURATION},
    {"max-bytes", required_argument, nullptr, OPT_MAX_BYTES},
    {"retry", required_argument, nullptr, OPT_RETRY},
    {"retry-delay", required_argument, nullptr, OPT_RETRY_DELAY},
    {"retry-max-time", required_argument, nullptr, OPT_RETRY_MAX_TIME},
    {"continue", no_argument, nullptr, 'C'},
    {"keep-partial", no_argument, nullptr, OPT_KEEP_PARTIAL},
    {"no-keep", no_argument, nullptr, OPT_NO_KEEP},
    {"timeout", required_argument, nullptr, OPT_TIMEOUT},
    {"reply-timeout", required_argument, nullptr, OPT_REPLY_TIMEOUT},
    {"keep-alive", required_argument, nullptr, OPT_KEEP_ALIVE},
    {"count", required_argument, nullptr, OPT_COUNT},
    {"window", required_argument, nullptr, OPT_WINDOW},
    {"worker", required_argument, nullptr, OPT_WORKER},
    {"quiet", no_argument, nullptr, 'q'},
    {"verbose", no_argument, nullptr, 'v'},
    {"help", no_argument, nullptr, 'h'},
    {"version", no_argument, nullptr, 'V'},
    {nullptr, 0, nullptr, 0},
};

}  // namespace

bool parseSize(const std::string& text, int64_t& bytes) {
  double v = 0;
  if (!parseScaled(text, {{"", 1}, {"k", 1024}, {"K", 1024}, {"M", 1 << 20}, {"G", 1 << 30}}, v))
    return false;
  bytes = static_cast<int64_t>(v);
  return true;
}

bool parseTime(const std::string& text, int64_t& ms) {
  double v = 0;
  if (!parseScaled(text, {{"", 1000}, {"s", 1000}, {"m", 60000}, {"h", 3600000}}, v)) return false;
  ms = llround(v);
  return true;
}

namespace {

// Where each URL goes: -o FILE for one, -O's names for any number, in
// --output-dir when given.
Parsed chooseOutputs(bool remoteName, const std::string& outputDir, Options& out) {
  const bool several = out.urls.size() > 1;
  if (remoteName && !out.outPath.empty()) return usageError("-o and -O exclude each other");
  if (several && !out.outPath.empty()) {
    return usageError("-o names one file, for one URL; with several URLs use -O");
  }
  if (several && !remoteName) {
    return usageError("several URLs (\"" + out.urls[0] + "\", \"" + out.urls[1] +
                      "\", ...) need -O, which writes each to the file its URL names");
  }
  if (!outputDir.empty() && !remoteName && out.outPath.empty()) {
    return usageError("--output-dir needs -O or -o");
  }
  const std::string dir = outputDir.empty() ? "" : outputDir + (outputDir.back() == '/' ? "" : "/");
  if (!remoteName) {
    if (!out.outPath.empty() && out.outPath != "-" && out.outPath[0] != '/') {
      out.outPath = dir + out.outPath;
    }
    out.outPaths = {out.outPath};
    return Parsed::RUN;
  }
  for (const std::string& url : out.urls) {
    std::string why;
    const std::string name = remoteFileName(url, why);
    if (name.empty()) return usageError("-O: " + why);
    const std::string path = dir + name;
    if (std::find(out.outPaths.begin(), out.outPaths.end(), path) != out.outPaths.end()) {
      return usageError("-O: two URLs would write " + path);
    }
    out.outPaths.push_back(path);
  }
  out.outPath = out.outPaths[0];
  return Parsed::RUN;
}

}  // namespace

std::string remoteFileName(const std::string& url, std::string& why) {
  const size_t scheme = url.find("://");
  std::string path = url.substr(0, url.find_first_of("?#"));
  const size_t hostEnd = path.find('/', scheme == std::string::npos ? 0 : scheme + 3);
  path = hostEnd == std::string::npos ? "" : path.substr(hostEnd);
  const std::string name = path.substr(path.rfind('/') + 1);
  if (name.empty() || name == "." || name == "..") {
    why =
        "\"" + url + "\" names no file" +
        (name.empty() ? " (nothing after its last /)" : " (its last segment is \"" + name + "\")");
    return "";
  }
  return name;
}

Parsed parseOptions(int argc, char** argv, Options& out) {
  bool remoteName = false;
  std::string outputDir;
  const int maxCount = halvarine::maxReadCount();
  optind = 0;  // starts afresh, whoever parsed before
  opterr = 0;
  for (;;) {
    int longIndex = -1;
    const int c = getopt_long(argc, argv, ":o:OCqvhV", LONG_OPTIONS, &longIndex);
    if (c == -1) break;
    // The option as the user wrote it: "--max-bytes", or "-o" out of "-qoFILE".
    std::string name = argv[optind - 1];
    if (longIndex >= 0) {
      name = std::string("--") + LONG_OPTIONS[longIndex].name;
    } else if (c != '?' && c != ':') {
      name = std::string("-") + static_cast<char>(c);
    } else if (name.compare(0, 2, "--") == 0) {
      name = name.substr(0, name.find('='));
    }
    const std::string value = optarg != nullptr ? optarg : "";
    long long n = 0;
    // A value checked against its kind and range; `what` says what is wanted.
    auto need = [&](bool ok, const std::string& what) {
      return ok ? Parsed::RUN : usageError(name + " needs " + what + ", not \"" + value + "\"");
    };
    Parsed bad = Parsed::RUN;
    switch (c) {
      case 'h':
        printHelp();
        return Parsed::ANSWERED;
      case 'V':
        std::cout << "halvarine-fetch " << HALVARINE_VERSION << "\n";
        return Parsed::ANSWERED;
      case 'q':
        out.verbosity = 0;
        break;
      case 'v':
        out.verbosity = out.verbosity < 2 ? 2 : 3;
        break;
      case 'o':
        bad = need(!value.empty(), "a file name");
        out.outPath = value;
        break;
      case 'O':
        remoteName = true;
        break;
      case OPT_OUTPUT_DIR:
        bad = need(!value.empty(), "a directory");
        outputDir = value;
        break;
      case OPT_PARALLEL:
        bad = need(parseCount(value, 1, 64, n), "a number from 1 to 64");
        out.parallel = static_cast<int>(n);
        break;
      case OPT_WORKER:
        bad = need(!value.empty(), "a path");
        out.worker = value;
        break;
      case OPT_KEEP_PARTIAL:  // the default now; older scripts still say it
        out.keepOnFailure = true;
        break;
      case OPT_NO_KEEP:
        out.keepOnFailure = false;
        break;
      case 'C':
        out.continueFetch = true;
        break;
      case OPT_RETRY_MAX_TIME:
        bad = need(parseTime(value, out.retryMaxTimeMs), "a time");
        break;
      case OPT_DURATION:
        bad = need(parseTime(value, out.durationMs) && out.durationMs > 0, "a time (90, 1.5m, 2h)");
        break;
      case OPT_MAX_BYTES:
        bad = need(parseSize(value, out.maxBytes), "a size (100000, 512k, 1.5M)");
        break;
      case OPT_RETRY:
        bad = need(parseCount(value, 0, 1000, n), "a number from 0 to 1000");
        out.retries = static_cast<int>(n);
        break;
      case OPT_RETRY_DELAY:
        bad = need(parseTime(value, out.retryDelayMs), "a time");
        break;
      case OPT_TIMEOUT:
        bad = need(parseTime(value, out.timeoutMs) && out.timeoutMs > 0, "a time above 0");
        break;
      case OPT_REPLY_TIMEOUT:
        bad =
            need(parseTime(value, out.replyTimeoutMs) && out.replyTimeoutMs > 0, "a time above 0");
        break;
      case OPT_KEEP_ALIVE:
        // After 60 s without a request the worker ends: a keep-alive must come sooner.
        bad = need(
            parseTime(value, out.keepAliveMs) && out.keepAliveMs > 0 && out.keepAliveMs < 60000,
            "a time below 60 s");
        break;
      case OPT_COUNT:
        bad = need(parseCount(value, 1, maxCount, n),
                   "a number from 1 to " + std::to_string(maxCount));
        out.count = static_cast<int>(n);
        break;
      case OPT_WINDOW:
        bad = need(parseCount(value, 1, 64, n), "a number from 1 to 64");
        out.window = static_cast<int>(n);
        break;
      case ':':
        if (name.compare(0, 2, "--") != 0) name = std::string("-") + static_cast<char>(optopt);
        return usageError(name + " needs a value");
      default:
        return usageError("unknown option " +
                          (optopt > 0 ? std::string("-") + static_cast<char>(optopt) : name));
    }
    if (bad != Parsed::RUN) return bad;
    // What each stream's own run is given: all but the choice of files.
    if (c != 'o' && c != 'O' && c != OPT_OUTPUT_DIR && c != OPT_PARALLEL) {
      out.streamArgs.push_back(name);
      if (optarg != nullptr) out.streamArgs.push_back(value);
    }
  }
  if (optind >= argc) {
    return usageError("which stream? Give its URL (mms://, mmst://, mmsh://, http://)");
  }
  out.urls.assign(argv + optind, argv + argc);
  out.url = out.urls[0];
  if (out.continueFetch && !remoteName && (out.outPath.empty() || out.outPath == "-")) {
    return usageError(
        "--continue needs a file (-o FILE or -O): it goes on with FILE.partial or FILE");
  }
  return chooseOutputs(remoteName, outputDir, out);
}

}  // namespace fetch
