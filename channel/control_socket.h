#ifndef HALVARINE_CHANNEL_CONTROL_SOCKET_H
#define HALVARINE_CHANNEL_CONTROL_SOCKET_H

// Moving whole frames over the controller socket. Cutting frames out of the
// received bytes (extractPacket, packet.h) is apart from the reading so that
// it can be tested on plain byte strings.

#include "channel/packet.h"

// The controller socket; -1 until the process core stores its socket here.
extern int g_controlFd;

static const int CONTROL_READ_TIMEOUT_S = 60;
static const int CONTROL_WRITE_TIMEOUT_S = 5;
static const size_t CONTROL_READ_CHUNK = 1000;

static const ResultCode CONTROL_WRITE_ERROR = 1;
static const ResultCode CONTROL_READ_ERROR = 2;
static const ResultCode CONTROL_PEER_CLOSED = 3;
static const ResultCode CONTROL_NOT_CONNECTED = 8;
static const ResultCode CONTROL_TIMEOUT = 9;

// Next whole frame into `out` (its old contents replaced). A frame already
// buffered is returned without any system call.
// 0 frame; 8 no socket; 9 60 s without data; 2 select/read error;
// 3 controller closed its end. Every non-zero result is logged once.
ResultCode readPacket(Packet& out);

// Asks for a send buffer on g_controlFd that holds two whole frames. The
// socket then reports room only when a whole frame fits, so a reply goes out
// in one write or, when the controller leaves the socket full for a whole
// wait, not at all: never cut. Best effort; the kernel may cap the size.
void reserveReplyRoom();

// Writes every byte of `frame`, waiting up to 5 s at a time for the socket to
// take more. Each write takes only what the socket accepts at once, so no
// step blocks past its wait, however small the socket's buffer.
// 0 sent; 8 no socket; 9 not writable in time; 1 select/write error.
// Logs nothing; a partly sent frame is not taken back.
ResultCode writePacket(const Packet& frame);

#endif
