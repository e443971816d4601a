#include "tools/fetch/display.h"

#include <stdio.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <iostream>

namespace fetch {

namespace {

// A live line at most this often, a plain one at most this often.
const int64_t TERMINAL_REFRESH_MS = 250;
const int64_t PLAIN_REFRESH_MS = 10000;
// Data silent for this long is waited for, and the line says so.
const int64_t DATA_SILENCE_MS = 2000;
// Bytes of a frame shown in hexadecimal with -vv before it is cut short.
const size_t HEX_SHOWN = 48;

std::string format(const char* fmt, double a, const char* b = "") {
  char buf[64];
  snprintf(buf, sizeof buf, fmt, a, b);
  return buf;
}

std::string clock(int64_t ms) {
  const long s = static_cast<long>(ms / 1000);
  char buf[32];
  if (s >= 3600) {
    snprintf(buf, sizeof buf, "%ld:%02ld:%02ld", s / 3600, s / 60 % 60, s % 60);
  } else {
    snprintf(buf, sizeof buf, "%ld:%02ld", s / 60, s % 60);
  }
  return buf;
}

}  // namespace

size_t terminalColumns() {
  winsize ws;
  if (ioctl(STDERR_FILENO, TIOCGWINSZ, &ws) == 0 && ws.ws_col > 0) return ws.ws_col;
  const char* columns = getenv("COLUMNS");
  const int n = columns != nullptr ? atoi(columns) : 0;
  return n > 0 ? static_cast<size_t>(n) : 80;
}

namespace {

// A request or reply in one line: its fields, data replaced by its size.
std::string summary(const std::vector<halvarine::Field>& fields, unsigned char echo) {
  std::string s;
  for (const halvarine::Field& f : fields) {
    if (!s.empty()) s += ' ';
    s += f.counted ? "[" + std::to_string(f.bytes.size()) + " data bytes]" : f.bytes;
  }
  char e[16];
  snprintf(e, sizeof e, "  (echo %02X)", echo);
  return s + e;
}

std::string frameHex(const std::string& frame) {
  if (frame.size() <= HEX_SHOWN) return halvarine::hex(frame);
  return halvarine::hex(frame.substr(0, HEX_SHOWN)) + " ... (" + std::to_string(frame.size()) +
         " bytes)";
}

}  // namespace

std::string humanBytes(double bytes) {
  static const char* const UNITS[] = {"KiB", "MiB", "GiB", "TiB"};
  if (bytes < 1024) return format("%.0f B", bytes);
  int unit = -1;
  while (bytes >= 1024 && unit < 3) {
    bytes /= 1024;
    ++unit;
  }
  return format("%.1f %s", bytes, UNITS[unit]);
}

Display::Display(int verbosity, const volatile sig_atomic_t* stop)
    : verbosity_(verbosity),
      stop_(stop),
      terminal_(isatty(STDERR_FILENO) == 1),
      lastDrawn_(halvarine::monotonicMs()) {}

void Display::write(const std::string& line) {
  if (lineShown_) {
    std::cerr << "\r\033[K";
    lineShown_ = false;
  }
  std::cerr << line << std::endl;
}

void Display::note(const std::string& text) {
  if (verbosity_ >= 1) write("halvarine-fetch: " + text);
}

void Display::error(const std::string& text) {
  write("halvarine-fetch: " + text);
}

void Display::quote(const std::string& text) {
  write(text);
}

void Display::detail(const std::string& text) {
  if (verbosity_ >= 2) write(text);
}

void Display::setPhase(const std::string& text, int64_t untilMs) {
  phase_ = text;
  phaseStart_ = halvarine::monotonicMs();
  phaseUntil_ = untilMs;
  draw(true);
}

std::string Display::rateSummary() const {
  const double t = static_cast<double>(halvarine::monotonicMs() - started_) / 1000;
  std::string s = std::to_string(bytes_) + " bytes (" + humanBytes(static_cast<double>(bytes_)) +
                  ") in " + format("%.2f s", t);
  if (t > 0) s += ", " + humanBytes(static_cast<double>(bytes_) / t) + "/s";
  return s;
}

void Display::startTransfer(uint64_t length) {
  length_ = length;
  started_ = halvarine::monotonicMs();
  lastData_ = started_;
  lastNew_ = started_;
  transferring_ = true;
  phase_.clear();
}

void Display::setBytes(uint64_t bytes) {
  if (bytes != bytes_) lastData_ = lastNew_ = halvarine::monotonicMs();
  bytes_ = bytes;
  draw(false);
}

void Display::startPass(uint64_t base, uint64_t skip) {
  base_ = base;
  skip_ = skip;
  received_ = 0;
  lastData_ = halvarine::monotonicMs();
  // Reading again: the line shows the transfer, not the wait before it.
  phase_.clear();
  phaseUntil_ = 0;
}

void Display::endTransfer() {
  draw(true);
  if (lineShown_) {
    std::cerr << std::endl;
    lineShown_ = false;
  }
  transferring_ = false;
  phase_.clear();
}

bool Display::durationReached() const {
  return stopAtMs_ > 0 && halvarine::monotonicMs() >= stopAtMs_;
}

bool Display::silenceLimitReached() const {
  return silenceLimitMs_ > 0 && transferring_ &&
         halvarine::monotonicMs() - lastNew_ >= silenceLimitMs_;
}

std::string Display::statusText(int64_t t) const {
  if (!phase_.empty() && phaseUntil_ > 0) {
    return phase_ + " in " + std::to_string((std::max<int64_t>(0, phaseUntil_ - t) + 999) / 1000) +
           " s";
  }
  if (!phase_.empty()) return phase_ + "... " + std::to_string((t - phaseStart_) / 1000) + " s";
  if (!transferring_) return "";
  std::string line = humanBytes(static_cast<double>(bytes_));
  if (received_ < skip_) {
    return line +
           "  skipping what is already written: " + humanBytes(static_cast<double>(received_)) +
           " of " + humanBytes(static_cast<double>(skip_));
  }
  const bool known = length_ > 0 && bytes_ <= length_;
  if (known) {
    line += " of " + humanBytes(static_cast<double>(length_)) +
            format("  %3.0f%%", 100.0 * static_cast<double>(bytes_) / static_cast<double>(length_));
  }
  if (t - lastData_ >= DATA_SILENCE_MS) {
    return line + "  no data from the server for " + std::to_string((t - lastData_) / 1000) + " s";
  }
  const double secs = static_cast<double>(t - started_) / 1000;
  const double rate = secs > 0 ? static_cast<double>(bytes_) / secs : 0;
  line += "  " + humanBytes(rate) + "/s";
  if (known && rate > 0) {
    line += "  " +
            clock(static_cast<int64_t>(static_cast<double>(length_ - bytes_) / rate * 1000)) +
            " left";
  } else if (!known) {
    line += "  " + clock(t - started_) +
            (stopAtMs_ > 0 ? " of " + clock(stopAtMs_ - started_) : std::string()) + " recorded";
  }
  return line;
}

void Display::draw(bool force) {
  if (verbosity_ != 1) return;
  const int64_t t = halvarine::monotonicMs();
  if (!force && t - lastDrawn_ < (terminal_ ? TERMINAL_REFRESH_MS : PLAIN_REFRESH_MS)) return;
  // Without a terminal, a line every so often; the closing summary says the rest.
  if (!terminal_ && force) return;
  lastDrawn_ = t;
  std::string line = statusText(t);
  if (line.empty()) return;
  if (!terminal_) {
    std::cerr << "halvarine-fetch: " << line << std::endl;
    return;
  }
  // One column short of the width: a full line wraps on some terminals.
  const size_t width = terminalColumns();
  if (line.size() >= width) line.resize(width > 1 ? width - 1 : 0);
  std::cerr << "\r\033[K" << line << std::flush;
  lineShown_ = true;
}

void Display::relayWorker() {
  if (!worker_) return;
  // Read what the worker wrote even when it is not shown: a worker blocked
  // on a full standard error pipe would answer nothing.
  const std::string& text = worker_->output();
  if (verbosity_ < 2) return;
  size_t end;
  while ((end = text.find('\n', workerRelayed_)) != std::string::npos) {
    write("worker: " + text.substr(workerRelayed_, end - workerRelayed_));
    workerRelayed_ = end + 1;
  }
}

std::vector<std::string> Display::workerLines(size_t n) {
  if (!worker_) return {};
  std::vector<std::string> lines = worker_->outputLines();
  if (lines.size() > n) lines.erase(lines.begin(), lines.end() - static_cast<long>(n));
  return lines;
}

void Display::sent(const halvarine::Request& request) {
  // No relay here: the worker may already be at work on this request, and
  // its lines belong after it.
  if (verbosity_ < 2) return;
  write("> " + summary(request.fields, request.echo));
  if (verbosity_ >= 3) {
    std::string frame;
    if (halvarine::encodeRequest(request, frame)) write("  " + frameHex(frame));
  }
}

void Display::received(const halvarine::Reply& reply) {
  relayWorker();
  if (verbosity_ < 2) return;
  write("< " + summary(reply.fields, reply.echo));
  if (verbosity_ >= 3) write("  " + frameHex(reply.frame));
}

void Display::bytesReceived(uint64_t total) {
  received_ = total;
  setBytes(base_ + (total > skip_ ? total - skip_ : 0));
  // Bytes skipped are news too: the stream is moving.
  lastData_ = halvarine::monotonicMs();
}

void Display::waitingForOutput() {
  // A reader of the output that holds the fetch up is no stall of the
  // server's: the silence counts from when it lets go.
  lastData_ = lastNew_ = halvarine::monotonicMs();
}

void Display::tick() {
  relayWorker();
  draw(false);
}

}  // namespace fetch
