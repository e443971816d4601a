// halvarine-fetch's parts without a worker: the command line and the URL as
// the worker will take it. Recordings and exit statuses are checked end to
// end (fetch_test.cc).

#include <gtest/gtest.h>

#include <iterator>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "tools/fetch/options.h"
#include "tools/fetch/url.h"

namespace {

TEST(FetchParts, CommandLine) {
  // The arguments; the fields that matter, or the status of a usage error.
  const std::vector<std::pair<std::string, std::string>> rows = {
      {"-qv -oF -- -u", "-u F v2 max-1 dur0 retry5/1000"},
      {"u --max-bytes 10k --duration=0.5 --retry-delay=2h", "u  v1 max10240 dur500 retry5/7200000"},
      {"--max-bytes=1.5M --duration 1.5m u --retry 0", "u  v1 max1572864 dur90000 retry0/1000"},
      {"u --duration 5x", "2"},
      {"u --keep-alive 60", "2"},
      {"u -z", "2"},
      {"", "2"},
      {"a b", "2"}};
  for (const auto& row : rows) {
    std::istringstream words(row.first);
    std::vector<std::string> args = {"halvarine-fetch"};
    args.insert(args.end(), std::istream_iterator<std::string>(words), {});
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(&a[0]);
    fetch::Options o;
    std::ostringstream parsed;
    const int status = fetch::parseOptions(static_cast<int>(argv.size()), argv.data(), o);
    if (status != -1) {
      parsed << status;
    } else {
      parsed << o.url << " " << o.outPath << " v" << o.verbosity << " max" << o.maxBytes << " dur"
             << o.durationMs << " retry" << o.retries << "/" << o.retryDelayMs;
    }
    EXPECT_EQ(row.second, parsed.str()) << row.first;
  }
}

TEST(FetchParts, UrlAsTheWorkerTakesIt) {
  // The URL, http_proxy, no_proxy; what CONNECT sends, or the exit status.
  const std::vector<std::tuple<const char*, const char*, const char*, const char*>> rows = {
      {"MMSH://Host:8080/a", "", "", "mmsh://Host:8080/a"},
      {"ftp://h/x", "", "", "1"},
      {"mms://[::1]:1755/x", "", "", "1"},
      {"mms://h:65536/x", "", "", "3"},
      {"h/x", "", "", "3"},
      {"/mmsh://h/x", "", "", "3"},
      {"http://p:3128/mmst://h/x", "", "", "1"},
      {"mms://h/x", "p:3128", "", "http://p:3128/mms://h/x"},
      {"mmst://h/x", "p:3128", "", "mmst://h/x"},
      {"mms://a.example.com/x", "http://p:3128/", "x.org, .example.com", "mms://a.example.com/x"},
      {"mms://example.com.evil/x", "p:3128", "example.com",
       "http://p:3128/mms://example.com.evil/x"},
      {"mms://h/x", "https://p", "", "3"}};
  for (const auto& row : rows) {
    const fetch::PreparedUrl p =
        fetch::prepareUrl(std::get<0>(row), std::get<1>(row), std::get<2>(row));
    EXPECT_EQ(std::get<3>(row), p.status >= 0 ? std::to_string(p.status) : p.url)
        << std::get<0>(row) << ": " << p.why;
  }
}

}  // namespace
