#ifndef HALVARINE_BASE_RESULT_CODE_H
#define HALVARINE_BASE_RESULT_CODE_H

#include <stdint.h>

// Result of the worker's own operations. 0 is success; every other value is
// defined by the operation that returns it and documented in its header.
typedef uint32_t ResultCode;

static const ResultCode RESULT_OK = 0;

#endif
