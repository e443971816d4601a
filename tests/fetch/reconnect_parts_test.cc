// The pieces halvarine-fetch decides a new connection with, alone: the
// retry plan's waits and bounds, and the check of bytes read again. What
// servers answer is run end to end (runs.tsv, server_answers_test.cc).

#include <gtest/gtest.h>

#include <string>

#include "tools/fetch/resume.h"
#include "tools/fetch/retry.h"

namespace {

using fetch::Drop;
using fetch::RetryPlan;

TEST(RetryPlan, WaitsDoubleUpToTheCapAndTheCountStartsAgainWithNewBytes) {
  RetryPlan plan(4, 1000, 3000, 0);
  plan.progressed(0);
  const int64_t expected[] = {1000, 2000, 3000, 3000};
  for (int i = 0; i < 4; ++i) {
    ASSERT_EQ(RetryPlan::State::WAITING, plan.dropped(Drop::ENDED_EARLY, 10));
    EXPECT_EQ(expected[i], plan.delayMs());
    EXPECT_EQ(i + 1, plan.retryNumber());
    plan.reopening();
    plan.reopened();
  }
  // Four in a row without a new byte: no fifth.
  EXPECT_EQ(RetryPlan::State::GAVE_UP, plan.dropped(Drop::ENDED_EARLY, 10));
  EXPECT_FALSE(plan.outOfTime());

  RetryPlan again(2, 500, 60000, 0);
  for (int round = 0; round < 5; ++round) {
    ASSERT_EQ(RetryPlan::State::WAITING, again.dropped(Drop::LIVE, round));
    EXPECT_EQ(500, again.delayMs()) << "round " << round;
    EXPECT_EQ("connection lost, retry 1 of 2", again.waitText());
    again.progressed(round);
  }
  EXPECT_EQ(5, again.retriesDone());
}

// A server that stalls at the same place on every connection brings
// nothing new: the time since the last new byte ends the retries, whatever
// --retry allows, before a retry that could not begin in time.
TEST(RetryPlan, NoNewByteForTheMaximumTimeEndsTheRetries) {
  RetryPlan plan(1000, 1000, 60000, 45000);
  plan.progressed(5000);
  int64_t now = 5000 + 28000;  // the worker's waits on a silent server
  ASSERT_EQ(RetryPlan::State::WAITING, plan.dropped(Drop::STALLED, now));
  EXPECT_EQ("stalled, retry 1 of 1000", plan.waitText());
  now += plan.delayMs() + 14000;
  // 2 s more would reach 45 s without a new byte.
  EXPECT_EQ(RetryPlan::State::GAVE_UP, plan.dropped(Drop::STALLED, now));
  EXPECT_TRUE(plan.outOfTime());
  EXPECT_EQ(Drop::STALLED, plan.lastDrop());
}

// What is written is several blocks long; the new connection says it
// again in pieces of another size.
TEST(ResumeCheck, OnlyTheBytesWrittenLetTheNewConnectionOnAndADifferenceStopsItsBlock) {
  const uint64_t block = fetch::ResumeCheck::BLOCK;
  std::string written;
  for (uint64_t i = 0; written.size() < 3 * block + 1000; ++i) written += std::to_string(i * 7);
  struct Case {
    const char* name;
    std::string reread;
    bool differs;
    uint64_t readBeforeStop;  // bytes taken before the check said stop
    bool confirmed;
  } cases[] = {
      {"the same", written, false, written.size(), true},
      {"other in the first block", std::string(written).replace(70, 1, "X"), true, block, false},
      {"other in the last bytes", std::string(written).replace(written.size() - 1, 1, "X"), true,
       written.size(), false},
      {"ends sooner", written.substr(0, 2 * block + 5), false, 2 * block + 5, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    fetch::ResumeCheck check;
    check.startPass(0);
    check.kept(written.substr(0, 12345));
    check.kept(written.substr(12345));
    check.startPass(written.size());
    uint64_t taken = 0;
    bool goOn = true;
    for (size_t at = 0; at < c.reread.size() && goOn; at += 10000) {
      const std::string piece = c.reread.substr(at, 10000);
      goOn = check.skipped(piece);
      taken += piece.size();
    }
    EXPECT_EQ(c.differs, !goOn);
    EXPECT_EQ(c.differs, check.differs());
    EXPECT_EQ(c.confirmed, check.confirmed());
    // Stopped within one read of the block's end that holds the difference.
    EXPECT_GE(taken, c.readBeforeStop);
    EXPECT_LT(taken, c.readBeforeStop + 10000);
  }
}

}  // namespace
