#include "tools/fetch/output.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tools/asf/asf_file.h"

namespace fetch {

Output::~Output() {
  fd_.reset();
  if (!partial_.empty() && !committed_ && !keep_) unlink(partial_.c_str());
}

bool Output::open(const std::string& path) {
  struct stat st;
  if (stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
    error_ = path + " is a directory; name a file to write";
    return false;
  }
  fd_.reset(::open((path + ".partial").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  if (!fd_.valid()) {
    error_ = "cannot write " + path + ".partial: " + strerror(errno);
    return false;
  }
  path_ = path;
  partial_ = path + ".partial";
  return true;
}

bool Output::openToContinue(const std::string& path, bool& found) {
  found = false;
  struct stat st;
  for (const std::string& name : {path + ".partial", path}) {
    if (stat(name.c_str(), &st) != 0) continue;
    found = true;
    if (!S_ISREG(st.st_mode)) {
      error_ = "cannot continue " + name + ": not a regular file";
      return false;
    }
    fd_.reset(::open(name.c_str(), O_WRONLY | O_CLOEXEC));
    if (!fd_.valid()) {
      error_ = "cannot write " + name + ": " + strerror(errno);
      return false;
    }
    // Never removed: an earlier run's bytes, or the user's own file.
    keep_ = true;
    path_ = path;
    partial_ = name;
    continued_ = name;
    return true;
  }
  return false;
}

bool Output::startContinuing(uint64_t keep) {
  if (lseek(fd_.get(), static_cast<off_t>(keep), SEEK_SET) != static_cast<off_t>(keep)) {
    error_ = "cannot continue " + continued_ + ": " + strerror(errno);
    return false;
  }
  return true;
}

bool Output::endContinued(const std::string& header) {
  const off_t end = lseek(fd_.get(), 0, SEEK_CUR);
  if (end < 0 || ftruncate(fd_.get(), end) != 0 ||
      pwrite(fd_.get(), header.data(), header.size(), 0) != static_cast<ssize_t>(header.size())) {
    error_ = "cannot finish " + continued_ + ": " + strerror(errno);
    return false;
  }
  return true;
}

bool Output::openStdout() {
  if (isatty(STDOUT_FILENO) == 1) {
    error_ = "not writing a binary stream to a terminal; give -o FILE or redirect";
    return false;
  }
  return true;
}

bool Output::write(const std::string& bytes, const volatile sig_atomic_t* stop) {
  for (size_t done = 0; done < bytes.size();) {
    const ssize_t n = ::write(fd(), bytes.data() + done, bytes.size() - done);
    if (n >= 0) {
      done += static_cast<size_t>(n);
    } else if (errno != EINTR) {
      error_ = errno == EPIPE ? "the output's reader went away" : strerror(errno);
      return false;
    } else if (*stop != 0) {
      error_ = "stopped while writing";
      return false;
    }
  }
  return true;
}

bool Output::finishRecording(const std::string& header, uint64_t dataBytes, uint32_t packetSize) {
  struct stat st;
  // A pipe keeps what it was given; so does a file appended to.
  if (packetSize == 0 || fstat(fd(), &st) != 0 || !S_ISREG(st.st_mode) ||
      lseek(fd(), 0, SEEK_CUR) != static_cast<off_t>(header.size() + dataBytes)) {
    return true;
  }
  const uint64_t packets = dataBytes / packetSize;
  std::string patched = header;
  if (!declarePackets(patched, packets, packetSize)) return true;
  if (ftruncate(fd(), static_cast<off_t>(header.size() + packets * packetSize)) != 0 ||
      pwrite(fd(), patched.data(), patched.size(), 0) != static_cast<ssize_t>(patched.size())) {
    error_ = std::string("cannot finish the recording: ") + strerror(errno);
    return false;
  }
  return true;
}

bool Output::commit() {
  if (::close(fd_.release()) != 0 || rename(partial_.c_str(), path_.c_str()) != 0) {
    error_ = "cannot finish " + path_ + ": " + strerror(errno);
    return false;
  }
  committed_ = true;
  return true;
}

}  // namespace fetch
