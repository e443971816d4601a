// The benchmark's command line.

#include "bench/settings.h"

#include <limits.h>

#include <map>

#include "tools/common/number.h"

namespace bench {

const char USAGE[] =
    "usage: halvarine-bench [--quick] [--out DIR] [--rounds N] [--mb N]\n"
    "         [--cost-mb N] [--calls N] [--only PARTS] [--before WORKER]\n"
    "         [--count-rounds N] [--rates 8mbit,1mbit,128kbit] [--packet-sizes 8192,1444]\n";

bool Settings::wanted(const std::string& part) const {
  return ("," + only + ",").find("," + part + ",") != std::string::npos;
}

Parsed parseSettings(const std::vector<std::string>& args, Settings& s, Programs& programs,
                     std::string& error) {
  const std::map<std::string, int*> numbers{{"--rounds", &s.rounds},
                                            {"--mb", &s.streamMb},
                                            {"--cost-mb", &s.costMb},
                                            {"--calls", &s.calls},
                                            {"--count-rounds", &s.countRounds}};
  const std::map<std::string, std::string*> texts{{"--only", &s.only},
                                                  {"--out", &s.outDir},
                                                  {"--before", &programs.beforeWorker},
                                                  {"--rates", &s.rates},
                                                  {"--packet-sizes", &s.packetSizes}};
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (a == "--help" || a == "-h") return Parsed::HELP;
    if (a == "--quick") {
      s.rttRounds = s.startups = s.fullSpeedMb = 2;
      s.rounds = s.costMb = s.countRounds = 1;
      s.shapedScale = 16;
      s.rates = "8mbit";
      s.packetSizes = "8192";
      s.streamMb = 4;
      s.calls = 500;
      s.counts = {4096, 65511};
    } else if (i + 1 < args.size() && numbers.count(a)) {
      long long n = 0;
      std::string why;
      if (!tools::parseNumber(args[++i], 1, INT_MAX, n, why)) {
        error = tools::numberWanted(a, 1, INT_MAX, args[i]);
        return Parsed::BAD;
      }
      *numbers.at(a) = static_cast<int>(n);
    } else if (i + 1 < args.size() && texts.count(a)) {
      *texts.at(a) = args[++i];
    } else {
      error = i + 1 == args.size() && (numbers.count(a) || texts.count(a)) ? a + " needs a value"
                                                                           : "unknown option " + a;
      return Parsed::BAD;
    }
  }
  return Parsed::RUN;
}

}  // namespace bench
