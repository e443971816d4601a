// halvarine-fetch's parts without a worker, one row of parts.tsv each: the
// command line, and the URL as the worker will take it; and what the README
// and the manuals say against the tool and the worker. Recordings and exit
// statuses are checked end to end (fetch_test.cc).

#include <gtest/gtest.h>
#include <stdio.h>

#include <algorithm>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/support.h"
#include "tools/fetch/options.h"
#include "tools/fetch/outcome.h"
#include "tools/fetch/url.h"

namespace {

std::string parsedCommandLine(const std::string& words) {
  std::istringstream in(words);
  std::vector<std::string> args = {"halvarine-fetch"};
  args.insert(args.end(), std::istream_iterator<std::string>(in), {});
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(&a[0]);
  fetch::Options o;
  const fetch::Parsed status = fetch::parseOptions(static_cast<int>(argv.size()), argv.data(), o);
  std::ostringstream parsed;
  if (status != fetch::Parsed::RUN) {
    return std::to_string(fetch::exitStatus(
        {status == fetch::Parsed::ANSWERED ? fetch::Ending::COMPLETED : fetch::Ending::BAD_USAGE}));
  }
  parsed << o.url << " " << o.outPath << " v" << o.verbosity << " max" << o.maxBytes << " dur"
         << o.durationMs << " retry" << o.retries << "/" << o.retryDelayMs;
  // Several URLs: each one's file, how many at once, and what each run gets.
  if (o.urls.size() > 1) {
    for (const std::string& path : o.outPaths) parsed << " >" << path;
    parsed << " par" << o.parallel;
    for (const std::string& arg : o.streamArgs) parsed << " " << arg;
  }
  return parsed.str();
}

TEST(FetchParts, EachRowGivesWhatItSays) {
  for (std::vector<std::string> row : support::tableRows(HALVARINE_FETCH_PARTS)) {
    for (std::string& cell : row) cell = cell == "-" ? "" : cell;
    if (row.at(0) == "options") {
      EXPECT_EQ(row.at(2), parsedCommandLine(row[1])) << row[1];
    } else {
      const fetch::PreparedUrl p = fetch::prepareUrl(row.at(1), row.at(2), row.at(3));
      EXPECT_EQ(row.at(4), p.usable ? p.url : std::to_string(fetch::exitStatus({p.problem})))
          << row[1] << ": " << p.why;
    }
  }
}

}  // namespace

// ---- What the documents say about the tool and the worker

std::string sourceFile(const std::string& relative) {
  return support::readFile(std::string(HALVARINE_SOURCE_DIR) + "/" + relative);
}

// Code and meaning, one line each, "129 ended by SIGHUP (...)".
typedef std::vector<std::string> StatusTable;

StatusTable fromCode() {
  StatusTable table;
  for (const fetch::ExitStatusLine& line : fetch::exitStatusLines()) {
    table.push_back(std::to_string(line.code) + " " + line.meaning);
  }
  return table;
}

// "| 18 | the stream ... `--retry` |" rows after the table's head.
StatusTable fromReadme() {
  const std::string text = sourceFile("README.md");
  std::istringstream in(text.substr(std::min(text.find("| Exit status |"), text.size())));
  StatusTable table;
  std::string line;
  std::getline(in, line);
  std::getline(in, line);  // |---|---|
  while (std::getline(in, line) && line.compare(0, 2, "| ") == 0) {
    std::string row;
    for (char c : line.substr(2, line.size() - 4)) {
      if (c != '`') row += c;
    }
    table.push_back(row.replace(row.find(" | "), 3, " "));
  }
  return table;
}

// ".TP", ".B 18", then the meaning over lines, capitalised, with a period.
StatusTable fromManual() {
  const std::string text = sourceFile("man/halvarine-fetch.1");
  const size_t start = text.find(".SH EXIT STATUS");
  std::istringstream in(text.substr(start, text.find(".SH", start + 1) - start));
  StatusTable table;
  std::string line, previous;
  while (std::getline(in, line)) {
    if (previous == ".TP" && line.compare(0, 3, ".B ") == 0) {
      table.push_back(line.substr(3));
    } else if (!table.empty() && line[0] != '.') {
      table.back() += " " + line;
    }
    previous = line;
  }
  for (std::string& row : table) {
    for (size_t at; (at = row.find("\\-")) != std::string::npos;) row.erase(at, 1);
    const size_t meaning = row.find(' ') + 1;
    if (meaning < row.size()) row[meaning] = static_cast<char>(tolower(row[meaning]));
    if (!row.empty() && row.back() == '.') row.pop_back();
  }
  return table;
}

TEST(FetchDocs, EveryExitStatusTableIsTheToolsOwn) {
  const StatusTable code = fromCode();
  ASSERT_GE(code.size(), 10u);
  EXPECT_EQ(code, fromReadme()) << "README.md";
  EXPECT_EQ(code, fromManual()) << "man/halvarine-fetch.1";
}

TEST(FetchDocs, ManualsPointToEachOtherAndToWhatTheWorkerDoes) {
  const std::string fetchPage = sourceFile("man/halvarine-fetch.1");
  const std::string workerPage = sourceFile("man/halvarine.8");
  EXPECT_NE(std::string::npos, fetchPage.find(".SH SEE ALSO\n.BR halvarine (8)"))
      << "halvarine-fetch(1) names halvarine(8) first";

  // The SIGTERM notice as the worker writes it, quoted byte for byte.
  const std::string source = sourceFile("core/termination.cc");
  const size_t at = source.find("NOTICE[] = \"");
  ASSERT_NE(std::string::npos, at);
  std::string notice = source.substr(at + 12, source.find("\";", at) - at - 12);
  for (size_t nl; (nl = notice.find("\\n")) != std::string::npos;) notice.replace(nl, 2, "\n");
  const size_t sigterm = workerPage.find(".B SIGTERM\n");
  ASSERT_NE(std::string::npos, sigterm);
  std::string quoted = workerPage.substr(sigterm, 600);
  for (size_t sp; (sp = quoted.find("\\ ")) != std::string::npos;) quoted.erase(sp, 1);
  EXPECT_NE(std::string::npos,
            quoted.find(std::to_string(notice.size()) + " bytes: a line feed, the text\n.BR " +
                        notice.substr(1, notice.size() - 2) + " ,\nand a line feed"))
      << quoted;
  // Where the package puts the protocol guide (which packaging checks).
  EXPECT_NE(std::string::npos,
            workerPage.find("/usr/share/doc/libhalvarine\\-controller\\-dev/PROTOCOL.md.gz"));
}
