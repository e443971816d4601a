#ifndef HALVARINE_TOOLS_FETCH_DISPLAY_H
#define HALVARINE_TOOLS_FETCH_DISPLAY_H

// What halvarine-fetch shows on standard error while it works: messages,
// the progress of the transfer, and in verbose mode every request and
// reply and the worker's own lines.

#include <halvarine/controller.h>
#include <signal.h>
#include <stdint.h>

#include <string>
#include <vector>

namespace fetch {

// Bytes in a person's units: "512 B", "216.4 KiB", "47.7 MiB".
std::string humanBytes(double bytes);

// The stream length GSIZE reported, judged: 0 when it cannot describe the
// stream (a live stream reports 0, a negative or absurd number).
uint64_t usableLength(const halvarine::Reply& gsizeReply);

class Display : public halvarine::FetchObserver {
 public:
  // `verbosity` as in Options; `stop` is the flag the signal handler sets.
  Display(int verbosity, const volatile sig_atomic_t* stop);

  // The worker whose standard error is relayed (verbose) and kept; null
  // when none runs.
  void setWorker(halvarine::ChildProcess* worker) { worker_ = worker; }

  // A line of the tool's own, "halvarine-fetch: " and `text`.
  void note(const std::string& text);    // not when quiet
  void error(const std::string& text);   // always
  void detail(const std::string& text);  // verbose only
  void quote(const std::string& text);   // always, as it is

  // The transfer begins; `length` 0 when unknown.
  void startTransfer(uint64_t length);
  // The progress line is finished (a last update, then a new line).
  void endTransfer();
  uint64_t bytes() const { return bytes_; }
  double elapsed() const;
  // "221.6 KiB in 0.05 s, 4.1 MiB/s"
  std::string rateSummary() const;

  // The worker's last `n` lines of standard error, for reports.
  std::vector<std::string> workerLines(size_t n);

  void sent(const halvarine::Request& request) override;
  void received(const halvarine::Reply& reply) override;
  void bytesReceived(uint64_t total) override;
  void tick() override;
  bool stopRequested() override { return *stop_ != 0; }

 private:
  void write(const std::string& line);  // clears the progress line first
  void drawProgress(bool force);
  void relayWorker();

  int verbosity_;
  const volatile sig_atomic_t* stop_;
  bool terminal_;
  halvarine::ChildProcess* worker_ = nullptr;
  size_t workerRelayed_ = 0;  // bytes of the worker's stderr already shown
  bool transferring_ = false;
  bool progressShown_ = false;  // a live line is on the terminal
  uint64_t length_ = 0;
  uint64_t bytes_ = 0;
  double started_ = 0;
  double lastDrawn_ = 0;
};

}  // namespace fetch

#endif
