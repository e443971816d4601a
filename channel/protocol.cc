#include "channel/protocol.h"

#include <stdio.h>

const char CONTROLLER_SOCKET_PATH[] = "/tmp/zalProcess_Halvarine";

const char WORD_CONNECT[] = "CONNECT";
const char WORD_READ[] = "READ";
const char WORD_GSIZE[] = "GSIZE";
const char WORD_CLOSE[] = "CLOSE";
const char WORD_PEND[] = "PEND";
const char WORD_CCHECK[] = "CCHECK";

const char STATUS_OK[] = "OK_";
const char STATUS_ERR[] = "ERR";
const char STATUS_EOF[] = "EOF";

std::string formatCount(int count) {
  char digits[16];
  snprintf(digits, sizeof digits, "%08d", count);
  return digits;
}

std::string formatLength(uint32_t length) {
  // Every 32-bit value fits sixteen characters and the terminator.
  char field[LENGTH_FIELD_LEN + 1];
  snprintf(field, sizeof field, "%016d", static_cast<int32_t>(length));
  return field;
}
