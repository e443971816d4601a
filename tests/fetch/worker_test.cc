// Which worker halvarine-fetch starts, and what it says about one it
// cannot start: the order of the places it looks, on real files.

#include "tools/fetch/worker.h"

#include <gtest/gtest.h>
#include <halvarine/controller.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <string>
#include <utility>

#include "tests/support/support.h"

namespace {

// HALVARINE_WORKER and PATH as a case sets them ("": unset), restored after it.
class Environment {
 public:
  Environment() {
    for (auto& [name, value] : saved_) value = getenv(name) != nullptr ? getenv(name) : "";
  }
  ~Environment() {
    for (const auto& [name, value] : saved_) put(name, value);
  }
  static void put(const char* name, const std::string& value) {
    value.empty() ? unsetenv(name) : setenv(name, value.c_str(), 1);
  }

 private:
  std::pair<const char*, std::string> saved_[2] = {{"HALVARINE_WORKER", ""}, {"PATH", ""}};
};

TEST(FetchWorker, NamedThenEnvironmentThenInstalled) {
  Environment saved;
  support::TempDir dir;
  const std::string program = dir.file("my-worker");
  ASSERT_TRUE(support::writeFile(program, "#!/bin/sh\n"));
  chmod(program.c_str(), 0755);
  Environment::put("PATH", dir.path());
  Environment::put("HALVARINE_WORKER", "/opt/from-environment");

  // --worker wins; a bare name is looked up on PATH, or kept for the error.
  EXPECT_EQ("/x/halvarine", fetch::findWorker("/x/halvarine"));
  EXPECT_EQ(program, fetch::findWorker("my-worker"));
  EXPECT_EQ("no-such-worker", fetch::findWorker("no-such-worker"));
  // Then the environment.
  EXPECT_EQ("/opt/from-environment", fetch::findWorker(""));
  // Then, with nothing beside this test program, the installed one.
  Environment::put("HALVARINE_WORKER", "");
  EXPECT_EQ(halvarine::defaultWorkerPath(), fetch::findWorker(""));
}

TEST(FetchWorker, SaysWhyAWorkerCannotRun) {
  support::TempDir dir;
  const std::string plain = dir.file("plain");
  ASSERT_TRUE(support::writeFile(plain, "#!/bin/sh\n"));
  chmod(plain.c_str(), 0644);
  const std::string runnable = dir.file("runnable");
  ASSERT_TRUE(support::writeFile(runnable, "#!/bin/sh\n"));
  chmod(runnable.c_str(), 0755);

  const struct {
    std::string path, problem;
  } rows[] = {
      {runnable, ""},
      {"halvarine", "no worker halvarine on PATH"},
      {dir.file("missing"), "worker binary " + dir.file("missing") + ": No such file or directory"},
      {dir.path(), "worker binary " + dir.path() + " is not a file"},
  };
  for (const auto& row : rows) EXPECT_EQ(row.problem, halvarine::workerProblem(row.path));
  // Root may execute nothing without an execute bit either.
  EXPECT_EQ("worker binary " + plain + " is not executable", halvarine::workerProblem(plain));
}

}  // namespace
