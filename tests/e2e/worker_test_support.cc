#include "tests/e2e/worker_test_support.h"

#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <iostream>

using controller::ExitStatus;
using controller::Reply;
using controller::Request;

namespace e2e {

std::string bytes(std::initializer_list<int> values) {
  std::string s;
  for (int v : values) s.push_back(static_cast<char>(v));
  return s;
}

namespace {

sockaddr_un unixAddress(const std::string& path) {
  sockaddr_un addr;
  memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
  return addr;
}

}  // namespace

controller::UniqueFd boundSocket(const std::string& path) {
  controller::UniqueFd fd(socket(AF_UNIX, SOCK_STREAM, 0));
  sockaddr_un addr = unixAddress(path);
  if (bind(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) fd.reset();
  return fd;
}

controller::UniqueFd connectedSocket(const std::string& path) {
  controller::UniqueFd fd(socket(AF_UNIX, SOCK_STREAM, 0));
  sockaddr_un addr = unixAddress(path);
  if (connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) fd.reset();
  return fd;
}

std::string frameAround(unsigned char echo, const std::string& body, unsigned char kind) {
  unsigned sum = 0;
  for (unsigned char c : body) sum += c;
  const unsigned checksum = ~sum & 0xFFFF;
  return bytes({0x16, 0x16, 0x02, 0x00, static_cast<int>(checksum >> 8),
                static_cast<int>(checksum & 0xFF), kind, echo, 0x00,
                static_cast<int>((body.size() >> 8) & 0xFF), static_cast<int>(body.size() & 0xFF),
                0x00}) +
         body + "\x03";
}

std::string expectedReply(unsigned char echo, const std::vector<std::string>& fields) {
  std::string body;
  for (const std::string& f : fields) body += f + "\n";
  return frameAround(echo, body + "\n", 'R');
}

void WorkerTest::SetUp() {
  controller::WorkerSession::Options options;
  options.worker = controller::workerFromEnvironment();
  ASSERT_FALSE(options.worker.empty()) << "HALVARINE_WORKER names no worker binary";
  ASSERT_TRUE(session.start(options)) << session.error();
}

void WorkerTest::TearDown() {
  // Show what the worker said when a test fails; the session kills it.
  if (HasFailure()) {
    for (const std::string& line : stderrLines()) {
      std::cerr << "worker stderr: " << line << "\n";
    }
  }
}

Reply WorkerTest::call(const Request& req) {
  Reply r;
  EXPECT_TRUE(session.call(req, REPLY_TIMEOUT_S, r)) << session.error();
  return r;
}

Reply WorkerTest::receive(unsigned char echo) {
  Reply r;
  EXPECT_TRUE(session.receive(echo, REPLY_TIMEOUT_S, r)) << session.error();
  return r;
}

void WorkerTest::expectOnlyCcheckReply(unsigned char echo) {
  Reply r = call(Request::command("CCHECK", echo));
  EXPECT_EQ(controller::hex(r.frame), controller::hex(expectedReply(echo, {"CCHECK", "OK_"})));
}

void WorkerTest::expectExit(int code, int timeoutS) {
  ExitStatus st;
  ASSERT_TRUE(session.worker().waitExit(timeoutS, st)) << session.worker().error();
  EXPECT_TRUE(st.exited) << st.toString();
  EXPECT_EQ(code, st.code) << st.toString();
}

}  // namespace e2e
