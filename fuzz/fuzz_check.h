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

// The 16-bit big-endian number at offset `i`.
inline unsigned be16At(const std::string& s, size_t i) {
  return (static_cast<unsigned char>(s[i]) << 8) | static_cast<unsigned char>(s[i + 1]);
}

// Body length as written at frame offsets 9 and 10.
inline size_t lengthField(const std::string& frame) {
  return be16At(frame, 9);
}

inline bool startsFrame(const std::string& s) {
  return s.compare(0, 3, "\x16\x16\x02") == 0;
}

// A frame as this process sends it: start sequence, length field matching
// the size, checksum (at offsets 4 and 5) matching the body's byte sum,
// inverted, in 16 bits, computed here from scratch; reply letter, end mark,
// and zeros in the header bytes that carry nothing.
inline void checkReplyFrame(const std::string& frame) {
  FUZZ_CHECK(frame.size() >= 13 && startsFrame(frame));
  FUZZ_CHECK(lengthField(frame) + 13 == frame.size());
  unsigned sum = 0;
  for (size_t i = 12; i + 1 < frame.size(); ++i) sum += static_cast<unsigned char>(frame[i]);
  FUZZ_CHECK(be16At(frame, 4) == (~sum & 0xFFFFu));
  FUZZ_CHECK(frame[3] == 0 && frame[6] == 'R' && frame[8] == 0 && frame[11] == 0);
  FUZZ_CHECK(frame.back() == '\x03');
}

// The code under test logs every rejected frame; at millions of inputs a
// second that is all the run would do. C stdio stays open for findings.
inline void silenceDiagnostics() {
  std::cerr.setstate(std::ios::badbit);
}

}  // namespace fuzzframe

#endif
