#ifndef HALVARINE_FUZZ_FUZZ_CHECK_H
#define HALVARINE_FUZZ_FUZZ_CHECK_H

// What the fuzz targets share: a check that stops the run with the broken
// property named, and an independent reading of a frame's fixed parts, so a
// fault in the channel code cannot hide by being judged with itself.

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <iostream>
#include <string>

// A failed property is a finding: libFuzzer saves the input on abort.
#define FUZZ_CHECK(cond)                                                          \
  do {                                                                            \
    if (!(cond)) {                                                                \
      fprintf(stderr, "%s:%d: property failed: %s\n", __FILE__, __LINE__, #cond); \
      abort();                                                                    \
    }                                                                             \
  } while (0)

namespace fuzzframe {

inline unsigned byteAt(const std::string& s, size_t i) {
  return static_cast<unsigned char>(s[i]);
}

// Body length as written at frame offsets 9 and 10.
inline size_t lengthField(const std::string& frame) {
  return (byteAt(frame, 9) << 8) | byteAt(frame, 10);
}

// Checksum as written at frame offsets 4 and 5.
inline unsigned checksumField(const std::string& frame) {
  return (byteAt(frame, 4) << 8) | byteAt(frame, 5);
}

// The body's byte sum, inverted, in 16 bits: computed here from scratch.
inline unsigned expectedChecksum(const std::string& frame) {
  unsigned sum = 0;
  for (size_t i = 12; i + 1 < frame.size(); ++i) sum += byteAt(frame, i);
  return ~sum & 0xFFFFu;
}

inline bool startsFrame(const std::string& s, size_t at) {
  return s.size() >= at + 3 && byteAt(s, at) == 0x16 && byteAt(s, at + 1) == 0x16 &&
         byteAt(s, at + 2) == 0x02;
}

// A frame as this process sends it: start sequence, length field matching
// the size, checksum matching the body, reply letter, end mark, and zeros
// in the header bytes that carry nothing.
inline void checkReplyFrame(const std::string& frame) {
  FUZZ_CHECK(frame.size() >= 13);
  FUZZ_CHECK(startsFrame(frame, 0));
  FUZZ_CHECK(lengthField(frame) + 13 == frame.size());
  FUZZ_CHECK(checksumField(frame) == expectedChecksum(frame));
  FUZZ_CHECK(byteAt(frame, 3) == 0);
  FUZZ_CHECK(frame[6] == 'R');
  FUZZ_CHECK(byteAt(frame, 8) == 0 && byteAt(frame, 11) == 0);
  FUZZ_CHECK(byteAt(frame, frame.size() - 1) == 0x03);
}

// The code under test logs every rejected frame; at millions of inputs a
// second that is all the run would do. C stdio stays open for findings.
inline void silenceDiagnostics() {
  std::cerr.setstate(std::ios::badbit);
}

}  // namespace fuzzframe

#endif
