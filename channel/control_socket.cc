#include "channel/control_socket.h"

#include <errno.h>
#include <sys/socket.h>
#include <unistd.h>

#include <iostream>

#include "base/wait.h"

int g_controlFd = -1;

ResultCode readPacket(Packet& out) {
  static std::string g_recvBuffer;

  if (g_controlFd == -1) {
    std::cerr << "[readPacket()] not connected!" << std::endl;
    return CONTROL_NOT_CONNECTED;
  }
  if (extractPacket(g_recvBuffer, out) == RESULT_OK) return RESULT_OK;

  char chunk[CONTROL_READ_CHUNK];
  for (;;) {
    const WaitResult ready = waitFd(g_controlFd, WAIT_READABLE, CONTROL_READ_TIMEOUT_S);
    if (ready == WAIT_TIMEOUT) {
      std::cerr << "[readPacket()] select timeout!" << std::endl;
      return CONTROL_TIMEOUT;
    }
    if (ready == WAIT_ERROR) {
      std::cerr << "[readPacket()] select error!" << std::endl;
      return CONTROL_READ_ERROR;
    }
    const ssize_t n = read(g_controlFd, chunk, sizeof chunk);
    if (n == 0) {
      std::cerr << "[readPacket()] read EOF!" << std::endl;
      return CONTROL_PEER_CLOSED;
    }
    if (n < 0) {
      std::cerr << "[readPacket()] read error!" << std::endl;
      return CONTROL_READ_ERROR;
    }
    g_recvBuffer.append(chunk, static_cast<size_t>(n));
    if (extractPacket(g_recvBuffer, out) == RESULT_OK) return RESULT_OK;
  }
}

void reserveReplyRoom() {
  // Linux doubles the size asked for and reports a Unix socket writable
  // while at most a quarter of it is taken: the rest then holds a whole
  // frame with room to spare.
  const int size = static_cast<int>(2 * FRAME_MAX_LEN);
  setsockopt(g_controlFd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
}

ResultCode writePacket(const Packet& frame) {
  if (g_controlFd == -1) return CONTROL_NOT_CONNECTED;
  size_t sent = 0;
  while (sent < frame.size()) {
    const WaitResult ready = waitFd(g_controlFd, WAIT_WRITABLE, CONTROL_WRITE_TIMEOUT_S);
    if (ready == WAIT_TIMEOUT) return CONTROL_TIMEOUT;
    if (ready == WAIT_ERROR) return CONTROL_WRITE_ERROR;
    // Writable means room for some bytes, not for the whole frame: a
    // blocking write of more would wait for the controller without limit.
    // No MSG_NOSIGNAL: a controller that has gone ends the worker by SIGPIPE.
    const ssize_t n = send(g_controlFd, frame.data() + sent, frame.size() - sent, MSG_DONTWAIT);
    if (n == -1) {
      if (errno == EAGAIN) continue;  // EWOULDBLOCK is the same number on Linux
      return CONTROL_WRITE_ERROR;
    }
    sent += static_cast<size_t>(n);
  }
  return RESULT_OK;
}
