// The raw peer: the least a peer of the controller can do per command. It
// speaks the worker's side of the frames, so it is built on the worker's own
// codec and wait, which the controller library's headers do not offer.

#include <halvarine/fd.h>
#include <stdio.h>
#include <sys/socket.h>
#include <unistd.h>

#include "base/unix_address.h"
#include "base/wait.h"
#include "base/write_all.h"
#include "bench/bench.h"
#include "channel/packet.h"
#include "channel/protocol.h"

namespace bench {

namespace {

const int PEER_WAIT_S = 60;  // as long as the worker waits for a request

}  // namespace

const char RAW_PEER_VAR[] = "HALVARINE_BENCH_RAW_PEER";

int serveRawPeer() {
  halvarine::UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address;
  if (!fd.valid() || !unixAddress(CONTROLLER_SOCKET_PATH, address) ||
      connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    perror("raw peer: connect");
    return 1;
  }
  std::string received;
  Packet request, reply;
  ParamList fields;
  char chunk[4096];
  for (;;) {
    while (extractPacket(received, request) != RESULT_OK) {
      if (waitFd(fd.get(), WAIT_READABLE, PEER_WAIT_S) != WAIT_READY) return 1;
      const ssize_t n = read(fd.get(), chunk, sizeof chunk);
      if (n <= 0) return 1;
      received.append(chunk, static_cast<size_t>(n));
    }
    if (parsePacket(request, fields) != RESULT_OK || fields.size() < 2 ||
        makePacket({fields[0], fields[1], STATUS_OK}, reply) != RESULT_OK) {
      return 1;
    }
    // A wait before each write, as the worker's own writer does.
    for (size_t sent = 0; sent < reply.size();) {
      if (waitFd(fd.get(), WAIT_WRITABLE, PEER_WAIT_S) != WAIT_READY) return 1;
      size_t n = 0;
      if (writeAll(fd.get(), reply.data() + sent, reply.size() - sent, 0, n) == WAIT_ERROR)
        return 1;
      sent += n;
    }
    if (fields[1] == WORD_PEND) return 0;
  }
}

}  // namespace bench
