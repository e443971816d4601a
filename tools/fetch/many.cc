// Several URLs: one run of this program per stream, their lines multiplexed.

#include "tools/fetch/many.h"

#include <halvarine/controller.h>
#include <limits.h>
#include <signal.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <iostream>
#include <string>
#include <vector>

#include "tools/fetch/display.h"
#include "tools/fetch/outcome.h"
#include "tools/fetch/stop.h"

namespace fetch {

namespace {

const char PREFIX[] = "halvarine-fetch: ";
// How often the streams are looked at, and their lines redrawn.
const int TICK_MS = 200;

struct Stream {
  std::string url, path, name;
  halvarine::ChildProcess run;
  enum State { WAITING, RUNNING, ENDED, NOT_STARTED } state = WAITING;
  int status = 0;      // ENDED: the run's exit status
  size_t shown = 0;    // bytes of the run's output already relayed
  std::string reason;  // its first message: why it failed, when it did
  int64_t started = 0;
};

std::string selfPath() {
  char self[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  return n > 0 ? std::string(self, static_cast<size_t>(n)) : "halvarine-fetch";
}

uint64_t fileSize(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? static_cast<uint64_t>(st.st_size) : 0;
}

const char* meaning(int status) {
  for (const ExitStatusLine& line : exitStatusLines()) {
    if (line.code == status) return line.meaning;
  }
  return "failed";
}

class Many {
 public:
  explicit Many(const Options& options)
      : options_(options), terminal_(isatty(STDERR_FILENO) == 1) {}
  int run();

 private:
  void start(Stream& s);
  void poll(Stream& s);
  // A line of the tool's own, above the streams' lines.
  void say(const std::string& line);
  void draw();
  std::string lineOf(const Stream& s) const;
  int finish();

  const Options& options_;
  const bool terminal_;
  std::vector<Stream> streams_;
  size_t drawn_ = 0;  // stream lines on the terminal below the messages
};

int Many::run() {
  installStopHandlers();

  streams_.resize(options_.urls.size());
  for (size_t i = 0; i < streams_.size(); ++i) {
    streams_[i].url = options_.urls[i];
    streams_[i].path = options_.outPaths[i];
    streams_[i].name = streams_[i].path.substr(streams_[i].path.rfind('/') + 1);
  }
  int forwarded = 0;
  for (;;) {
    int running = 0;
    bool waiting = false;
    for (Stream& s : streams_) {
      if (s.state == Stream::RUNNING) poll(s);
      running += s.state == Stream::RUNNING;
      waiting = waiting || s.state == Stream::WAITING;
    }
    if (g_stopSignal != 0 && forwarded != g_stopSignal) {
      // Ctrl-C on a terminal reached the runs too; a signal sent to this
      // process alone must reach them all the same.
      forwarded = g_stopSignal;
      for (Stream& s : streams_) {
        if (s.state == Stream::RUNNING) s.run.sendSignal(g_stopSignal);
        if (s.state == Stream::WAITING) s.state = Stream::NOT_STARTED;
      }
      waiting = false;
    }
    for (Stream& s : streams_) {
      if (s.state == Stream::WAITING && running < options_.parallel) {
        start(s);
        running += s.state == Stream::RUNNING;
      }
    }
    if (running == 0 && !waiting) break;
    draw();
    halvarine::sleepUntil(halvarine::monotonicMs() + TICK_MS);
  }
  draw();
  return finish();
}

void Many::start(Stream& s) {
  // Quiet: the stream's line shows its progress, and its first message is
  // then what went wrong. -v and -vv among the stream's options win.
  std::vector<std::string> argv = {selfPath(), "-q"};
  argv.insert(argv.end(), options_.streamArgs.begin(), options_.streamArgs.end());
  argv.insert(argv.end(), {"-o", s.path, "--", s.url});
  s.started = halvarine::monotonicMs();
  if (!s.run.start(argv)) {
    s.state = Stream::ENDED;
    s.status = exitStatus({Ending::NO_WORKER});
    s.reason = s.run.error();
    say(std::string(PREFIX) + "[" + s.name + "] cannot start: " + s.reason);
    return;
  }
  s.state = Stream::RUNNING;
}

void Many::poll(Stream& s) {
  halvarine::ExitStatus ended;
  const bool done = s.run.waitExit(0, ended);
  const std::string& text = s.run.output();
  auto relay = [&](std::string line) {
    if (line.compare(0, strlen(PREFIX), PREFIX) == 0) {
      line.erase(0, strlen(PREFIX));
      // Quiet, a run says nothing but what went wrong.
      if (s.reason.empty() && options_.verbosity < 2) s.reason = line;
    }
    say(std::string(PREFIX) + "[" + s.name + "] " + line);
  };
  for (size_t end; (end = text.find('\n', s.shown)) != std::string::npos; s.shown = end + 1) {
    relay(text.substr(s.shown, end - s.shown));
  }
  if (!done) return;
  // A run that has ended says no more: its last line may lack its end.
  if (s.shown < text.size()) relay(text.substr(s.shown));
  s.shown = text.size();
  s.state = Stream::ENDED;
  s.status = ended.exited ? ended.code : exitStatus({Ending::SIGNALED, ended.signal});
  if (!terminal_ && options_.verbosity > 0 && s.status == EXIT_OK) {
    say(std::string(PREFIX) + "[" + s.name + "] fetched " +
        humanBytes(static_cast<double>(fileSize(s.path))) + " to " + s.path);
  }
}

void Many::say(const std::string& line) {
  if (terminal_ && drawn_ > 0) {
    std::cerr << "\033[" << drawn_ << "A\r\033[J";
    drawn_ = 0;
  }
  std::cerr << line << "\n";
}

std::string Many::lineOf(const Stream& s) const {
  const std::string head = "[" + s.name + "] ";
  switch (s.state) {
    case Stream::WAITING:
      return head + "waiting for its turn";
    case Stream::NOT_STARTED:
      return head + "not started";
    case Stream::RUNNING: {
      const uint64_t bytes = fileSize(s.path + ".partial");
      const int64_t seconds = (halvarine::monotonicMs() - s.started) / 1000;
      return head + humanBytes(static_cast<double>(bytes)) + ", " + std::to_string(seconds) + " s";
    }
    case Stream::ENDED:
      break;
  }
  if (s.status == EXIT_OK)
    return head + "done, " + humanBytes(static_cast<double>(fileSize(s.path)));
  return head + "failed (exit " + std::to_string(s.status) + ")";
}

void Many::draw() {
  if (!terminal_ || options_.verbosity == 0) return;
  const size_t columns = terminalColumns();
  if (drawn_ > 0) std::cerr << "\033[" << drawn_ << "A";
  for (const Stream& s : streams_) {
    std::string line = lineOf(s);
    if (line.size() >= columns) line.resize(columns - 1);
    std::cerr << "\r\033[K" << line << "\n";
  }
  drawn_ = streams_.size();
  std::cerr << std::flush;
}

int Many::finish() {
  // A stream that ended by the stop signal was stopped, not failed.
  const bool signaled = g_stopSignal != 0;
  const int stoppedStatus = exitStatus({Ending::SIGNALED, g_stopSignal});
  int status = EXIT_OK;
  size_t fetched = 0, stopped = 0, unstarted = 0;
  std::string failures;
  for (const Stream& s : streams_) {
    if (s.state == Stream::NOT_STARTED) {
      ++unstarted;
    } else if (s.status == EXIT_OK) {
      ++fetched;
    } else if (signaled && s.status == stoppedStatus) {
      ++stopped;
    } else {
      if (status == EXIT_OK) status = s.status;
      failures += (failures.empty() ? "" : "; ") + s.url + " (exit " + std::to_string(s.status) +
                  ", " + (s.reason.empty() ? std::string(meaning(s.status)) : s.reason) + ")";
    }
  }
  drawn_ = 0;
  std::string line =
      std::to_string(fetched) + " of " + std::to_string(streams_.size()) + " streams fetched";
  if (stopped > 0) line += ", " + std::to_string(stopped) + " stopped";
  if (unstarted > 0) line += ", " + std::to_string(unstarted) + " not started";
  if (!failures.empty()) line += "; failed: " + failures;
  if (fetched < streams_.size() || options_.verbosity > 0) std::cerr << PREFIX << line << "\n";
  return status != EXIT_OK ? status : signaled ? stoppedStatus : EXIT_OK;
}

}  // namespace

int fetchMany(const Options& options) {
  return Many(options).run();
}

}  // namespace fetch
