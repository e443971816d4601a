#ifndef HALVARINE_TESTS_E2E_STREAM_TEST_SUPPORT_H
#define HALVARINE_TESTS_E2E_STREAM_TEST_SUPPORT_H

// The end-to-end tests with a stream: the real worker, the test MMS servers
// on loopback, and the bytes libmms itself reads from the same server as
// the oracle for what the worker must deliver.

#include <stdint.h>

#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "tests/e2e/worker_test_support.h"
#include "tools/controller/controller.h"
#include "tools/mmsserver/server.h"

// Test names and failure messages say MMST or MMSH.
inline void PrintTo(Transport transport, std::ostream* os) {
  *os << (transport == Transport::MMST ? "MMST" : "MMSH");
}

namespace e2e {

// The committed sample as the servers cut it; loaded once.
const AsfFile& sampleAsf();

// The whole stream at `url` as libmms delivers it to a plain caller: the
// library's own I/O, bandwidth 0 as the worker asks, read to the end.
// mms:// and mmst:// open MMST, mmsh:// and http:// MMSH (the latter as
// mmsh://, the only name under which libmms opens MMSH). False with
// `error` set when the library cannot open the stream.
bool libmmsStream(const std::string& url, std::string& out, std::string& error);
// What the library reports as the stream's length, after opening it.
bool libmmsLength(const std::string& url, uint32_t& out, std::string& error);

// A host name that no resolver can look up: its first label is longer than
// DNS allows, so the lookup fails before any query leaves the machine.
std::string unresolvableHost();

// A loopback TCP port that refuses connections: bound, never listening.
// The port stays taken while the owner lives.
class RefusingPort {
 public:
  RefusingPort();
  bool valid() const { return fd_.valid(); }
  uint16_t port() const { return port_; }

 private:
  controller::UniqueFd fd_;
  uint16_t port_ = 0;
};

// `lines` with each report of a refused TCP connect replaced by the one
// line REFUSED: the refusal comes back either from connect at once
// ("ERR - connect" and the errno line) or through the wait, and which one
// is the kernel's choice.
extern const char REFUSED[];
std::vector<std::string> withRefusalsJoined(const std::vector<std::string>& lines);

// The reply frame a READ with word `word` must get when the stream gave
// `data`: the word, "OK_", the count in eight digits and the counted field,
// built here byte by byte.
std::string expectedReadReply(unsigned char echo, const std::string& word,
                              const std::string& data);

// A running worker plus test servers. The worker inherits no http_proxy.
class StreamTest : public WorkerTest {
 protected:
  void SetUp() override;

  // A server for the sample, started; owned by the test. The reference is
  // what libmms reads from it through `url` (taken before the worker uses
  // the server, as a server serves one connection at a time).
  MmsTestServer& startServer(Transport transport, const Faults& faults = Faults());
  std::string referenceFor(const std::string& url);

  // Requests, each with a fresh echo byte.
  controller::Reply connect(const std::string& url);
  // CONNECT with the URL as a counted field (how an empty URL travels).
  controller::Reply connectCounted(const std::string& url);
  controller::Reply read(const std::string& countField, const std::string& word = "READ");
  controller::Reply read(int count) { return read(countDigits(count)); }
  controller::Reply command(const std::string& word);
  controller::Request request(const std::string& word, const std::vector<std::string>& params = {});

  static std::string countDigits(int count);

  // Worker standard error lines written since the previous call.
  std::vector<std::string> newLines();

  // The lines of a plain CONNECT of `url` that opens at once over
  // `transport` (MMST with one connection, MMSH with two).
  static std::vector<std::string> openLines(const std::string& url, Transport transport);

  unsigned char nextEcho() { return echo_++; }

  std::vector<std::unique_ptr<MmsTestServer>> servers;

 private:
  size_t linesSeen_ = 0;
  unsigned char echo_ = 0x20;
};

}  // namespace e2e

#endif
