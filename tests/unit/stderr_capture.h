#ifndef HALVARINE_TESTS_UNIT_STDERR_CAPTURE_H
#define HALVARINE_TESTS_UNIT_STDERR_CAPTURE_H

// Captures everything written to file descriptor 2 (std::cerr and stdio's
// stderr alike) while alive, so tests can check the exact log text.

#include <stdio.h>
#include <unistd.h>

#include <iostream>
#include <string>

class StderrCapture {
 public:
  StderrCapture() {
    fflush(stderr);
    std::cerr.flush();
    file_ = tmpfile();
    saved_ = dup(2);
    dup2(fileno(file_), 2);
  }
  ~StderrCapture() { restore(); }
  StderrCapture(const StderrCapture&) = delete;
  StderrCapture& operator=(const StderrCapture&) = delete;

  // Everything written so far.
  std::string text() {
    fflush(stderr);
    std::cerr.flush();
    std::string out;
    char buf[4096];
    const long end = ftell(file_);
    (void)end;
    const off_t size = lseek(fileno(file_), 0, SEEK_END);
    for (off_t pos = 0; pos < size;) {
      const ssize_t n = pread(fileno(file_), buf, sizeof buf, pos);
      if (n <= 0) break;
      out.append(buf, static_cast<size_t>(n));
      pos += n;
    }
    return out;
  }

 private:
  void restore() {
    if (saved_ < 0) return;
    fflush(stderr);
    std::cerr.flush();
    dup2(saved_, 2);
    close(saved_);
    saved_ = -1;
    fclose(file_);
  }
  FILE* file_ = nullptr;
  int saved_ = -1;
};

#endif
