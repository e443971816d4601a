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
  StderrCapture() : saved_(dup(2)) { dup2(fileno(file_), 2); }
  ~StderrCapture() {
    text();
    dup2(saved_, 2);
    close(saved_);
    fclose(file_);
  }
  StderrCapture(const StderrCapture&) = delete;
  StderrCapture& operator=(const StderrCapture&) = delete;

  // Everything written so far.
  std::string text() {
    std::cerr.flush();
    fflush(stderr);
    std::string out(static_cast<size_t>(lseek(fileno(file_), 0, SEEK_END)), '\0');
    return pread(fileno(file_), &out[0], out.size(), 0) < 0 ? "" : out;
  }

 private:
  FILE* file_ = tmpfile();
  int saved_;
};

#endif
