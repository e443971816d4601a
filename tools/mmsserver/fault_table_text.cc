// The fault table as C++ and as Markdown.

#include "tools/mmsserver/fault_table_text.h"

#include <string.h>

#include <algorithm>
#include <cctype>
#include <map>
#include <set>
#include <sstream>

namespace mmsserver {

namespace {

const char BEGIN_MARK[] =
    "<!-- fault-table: begin (written by scripts/fault-table.sh from tools/mmsserver/faults.tsv) "
    "-->";
const char END_MARK[] = "<!-- fault-table: end -->";

const size_t OPTION_CELLS = 7;
const size_t CASE_CELLS = 11;
// Case row cells.
enum { ID = 1, SECTION, TRANSPORT, OUTCOME, ARGUMENTS, FAULT, REQUIRED, OBSERVED, TEST, HAZARD };

bool oneOf(const std::string& word, std::initializer_list<const char*> words) {
  return std::any_of(words.begin(), words.end(), [&](const char* w) { return word == w; });
}

// Letters and digits, and what else `extra` allows; not empty.
bool wordOf(const std::string& s, const char* extra) {
  return !s.empty() && std::all_of(s.begin(), s.end(), [&](char c) {
    return isalnum(static_cast<unsigned char>(c)) || strchr(extra, c) != nullptr;
  });
}

// Why an option row is bad; empty when it is not.
std::string badOption(const tools::TableRow& r, std::set<std::string>& flags) {
  if (r.size() != OPTION_CELLS) return "an option row has 7 columns";
  if (!oneOf(r[3], {"bool", "int", "int64"})) return "type " + r[3] + " is not bool, int or int64";
  const bool lowerFlag = r[1].compare(0, 2, "--") == 0 && wordOf(r[1].substr(2), "-") &&
                         std::none_of(r[1].begin(), r[1].end(), ::isupper);
  if (!lowerFlag || !wordOf(r[2], "")) return "bad flag or field";
  if (!flags.insert(r[1]).second) return "flag " + r[1] + " twice";
  return "";
}

std::string badCase(const tools::TableRow& r, std::set<std::string>& ids) {
  if (r.size() != CASE_CELLS) return "a case row has 11 columns";
  if (!oneOf(r[TRANSPORT], {"mmst", "mmsh", "both", "-"})) return "transport " + r[TRANSPORT];
  if (!oneOf(r[SECTION], {"media", "controller", "hazard"})) return "section " + r[SECTION];
  if (!oneOf(r[OUTCOME],
             {"open-fails", "waits-whole", "short-read", "garbage", "long-url", "nul-in-url",
              "dies", "dies-sigprof", "continues", "mutated", "covered", "untested"}))
    return "outcome kind " + r[OUTCOME];
  if ((r[OUTCOME] == "covered") != !r[TEST].empty())
    return "a covered row, and only one, names its test";
  if (!ids.insert(r[ID] + "/" + r[TRANSPORT]).second)
    return "id " + r[ID] + " twice for one transport";
  return "";
}

// A C++ string literal.
std::string literal(const std::string& s) {
  std::string out = "\"";
  for (char c : s) {
    if (c == '\\' || c == '"') out += '\\';
    out += c;
  }
  return out + "\"";
}

// A Markdown table cell.
std::string cell(const std::string& s) {
  std::string out;
  for (char c : s) {
    if (c == '|') out += '\\';
    out += c;
  }
  return out;
}

std::string upper(std::string s) {
  for (char& c : s) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
  return s;
}

// The tests that run a row: one per transport, or one without a suffix.
std::string testNames(const std::string& id, const std::string& transport) {
  if (transport == "both") return "`" + id + "Mmst`, `" + id + "Mmsh`";
  if (transport == "-") return "`" + id + "`";
  return "`" + id + (transport == "mmst" ? "Mmst" : "Mmsh") + "`";
}

std::string tableRow(const tools::TableRow& r) {
  const std::string& t = r[TRANSPORT];
  const std::string where = t == "both" ? "MMST, MMSH" : t == "-" ? "" : upper(t);
  std::string extra = r[ARGUMENTS].empty() ? "" : "`" + r[ARGUMENTS] + "`";
  if (!where.empty()) extra += (extra.empty() ? "" : "; ") + where;
  const std::string fault = cell(r[FAULT]) + (extra.empty() ? "" : " (" + extra + ")");
  const std::string test = r[OUTCOME] == "covered"    ? r[TEST]
                           : r[OUTCOME] == "untested" ? "—"
                                                      : testNames(r[ID], t);
  std::string row = "| " + fault + " | " + cell(r[REQUIRED]) + " | " + cell(r[OBSERVED]) + " | " +
                    cell(test) + " |";
  if (r[SECTION] == "hazard") row = "| " + cell(r[HAZARD]) + " " + row;
  return row + "\n";
}

std::string markdown(const std::vector<tools::TableRow>& rows) {
  std::map<std::string, std::string> body;
  for (const tools::TableRow& r : rows)
    if (r[0] == "case") body[r[SECTION]] += tableRow(r);
  const std::string head = "| Fault | Required outcome | Observed | Test |\n|---|---|---|---|\n";
  return "### Media servers\n\n" + head + body["media"] + "\n### The controller\n\n" + head +
         body["controller"] + "\n### libmms 0.6.4 hazards\n\n" +
         "| Hazard (where in libmms) | Server fault | Required outcome | Observed | Test |\n" +
         "|---|---|---|---|---|\n" + body["hazard"];
}

}  // namespace

bool checkFaultRows(const std::vector<tools::TableRow>& rows, std::string& error) {
  std::set<std::string> flags, ids;
  for (size_t i = 0; i < rows.size(); ++i) {
    const tools::TableRow& r = rows[i];
    const std::string why = r[0] == "option" ? badOption(r, flags)
                            : r[0] == "case" ? badCase(r, ids)
                                             : "a row is an option or a case";
    if (!why.empty()) {
      error = "row " + std::to_string(i + 1) + (r.size() > 1 ? " (" + r[1] + ")" : "") + ": " + why;
      return false;
    }
  }
  return true;
}

std::string faultTableCode(const std::vector<tools::TableRow>& rows) {
  std::string out =
      "// Written by scripts/fault-table.sh from tools/mmsserver/faults.tsv; do not edit.\n"
      "#ifndef HALVARINE_FAULT_OPTION\n"
      "#define HALVARINE_FAULT_OPTION(flag, field, type, init, max, help)\n"
      "#endif\n"
      "#ifndef HALVARINE_FAULT_CASE\n"
      "#define HALVARINE_FAULT_CASE(id, section, transport, outcome, arguments, fault, required, "
      "observed, test)\n"
      "#endif\n";
  for (const tools::TableRow& r : rows) {
    if (r[0] == "option") {
      out += "HALVARINE_FAULT_OPTION(" + literal(r[1]) + ", " + r[2] + ", " +
             (r[3] == "int64" ? "int64_t" : r[3]) + ", " + r[4] + ", " +
             (r[5].empty() ? "INT64_MAX" : r[5]) + ", " + literal(r[6]) + ")\n";
    } else {
      out += "HALVARINE_FAULT_CASE(";
      for (size_t c = ID; c <= TEST; ++c) out += literal(r[c]) + (c == TEST ? ")\n" : ", ");
    }
  }
  return out + "#undef HALVARINE_FAULT_OPTION\n#undef HALVARINE_FAULT_CASE\n";
}

bool withFaultTables(const std::string& document, const std::vector<tools::TableRow>& rows,
                     std::string& out, std::string& error) {
  std::vector<std::string> lines;
  std::istringstream in(document);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  if (std::count(lines.begin(), lines.end(), BEGIN_MARK) == 0 ||
      std::count(lines.begin(), lines.end(), END_MARK) == 0) {
    error = "no fault-table markers";
    return false;
  }
  std::string tables = markdown(rows);
  while (!tables.empty() && tables.back() == '\n') tables.pop_back();
  out.clear();
  bool inside = false;  // between the markers: the old tables, dropped
  for (const std::string& line : lines) {
    if (line == BEGIN_MARK) {
      out += line + "\n\n" + tables + "\n\n";
      inside = true;
      continue;
    }
    if (line == END_MARK) inside = false;
    if (!inside) out += line + "\n";
  }
  return true;
}

}  // namespace mmsserver
