// extractPacket over a byte stream that arrives in arbitrary pieces, as
// readPacket feeds it: append one piece, take frames until none is complete.
//
// The first bytes of the input choose the piece sizes (one byte each, until
// a 0 byte); the rest is the stream. Properties:
//  - the buffer is always the unconsumed tail of the stream received so far
//    (nothing is invented, reordered or taken from the middle);
//  - every frame returned starts with the start sequence, is as long as its
//    length field says plus 13, and is the stream's bytes at the offsets it
//    was cut from; frames come out in stream order and never overlap;
//  - no start sequence lies in the bytes skipped in front of a frame;
//  - when no frame is complete, a buffer holding a start sequence begins
//    with it and is shorter than the frame it announces, and one holding
//    none is within the garbage limit: the buffer stays bounded.

#include <stddef.h>
#include <stdint.h>

#include <algorithm>
#include <string>
#include <vector>

#include "channel/control_socket.h"
#include "fuzz/fuzz_check.h"

namespace {

const size_t MAX_CHUNK_SIZES = 64;

const std::string START("\x16\x16\x02", 3);

// Whether a start sequence lies wholly inside [from, to).
bool hasStartSequence(const std::string& s, size_t from, size_t to) {
  const size_t at = s.find(START, from);
  return at != std::string::npos && at + 3 <= to;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<size_t> chunks;
  size_t pos = 0;
  while (pos < size && data[pos] != 0 && chunks.size() < MAX_CHUNK_SIZES)
    chunks.push_back(data[pos++]);
  if (pos < size && data[pos] == 0) ++pos;
  if (chunks.empty()) chunks.push_back(1000);  // readPacket's largest read
  const std::string stream(reinterpret_cast<const char*>(data) + pos, size - pos);

  std::string buffer;
  size_t received = 0;  // stream bytes appended to the buffer so far
  size_t frameEnd = 0;  // stream offset just past the last frame
  size_t nextChunk = 0;
  while (received < stream.size()) {
    const size_t piece = std::min(chunks[nextChunk++ % chunks.size()], stream.size() - received);
    buffer.append(stream, received, piece);
    received += piece;

    for (;;) {
      const size_t before = buffer.size();
      const size_t bufferAt = received - before;  // stream offset of buffer[0]
      Packet frame("stale");
      const ResultCode rc = extractPacket(buffer, frame);
      FUZZ_CHECK(buffer.size() <= before);
      const size_t after = received - buffer.size();
      FUZZ_CHECK(stream.compare(after, buffer.size(), buffer) == 0);

      if (rc != RESULT_OK) {
        FUZZ_CHECK(rc == EXTRACT_NO_FRAME && frame == "stale");
        if (hasStartSequence(buffer, 0, buffer.size())) {
          FUZZ_CHECK(fuzzframe::startsFrame(buffer));
          FUZZ_CHECK(buffer.size() < FRAME_LENGTH_OFFSET + 2 ||
                     buffer.size() < fuzzframe::lengthField(buffer) + 13);
        } else {
          FUZZ_CHECK(buffer.size() <= RECV_GARBAGE_LIMIT);
        }
        break;
      }

      FUZZ_CHECK(frame.size() >= FRAME_LENGTH_OFFSET + 2 && fuzzframe::startsFrame(frame));
      FUZZ_CHECK(frame.size() == fuzzframe::lengthField(frame) + 13);
      const size_t frameAt = after - frame.size();
      FUZZ_CHECK(frameAt >= bufferAt && frameAt >= frameEnd);
      FUZZ_CHECK(stream.compare(frameAt, frame.size(), frame) == 0);
      FUZZ_CHECK(!hasStartSequence(stream, frameEnd, frameAt + 2));
      frameEnd = after;
    }
  }

  // Bytes dropped as garbage since the last frame held no start sequence:
  // a frame is never lost, however the stream was cut.
  const size_t bufferAt = received - buffer.size();
  if (fuzzframe::startsFrame(buffer))
    FUZZ_CHECK(!hasStartSequence(stream, frameEnd, bufferAt + 2));
  else
    FUZZ_CHECK(!hasStartSequence(stream, frameEnd, received));
  return 0;
}
