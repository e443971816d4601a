// The contenders: the worker through the controller library, libmms-fetch,
// ffmpeg, and the raw socket peer that bounds a command's round trip.

#include <errno.h>
#include <fcntl.h>
#include <halvarine/controller.h>
#include <stdio.h>
#include <string.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <sstream>

#include "bench/bench.h"
#include "channel/packet.h"

namespace bench {

using halvarine::ChildProcess;
using halvarine::FetchStatus;
using halvarine::UniqueFd;
using halvarine::WorkerSession;

double nowSeconds() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

double Samples::median() const {
  if (values.empty()) return 0;
  std::vector<double> v = values;
  std::sort(v.begin(), v.end());
  const size_t m = v.size() / 2;
  return v.size() % 2 ? v[m] : (v[m - 1] + v[m]) / 2;
}

double Samples::min() const {
  return values.empty() ? 0 : *std::min_element(values.begin(), values.end());
}

double Samples::max() const {
  return values.empty() ? 0 : *std::max_element(values.begin(), values.end());
}

double Samples::spread() const {
  const double m = median();
  return m == 0 ? 0 : (max() - min()) / 2 / m;
}

namespace {

const int ACCEPT_TIMEOUT_S = 60;          // a worker under valgrind starts slowly
const int CONTROLLER_TAKEN_WAIT_S = 120;  // another run holding the socket
const int EXIT_TIMEOUT_S = 600;

// Standard output sent to /dev/null while it lives, so that children
// started meanwhile do not write into the benchmark's table.
class QuietStdout {
 public:
  QuietStdout() : saved_(dup(STDOUT_FILENO)) {
    fflush(stdout);
    UniqueFd null(open("/dev/null", O_WRONLY | O_CLOEXEC));
    if (saved_.valid() && null.valid()) dup2(null.get(), STDOUT_FILENO);
  }
  ~QuietStdout() {
    if (saved_.valid()) dup2(saved_.get(), STDOUT_FILENO);
  }
  QuietStdout(const QuietStdout&) = delete;
  QuietStdout& operator=(const QuietStdout&) = delete;

 private:
  UniqueFd saved_;
};

long peakRssOf(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(status, line)) {
    long kib = -1;
    if (sscanf(line.c_str(), "VmHWM: %ld kB", &kib) == 1) return kib;
  }
  return -1;
}

// Starts a session, waiting while another controller holds the socket.
bool startSession(WorkerSession& session, const Programs& programs, const Launcher& launcher,
                  std::string& error) {
  WorkerSession::Options so;
  so.worker = programs.worker;
  so.launcher = launcher;
  so.acceptTimeoutMs = ACCEPT_TIMEOUT_S * 1000;
  const double giveUp = nowSeconds() + CONTROLLER_TAKEN_WAIT_S;
  for (;;) {
    if (session.start(so)) return true;
    const bool taken = session.startFailure() == WorkerSession::StartFailure::SOCKET_TAKEN;
    if (!taken || nowSeconds() > giveUp) {
      error = "worker session: " + session.error();
      return false;
    }
    sleep(1);
  }
}

bool endSession(WorkerSession& session, halvarine::RequestPipeline& pipeline, std::string& error) {
  if (!pipeline.finish(30000)) {
    error = "PEND: " + pipeline.error();
    return false;
  }
  halvarine::ExitStatus st;
  if (!session.worker().waitExit(EXIT_TIMEOUT_S * 1000, st)) {
    error = "worker exit: " + session.worker().error();
    return false;
  }
  if (!st.exited || st.code != 0) {
    error = "worker ended with " + st.toString();
    return false;
  }
  return true;
}

// Starts `binary` quietly and waits for its end; its standard error lines
// come back in `lines`.
bool runChild(const Launcher& launcher, const std::string& binary,
              const std::vector<std::string>& args, double& seconds,
              std::vector<std::string>& lines, std::string& error) {
  ChildProcess child;
  const double started = nowSeconds();
  {
    QuietStdout quiet;
    std::vector<std::string> argv = launcher;
    argv.push_back(binary);
    argv.insert(argv.end(), args.begin(), args.end());
    if (!child.start(argv)) {
      error = binary + ": " + child.error();
      return false;
    }
  }
  halvarine::ExitStatus st;
  if (!child.waitExit(EXIT_TIMEOUT_S * 1000, st)) {
    error = binary + ": " + child.error();
    return false;
  }
  seconds = nowSeconds() - started;
  lines = child.outputLines();
  if (!st.exited || st.code != 0) {
    error = binary + " ended with " + st.toString();
    for (const std::string& l : lines) error += "\n  " + l;
    return false;
  }
  return true;
}

}  // namespace

bool fetchThroughWorker(const Programs& programs, const std::string& url, int count, int window,
                        const Launcher& launcher, FetchRun& out, std::string& error) {
  WorkerSession session;
  if (!startSession(session, programs, launcher, error)) return false;
  halvarine::PipelineOptions po;
  po.replyTimeoutMs = launcher.empty() ? 30000 : 300000;
  halvarine::RequestPipeline pipeline(session.connection(), po);

  const double started = nowSeconds();
  halvarine::Reply reply;
  if (pipeline.call("CONNECT", {url}, reply) != FetchStatus::DONE) {
    error = "CONNECT: " + pipeline.error() + "; worker: " + session.worker().output();
    return false;
  }
  if (reply.status() != "OK_") {
    error = "CONNECT answered " + reply.status() + ": " + session.worker().output();
    return false;
  }
  halvarine::StreamFetchOptions fo;
  fo.count = count;
  fo.window = window;
  const halvarine::StreamFetchResult r = halvarine::fetchStream(pipeline, fo, -1);
  out.seconds = nowSeconds() - started;
  if (r.status != FetchStatus::DONE || !r.endOfStream) {
    error = std::string("READ loop: ") + halvarine::statusText(r.status) + " " + r.error;
    return false;
  }
  out.bytes = r.bytes;
  out.peakRssKiB = peakRssOf(session.worker().pid());
  return endSession(session, pipeline, error);
}

bool fetchWithLibmms(const Programs& programs, const std::string& url, int count,
                     const Launcher& launcher, FetchRun& out, std::string& error) {
  double wall = 0;
  std::vector<std::string> lines;
  if (!runChild(launcher, programs.libmmsFetch,
                {url, "/dev/null", "--read-size", std::to_string(count), "--stats"}, wall, lines,
                error)) {
    return false;
  }
  for (const std::string& l : lines) {
    unsigned long long bytes = 0;
    double seconds = 0;
    long rss = -1;
    if (sscanf(l.c_str(), "stats bytes %llu elapsed %lf peak-rss %ld", &bytes, &seconds, &rss) ==
        3) {
      out.bytes = bytes;
      out.seconds = seconds;
      out.peakRssKiB = rss;
      return true;
    }
  }
  error = "libmms-fetch printed no stats line";
  return false;
}

bool fetchWithFfmpeg(const Programs& programs, const std::string& url, FetchRun& out,
                     std::string& error) {
  std::vector<std::string> lines;
  return runChild({}, programs.ffmpeg,
                  {"-nostdin", "-hide_banner", "-loglevel", "error", "-y", "-i", url, "-map", "0",
                   "-c", "copy", "-f", "asf", "/dev/null"},
                  out.seconds, lines, error);
}

bool ccheckRoundTrip(const Programs& programs, int calls, double& seconds, std::string& error) {
  WorkerSession session;
  if (!startSession(session, programs, {}, error)) return false;
  halvarine::Reply reply;
  const double started = nowSeconds();
  for (int i = 0; i < calls; ++i) {
    const unsigned char echo = static_cast<unsigned char>(1 + i % 255);
    if (!session.call(halvarine::Request::command("CCHECK", echo), 5000, reply)) {
      error = "CCHECK: " + session.error();
      return false;
    }
  }
  seconds = (nowSeconds() - started) / calls;
  halvarine::PipelineOptions po;
  halvarine::RequestPipeline pipeline(session.connection(), po);
  return endSession(session, pipeline, error);
}

namespace {

// Waits with select, as the worker does before each read and write.
bool selectFor(int fd, bool write) {
  fd_set set;
  FD_ZERO(&set);
  FD_SET(fd, &set);
  timeval tv{5, 0};
  return select(fd + 1, write ? nullptr : &set, write ? &set : nullptr, nullptr, &tv) == 1;
}

// The least a peer can do per request: read one frame of the known size,
// send back a reply frame of the worker's size with the request's echo byte.
// A forked child, so that each round trip crosses two processes as it does
// with the worker. Ends when the other side closes; reaped on destruction.
class RawPeer {
 public:
  RawPeer(UniqueFd fd, size_t requestLen, Packet reply) {
    std::vector<char> request(requestLen);
    pid_ = fork();
    if (pid_ == 0) {
      serve(fd.get(), request, reply);
      _exit(0);
    }
  }
  ~RawPeer() {
    int status;
    if (pid_ > 0) waitpid(pid_, &status, 0);
  }
  RawPeer(const RawPeer&) = delete;
  RawPeer& operator=(const RawPeer&) = delete;

  bool started() const { return pid_ > 0; }

 private:
  static void serve(int fd, std::vector<char>& request, Packet& reply) {
    for (;;) {
      size_t have = 0;
      while (have < request.size()) {
        if (!selectFor(fd, false)) return;
        const ssize_t n = read(fd, request.data() + have, request.size() - have);
        if (n <= 0) return;
        have += static_cast<size_t>(n);
      }
      reply[FRAME_START_LEN + HEADER_ECHO] = request[FRAME_START_LEN + HEADER_ECHO];
      size_t sent = 0;
      while (sent < reply.size()) {
        if (!selectFor(fd, true)) return;
        const ssize_t n = write(fd, reply.data() + sent, reply.size() - sent);
        if (n <= 0) return;
        sent += static_cast<size_t>(n);
      }
    }
  }

  pid_t pid_ = -1;
};

}  // namespace

bool rawRoundTrip(int calls, double& seconds, std::string& error) {
  // The frames the worker would see and send, made by the worker's codec.
  Packet request;
  ParamList parsed;
  if (!halvarine::encodeRequest(halvarine::Request::command("CCHECK", 1), request) ||
      parsePacket(request, parsed) != RESULT_OK) {
    error = "cannot build the CCHECK frames";
    return false;
  }
  Packet reply;
  makePacket({parsed[0], parsed[1], "OK_"}, reply);

  int fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) {
    error = std::string("socketpair: ") + strerror(errno);
    return false;
  }
  UniqueFd peerEnd(fds[1]);
  halvarine::ControllerConnection connection{UniqueFd(fds[0])};
  RawPeer peer(std::move(peerEnd), request.size(),
               reply);  // closes its copy here
  if (!peer.started()) {
    error = std::string("fork: ") + strerror(errno);
    connection.close();
    return false;
  }

  halvarine::Reply answer;
  const double started = nowSeconds();
  for (int i = 0; i < calls; ++i) {
    const unsigned char echo = static_cast<unsigned char>(1 + i % 255);
    if (!connection.send(halvarine::Request::command("CCHECK", echo)) ||
        !connection.receive(echo, 5000, answer)) {
      error = "raw peer: " + connection.error();
      connection.close();
      return false;
    }
  }
  seconds = (nowSeconds() - started) / calls;
  connection.close();  // the peer sees the end and exits
  return true;
}

bool workerStartup(const Programs& programs, double& seconds, std::string& error) {
  WorkerSession session;
  const double started = nowSeconds();
  if (!startSession(session, programs, {}, error)) return false;
  seconds = nowSeconds() - started;
  halvarine::PipelineOptions po;
  halvarine::RequestPipeline pipeline(session.connection(), po);
  return endSession(session, pipeline, error);
}

bool processStartup(const std::string& reference, double& seconds, std::string& error) {
  ChildProcess child;
  const double started = nowSeconds();
  if (!child.start({reference})) {
    error = reference + ": " + child.error();
    return false;
  }
  halvarine::ExitStatus st;
  if (!child.waitExit(10000, st)) {
    error = reference + ": " + child.error();
    return false;
  }
  seconds = nowSeconds() - started;
  return true;
}

}  // namespace bench
