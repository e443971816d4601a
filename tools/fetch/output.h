#ifndef HALVARINE_TOOLS_FETCH_OUTPUT_H
#define HALVARINE_TOOLS_FETCH_OUTPUT_H

// Where the stream goes. A regular file, or a name that does not exist yet,
// is written as FILE.partial beside it and renamed to FILE when the fetch
// ends well, so that a failed fetch never spoils an older FILE; a failure
// keeps FILE.partial (finished as a stopped recording) unless told not to.
// Anything else (a device such as /dev/null, a FIFO, /dev/stdout, /dev/fd/N)
// is opened and written in place, and never removed, renamed or cut. A
// symbolic link is followed: the file it ends at receives the stream and the
// link stays. Or standard output.

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

  // Opens `path` as above; a directory, a terminal, and a file this user may
  // not write are refused. Opening a FIFO waits for its reader; a signal
  // ends the wait. False with error().
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

  // -1 once committed.
  int fd() const { return stdout_ ? STDOUT_FILENO : fd_.get(); }
  // Named by -o (as given), either way it is written.
  bool toFile() const { return !path_.empty(); }
  const std::string& path() const { return path_; }
  // Empty when written in place.
  const std::string& partialPath() const { return partial_; }
  const std::string& error() const { return error_; }

  // Writes all of `bytes`, waiting as long as the reader of a pipe takes;
  // gives up when `stop` is set. False with error().
  bool write(const std::string& bytes, const volatile sig_atomic_t* stop);

  // Makes a recording cut short readable on its own: when the output is a
  // regular file written from its start (the ASF stream `header`, then
  // `dataBytes`), it is cut after the last whole data packet of
  // `packetSize` bytes, and the header is rewritten to announce the packets
  // that are there and how long they play (finishRecordingHeader). A pipe or
  // a device keeps what it was given. False with error().
  bool finishRecording(const std::string& header, uint64_t dataBytes, uint32_t packetSize);

  // Closes the output; FILE.partial becomes FILE.
  bool commit();
  // Leaves FILE.partial in place.
  void keep() { keep_ = true; }

 private:
  halvarine::UniqueFd fd_;
  std::string path_;     // as given
  std::string target_;   // where the links lead: FILE.partial is renamed to it
  std::string partial_;  // target_ + ".partial"; empty when written in place
  bool stdout_ = false;
  bool committed_ = false;
  bool keep_ = false;
  std::string continued_;
  std::string error_;
};

}  // namespace fetch

#endif
