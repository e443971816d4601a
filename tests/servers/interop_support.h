#ifndef HALVARINE_TESTS_SERVERS_INTEROP_SUPPORT_H
#define HALVARINE_TESTS_SERVERS_INTEROP_SUPPORT_H

// Shared by the server tests: child processes with a time limit, files,
// and where the independent peers (ffmpeg, libmms-fetch) and the sample are.
// The build passes the paths as HALVARINE_SAMPLE_ASF, HALVARINE_LIBMMS_FETCH
// and HALVARINE_MMS_SERVER.

#include <arpa/inet.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace interop {

inline std::string samplePath() { return HALVARINE_SAMPLE_ASF; }
inline std::string libmmsFetchPath() { return HALVARINE_LIBMMS_FETCH; }
inline std::string mmsServerPath() { return HALVARINE_MMS_SERVER; }

// A running child process. Standard output and standard error both go into
// one pipe and are collected into output(). The destructor kills the child
// (SIGKILL) if it still runs and reaps it, so no test leaves one behind.
class Child {
 public:
  explicit Child(const std::vector<std::string>& argv) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
      dup2(fds[1], 1);
      dup2(fds[1], 2);
      std::vector<char*> args;
      for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
      args.push_back(nullptr);
      execvp(args[0], args.data());
      _exit(127);
    }
    close(fds[1]);
    if (pid_ < 0) {
      close(fds[0]);
      return;
    }
    out_ = fds[0];
  }
  ~Child() {
    if (pid_ > 0 && !exited_) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    if (out_ >= 0) close(out_);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  bool started() const { return pid_ > 0; }
  pid_t pid() const { return pid_; }
  void signal(int sig) {
    if (pid_ > 0 && !exited_) kill(pid_, sig);
  }

  // Waits up to timeoutMs for the child to end. True when it has ended.
  bool wait(int timeoutMs) {
    return waitUntil(timeoutMs, [this] { return exited_; });
  }
  // Waits up to timeoutMs until output() contains `text`.
  bool waitForOutput(const std::string& text, int timeoutMs) {
    return waitUntil(timeoutMs, [&] { return output_.find(text) != std::string::npos; });
  }
  bool running() {
    poll(0);
    return started() && !exited_;
  }

  // Exit status once ended; -1 when it ended by a signal or still runs.
  int exitCode() const { return exited_ && WIFEXITED(status_) ? WEXITSTATUS(status_) : -1; }
  const std::string& output() const { return output_; }

 private:
  template <typename Done>
  bool waitUntil(int timeoutMs, Done done) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (started()) {
      poll(10);
      if (done()) return true;
      if (exited_ || std::chrono::steady_clock::now() >= deadline) return false;
    }
    return false;
  }

  // Takes what output is there (waiting up to waitMs for some) and notes an exit.
  void poll(int waitMs) {
    if (!readSome(waitMs) && out_ < 0 && !exited_) {
      usleep(static_cast<useconds_t>(waitMs) * 1000);
    }
    if (!exited_ && pid_ > 0 && waitpid(pid_, &status_, WNOHANG) == pid_) {
      exited_ = true;
      while (readSome(0)) {
      }  // what it wrote before exiting
    }
  }

  bool readSome(int waitMs) {
    if (out_ < 0) return false;
    pollfd p{out_, POLLIN, 0};
    if (::poll(&p, 1, waitMs) <= 0) return false;
    char buf[4096];
    ssize_t n = read(out_, buf, sizeof buf);
    if (n > 0) {
      output_.append(buf, static_cast<size_t>(n));
      return true;
    }
    close(out_);
    out_ = -1;
    return false;
  }

  pid_t pid_ = -1;
  int out_ = -1;
  bool exited_ = false;
  int status_ = 0;
  std::string output_;
};

struct RunResult {
  bool timedOut = false;
  int exitCode = -1;   // -1: killed, by a signal or at the time-out
  std::string output;  // standard output and standard error together
};

// Runs a command to its end, or kills it after timeoutMs.
inline RunResult run(const std::vector<std::string>& argv, int timeoutMs) {
  Child child(argv);
  RunResult result;
  result.timedOut = !child.wait(timeoutMs);
  result.exitCode = child.exitCode();
  result.output = child.output();
  return result;
}

// A private directory, removed with its files when the owner goes.
class TempDir {
 public:
  TempDir() {
    const char* base = getenv("TMPDIR");
    std::string templ = std::string(base != nullptr ? base : "/tmp") + "/halvarine-test-XXXXXX";
    if (mkdtemp(&templ[0]) != nullptr) path_ = templ;
  }
  ~TempDir() {
    if (path_.empty()) return;
    if (DIR* dir = opendir(path_.c_str())) {
      while (dirent* e = readdir(dir)) {
        std::string name = e->d_name;
        if (name != "." && name != "..") unlink((path_ + "/" + name).c_str());
      }
      closedir(dir);
    }
    rmdir(path_.c_str());
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

inline std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

inline bool writeFile(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary);
  out << bytes;
  return static_cast<bool>(out);
}

// Offset of the first difference, or -1 when equal. Reports on a mismatch
// of two multi-megabyte strings stay readable.
inline long long firstDifference(const std::string& a, const std::string& b) {
  size_t n = std::min(a.size(), b.size());
  for (size_t i = 0; i < n; ++i) {
    if (a[i] != b[i]) return static_cast<long long>(i);
  }
  return a.size() == b.size() ? -1 : static_cast<long long>(n);
}

struct RawExchange {
  std::string bytes;  // everything received until the end
  int error = 0;      // errno of what ended it; 0 for a clean end of stream
};

// A plain TCP client on 127.0.0.1:port: sends `request`, then reads until
// the server closes (or 10 s of silence).
inline RawExchange rawExchange(uint16_t port, const std::string& request) {
  RawExchange result;
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      write(fd, request.data(), request.size()) != static_cast<ssize_t>(request.size())) {
    result.error = errno;
  } else {
    timeval tv{10, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    char buf[65536];
    ssize_t n;
    while ((n = read(fd, buf, sizeof buf)) > 0) result.bytes.append(buf, static_cast<size_t>(n));
    if (n < 0) result.error = errno;
  }
  close(fd);
  return result;
}

// Looks `name` up on PATH; empty when not there.
inline std::string findProgram(const std::string& name) {
  const char* path = getenv("PATH");
  std::stringstream dirs(path != nullptr ? path : "/usr/bin:/bin");
  std::string dir;
  while (std::getline(dirs, dir, ':')) {
    std::string candidate = (dir.empty() ? "." : dir) + "/" + name;
    if (access(candidate.c_str(), X_OK) == 0) return candidate;
  }
  return "";
}

inline std::string ffmpegPath() { return findProgram("ffmpeg"); }
inline std::string ffprobePath() { return findProgram("ffprobe"); }

// ffmpeg's per-packet digest of `input` (a URL or a file): for every packet
// its stream, timestamps, size and an MD5 of its payload, stream copied.
// Two inputs that demux to the same packets give the same text, whatever
// their container bytes. Empty when ffmpeg fails.
inline std::string framemd5(const std::string& input, const TempDir& dir, int timeoutMs = 30000) {
  std::string out = dir.file("framemd5.txt");
  unlink(out.c_str());
  RunResult r = run({ffmpegPath(), "-nostdin", "-hide_banner", "-loglevel", "error", "-y", "-i",
                     input, "-map", "0", "-c", "copy", "-f", "framemd5", out},
                    timeoutMs);
  if (r.timedOut || r.exitCode != 0) return "";
  return readFile(out);
}

}  // namespace interop

#endif
