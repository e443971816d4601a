#ifndef HALVARINE_BASE_BE16_H
#define HALVARINE_BASE_BE16_H

// Big-endian 16-bit wire values: the only way this code reads or writes them.

#include <stdint.h>

inline uint16_t getBe16(const unsigned char* p) {
  return static_cast<uint16_t>((p[0] << 8) | p[1]);
}

inline void putBe16(unsigned char* p, uint16_t v) {
  p[0] = static_cast<unsigned char>(v >> 8);
  p[1] = static_cast<unsigned char>(v & 0xFF);
}

#endif
