#ifndef HALVARINE_MMS_READ_BATCH_H
#define HALVARINE_MMS_READ_BATCH_H

// How far one wait of the read callback may look ahead. The library asks the
// read callback for one piece at a time (a packet's header, then its body),
// but one READ of the controller's takes many packets. While a ReadBatch
// lives, the read callback may wait until the socket holds as many bytes as
// the READ may still need, rather than the piece alone, so a READ costs one
// wake-up instead of one per packet. Outside a READ (opening a stream) each
// wait is for the piece alone.
//
// `bytes` is the READ's count. It is an estimate of what the library will
// take from the socket: the library may still hold part of a packet (then it
// takes less) and frames each packet with a few bytes of its own (then it
// takes more). Waiting for too much costs latency, never a byte of data: a
// wait that is not met ends a second or two after the bytes stop coming
// (the read callback's slices), at once on a closed connection, and when
// the receive buffer fills.
class ReadBatch {
 public:
  explicit ReadBatch(long bytes);
  ~ReadBatch();
  ReadBatch(const ReadBatch&) = delete;
  ReadBatch& operator=(const ReadBatch&) = delete;
};

#endif
