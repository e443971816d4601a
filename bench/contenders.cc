// The contenders: the worker through the controller library, libmms-fetch,
// ffmpeg, and the raw socket peer that bounds a command's round trip; and
// how their system calls and CPU time are counted.

#include <errno.h>
#include <fcntl.h>
#include <halvarine/controller.h>
#include <sched.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include "base/clock.h"
#include "base/proc_status.h"
#include "base/wait.h"
#include "bench/bench.h"
#include "channel/packet.h"
#include "channel/protocol.h"

namespace bench {

using halvarine::ExitStatus;
using halvarine::FetchStatus;
using halvarine::UniqueFd;
using halvarine::WorkerSession;

double Samples::quantile(double q) const {
  if (values.empty()) return 0;
  std::vector<double> v = values;
  std::sort(v.begin(), v.end());
  const double at = q * static_cast<double>(v.size() - 1);
  const size_t below = static_cast<size_t>(at), above = std::min(below + 1, v.size() - 1);
  return v[below] + (at - static_cast<double>(below)) * (v[above] - v[below]);
}

namespace {

const int ACCEPT_TIMEOUT_MS = 60000;          // a worker under valgrind starts slowly
const int CONTROLLER_TAKEN_WAIT_MS = 120000;  // another run holding the socket
const int EXIT_TIMEOUT_MS = 600000;

// Starts a session, waiting while another controller holds the socket.
bool startSession(WorkerSession& session, const std::string& worker,
                  const std::vector<std::string>& env, const Launcher& launcher,
                  std::string& error) {
  WorkerSession::Options so;
  so.worker = worker;
  so.env = env;
  so.launcher = launcher;
  so.acceptTimeoutMs = ACCEPT_TIMEOUT_MS;
  const int64_t giveUp = nowMs() + CONTROLLER_TAKEN_WAIT_MS;
  while (!session.start(so)) {
    if (session.startFailure() != WorkerSession::StartFailure::SOCKET_TAKEN || nowMs() > giveUp) {
      error = "worker session: " + session.error();
      return false;
    }
    sleep(1);
  }
  return true;
}

// PEND, then the worker's exit with status 0.
bool endSession(WorkerSession& session, std::string& error) {
  halvarine::RequestPipeline pipeline(session.connection(), halvarine::PipelineOptions());
  ExitStatus st;
  if (!pipeline.finish(30000)) {
    error = "PEND: " + pipeline.error();
  } else if (!session.worker().waitExit(EXIT_TIMEOUT_MS, st)) {
    error = "worker exit: " + session.worker().error();
  } else if (!st.exited || st.code != 0) {
    error = "worker ended with " + st.toString();
  } else {
    return true;
  }
  return false;
}

}  // namespace

bool runProgram(const std::vector<std::string>& argv, std::string& error, double* seconds,
                std::vector<std::string>* lines) {
  const int64_t started = nowMs();
  const halvarine::ProgramRun run = halvarine::runProgram(argv, EXIT_TIMEOUT_MS);
  if (seconds != nullptr) *seconds = secondsSince(started);
  if (lines != nullptr) *lines = halvarine::splitLines(run.output);
  if (run.succeeded()) return true;
  error = argv[0] + (run.ended ? " ended with " + run.status.toString() : ": did not end");
  for (const std::string& l : halvarine::splitLines(run.output)) error += "\n  " + l;
  return false;
}

bool fetchThroughWorker(const std::string& worker, const std::string& url, int count, int window,
                        const Launcher& launcher, FetchRun& out, std::string& error) {
  WorkerSession session;
  if (!startSession(session, worker, {}, launcher, error)) return false;
  halvarine::PipelineOptions po;
  po.replyTimeoutMs = launcher.empty() ? 30000 : 300000;
  halvarine::RequestPipeline pipeline(session.connection(), po);

  const int64_t started = nowMs();
  halvarine::Reply reply;
  const bool answered = pipeline.call(halvarine::WORD_CONNECT, {url}, reply) == FetchStatus::DONE;
  if (!answered || reply.status() != halvarine::STATUS_OK) {
    error = "CONNECT " + (answered ? "answered " + reply.status() : pipeline.error()) +
            "; worker: " + session.worker().output();
    return false;
  }
  halvarine::StreamFetchOptions fo;
  fo.count = count;
  fo.window = window;
  const halvarine::StreamFetchResult r = halvarine::fetchStream(pipeline, fo, -1);
  out.seconds = secondsSince(started);
  if (r.status != FetchStatus::DONE || !r.endOfStream) {
    error = std::string("READ loop: ") + halvarine::statusText(r.status) + " " + r.error;
    return false;
  }
  out.bytes = r.bytes;
  out.peakRssKiB = procStatusKb(session.worker().pid(), "VmHWM");
  return endSession(session, error);
}

bool fetchWithLibmms(const Programs& programs, const std::string& url, int count,
                     const Launcher& launcher, FetchRun& out, std::string& error) {
  std::vector<std::string> argv = launcher;
  argv.insert(argv.end(), {programs.libmmsFetch, url, "/dev/null", "--read-size",
                           std::to_string(count), "--stats"});
  std::vector<std::string> lines;
  if (!runProgram(argv, error, nullptr, &lines)) return false;
  for (const std::string& l : lines) {
    unsigned long long bytes = 0;
    if (sscanf(l.c_str(), "stats bytes %llu elapsed %lf peak-rss %ld", &bytes, &out.seconds,
               &out.peakRssKiB) == 3) {
      out.bytes = bytes;
      return true;
    }
  }
  error = "libmms-fetch printed no stats line";
  return false;
}

bool fetchWithFfmpeg(const std::string& url, FetchRun& out, std::string& error) {
  return runProgram({"ffmpeg", "-nostdin", "-hide_banner", "-loglevel", "error", "-y", "-i", url,
                     "-map", "0", "-c", "copy", "-f", "asf", "/dev/null"},
                    error, &out.seconds);
}

// ---- Command round trip

namespace {

const int PEER_WAIT_S = 60;  // as long as the worker waits for a request

}  // namespace

int serveRawPeer() {
  UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address;
  memset(&address, 0, sizeof address);
  address.sun_family = AF_UNIX;
  strncpy(address.sun_path, CONTROLLER_SOCKET_PATH, sizeof address.sun_path - 1);
  if (!fd.valid() ||
      connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    perror("raw peer: connect");
    return 1;
  }
  std::string received;
  Packet request, reply;
  ParamList fields;
  char chunk[4096];
  for (;;) {
    while (extractPacket(received, request) != RESULT_OK) {
      if (waitFd(fd.get(), WAIT_READABLE, PEER_WAIT_S) != WAIT_READY) return 1;
      const ssize_t n = read(fd.get(), chunk, sizeof chunk);
      if (n <= 0) return 1;
      received.append(chunk, static_cast<size_t>(n));
    }
    if (parsePacket(request, fields) != RESULT_OK || fields.size() < 2 ||
        makePacket({fields[0], fields[1], STATUS_OK}, reply) != RESULT_OK) {
      return 1;
    }
    for (size_t sent = 0; sent < reply.size();) {
      if (waitFd(fd.get(), WAIT_WRITABLE, PEER_WAIT_S) != WAIT_READY) return 1;
      const ssize_t n = write(fd.get(), reply.data() + sent, reply.size() - sent);
      if (n <= 0) return 1;
      sent += static_cast<size_t>(n);
    }
    if (fields[1] == WORD_PEND) return 0;
  }
}

bool ccheckSession(const std::string& worker, const std::vector<std::string>& env, int calls,
                   double& startSeconds, double& callSeconds, std::string& error) {
  WorkerSession session;
  int64_t started = nowMs();
  if (!startSession(session, worker, env, {}, error)) return false;
  startSeconds = static_cast<double>(msSince(started)) / 1e3;
  halvarine::Reply reply;
  started = nowMs();
  for (int i = 0; i < calls; ++i) {
    const unsigned char echo = static_cast<unsigned char>(1 + i % 255);
    if (!session.call(halvarine::Request::command(halvarine::WORD_CCHECK, echo), 5000, reply)) {
      error = "CCHECK: " + session.error();
      return false;
    }
  }
  callSeconds = secondsSince(started) / std::max(calls, 1);
  return endSession(session, error);
}

// ---- Counting

Launcher countingLauncher(const std::string& file) {
  return {"perf", "stat", "-x", ",",
          "-o",   file,   "-e", "raw_syscalls:sys_enter,task-clock,context-switches",
          "--"};
}

bool countingWorks(const std::string& file, std::string& error) {
  std::vector<std::string> argv = countingLauncher(file);
  argv.push_back("true");
  Counts counts;
  if (runProgram(argv, error) && readCounts(file, counts, error)) return true;
  error = "perf cannot count system calls here: " + error;
  return false;
}

bool readCounts(const std::string& file, Counts& out, std::string& error) {
  // perf's CSV form: value, unit (may be empty), event name, ...
  std::ifstream in(file);
  int found = 0;
  for (std::string line; std::getline(in, line);) {
    const size_t valueEnd = line.find(','), unitEnd = line.find(',', valueEnd + 1);
    if (unitEnd == std::string::npos) continue;
    const std::string name = line.substr(unitEnd + 1, line.find(',', unitEnd + 1) - unitEnd - 1);
    double* value = name == "raw_syscalls:sys_enter" ? &out.syscalls
                    : name == "task-clock"           ? &out.cpuMs
                    : name == "context-switches"     ? &out.switches
                                                     : nullptr;
    if (value != nullptr && sscanf(line.c_str(), "%lf", value) == 1) ++found;
  }
  if (found == 3) return true;
  error = "perf counted nothing into " + file;
  return false;
}

// ---- The private network

PrivateNetwork::~PrivateNetwork() {
  if (home_.valid()) setns(home_.get(), CLONE_NEWNET);
}

bool PrivateNetwork::enter(std::string& error) {
  UniqueFd home(open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC));
  if (!home.valid() || unshare(CLONE_NEWNET) != 0) {
    error = std::string("a network namespace of its own (root only): ") + strerror(errno);
    return false;
  }
  home_ = std::move(home);
  return runProgram({"ip", "link", "set", "lo", "up"}, error);
}

bool PrivateNetwork::shapeLoopback(const std::string& rate, std::string& error) {
  // The burst holds a few packets; the latency bounds the queue, which a
  // TCP window fills.
  return runProgram({"ip", "link", "set", "lo", "mtu", "1500"}, error) &&
         runProgram({"tc", "qdisc", "replace", "dev", "lo", "root", "tbf", "rate", rate, "burst",
                     "16kb", "latency", "100ms"},
                    error);
}

bool PrivateNetwork::fullSpeed(std::string& error) {
  std::string unused;
  runProgram({"tc", "qdisc", "del", "dev", "lo", "root"}, unused);  // fails when there is none
  return runProgram({"ip", "link", "set", "lo", "mtu", "65536"}, error);
}

}  // namespace bench
