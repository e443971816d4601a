#include "tests/e2e/stream_test_support.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include <libmms/mms.h>
#include <libmms/mmsh.h>

using controller::Field;
using controller::Reply;
using controller::Request;

namespace e2e {

namespace {

bool isMmstUrl(const std::string& url) {
  return url.compare(0, 6, "mms://") == 0 || url.compare(0, 7, "mmst://") == 0;
}

struct MmsCloser {
  void operator()(mms_t* m) const { mms_close(m); }
};
struct MmshCloser {
  void operator()(mmsh_t* m) const { mmsh_close(m); }
};
using MmsHandle = std::unique_ptr<mms_t, MmsCloser>;
using MmshHandle = std::unique_ptr<mmsh_t, MmshCloser>;

// Reads until the library delivers nothing more.
template <typename ReadFn>
std::string readToEnd(ReadFn read) {
  std::string all;
  std::vector<char> buf(32768);
  int got;
  while ((got = read(buf.data(), static_cast<int>(buf.size()))) > 0) {
    all.append(buf.data(), static_cast<size_t>(got));
  }
  return all;
}

// libmms opens MMSH only by the mmsh:// name; http:// is ours to rewrite.
std::string mmshName(const std::string& url) {
  return url.compare(0, 7, "http://") == 0 ? "mmsh://" + url.substr(7) : url;
}

}  // namespace

const AsfFile& sampleAsf() {
  static const AsfFile file = [] {
    AsfFile f;
    std::string error;
    if (!loadAsfFile(HALVARINE_SAMPLE_ASF, f, error)) {
      ADD_FAILURE() << "cannot load the sample: " << error;
    }
    return f;
  }();
  return file;
}

bool libmmsStream(const std::string& url, std::string& out, std::string& error) {
  if (isMmstUrl(url)) {
    MmsHandle mms(mms_connect(nullptr, nullptr, url.c_str(), 0));
    if (!mms) return error = "mms_connect failed for " + url, false;
    out = readToEnd([&](char* buf, int len) { return mms_read(nullptr, mms.get(), buf, len); });
  } else {
    MmshHandle mmsh(mmsh_connect(nullptr, nullptr, mmshName(url).c_str(), 0));
    if (!mmsh) return error = "mmsh_connect failed for " + url, false;
    out = readToEnd([&](char* buf, int len) { return mmsh_read(nullptr, mmsh.get(), buf, len); });
  }
  return true;
}

bool libmmsLength(const std::string& url, uint32_t& out, std::string& error) {
  if (isMmstUrl(url)) {
    MmsHandle mms(mms_connect(nullptr, nullptr, url.c_str(), 0));
    if (!mms) return error = "mms_connect failed for " + url, false;
    out = mms_get_length(mms.get());
  } else {
    MmshHandle mmsh(mmsh_connect(nullptr, nullptr, mmshName(url).c_str(), 0));
    if (!mmsh) return error = "mmsh_connect failed for " + url, false;
    out = mmsh_get_length(mmsh.get());
  }
  return true;
}

std::string unresolvableHost() { return std::string(64, 'x') + ".invalid"; }

RefusingPort::RefusingPort() : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  if (!fd_.valid() || bind(fd_.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      getsockname(fd_.get(), reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
    fd_.reset();
    return;
  }
  port_ = ntohs(addr.sin_port);
}

const char REFUSED[] = "<connection refused>";

std::vector<std::string> withRefusalsJoined(const std::vector<std::string>& lines) {
  const std::string errnoLine =
      " errno = " + std::to_string(ECONNREFUSED) + " / msg = " + strerror(ECONNREFUSED);
  std::vector<std::string> out;
  for (size_t i = 0; i < lines.size(); ++i) {
    if (lines[i] == "ERR - connect with select : " + std::to_string(ECONNREFUSED)) {
      out.push_back(REFUSED);
    } else if (lines[i] == "ERR - connect" && i + 1 < lines.size() && lines[i + 1] == errnoLine) {
      out.push_back(REFUSED);
      ++i;
    } else {
      out.push_back(lines[i]);
    }
  }
  return out;
}

std::string expectedReadReply(unsigned char echo, const std::string& word,
                              const std::string& data) {
  const size_t n = data.size();
  char digits[16];
  snprintf(digits, sizeof digits, "%08zu", n);
  const std::string body = word + "\n" + "OK_\n" + digits + "\n" +
                           bytes({0x00, static_cast<int>((n >> 8) & 0xFF),
                                  static_cast<int>(n & 0xFF), 0x00}) +
                           data + "\n\n";
  return frameAround(echo, body, 'R');
}

void StreamTest::SetUp() {
  // A proxy from the environment would reroute both the worker's direct
  // URLs and the reference reads.
  unsetenv("http_proxy");
  sampleAsf();
  WorkerTest::SetUp();
}

MmsTestServer& StreamTest::startServer(Transport transport, const Faults& faults) {
  ServerOptions options;
  options.transport = transport;
  options.faults = faults;
  servers.emplace_back(new MmsTestServer(sampleAsf(), options));
  std::string error;
  EXPECT_TRUE(servers.back()->start(error)) << error;
  return *servers.back();
}

std::string StreamTest::referenceFor(const std::string& url) {
  std::string bytes, error;
  EXPECT_TRUE(libmmsStream(url, bytes, error)) << error;
  // The library hands on every byte the server cut from the file.
  EXPECT_EQ(asfStreamBytes(sampleAsf()).size(), bytes.size());
  EXPECT_TRUE(asfStreamBytes(sampleAsf()) == bytes);
  return bytes;
}

Request StreamTest::request(const std::string& word, const std::vector<std::string>& params) {
  return Request::command(word, nextEcho(), params);
}

Reply StreamTest::connect(const std::string& url) { return call(request("CONNECT", {url})); }

Reply StreamTest::connectCounted(const std::string& url) {
  Request req = request("CONNECT");
  req.fields.push_back(Field::countedField(url));
  return call(req);
}

Reply StreamTest::read(const std::string& countField, const std::string& word) {
  return call(request(word, {countField}));
}

Reply StreamTest::command(const std::string& word) { return call(request(word)); }

std::string StreamTest::countDigits(int count) {
  char digits[16];
  snprintf(digits, sizeof digits, "%08d", count);
  return digits;
}

std::vector<std::string> StreamTest::newLines() {
  std::vector<std::string> all = stderrLines();
  std::vector<std::string> fresh(all.begin() + static_cast<long>(std::min(linesSeen_, all.size())),
                                 all.end());
  linesSeen_ = all.size();
  return fresh;
}

std::vector<std::string> StreamTest::openLines(const std::string& url, Transport transport) {
  std::vector<std::string> lines = {"[commandConnect()] command size : 7",
                                    "[WrapperMms::connect()] call! ",
                                    "[WrapperMms::connect()] url=" + url};
  if (transport == Transport::MMST) {
    lines.insert(lines.end(), {"[WrapperMms::connect()] open MMST stream!",
                               "[WrapperMms::io_tcp_connect]",
                               "[WrapperMms::connect()] open MMST stream success!"});
  } else {
    // Two connections: the describe request, answered with the header
    // and the server's close, then the play request.
    lines.insert(lines.end(), {"[WrapperMms::connect()] open MMSH stream!",
                               "[WrapperMms::io_tcp_connect]", "[WrapperMms::io_read()] EOF",
                               "[WrapperMms::io_tcp_connect]",
                               "[WrapperMms::connect()] open MMSH stream success!"});
  }
  lines.push_back("[commandConnect()] MMS connect server!! : 0");
  return lines;
}

}  // namespace e2e
