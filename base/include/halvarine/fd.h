#ifndef HALVARINE_FD_H
#define HALVARINE_FD_H

// A descriptor owner: closes what it holds when destroyed or reset; moves,
// never copies.

#include <unistd.h>

#include <utility>

namespace halvarine {

class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  ~UniqueFd() { reset(); }
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  // Gives the descriptor up without closing it.
  int release() { return std::exchange(fd_, -1); }
  // Closes the descriptor held, if any, and holds `fd` instead.
  void reset(int fd = -1) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

}  // namespace halvarine

#endif
