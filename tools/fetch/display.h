#ifndef HALVARINE_TOOLS_FETCH_DISPLAY_H
#define HALVARINE_TOOLS_FETCH_DISPLAY_H

// What halvarine-fetch shows on standard error while it works: messages, a
// status line from the first moment (what it waits for and how long, then
// the progress of the transfer), and in verbose mode every request and
// reply and the worker's own lines. It is also the fetch's observer, which
// says when to stop: at a stop signal or at the end of --duration.

#include <halvarine/controller.h>
#include <signal.h>
#include <stdint.h>

#include <string>
#include <vector>

namespace fetch {

// Bytes in a person's units: "512 B", "216.4 KiB", "47.7 MiB".
std::string humanBytes(double bytes);
// The width of the terminal on standard error: the window size, else
// COLUMNS, else 80.
size_t terminalColumns();

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

  // What the tool waits for ("connecting to host:1755"), shown with the
  // seconds it has waited; empty: the transfer's progress. With `untilMs`
  // (monotonic), a wait of known end: the seconds left are shown instead
  // ("stalled, retry 2 of 5 in 4 s").
  void setPhase(const std::string& text, int64_t untilMs = 0);

  // The transfer begins: `length` the stream's announced length, 0 when it
  // has none (a broadcast).
  void startTransfer(uint64_t length);
  // Bytes in the output so far.
  void setBytes(uint64_t bytes);
  // A pass of fetchStream begins with `base` bytes in the output; its first
  // `skip` bytes received are already there.
  void startPass(uint64_t base, uint64_t skip);
  // The status line is finished (a last update, then a new line).
  void endTransfer();
  uint64_t bytes() const { return bytes_; }
  // "221.6 KiB in 0.05 s, 4.1 MiB/s"
  std::string rateSummary() const;

  // From now on stopRequested() is true at the monotonic time `ms`.
  void stopAt(int64_t ms) { stopAtMs_ = ms; }
  bool durationReached() const;
  // When no new byte has come for `ms` (0: no limit), stopRequested() is
  // true: the server has stalled for longer than the fetch waits.
  void setSilenceLimit(int64_t ms) { silenceLimitMs_ = ms; }
  bool silenceLimitReached() const;
  // The monotonic time the last new byte came (or the transfer began).
  int64_t lastNewDataMs() const { return lastNew_; }
  // The monotonic time the last byte came, new or read again.
  int64_t lastDataMs() const { return lastData_; }

  // The worker's last `n` lines of standard error, for reports.
  std::vector<std::string> workerLines(size_t n);

  void sent(const halvarine::Request& request) override;
  void received(const halvarine::Reply& reply) override;
  void bytesReceived(uint64_t total) override;
  void tick() override;
  void waitingForOutput() override;
  bool stopRequested() override {
    return *stop_ != 0 || durationReached() || silenceLimitReached();
  }

 private:
  void write(const std::string& line);  // clears the status line first
  void draw(bool force);
  std::string statusText(int64_t now) const;
  void relayWorker();

  int verbosity_;
  const volatile sig_atomic_t* stop_;
  bool terminal_;
  halvarine::ChildProcess* worker_ = nullptr;
  size_t workerRelayed_ = 0;  // bytes of the worker's stderr already shown
  bool lineShown_ = false;    // a live line is on the terminal
  std::string phase_;
  int64_t phaseStart_ = 0;
  int64_t phaseUntil_ = 0;
  bool transferring_ = false;
  uint64_t length_ = 0;
  uint64_t bytes_ = 0;
  uint64_t base_ = 0;
  uint64_t skip_ = 0;
  uint64_t received_ = 0;  // of the current pass, skipped bytes included
  int64_t started_ = 0;
  int64_t lastData_ = 0;
  int64_t lastDrawn_ = 0;
  int64_t stopAtMs_ = 0;
  int64_t lastNew_ = 0;  // the last new byte
  int64_t silenceLimitMs_ = 0;
};

}  // namespace fetch

#endif
