// halvarine-fetch's parts without a worker, one row of parts.tsv each: the
// command line, and the URL as the worker will take it. Recordings and exit
// statuses are checked end to end (fetch_test.cc).

#include <gtest/gtest.h>

#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/support.h"
#include "tools/fetch/options.h"
#include "tools/fetch/url.h"

namespace {

std::string parsedCommandLine(const std::string& words) {
  std::istringstream in(words);
  std::vector<std::string> args = {"halvarine-fetch"};
  args.insert(args.end(), std::istream_iterator<std::string>(in), {});
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(&a[0]);
  fetch::Options o;
  const int status = fetch::parseOptions(static_cast<int>(argv.size()), argv.data(), o);
  std::ostringstream parsed;
  if (status != -1) return std::to_string(status);
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
      EXPECT_EQ(row.at(4), p.status >= 0 ? std::to_string(p.status) : p.url)
          << row[1] << ": " << p.why;
    }
  }
}

}  // namespace
