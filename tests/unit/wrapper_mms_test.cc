// The stream object without a server: its closed state, and how connect
// picks transports, targets and the proxy (observed through its log lines,
// with every attempt refused by a port nobody listens on).

#include "mms/wrapper_mms.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <sstream>

#include "stderr_capture.h"

namespace {

TEST(WrapperMmsClosed, RefusesEverythingQuietlyExceptTheQueries) {
  WrapperMms w("mms://127.0.0.1/none");
  StderrCapture err;
  int count = 99;
  EXPECT_EQ(1u, w.read(nullptr, 10, count));
  EXPECT_EQ(0, count);
  char buf[10];
  count = 99;
  EXPECT_EQ(5u, w.read(buf, 10, count));
  EXPECT_EQ(0, count);
  uint32_t length = 1234, pos = 5678;
  EXPECT_EQ(5u, w.getLength(length));
  EXPECT_EQ(5u, w.getCurrentPos(pos));
  EXPECT_EQ(1234u, length);
  EXPECT_EQ(5678u, pos);
  EXPECT_EQ(0u, w.close());
  EXPECT_EQ(0u, w.close());
  EXPECT_FALSE(w.isConnected());
  EXPECT_EQ(
      "[WrapperMms::getLength()] call! \n"
      "WrapperMms::getCurrentPos()] call! \n",
      err.text());
}

int closedPort() {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
  socklen_t len = sizeof a;
  getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
  close(fd);
  return ntohs(a.sin_port);
}

// connect()'s own lines, without those of the socket callbacks.
std::string connectLines(const std::string& log) {
  std::istringstream in(log);
  std::string line, out;
  while (std::getline(in, line))
    if (line.rfind("[WrapperMms::connect()]", 0) == 0) out += line + "\n";
  return out;
}

struct ConnectCase {
  std::string url;
  const char* proxyAfter;  // nullptr: http_proxy removed
  std::string lines;       // after the call and url lines
};

TEST(WrapperMmsConnect, UrlFormDecidesProxyTransportsAndTarget) {
  const std::string hp = "127.0.0.1:" + std::to_string(closedPort());
  const std::string C = "[WrapperMms::connect()] ";
  const std::string mmst = C + "open MMST stream!\n" + C + "open MMST stream failed!\n";
  const std::string mmsh = C + "open MMSH stream!\n" + C + "open MMSH stream failed! ";
  const ConnectCase cases[] = {
      {"mms://" + hp + "/live", nullptr, mmst + mmsh + "mms://" + hp + "/live\n"},
      {"mmst://" + hp + "/live", nullptr, mmst + mmsh + "mmst://" + hp + "/live\n"},
      {"http://" + hp + "/live", nullptr, mmsh + "mmsh://" + hp + "/live\n"},
      {"mmsh://" + hp + "/live", nullptr, mmsh + "mmsh://" + hp + "/live\n"},
      {"HTTP://" + hp + "/live", nullptr, mmst + mmsh + "HTTP://" + hp + "/live\n"},
      {hp + "/http://media/live", hp.c_str(),
       C + "set proxy! : " + hp + "\n" + mmsh + "mmsh://media/live\n"},
      {hp + "/mms://media/live", hp.c_str(),
       C + "set proxy! : " + hp + "\n" + mmsh + "mms://media/live\n"},
      {"/mmsh://" + hp + "/live", "", C + "set proxy! : \n" + mmsh + "mmsh://" + hp + "/live\n"},
      {"a/http://b/mms://" + hp, "a/http://b",
       C + "set proxy! : a/http://b\n" + mmsh + "mms://" + hp + "\n"},
      {"", nullptr, mmst + mmsh + "\n"},
  };
  for (const ConnectCase& c : cases) {
    setenv("http_proxy", "stale", 1);
    WrapperMms w(c.url);
    StderrCapture err;
    EXPECT_EQ(2u, w.connect()) << c.url;
    EXPECT_FALSE(w.isConnected());
    EXPECT_EQ(C + "call! \n" + C + "url=" + c.url + "\n" + c.lines, connectLines(err.text()))
        << c.url;
    const char* proxy = getenv("http_proxy");
    if (c.proxyAfter == nullptr)
      EXPECT_EQ(nullptr, proxy) << c.url;
    else
      EXPECT_STREQ(c.proxyAfter, proxy) << c.url;
  }
}

}  // namespace
