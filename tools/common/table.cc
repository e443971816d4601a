#include "tools/common/table.h"

#include <sstream>

#include "tools/common/file.h"

namespace tools {

std::vector<TableRow> tableRows(const std::string& text) {
  std::vector<TableRow> rows;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.empty() || line[0] == '#') continue;
    TableRow row;
    for (size_t begin = 0, end = 0; end != std::string::npos; begin = end + 1) {
      end = line.find('\t', begin);
      row.push_back(line.substr(begin, end == std::string::npos ? end : end - begin));
    }
    rows.push_back(row);
  }
  return rows;
}

bool readTable(const std::string& path, std::vector<TableRow>& rows, std::string& error) {
  std::string text;
  if (!readWholeFile(path, text, error)) {
    error = "cannot read " + path;
    return false;
  }
  rows = tableRows(text);
  if (rows.empty()) error = "no rows in " + path;
  return !rows.empty();
}

}  // namespace tools
