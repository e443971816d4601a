// Which worker halvarine-fetch starts: the order of the places it looks,
// on real files. What it says about one it cannot start is run end to end
// (runs.tsv).

#include "tools/fetch/worker.h"

#include <gtest/gtest.h>
#include <halvarine/controller.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <string>

#include "tests/support/support.h"

namespace {

// An environment variable as it was before the test, restored after it.
struct Saved {
  explicit Saved(const char* n) : name(n), set(getenv(n) != nullptr), value(set ? getenv(n) : "") {}
  ~Saved() { set ? setenv(name, value.c_str(), 1) : unsetenv(name); }
  const char* name;
  bool set;
  std::string value;
};

TEST(FetchWorker, NamedThenEnvironmentThenInstalled) {
  const Saved path("PATH"), worker("HALVARINE_WORKER");
  support::TempDir dir;
  const std::string program = dir.file("my-worker");
  ASSERT_TRUE(support::writeFile(program, "#!/bin/sh\n"));
  chmod(program.c_str(), 0755);
  setenv("PATH", dir.path().c_str(), 1);
  setenv("HALVARINE_WORKER", "/opt/from-environment", 1);

  // --worker wins; a bare name is looked up on PATH (or kept for the error,
  // run end to end).
  EXPECT_EQ("/x/halvarine", fetch::findWorker("/x/halvarine"));
  EXPECT_EQ(program, fetch::findWorker("my-worker"));
  // Then the environment.
  EXPECT_EQ("/opt/from-environment", fetch::findWorker(""));
  // Then, with nothing beside this test program, the installed one.
  unsetenv("HALVARINE_WORKER");
  EXPECT_EQ(halvarine::defaultWorkerPath(), fetch::findWorker(""));
}

}  // namespace
