// How a fetch's ending becomes its exit status: every way of ending has
// the number scripts rely on, and --help's list has no number that no
// ending gives nor misses one that some ending gives.

#include "tools/fetch/outcome.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <set>
#include <string>
#include <vector>

#include "tools/fetch/options.h"

namespace {

using fetch::Ending;
using halvarine::ConnectFailure;
using halvarine::FetchStatus;

struct Row {
  Ending ending;
  int signal;
  int status;
  const char* what;
};

// The numbers as the README and the manual give them, written out rather
// than taken from the enum, so that a changed number shows here.
const std::vector<Row> ROWS = {
    {Ending::COMPLETED, 0, 0, "the whole stream"},
    {Ending::STOPPED_AS_ASKED, 0, 0, "--duration or --max-bytes"},
    {Ending::SIGNALED, SIGHUP, 129, "SIGHUP"},
    {Ending::SIGNALED, SIGINT, 130, "SIGINT"},
    {Ending::SIGNALED, SIGTERM, 143, "SIGTERM"},
    {Ending::UNSUPPORTED_URL, 0, 1, "ftp:// or an IPv6 address"},
    {Ending::BAD_USAGE, 0, 2, "the command line"},
    {Ending::CANNOT_START, 0, 2, "no signal handlers, no standard output"},
    {Ending::MALFORMED_URL, 0, 3, "no host, a bad port, a URL libmms refused"},
    {Ending::PROXY_UNRESOLVED, 0, 5, "the proxy's host"},
    {Ending::HOST_UNRESOLVED, 0, 6, "the host"},
    {Ending::CANNOT_CONNECT, 0, 7, "refused, unreachable, the proxy refused"},
    {Ending::NOT_MMS, 0, 8, "not an MMS server"},
    {Ending::HEADER_CUT_SHORT, 0, 8, "the stream ended inside its header"},
    {Ending::ENDED_EARLY, 0, 18, "before its announced length"},
    {Ending::NOT_RESUMABLE, 0, 18, "another stream when opened again"},
    {Ending::HTTP_ERROR, 0, 22, "HTTP 404"},
    {Ending::OUTPUT_FAILED, 0, 23, "the output"},
    {Ending::CONNECT_TIMED_OUT, 0, 28, "connecting"},
    {Ending::STALLED, 0, 28, "no data for --retry-max-time"},
    {Ending::NOTHING_RECORDED, 0, 28, "--duration before any data"},
    {Ending::REPLY_TIMED_OUT, 0, 28, "--reply-timeout"},
    {Ending::DEADLINE, 0, 28, "--timeout"},
    {Ending::CANNOT_CONTINUE, 0, 33, "--continue on another file"},
    {Ending::HEADER_READ_FAILED, 0, 56, "READ ERR in the header"},
    {Ending::READ_FAILED, 0, 56, "READ ERR"},
    {Ending::NO_SUCH_FILE, 0, 78, "the MMS server has no such file"},
    {Ending::CONTROLLER_TAKEN, 0, 120, "the shared socket taken"},
    {Ending::NO_WORKER, 0, 121, "no worker"},
    {Ending::WORKER_NOT_CONNECTED, 0, 122, "the worker did not connect"},
    {Ending::WORKER_FAILED, 0, 122, "the worker died"},
    {Ending::LIVE_LOST, 0, 123, "a live stream lost for good"},
};

TEST(FetchOutcome, EachEndingHasItsExitStatus) {
  for (const Row& row : ROWS) {
    EXPECT_EQ(row.status, fetch::exitStatus({row.ending, row.signal})) << row.what;
  }
}

TEST(FetchOutcome, HelpListsExactlyTheStatusesTheEndingsGive) {
  std::set<int> given, listed;
  for (const Row& row : ROWS) given.insert(fetch::exitStatus({row.ending, row.signal}));
  for (const fetch::ExitStatusLine& line : fetch::exitStatusLines()) listed.insert(line.code);
  EXPECT_EQ(listed, given);
}

// The failures no test server makes; the others are run end to end
// (runs.tsv).
TEST(FetchOutcome, FailedExchangesAndRefusedConnectsEndAsTheySay) {
  const struct {
    FetchStatus status;
    Ending ending;
  } exchanges[] = {
      {FetchStatus::REFUSED, Ending::READ_FAILED},
      {FetchStatus::DEADLINE, Ending::DEADLINE},
      {FetchStatus::BAD_REPLY, Ending::WORKER_FAILED},
  };
  for (const auto& e : exchanges) {
    EXPECT_EQ(e.ending, fetch::endingOf(e.status)) << halvarine::statusText(e.status);
  }

  const struct {
    ConnectFailure failure;
    bool viaProxy;
    int status;
  } connects[] = {
      {ConnectFailure::UNREACHABLE, false, 7}, {ConnectFailure::CONNECT_TIMED_OUT, false, 28},
      {ConnectFailure::NO_ANSWER, true, 28},   {ConnectFailure::URL_REFUSED, false, 3},
      {ConnectFailure::REFUSED, true, 7},      {ConnectFailure::UNKNOWN, false, 8},
  };
  for (const auto& c : connects) {
    EXPECT_EQ(c.status, fetch::exitStatus({fetch::endingOf(c.failure, c.viaProxy)}))
        << halvarine::connectFailureText(c.failure) << (c.viaProxy ? " via a proxy" : "");
  }
}

}  // namespace
