#ifndef HALVARINE_TOOLS_COMMON_FILE_H
#define HALVARINE_TOOLS_COMMON_FILE_H

#include <string>

namespace tools {

// The whole file at `path` into `bytes`; false with `error` "cannot open
// PATH" or "cannot read PATH" when that fails.
bool readWholeFile(const std::string& path, std::string& bytes, std::string& error);

}  // namespace tools

#endif
