#include "channel/transport.h"

#include <errno.h>
#include <malloc.h>
#include <string.h>
#include <unistd.h>

#include <iostream>

#include "channel/wait.h"

int g_controlFd = -1;

namespace {

const char START_SEQUENCE[FRAME_START_LEN] = {
    static_cast<char>(FRAME_SYN), static_cast<char>(FRAME_SYN), static_cast<char>(FRAME_STX)};

}  // namespace

ResultCode extractPacket(std::string& buffer, Packet& out) {
  const size_t start = buffer.find(START_SEQUENCE, 0, sizeof START_SEQUENCE);
  if (start == std::string::npos) {
    // Nothing before a start sequence can ever be part of a frame, so once
    // the garbage grows past the limit it is dropped, all but the bytes that
    // may be the first part of a start sequence split across reads.
    if (buffer.size() > RECV_GARBAGE_LIMIT) buffer.erase(0, buffer.size() - (FRAME_START_LEN - 1));
    return TRANSPORT_NO_FRAME;
  }
  if (start > 0) buffer.erase(0, start);
  if (buffer.size() < FRAME_LENGTH_OFFSET + 2) return TRANSPORT_NO_FRAME;
  const size_t frameLen =
      getBe16(reinterpret_cast<const unsigned char*>(buffer.data()) + FRAME_LENGTH_OFFSET) +
      FRAME_OVERHEAD;
  if (buffer.size() < frameLen) return TRANSPORT_NO_FRAME;
  out.assign(buffer, 0, frameLen);
  buffer.erase(0, frameLen);
  return RESULT_OK;
}

ResultCode readPacket(Packet& out) {
  static std::string g_recvBuffer;

  if (g_controlFd == -1) {
    std::cerr << "[readPacket()] not connected!" << std::endl;
    return TRANSPORT_NOT_CONNECTED;
  }
  if (extractPacket(g_recvBuffer, out) == RESULT_OK) return RESULT_OK;

  char chunk[CONTROL_READ_CHUNK];
  for (;;) {
    const WaitResult ready = waitFd(g_controlFd, WAIT_READABLE, CONTROL_READ_TIMEOUT_S);
    if (ready == WAIT_TIMEOUT) {
      std::cerr << "[readPacket()] select timeout!" << std::endl;
      return TRANSPORT_TIMEOUT;
    }
    if (ready == WAIT_ERROR) {
      std::cerr << "[readPacket()] select error!" << std::endl;
      return TRANSPORT_READ_ERROR;
    }
    const ssize_t n = read(g_controlFd, chunk, sizeof chunk);
    if (n == 0) {
      std::cerr << "[readPacket()] read EOF!" << std::endl;
      return TRANSPORT_PEER_CLOSED;
    }
    if (n < 0) {
      std::cerr << "[readPacket()] read error!" << std::endl;
      return TRANSPORT_READ_ERROR;
    }
    g_recvBuffer.append(chunk, static_cast<size_t>(n));
    if (extractPacket(g_recvBuffer, out) == RESULT_OK) return RESULT_OK;
  }
}

void keepReplyBuffersResident() {
#if defined(M_TRIM_THRESHOLD) && defined(M_TOP_PAD)
  mallopt(M_TRIM_THRESHOLD, 1024 * 1024);
  mallopt(M_TOP_PAD, 256 * 1024);
#endif
}

ResultCode writePacket(const Packet& frame) {
  if (g_controlFd == -1) return TRANSPORT_NOT_CONNECTED;
  size_t sent = 0;
  while (sent < frame.size()) {
    const WaitResult ready = waitFd(g_controlFd, WAIT_WRITABLE, CONTROL_WRITE_TIMEOUT_S);
    if (ready == WAIT_TIMEOUT) return TRANSPORT_TIMEOUT;
    if (ready == WAIT_ERROR) return TRANSPORT_WRITE_ERROR;
    const ssize_t n = write(g_controlFd, frame.data() + sent, frame.size() - sent);
    if (n < 0) return TRANSPORT_WRITE_ERROR;
    sent += static_cast<size_t>(n);
  }
  return RESULT_OK;
}
