#include "tools/common/file.h"

#include <fstream>
#include <sstream>

namespace tools {

bool readWholeFile(const std::string& path, std::string& bytes, std::string& error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    error = "cannot open " + path;
    return false;
  }
  std::ostringstream text;
  text << in.rdbuf();
  if (in.bad()) {
    error = "cannot read " + path;
    return false;
  }
  bytes = text.str();
  return true;
}

}  // namespace tools
