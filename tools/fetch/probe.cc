#include "tools/fetch/probe.h"

#include <errno.h>
#include <fcntl.h>
#include <halvarine/diagnosis.h>
#include <halvarine/fd.h>
#include <halvarine/pipeline.h>
#include <halvarine/runtime.h>
#include <netdb.h>
#include <netinet/in.h>
#include <stdio.h>
#include <string.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tools/asf/asf_file.h"
#include "tools/fetch/options.h"
#include "tools/mmsserver/mmst_wire.h"

namespace fetch {

namespace {

using halvarine::UniqueFd;

// A response head longer than this is not one a stream server sends.
const size_t MAX_HEAD = 16 * 1024;
// The open file report's attributes: the live flag servers set for a broadcast.
const size_t OPEN_FILE_FLAGS_AT = 20;
const uint32_t OPEN_FILE_BROADCAST = 0x02000000;
// The client and its GUID, as an MMS client names itself.
const char PLAYER[] = "NSPlayer/7.0.0.1956";
const char CLIENT_GUID[] = "{3300AD50-2C39-46c0-AE0A-60F8C3B0A0F5}";

// A TCP connection to `host`:`port` (IPv4, as the worker), made by
// `deadline`; invalid with `error` when not.
UniqueFd connectTcp(const std::string& host, int port, int64_t deadline, std::string& error) {
  addrinfo hints;
  memset(&hints, 0, sizeof hints);
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const int rc = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
  if (rc != 0 || found == nullptr) {
    error = "cannot resolve " + host;
    return UniqueFd();
  }
  UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd.valid()) {
    freeaddrinfo(found);
    error = strerror(errno);
    return UniqueFd();
  }
  const int c = connect(fd.get(), found->ai_addr, found->ai_addrlen);
  freeaddrinfo(found);
  if (c != 0 && errno != EINPROGRESS) {
    error = strerror(errno);
    return UniqueFd();
  }
  if (c != 0) {
    if (halvarine::waitWritable(fd.get(), deadline) != halvarine::Ready::READY) {
      error = "connection timed out";
      return UniqueFd();
    }
    int soError = 0;
    socklen_t len = sizeof soError;
    if (getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, &soError, &len) != 0 || soError != 0) {
      error = strerror(soError != 0 ? soError : errno);
      return UniqueFd();
    }
  }
  return fd;
}

bool sendAll(int fd, const std::string& bytes, int64_t deadline) {
  for (size_t done = 0; done < bytes.size();) {
    const ssize_t n = send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (n > 0) {
      done += static_cast<size_t>(n);
    } else if (n < 0 && errno != EAGAIN && errno != EINTR) {
      return false;
    } else if (halvarine::waitWritable(fd, deadline) != halvarine::Ready::READY) {
      return false;
    }
  }
  return true;
}

// Appends what comes by `deadline` until `enough` says so; false when the
// peer closed or the time ran out first.
template <typename Enough>
bool receiveUntil(int fd, std::string& into, int64_t deadline, Enough enough) {
  char buf[4096];
  while (!enough(into)) {
    const ssize_t n = recv(fd, buf, sizeof buf, 0);
    if (n > 0) {
      into.append(buf, static_cast<size_t>(n));
    } else if (n == 0 || (errno != EAGAIN && errno != EINTR)) {
      return false;
    } else if (halvarine::waitReadable(fd, deadline) != halvarine::Ready::READY) {
      return false;
    }
  }
  return true;
}

void putUtf16(std::string& out, const std::string& ascii) {
  for (unsigned char c : ascii) putLe16(out, c);
  putLe16(out, 0);
}

// A client command: two prefix words, then `rest`.
std::string command(uint16_t id, uint32_t sequence, uint32_t prefix1, uint32_t prefix2,
                    const std::string& rest) {
  std::string body;
  putLe32(body, prefix1);
  putLe32(body, prefix2);
  return mmst::makeCommand(mmst::TO_SERVER, id, sequence, 0, body + rest);
}

std::string lowerCase(std::string s) {
  for (char& c : s) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  return s;
}

}  // namespace

std::string httpStatusText(const ProbeAnswer& answer) {
  return "HTTP " + std::to_string(answer.status) +
         (answer.reason.empty() ? std::string() : " " + answer.reason);
}

bool noSuchFile(uint32_t result) {
  // The system's "file not found" and "path not found", and the media
  // server's own "not found".
  return result == 0x80070002 || result == 0x80070003 || result == 0xC00D002B;
}

std::string mmsResultText(uint32_t result) {
  char hex[16];
  snprintf(hex, sizeof hex, "0x%08X", result);
  if (noSuchFile(result)) return std::string("no such file (") + hex + ")";
  switch (result) {
    case 0x80070005:
      return std::string("access denied (") + hex + ")";
    default:
      return std::string("error ") + hex;
  }
}

ProbeAnswer readHttpHead(const std::string& head) {
  ProbeAnswer a;
  int major = 0, minor = 0, status = 0, consumed = 0;
  if (head.compare(0, 5, "HTTP/") != 0 ||
      sscanf(head.c_str(), "HTTP/%d.%d %d%n", &major, &minor, &status, &consumed) != 3) {
    a.kind = head.empty() ? ProbeAnswer::SILENT : ProbeAnswer::OTHER;
    return a;
  }
  a.kind = ProbeAnswer::HTTP;
  a.status = status;
  const size_t lineEnd = head.find_first_of("\r\n");
  const size_t reasonAt = head.find_first_not_of(' ', static_cast<size_t>(consumed));
  if (reasonAt < lineEnd) a.reason = head.substr(reasonAt, lineEnd - reasonAt);
  // Pragma: features="broadcast" (or "seekable,stridx" for a stored file).
  const std::string lower = lowerCase(head);
  for (size_t at = lower.find("\npragma:"); at != std::string::npos;
       at = lower.find("\npragma:", at + 1)) {
    const std::string line = lower.substr(at + 1, lower.find('\n', at + 1) - at - 1);
    const size_t features = line.find("features=");
    if (features == std::string::npos) continue;
    a.mms = true;
    if (line.find("broadcast", features) != std::string::npos) a.live = true;
  }
  return a;
}

ProbeAnswer probeHttp(const std::string& host, int port, const std::string& path,
                      const std::string& proxy, int timeoutMs) {
  ProbeAnswer a;
  const int64_t deadline = halvarine::monotonicMs() + timeoutMs;
  const std::string hostPort = host + ":" + std::to_string(port);
  std::string target = path;
  std::string connectHost = host;
  int connectPort = port;
  if (!proxy.empty()) {
    target = "http://" + hostPort + path;
    connectHost = proxy.substr(0, proxy.rfind(':'));
    connectPort = atoi(proxy.c_str() + proxy.rfind(':') + 1);
  }
  UniqueFd fd = connectTcp(connectHost, connectPort, deadline, a.error);
  if (!fd.valid()) return a;
  const std::string request = "GET " + target +
                              " HTTP/1.0\r\n"
                              "Accept: */*\r\n"
                              "User-Agent: " +
                              PLAYER + "\r\nHost: " + hostPort +
                              "\r\n"
                              "Pragma: no-cache,rate=1.000000,stream-time=0,stream-offset=0:0,"
                              "request-context=1,max-duration=0\r\n"
                              "Pragma: xClientGUID=" +
                              CLIENT_GUID + "\r\nConnection: Close\r\n\r\n";
  std::string head;
  if (sendAll(fd.get(), request, deadline)) {
    receiveUntil(fd.get(), head, deadline, [](const std::string& got) {
      return got.find("\r\n\r\n") != std::string::npos || got.find("\n\n") != std::string::npos ||
             got.size() >= MAX_HEAD;
    });
  }
  return readHttpHead(head.substr(0, head.find("\r\n\r\n")));
}

ProbeAnswer probeMmst(const std::string& host, int port, const std::string& path, int timeoutMs) {
  ProbeAnswer a;
  const int64_t deadline = halvarine::monotonicMs() + timeoutMs;
  UniqueFd fd = connectTcp(host, port, deadline, a.error);
  if (!fd.valid()) return a;
  a.kind = ProbeAnswer::SILENT;
  std::string received;
  // The next whole report; false when none comes or it is not MMS over TCP.
  auto report = [&](mmst::Command& out) {
    auto whole = [](const std::string& got) {
      const size_t size = mmst::messageSize(got);
      return got.size() >= mmst::LEAD_BYTES && (size == 0 || got.size() >= size);
    };
    if (!receiveUntil(fd.get(), received, deadline, whole)) {
      if (!received.empty()) a.kind = ProbeAnswer::OTHER;
      return false;
    }
    const size_t size = mmst::messageSize(received);
    std::string why;
    if (size == 0 || !mmst::parseCommand(received.substr(0, size), out, why) ||
        out.direction != mmst::TO_CLIENT) {
      a.kind = ProbeAnswer::OTHER;
      return false;
    }
    received.erase(0, size);
    a.kind = ProbeAnswer::MMST;
    return true;
  };
  std::string hello;
  putUtf16(hello, std::string(PLAYER) + "; " + CLIENT_GUID + "; Host: " + host);
  std::string funnel;
  putLe32(funnel, 0);
  putLe32(funnel, 0x00A0F0A0);
  putUtf16(funnel, "\\\\127.0.0.1\\TCP\\1037");
  std::string file;
  putUtf16(file, path.size() > 1 ? path.substr(1) : path);
  struct Step {
    std::string message;
    uint16_t answer;
  } steps[] = {
      {command(mmst::cs::CONNECT, 0, 0, 0x0004000B, hello), mmst::sc::REPORT_CONNECTED},
      {command(mmst::cs::CONNECT_FUNNEL, 1, 0, 0xFFFFFFFF, funnel),
       mmst::sc::REPORT_CONNECTED_FUNNEL},
      {command(mmst::cs::OPEN_FILE, 2, 0, 0, file), mmst::sc::REPORT_OPEN_FILE},
  };
  for (const Step& step : steps) {
    if (!sendAll(fd.get(), step.message, deadline)) return a;
    mmst::Command reply;
    // Pings may come between.
    do {
      if (!report(reply)) return a;
    } while (reply.id == mmst::sc::PING);
    a.mmsResult = mmst::fits(reply.body, 0, 4) ? getLe32(reply.body, 0) : 0;
    if (reply.id != step.answer || a.mmsResult != 0) return a;
    if (reply.id == mmst::sc::REPORT_OPEN_FILE) {
      a.opened = true;
      a.mms = true;
      a.live = mmst::fits(reply.body, OPEN_FILE_FLAGS_AT, 4) &&
               (getLe32(reply.body, OPEN_FILE_FLAGS_AT) & OPEN_FILE_BROADCAST) != 0;
    }
  }
  sendAll(fd.get(), command(mmst::cs::CLOSE_FILE, 3, 1, 1, ""), deadline);
  return a;
}

namespace {

// MMS over TCP for mmst:// and a plain mms:// URL, HTTP for the others and
// for whatever goes through a proxy; an mms:// server that does not speak
// MMS over TCP is asked over HTTP too, as the worker tries both.
ProbeAnswer ask(const PreparedUrl& url, int timeoutMs, bool overHttp = false) {
  const bool http = overHttp || url.viaProxy || url.scheme == "mmsh" || url.scheme == "http";
  ProbeAnswer a;
  if (!http) a = probeMmst(url.host, url.port, url.path, timeoutMs);
  if (http || (url.scheme == "mms" && a.kind != ProbeAnswer::MMST)) {
    const ProbeAnswer h =
        probeHttp(url.host, url.port, url.path, url.viaProxy ? url.endpoint : "", timeoutMs);
    if (h.kind == ProbeAnswer::HTTP || a.kind == ProbeAnswer::NO_CONNECTION) a = h;
  }
  return a;
}

}  // namespace

Ending askServerWhy(const PreparedUrl& url, const std::string& where, int timeoutMs,
                    std::string& why) {
  const ProbeAnswer a = ask(url, timeoutMs);
  if (a.kind == ProbeAnswer::HTTP && a.status >= 400) {
    // Through a proxy, a server error is the proxy's own (it could not
    // reach the server: tinyproxy's "500 Unable to connect", a gateway's
    // 502, 503, 504), as is its demand for credentials; the server's own
    // refusals (404, 403) are passed on as they are.
    const std::string server = url.host + ":" + std::to_string(url.port);
    if (url.viaProxy && (a.status >= 500 || a.status == 407)) {
      why =
          "the proxy " + url.endpoint + " refused: " + httpStatusText(a) + " (for " + server + ")";
      return Ending::CANNOT_CONNECT;
    }
    why = httpStatusText(a) + " (" +
          (url.viaProxy ? server + ", through the proxy " + url.endpoint : where) + ")";
    return Ending::HTTP_ERROR;
  }
  if (a.kind == ProbeAnswer::MMST && a.mmsResult != 0) {
    why = "the MMS server refused to open " + url.path + ": " + mmsResultText(a.mmsResult) + " (" +
          where + ")";
    return noSuchFile(a.mmsResult) ? Ending::NO_SUCH_FILE : Ending::NOT_MMS;
  }
  if (a.kind == ProbeAnswer::MMST || (a.kind == ProbeAnswer::HTTP && a.mms)) {
    why = std::string("the server speaks MMS and offers the stream, but it did not open ") +
          "(it broke off, or sent what the worker cannot read) (" + where + ")";
    return Ending::NOT_MMS;
  }
  if (a.kind == ProbeAnswer::HTTP) {
    why = "not an MMS server: it answered " + httpStatusText(a) + " without an MMS stream (" +
          where + ")";
    return Ending::NOT_MMS;
  }
  why = std::string(halvarine::connectFailureText(halvarine::ConnectFailure::NOT_MMS)) + " (" +
        where + ")";
  return Ending::NOT_MMS;
}

bool askServerIfLive(const PreparedUrl& url, bool overHttp, int timeoutMs) {
  return ask(url, timeoutMs, overHttp).live;
}

}  // namespace fetch
