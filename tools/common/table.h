#ifndef HALVARINE_TOOLS_COMMON_TABLE_H
#define HALVARINE_TOOLS_COMMON_TABLE_H

// The tab-separated tables that tests and test servers keep their cases in:
// one row a line, its cells separated by tabs; empty lines and lines that
// start with '#' are not rows.

#include <string>
#include <vector>

namespace tools {

using TableRow = std::vector<std::string>;

// The rows of `text`, each cut at its tabs (an empty cell stays one).
std::vector<TableRow> tableRows(const std::string& text);

// The rows of the file at `path`; false with `error` set when it cannot be
// read or holds no row.
bool readTable(const std::string& path, std::vector<TableRow>& rows, std::string& error);

}  // namespace tools

#endif
