#ifndef HALVARINE_CONTROLLER_SPAWN_H
#define HALVARINE_CONTROLLER_SPAWN_H

// Starting a child process for ChildProcess: the program with its standard
// streams on the given descriptors, an empty signal mask and the default
// action for SIGPIPE, SIGINT and SIGTERM.

#include <halvarine/child_process.h>
#include <sys/types.h>

#include <string>
#include <vector>

namespace halvarine {

struct SpawnStreams {
  int in = -1;
  int out = -1;  // -1: inherited
  int err = -1;
};

struct Spawned {
  pid_t pid = -1;  // -1: not started, `failure` and `error` say why
  ChildProcess::StartFailure failure = ChildProcess::StartFailure::NONE;
  std::string error;
};

// Runs argv[0], found on PATH unless it holds a '/', with the environment
// `env` ("NAME=value" each, complete). A non-empty `privateTmp` is mounted
// over the child's /tmp (ChildProcess::Options::privateTmp).
Spawned spawnChild(const std::vector<std::string>& argv, const std::vector<std::string>& env,
                   const SpawnStreams& streams, const std::string& privateTmp);

// The process's environment with `extra` ("NAME=value" each) added, an
// inherited NAME replaced.
std::vector<std::string> childEnvironment(const std::vector<std::string>& extra);

}  // namespace halvarine

#endif
