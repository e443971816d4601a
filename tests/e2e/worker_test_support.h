#ifndef HALVARINE_TESTS_E2E_WORKER_TEST_SUPPORT_H
#define HALVARINE_TESTS_E2E_WORKER_TEST_SUPPORT_H

// Shared pieces of the end-to-end tests: frames written out by hand, an
// oracle for reply frames that does not use the worker's codec, raw Unix
// sockets, and a fixture that starts the real worker on the fixed
// controller socket.

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <vector>

#include "tools/controller/controller.h"

namespace e2e {

// Seconds allowed for any reply or ending in these tests; the worker answers
// the small commands at once, so only a broken worker ever waits this long.
const int REPLY_TIMEOUT_S = 5;

// Bytes from a list of values, for writing frames out by hand.
std::string bytes(std::initializer_list<int> values);

// A Unix-domain stream socket bound to `path` but not listening (what a
// controller that died leaves behind), or one connected to `path`. Not
// valid when that fails.
controller::UniqueFd boundSocket(const std::string& path);
controller::UniqueFd connectedSocket(const std::string& path);

// A frame around `body` as a controller writes it: 16 16 02, the header
// 00, checksum, `kind`, `echo`, 00, body length, 00, the body and 03.
std::string frameAround(unsigned char echo, const std::string& body, unsigned char kind = 'C');

// The reply frame the worker must send: 16 16 02, the header 00, checksum,
// 'R', `echo`, 00, length, 00, then each field and 0x0A, a closing 0x0A and
// 03. Text fields only. Computed here, independently of the worker's code.
std::string expectedReply(unsigned char echo, const std::vector<std::string>& fields);

// A running worker connected to this controller.
class WorkerTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // The request's reply, checked strictly; fails the test otherwise.
  controller::Reply call(const controller::Request& req);
  controller::Reply receive(unsigned char echo);

  // Proves that nothing was answered before: a CCHECK with `echo` must get
  // exactly its own reply as the next frame.
  void expectOnlyCcheckReply(unsigned char echo);

  // The worker's standard error so far, as lines.
  std::vector<std::string> stderrLines() { return session.worker().stderrLines(); }

  // Waits for the worker's end and checks its exit status.
  void expectExit(int code, int timeoutS = REPLY_TIMEOUT_S);

  controller::WorkerSession session;
};

}  // namespace e2e

#endif
