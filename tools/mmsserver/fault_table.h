#ifndef HALVARINE_TOOLS_MMSSERVER_FAULT_TABLE_H
#define HALVARINE_TOOLS_MMSSERVER_FAULT_TABLE_H

// The test servers' faults as tools/mmsserver/faults.tsv describes them:
// its option rows make the Faults struct and the command-line options, its
// case rows the fault matrix. The table says what each fault does.

#include <stdint.h>

#include <string>
#include <vector>

namespace mmsserver {

// What a server does wrong: one field per option row, with its default
// (-1 or 0 for "not at all").
struct Faults {
#define HALVARINE_FAULT_OPTION(flag, field, type, init, max, help) type field = init;
#include "tools/mmsserver/fault_table.inc"
};

// Takes the fault option at words[i] (and its value, if it has one) into
// `faults` and moves `i` past it. NOT_A_FAULT leaves everything as it was;
// BAD sets `error` to a line for people.
enum class FaultWord { TAKEN, NOT_A_FAULT, BAD };
FaultWord takeFaultOption(const std::vector<std::string>& words, size_t& i, Faults& faults,
                          std::string& error);
// All of `arguments`, words separated by spaces, as a case row has them.
bool parseFaults(const std::string& arguments, Faults& faults, std::string& error);
// One usage line per fault option.
std::string faultUsage();

// One case row of the fault matrix: the test that runs it and the document
// read its columns by these names.
struct FaultCase {
  std::string id;         // test name, without the transport's suffix
  std::string section;    // media, controller, hazard
  std::string transport;  // mmst, mmsh, both, "-"
  std::string outcome;    // the kind of outcome required
  std::string arguments;  // the server's fault options
  std::string fault, required, observed;
  std::string test;  // the test that checks a covered row
};
const std::vector<FaultCase>& faultCases();

}  // namespace mmsserver

#endif
