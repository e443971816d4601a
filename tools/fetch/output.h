#ifndef HALVARINE_TOOLS_FETCH_OUTPUT_H
#define HALVARINE_TOOLS_FETCH_OUTPUT_H

// Where the stream goes: a file, written as FILE.partial and renamed to
// FILE only when the fetch is a success or a stop the user asked for, so
// that a failed fetch never leaves a short FILE behind (nor spoils an older
// one); or standard output.

#include <halvarine/fd.h>
#include <signal.h>
#include <stdint.h>

#include <string>

namespace fetch {

class Output {
 public:
  Output() = default;
  // Removes FILE.partial unless committed or kept.
  ~Output();
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  // Refuses a directory, then creates FILE.partial. False with error().
  bool open(const std::string& path);
  // Goes on with an earlier fetch's file: FILE.partial when there is one,
  // else FILE itself, opened as it is, kept whatever happens, and cut to
  // `keep` bytes by startContinuing(). False with error(); `found` false
  // when neither exists.
  bool openToContinue(const std::string& path, bool& found);
  // The file continued; empty when none.
  const std::string& continued() const { return continued_; }
  // Writes on after its first `keep` bytes, leaving the file as it is
  // until then.
  bool startContinuing(uint64_t keep);
  // The stream is complete: the file ends where the writing did and begins
  // with the stream's own `header`.
  bool endContinued(const std::string& header);
  // Standard output, which must not be a terminal.
  bool openStdout();

  int fd() const { return fd_.valid() ? fd_.get() : STDOUT_FILENO; }
  bool toFile() const { return !path_.empty(); }
  const std::string& path() const { return path_; }
  const std::string& partialPath() const { return partial_; }
  const std::string& error() const { return error_; }

  // Writes all of `bytes`, waiting as long as the reader of a pipe takes;
  // gives up when `stop` is set. False with error().
  bool write(const std::string& bytes, const volatile sig_atomic_t* stop);

  // Makes a recording cut short readable on its own: when the output is a
  // regular file written from its start (the ASF stream `header`, then
  // `dataBytes`), it is cut after the last whole data packet of
  // `packetSize` bytes, and the header is rewritten to announce the packets
  // that are there. False with error().
  bool finishRecording(const std::string& header, uint64_t dataBytes, uint32_t packetSize);

  // FILE.partial becomes FILE.
  bool commit();
  void keep() { keep_ = true; }

 private:
  halvarine::UniqueFd fd_;
  std::string path_;
  std::string partial_;
  bool committed_ = false;
  bool keep_ = false;
  std::string continued_;
  std::string error_;
};

}  // namespace fetch

#endif
