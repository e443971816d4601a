// The mutating server against the real worker: one trial per seed, each a
// fresh worker asked to CONNECT, READ to the end, CLOSE and PEND, with every
// reply judged strictly by the controller library. Whatever the mutation
// does to the stream, a reply is well-formed and comes within the
// controller's time-outs, and the worker ends with status 0 after PEND,
// unless it dies as the hazard rows allow: its CPU budget (SIGPROF) or a
// fortified library call (SIGABRT). HALVARINE_MUTATION_TRIALS sets the
// seeds per transport (25).

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>

#include <iostream>
#include <map>
#include <string>

#include "tests/support/support.h"

using halvarine::FetchStatus;

namespace {

class Mutation : public ::testing::TestWithParam<support::FaultRow> {};

// What ended one trial: "PEND" or the signal that ended the worker; empty
// with a test failure for anything else.
std::string trial(const support::FaultRow& row, int64_t seed, uint64_t& replies) {
  ServerOptions options;
  options.transport = row.transport;
  options.faults = row.faults;
  options.faults.mutateSeed = seed;
  MmsTestServer server(support::sampleAsf(), options);
  std::string error;
  EXPECT_TRUE(server.start(error)) << error;
  halvarine::WorkerSession session;
  halvarine::WorkerSession::Options start;
  start.worker = support::workerPath();
  EXPECT_TRUE(session.start(start)) << session.error();
  halvarine::PipelineOptions timing;
  timing.replyTimeoutMs = 20000;  // past the worker's 7-second waits and its CPU budget
  timing.keepAliveMs = 0;
  timing.deadlineMs = halvarine::monotonicMs() + 60000;
  halvarine::RequestPipeline pipeline(session.connection(), timing);
  halvarine::Reply reply;
  FetchStatus status = pipeline.call("CONNECT", {server.url()}, reply);
  if (status == FetchStatus::DONE && reply.status() == "OK_") {
    const halvarine::UniqueFd sink(open("/dev/null", O_WRONLY | O_CLOEXEC));
    halvarine::StreamFetchOptions reads;  // READ counts that cut packets in various places
    reads.count = seed % 3 == 0 ? halvarine::maxReadCount() : seed % 3 == 1 ? 3000 : 700;
    const halvarine::StreamFetchResult read = fetchStream(pipeline, reads, sink.get());
    replies += read.reads + 1;
    status = read.status == FetchStatus::DONE ? pipeline.call("CLOSE", {}, reply) : read.status;
  }
  halvarine::ExitStatus how;
  if (status == FetchStatus::DONE || status == FetchStatus::REFUSED) {
    replies += 2;
    EXPECT_TRUE(pipeline.finish(5000)) << pipeline.error();
    EXPECT_TRUE(session.worker().waitExit(5000, how) && how.exited && how.code == 0)
        << how.toString();
    return "PEND";
  }
  EXPECT_EQ(FetchStatus::LOST, status) << pipeline.error();
  session.worker().waitExit(5000, how);
  EXPECT_TRUE(how.signaled && (how.signal == SIGPROF || how.signal == SIGABRT)) << how.toString();
  return how.signaled ? strsignal(how.signal) : "";
}

TEST_P(Mutation, RepliesStayWellFormedAndTheWorkerEndsAsAllowed) {
  const char* text = getenv("HALVARINE_MUTATION_TRIALS");
  const int trials = text != nullptr && atoi(text) > 0 ? atoi(text) : 25;
  unsetenv("http_proxy");
  std::map<std::string, int> ends;
  uint64_t replies = 0;
  const auto start = support::Clock::now();
  int64_t seed = 1;
  for (; seed <= trials && !HasFailure(); ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    ++ends[trial(GetParam(), seed, replies)];
  }
  std::cout << "[ observed ] " << GetParam().name << ": " << seed - 1 << " trials in "
            << support::secondsSince(start) << " s, " << replies << " replies, ends:";
  for (const auto& e : ends) std::cout << " " << e.first << " " << e.second;
  std::cout << std::endl;
}

INSTANTIATE_TEST_SUITE_P(Rows, Mutation, ::testing::ValuesIn(support::faultRows({"mutated"})),
                         support::FaultRowName());

}  // namespace
