// The mutating server against the real worker: one trial per seed, each a
// fresh worker asked to CONNECT, READ to the end with several READs in
// flight, CLOSE and PEND, every reply judged strictly by the controller
// library. Whatever the mutation does to the stream, a reply is well-formed
// and comes within the controller's time-outs, and the worker ends with
// status 0 after PEND, unless it dies as the hazard rows allow: its CPU
// budget (SIGPROF) or a fortified library call (SIGABRT).
// HALVARINE_MUTATION_TRIALS sets the seeds per transport (25).

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>

#include <iostream>
#include <map>
#include <string>

#include "tests/support/support.h"

using halvarine::FetchStatus;

namespace {

class Mutation : public ::testing::TestWithParam<support::FaultRow> {};

// How the worker of one trial ended.
std::string trial(const support::FaultRow& row, int64_t seed) {
  ServerOptions options;
  options.protocol = row.transport;
  options.faults = row.faults;
  options.faults.mutateSeed = seed;
  MmsTestServer server(support::sampleAsf(), options);
  halvarine::WorkerSession session;
  halvarine::WorkerSession::Options start;
  start.worker = support::workerPath();
  std::string error;
  EXPECT_TRUE(server.start(error) && session.start(start)) << error << session.error();
  halvarine::PipelineOptions timing;
  timing.replyTimeoutMs = 20000;  // past the worker's 7-second waits and its CPU budget
  timing.keepAliveMs = 0;
  timing.deadlineMs = halvarine::monotonicMs() + 60000;
  halvarine::RequestPipeline pipeline(session.connection(), timing);
  halvarine::Reply reply;
  FetchStatus status =
      pipeline.call("CONNECT", {server.url()}, reply) ? FetchStatus::DONE : pipeline.failure();
  if (status == FetchStatus::DONE && reply.status() == "OK_") {
    const halvarine::UniqueFd sink(open("/dev/null", O_WRONLY | O_CLOEXEC));
    halvarine::StreamFetchOptions reads;  // READ counts that cut packets in various places
    reads.count = seed % 3 == 0 ? halvarine::maxReadCount() : seed % 3 == 1 ? 3000 : 700;
    const FetchStatus read = fetchStream(pipeline, reads, sink.get()).status;
    if (read != FetchStatus::DONE) {
      status = read;
    } else if (!pipeline.call("CLOSE", {}, reply)) {
      status = pipeline.failure();
    }
  }
  const bool pend = status == FetchStatus::DONE || status == FetchStatus::REFUSED;
  EXPECT_TRUE(pend ? pipeline.finish(5000) : status == FetchStatus::LOST) << pipeline.error();
  halvarine::ExitStatus how;
  session.worker().waitExit(5000, how);
  EXPECT_TRUE(pend ? how.exited && how.code == 0
                   : how.signaled && (how.signal == SIGPROF || how.signal == SIGABRT))
      << how.toString();
  return how.toString();
}

TEST_P(Mutation, RepliesStayWellFormedAndTheWorkerEndsAsAllowed) {
  const char* text = getenv("HALVARINE_MUTATION_TRIALS");
  const int trials = text != nullptr && atoi(text) > 0 ? atoi(text) : 25;
  unsetenv("http_proxy");
  std::map<std::string, int> ends;
  const auto start = nowMs();
  for (int64_t seed = 1; seed <= trials && !HasFailure(); ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    ++ends[trial(GetParam(), seed)];
  }
  std::cout << "[ observed ] " << GetParam().name << ": " << secondsSince(start)
            << " s; how the workers ended, with counts:";
  for (const auto& e : ends) std::cout << " " << e.first << " " << e.second;
  std::cout << std::endl;
}

INSTANTIATE_TEST_SUITE_P(Rows, Mutation, ::testing::ValuesIn(support::faultRows({"mutated"})),
                         ::testing::PrintToStringParamName());

}  // namespace
