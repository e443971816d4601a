#include "tools/fetch/display.h"

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <iostream>

namespace fetch {

namespace {

// A live line at most this often, a plain one at most this often.
const double TERMINAL_REFRESH_S = 0.25;
const double PLAIN_REFRESH_S = 10;
// Bytes of a frame shown in hexadecimal with -vv before it is cut short.
const size_t HEX_SHOWN = 48;

double now() {
  return static_cast<double>(halvarine::monotonicMs()) / 1000;
}

std::string format(const char* fmt, double a, const char* b = "") {
  char buf[64];
  snprintf(buf, sizeof buf, fmt, a, b);
  return buf;
}

std::string duration(double seconds) {
  const long s = static_cast<long>(seconds + 0.5);
  char buf[32];
  if (s >= 3600) {
    snprintf(buf, sizeof buf, "%ld:%02ld:%02ld", s / 3600, s / 60 % 60, s % 60);
  } else {
    snprintf(buf, sizeof buf, "%ld:%02ld", s / 60, s % 60);
  }
  return buf;
}

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

uint64_t usableLength(const halvarine::Reply& reply) {
  const int64_t n = halvarine::replyLength(reply);
  return n > 0 ? static_cast<uint64_t>(n) : 0;
}

Display::Display(int verbosity, const volatile sig_atomic_t* stop)
    : verbosity_(verbosity), stop_(stop), terminal_(isatty(STDERR_FILENO) == 1) {}

void Display::write(const std::string& line) {
  if (progressShown_) {
    std::cerr << "\r\033[K";
    progressShown_ = false;
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

double Display::elapsed() const {
  return transferring_ || started_ > 0 ? now() - started_ : 0;
}

std::string Display::rateSummary() const {
  const double t = elapsed();
  std::string s = std::to_string(bytes_) + " bytes (" + humanBytes(static_cast<double>(bytes_)) +
                  ") in " + format("%.2f s", t);
  if (t > 0) s += ", " + humanBytes(static_cast<double>(bytes_) / t) + "/s";
  return s;
}

void Display::startTransfer(uint64_t length) {
  length_ = length;
  bytes_ = 0;
  started_ = now();
  lastDrawn_ = started_;
  transferring_ = true;
  if (length_ > 0) {
    note("stream length " + std::to_string(length_) + " bytes (" +
         humanBytes(static_cast<double>(length_)) + ")");
  } else {
    note("length unknown (live stream?)");
  }
}

void Display::endTransfer() {
  if (!transferring_) return;
  drawProgress(true);
  if (progressShown_) {
    std::cerr << std::endl;
    progressShown_ = false;
  }
  transferring_ = false;
}

void Display::drawProgress(bool force) {
  if (!transferring_ || verbosity_ != 1) return;
  const double t = now();
  if (!force && t - lastDrawn_ < (terminal_ ? TERMINAL_REFRESH_S : PLAIN_REFRESH_S)) return;
  if (!terminal_ && force) return;  // the closing summary says it all
  lastDrawn_ = t;
  const double secs = t - started_;
  const double rate = secs > 0 ? static_cast<double>(bytes_) / secs : 0;
  std::string line = humanBytes(static_cast<double>(bytes_));
  // A stream that outgrows its announced length had no usable one.
  if (length_ > 0 && bytes_ <= length_) {
    line += " of " + humanBytes(static_cast<double>(length_)) +
            format("  %3.0f%%", 100.0 * static_cast<double>(bytes_) / static_cast<double>(length_));
    line += "  " + humanBytes(rate) + "/s";
    if (rate > 0) {
      line += "  " + duration(static_cast<double>(length_ - bytes_) / rate) + " left";
    }
  } else {
    line += "  " + humanBytes(rate) + "/s  length unknown (live stream?)";
  }
  if (terminal_) {
    std::cerr << "\r\033[K" << line << std::flush;
    progressShown_ = true;
  } else {
    std::cerr << "halvarine-fetch: " << line << std::endl;
  }
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
  bytes_ = total;
  drawProgress(false);
}

void Display::tick() {
  relayWorker();
  drawProgress(false);
}

}  // namespace fetch
