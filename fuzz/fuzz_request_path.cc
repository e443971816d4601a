// The worker's request path on arbitrary controller bytes: extractPacket,
// parsePacket and dispatchCommand, exactly as the command loop chains them,
// with g_controlFd one end of a socket pair whose other end is read here.
//
// CONNECT runs for real through libmms, in a network namespace of the
// target's own with no interface up: a name lookup or a connect fails at
// once, no stream ever opens and nothing leaves the process.
//
// Properties, for every frame cut from the input:
//  - whatever the bytes, the process never holds an open stream;
//  - a frame that is dropped (malformed, unknown word) gets no reply, and a
//    request gets at most one;
//  - a request that its handler accepts gets exactly one;
//  - every reply is a well-formed frame (start, length, checksum, 'R', the
//    request's echo byte, end mark) whose body is the request's word and the
//    status that a process without a stream must give.

#include <sched.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "channel/control_socket.h"
#include "core/process.h"
#include "fuzz/fuzz_check.h"
#include "mms/wrapper_mms.h"

namespace {

int g_peerFd = -1;  // the controller's end

std::string drainReplies() {
  std::string bytes;
  char chunk[4096];
  ssize_t n;
  while ((n = recv(g_peerFd, chunk, sizeof chunk, MSG_DONTWAIT)) > 0)
    bytes.append(chunk, static_cast<size_t>(n));
  return bytes;
}

// How a process without a stream treats `request`: the command table's
// choice and each handler's acceptance rule, from the outside. The first
// word the request's word begins with, enough elements, for READ an 8-byte
// count, and a reply that fits a frame (the word, its 0x0A and the tail of
// the reply it gets: without a stream, a status alone). A PEND word is
// served whatever its length; only its reply may not fit.
struct Expected {
  bool served = false;
  const char* status = nullptr;  // the reply's status, null for no reply
};

Expected expectedFor(const ParamList& request) {
  static const struct {
    const char* word;
    size_t minElements;
    const char* status;
  } COMMANDS[] = {{"CONNECT", 3, "ERR"}, {"READ", 3, "ERR"}, {"GSIZE", 2, "ERR"},
                  {"CLOSE", 2, "OK_"},   {"PEND", 2, "OK_"}, {"CCHECK", 2, "OK_"}};
  Expected e;
  if (request.size() < 2) return e;
  for (const auto& c : COMMANDS) {
    if (request[1].compare(0, strlen(c.word), c.word) != 0) continue;
    const bool fits = request[1].size() + 1 + 5 <= 0xFFFF;
    const bool pend = strcmp(c.word, "PEND") == 0;
    e.served = request.size() >= c.minElements && (fits || pend) &&
               (strcmp(c.word, "READ") != 0 || request[2].size() == 8);
    if (e.served && fits) e.status = c.status;
    return e;
  }
  return e;
}

void serve(const Packet& frame) {
  ParamList request;
  const bool parsed = parsePacket(frame, request) == RESULT_OK;
  const Expected expected = parsed ? expectedFor(request) : Expected();
  const char* status = expected.status;
  // A request its handler refuses counts as dropped: it was not served.
  // COMMAND_END (PEND) would end the loop; the harness goes on.
  if (parsed) FUZZ_CHECK((dispatchCommand(request) != COMMAND_DROPPED) == expected.served);
  const std::string replies = drainReplies();
  if (status == nullptr) {
    FUZZ_CHECK(replies.empty());
  } else {
    fuzzframe::checkReplyFrame(replies);  // exactly one frame, nothing after
    FUZZ_CHECK(replies[7] == request[0][HEADER_ECHO]);
    const std::string body = request[1] + '\n' + status + "\n\n\x03";
    FUZZ_CHECK(replies.compare(FRAME_BODY_OFFSET, std::string::npos, body) == 0);
  }
  FUZZ_CHECK(!g_wrapperMms || !g_wrapperMms->isConnected());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // As root a network namespace is had for the asking; otherwise inside a
  // user namespace of our own.
  FUZZ_CHECK(unshare(CLONE_NEWNET) == 0 || unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0);
  fuzzframe::silenceDiagnostics();
  int fds[2];
  FUZZ_CHECK(socketpair(AF_UNIX, SOCK_STREAM, 0, fds) == 0);
  // Room for the longest reply a fuzz input can cause, so a reply never
  // waits for this harness to read.
  const int room = 4 * FRAME_MAX_LEN;
  setsockopt(fds[0], SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
  setsockopt(fds[1], SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
  g_controlFd = fds[0];
  g_peerFd = fds[1];
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string buffer(reinterpret_cast<const char*>(data), size);
  Packet frame;
  while (extractPacket(buffer, frame) == RESULT_OK) serve(frame);
  // Each input starts as a fresh process would: no stream object.
  g_wrapperMms.reset();
  return 0;
}
