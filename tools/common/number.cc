#include "tools/common/number.h"

#include <errno.h>
#include <stdlib.h>

namespace tools {

bool parseNumber(const std::string& text, long long min, long long max, long long& value,
                 std::string& error) {
  const char* begin = text.c_str();
  char* end = nullptr;
  errno = 0;
  const long long n = strtoll(begin, &end, 10);
  // strtoll skips leading blanks and takes a sign; a word here is digits,
  // with a '-' only where the bounds allow one.
  const bool digitsOnly =
      text.find_first_not_of("0123456789", text[0] == '-' ? 1 : 0) == std::string::npos;
  if (text.empty() || end == begin || *end != '\0' || !digitsOnly || text == "-") {
    error = "not a number";
  } else if ((errno == ERANGE && n < 0) || n < min) {
    error = "too small";
  } else if (errno == ERANGE || n > max) {
    error = "too large";
  } else {
    value = n;
    return true;
  }
  return false;
}

std::string numberWanted(const std::string& option, long long min, long long max,
                         const std::string& text) {
  return option + " needs a number from " + std::to_string(min) + " to " + std::to_string(max) +
         (text.empty() ? std::string() : ", not " + text);
}

}  // namespace tools
