#include "tools/fetch/output.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tools/asf/asf_stream.h"

namespace fetch {

namespace {

// As open() would follow `path`: the name its links end at, in a real
// directory (`path` itself when it is no link). `descriptor` when the way leads through /proc
// (/dev/stdout, /dev/fd/1, /proc/self/fd/1): such a name stands for a descriptor the caller holds,
// not for a file of its own. False with `error` when a directory on the way does not exist or the
// links go round.
bool followLinks(const std::string& path, std::string& target, bool& descriptor,
                 std::string& error) {
  std::string name = path;
  for (int hops = 0; hops < 40; ++hops) {
    const size_t slash = name.find_last_of('/');
    const std::string dir = slash == std::string::npos ? "." : name.substr(0, slash + 1);
    const std::string base = slash == std::string::npos ? name : name.substr(slash + 1);
    char real[PATH_MAX];
    if (realpath(dir.c_str(), real) == nullptr) {
      error = "cannot write " + path + ": " + strerror(errno);
      return false;
    }
    const std::string directory = real;
    if (directory == "/proc" || directory.compare(0, 6, "/proc/") == 0) {
      descriptor = true;
      target = path;
      return true;
    }
    target = (directory == "/" ? "" : directory) + "/" + base;
    struct stat st;
    if (base.empty() || lstat(target.c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) {
      // No link on the way: the name as given, as the user will look for it.
      if (hops == 0) target = path;
      return true;
    }
    char link[PATH_MAX];
    const ssize_t n = readlink(target.c_str(), link, sizeof link - 1);
    if (n <= 0) {
      error = "cannot follow " + target + ": " + strerror(errno);
      return false;
    }
    name.assign(link, static_cast<size_t>(n));
    if (name[0] != '/') name = directory + "/" + name;
  }
  error = "cannot write " + path + ": " + strerror(ELOOP);
  return false;
}

}  // namespace

Output::~Output() {
  fd_.reset();
  if (!partial_.empty() && !committed_ && !keep_) unlink(partial_.c_str());
}

bool Output::open(const std::string& path) {
  bool descriptor = false;
  if (!followLinks(path, target_, descriptor, error_)) return false;
  struct stat st;
  const bool exists = stat(target_.c_str(), &st) == 0;
  if (exists && S_ISDIR(st.st_mode)) {
    error_ = path + " is a directory; name a file to write";
    return false;
  }
  if (descriptor || (exists && !S_ISREG(st.st_mode))) {
    // Written as it is: no O_TRUNC, no O_CREAT, whatever it is.
    fd_.reset(::open(target_.c_str(), O_WRONLY | O_NOCTTY | O_CLOEXEC));
    if (!fd_.valid()) {
      error_ = "cannot write " + path + ": " +
               (errno == ENXIO ? "no reader can be reached (a socket?)" : strerror(errno));
      return false;
    }
    if (isatty(fd_.get()) == 1) {
      error_ = path + " is a terminal: not writing a binary stream to it";
      fd_.reset();
      return false;
    }
    path_ = path;
    return true;
  }
  if (exists && access(target_.c_str(), W_OK) != 0) {
    // Renaming over it would replace a file its owner kept from us.
    error_ = "cannot write " + path + ": " + strerror(errno);
    return false;
  }
  const std::string partial = target_ + ".partial";
  struct stat old;
  if (lstat(partial.c_str(), &old) == 0 && !S_ISREG(old.st_mode)) {
    error_ = partial + " exists and is not a regular file; not touching it";
    return false;
  }
  fd_.reset(::open(partial.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644));
  if (!fd_.valid()) {
    error_ = "cannot write " + partial + ": " + strerror(errno);
    return false;
  }
  // The file that FILE.partial will replace keeps its permissions.
  if (exists) fchmod(fd_.get(), st.st_mode & 07777);
  path_ = path;
  partial_ = partial;
  return true;
}

bool Output::openToContinue(const std::string& path, bool& found) {
  found = false;
  bool descriptor = false;
  if (!followLinks(path, target_, descriptor, error_)) return false;
  struct stat st;
  for (const std::string& name : {target_ + ".partial", target_}) {
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
    // FILE itself is written in place; FILE.partial becomes FILE at the end.
    partial_ = name == target_ ? "" : name;
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
  stdout_ = true;
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
  // A pipe or a device keeps what it was given; a file appended to is not
  // ours to cut. FILE.partial is: a write that failed half-way (the disk is
  // full) may have left part of a packet after the counted bytes.
  const off_t counted = static_cast<off_t>(header.size() + dataBytes);
  const off_t at = lseek(fd(), 0, SEEK_CUR);
  if (packetSize == 0 || fstat(fd(), &st) != 0 || !S_ISREG(st.st_mode) || at < counted ||
      (at != counted && partial_.empty())) {
    return true;
  }
  const uint64_t packets = dataBytes / packetSize;
  std::string first(packets > 0 ? packetSize : 0, '\0');
  std::string last(first.size(), '\0');
  const off_t data = static_cast<off_t>(header.size());
  const off_t lastAt = data + static_cast<off_t>((packets > 0 ? packets - 1 : 0) * packetSize);
  // The packets' times are read back from the file, which was opened (or
  // handed over) for writing only.
  const halvarine::UniqueFd reader(
      ::open(("/proc/self/fd/" + std::to_string(fd())).c_str(), O_RDONLY | O_CLOEXEC));
  if (!reader.valid() ||
      pread(reader.get(), &first[0], first.size(), data) != static_cast<ssize_t>(first.size()) ||
      pread(reader.get(), &last[0], last.size(), lastAt) != static_cast<ssize_t>(last.size())) {
    error_ = std::string("cannot finish the recording: ") + strerror(errno);
    return false;
  }
  std::string patched = header;
  if (!finishRecordingHeader(patched, packets, first, last)) return true;
  if (ftruncate(fd(), static_cast<off_t>(header.size() + packets * packetSize)) != 0 ||
      pwrite(fd(), patched.data(), patched.size(), 0) != static_cast<ssize_t>(patched.size())) {
    error_ = std::string("cannot finish the recording: ") + strerror(errno);
    return false;
  }
  return true;
}

bool Output::commit() {
  if (!fd_.valid()) return true;
  if (::close(fd_.release()) != 0 ||
      (!partial_.empty() && rename(partial_.c_str(), target_.c_str()) != 0)) {
    error_ = "cannot finish " + path_ + ": " + strerror(errno);
    return false;
  }
  committed_ = true;
  return true;
}

}  // namespace fetch
