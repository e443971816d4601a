// The contenders: the worker through the controller library, libmms-fetch
// and ffmpeg; and a session of command round trips.

#include <halvarine/controller.h>
#include <stdio.h>

#include <algorithm>

#include "base/proc_status.h"
#include "bench/bench.h"

namespace bench {

using halvarine::monotonicMs;
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
  const int64_t giveUp = monotonicMs() + CONTROLLER_TAKEN_WAIT_MS;
  while (!session.start(so)) {
    if (session.startFailure() != WorkerSession::StartFailure::SOCKET_TAKEN ||
        monotonicMs() > giveUp) {
      error = "worker session: " + session.error();
      return false;
    }
    halvarine::sleepUntil(monotonicMs() + 1000);
  }
  return true;
}

// PEND, then the worker's exit with status 0.
bool endSession(WorkerSession& session, halvarine::RequestPipeline* pipeline, std::string& error) {
  const WorkerSession::Finished f = session.finish(pipeline, {true, 30000, EXIT_TIMEOUT_MS, 2000});
  if (f.pendAnswered && f.status.exited && f.status.code == 0) return true;
  error = "worker ended with " + f.status.toString() +
          (f.pendAnswered ? "" : " (PEND was not answered)");
  return false;
}

// Seconds since `startMs`, one millisecond at least: a rate never divides
// by 0.
double secondsSince(int64_t startMs) {
  return static_cast<double>(std::max<int64_t>(monotonicMs() - startMs, 1)) / 1e3;
}

}  // namespace

bool runProgram(const std::vector<std::string>& argv, std::string& error, double* seconds,
                std::vector<std::string>* lines) {
  const int64_t started = monotonicMs();
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

  const int64_t started = monotonicMs();
  halvarine::Reply reply;
  const bool answered = pipeline.call(halvarine::WORD_CONNECT, {url}, reply);
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
  if (r.status != halvarine::FetchStatus::DONE || !r.endOfStream) {
    error = std::string("READ loop: ") + halvarine::statusText(r.status) + " " + r.error;
    return false;
  }
  out.bytes = r.bytes;
  out.peakRssKiB = procStatusKb(session.worker().pid(), "VmHWM");
  return endSession(session, &pipeline, error);
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

bool ccheckSession(const std::string& worker, const std::vector<std::string>& env, int calls,
                   double& startSeconds, double& callSeconds, std::string& error) {
  WorkerSession session;
  int64_t started = monotonicMs();
  if (!startSession(session, worker, env, {}, error)) return false;
  startSeconds = static_cast<double>(monotonicMs() - started) / 1e3;
  halvarine::Reply reply;
  started = monotonicMs();
  for (int i = 0; i < calls; ++i) {
    const unsigned char echo = static_cast<unsigned char>(1 + i % 255);
    if (!session.call(halvarine::Request::command(halvarine::WORD_CCHECK, echo), 5000, reply)) {
      error = "CCHECK: " + session.error();
      return false;
    }
  }
  callSeconds = secondsSince(started) / std::max(calls, 1);
  return endSession(session, nullptr, error);
}

}  // namespace bench
