#ifndef HALVARINE_CHANNEL_TRANSPORT_H
#define HALVARINE_CHANNEL_TRANSPORT_H

// Moving whole frames over the controller socket. Cutting frames out of the
// received bytes (extractPacket) is apart from the reading so that it can be
// tested on plain byte strings.

#include <string>

#include "channel/packet.h"

// The controller socket; -1 until the process core stores its socket here.
extern int g_controlFd;

static const int CONTROL_READ_TIMEOUT_S = 60;
static const int CONTROL_WRITE_TIMEOUT_S = 5;
static const size_t CONTROL_READ_CHUNK = 1000;

// Largest run of bytes kept while no start sequence is in it: a controller
// that sends garbage cannot grow the buffer without limit. The last two bytes
// are always kept, so a start sequence split across reads is still found.
static const size_t RECV_GARBAGE_LIMIT = 4096;

static const ResultCode TRANSPORT_WRITE_ERROR = 1;
static const ResultCode TRANSPORT_READ_ERROR = 2;
static const ResultCode TRANSPORT_PEER_CLOSED = 3;
static const ResultCode TRANSPORT_NO_FRAME = 7;
static const ResultCode TRANSPORT_NOT_CONNECTED = 8;
static const ResultCode TRANSPORT_TIMEOUT = 9;

// Next whole frame into `out` (its old contents replaced). A frame already
// buffered is returned without any system call.
// 0 frame; 8 no socket; 9 60 s without data; 2 select/read error;
// 3 controller closed its end. Every non-zero result is logged once.
ResultCode readPacket(Packet& out);

// Moves the first whole frame of `buffer` into `out`. Bytes in front of the
// first start sequence are dropped. 0 frame moved; 7 no whole frame yet.
ResultCode extractPacket(std::string& buffer, Packet& out);

// Each READ reply allocates up to two 64 KiB buffers on either side of the
// socket and frees them before the next. With the allocator's default trim
// threshold (128 KiB) every free hands the heap top back to the system and
// the next reply faults the same pages in again, which costs more than the
// copy. Worker and controller call this once at start to keep them.
void keepReplyBuffersResident();

// Writes every byte of `frame`, waiting up to 5 s at a time.
// 0 sent; 8 no socket; 9 not writable in time; 1 select/write error.
// Logs nothing; a partly sent frame is not taken back.
ResultCode writePacket(const Packet& frame);

#endif
