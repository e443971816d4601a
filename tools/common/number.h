#ifndef HALVARINE_TOOLS_COMMON_NUMBER_H
#define HALVARINE_TOOLS_COMMON_NUMBER_H

// Numbers on the command lines of the tools around the worker, read one way:
// the whole word a decimal integer within its bounds, or a line for people
// saying why not. atoi's silent 0 for "abc" and strtol's ignored tails are
// what this replaces.

#include <string>

namespace tools {

// The word `text` as a number from `min` to `max`: true and `value` set, or
// false with `error` one of "not a number", "too small", "too large"
// (strtonum's words), `value` untouched.
bool parseNumber(const std::string& text, long long min, long long max, long long& value,
                 std::string& error);

// A line for people about option `option` whose value `text` was refused:
// "--port needs a number from 0 to 65535, not abc".
std::string numberWanted(const std::string& option, long long min, long long max,
                         const std::string& text);

}  // namespace tools

#endif
