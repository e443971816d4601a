#include "tools/mmsserver/fault_table.h"

#include <algorithm>
#include <sstream>
#include <type_traits>

#include "tools/common/number.h"

namespace mmsserver {

namespace {

struct Option {
  const char* flag;
  bool takesValue;
  int64_t max;
  const char* help;
  void (*set)(Faults& faults, int64_t value);
};

const Option OPTIONS[] = {
#define HALVARINE_FAULT_OPTION(flag, field, type, init, max, help) \
  {flag, !std::is_same<type, bool>::value, max, help,              \
   [](Faults& f, int64_t v) { f.field = static_cast<type>(v); }},
#include "tools/mmsserver/fault_table.inc"
};

}  // namespace

FaultWord takeFaultOption(const std::vector<std::string>& words, size_t& i, Faults& faults,
                          std::string& error) {
  for (const Option& o : OPTIONS) {
    if (words[i] != o.flag) continue;
    if (!o.takesValue) {
      o.set(faults, 1);
      ++i;
      return FaultWord::TAKEN;
    }
    const std::string text = i + 1 < words.size() ? words[i + 1] : "";
    long long value = 0;
    std::string why;
    if (!tools::parseNumber(text, 0, o.max, value, why)) {
      error = tools::numberWanted(o.flag, 0, o.max, text);
      return FaultWord::BAD;
    }
    o.set(faults, value);
    i += 2;
    return FaultWord::TAKEN;
  }
  return FaultWord::NOT_A_FAULT;
}

bool parseFaults(const std::string& arguments, Faults& faults, std::string& error) {
  std::istringstream in(arguments);
  std::vector<std::string> words;
  for (std::string w; in >> w;) words.push_back(w);
  for (size_t i = 0; i < words.size();) {
    const FaultWord taken = takeFaultOption(words, i, faults, error);
    if (taken == FaultWord::NOT_A_FAULT) error = "not a fault option: " + words[i];
    if (taken != FaultWord::TAKEN) return false;
  }
  return true;
}

std::string faultUsage() {
  std::string usage;
  for (const Option& o : OPTIONS) {
    std::string flag = std::string("  ") + o.flag + (o.takesValue ? " N" : "");
    flag.resize(std::max<size_t>(flag.size() + 1, 28), ' ');
    usage += flag + o.help + "\n";
  }
  return usage;
}

const std::vector<FaultCase>& faultCases() {
  static const std::vector<FaultCase> cases = {
#define HALVARINE_FAULT_CASE(id, section, transport, outcome, arguments, fault, required, \
                             observed, test)                                              \
  {id, section, transport, outcome, arguments, fault, required, observed, test},
#include "tools/mmsserver/fault_table.inc"
  };
  return cases;
}

}  // namespace mmsserver
