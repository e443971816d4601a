#ifndef HALVARINE_MMS_STREAM_TYPE_H
#define HALVARINE_MMS_STREAM_TYPE_H

#include <stdint.h>

// The protocol an open stream speaks.
typedef uint32_t StreamType;
static const StreamType STREAM_MMST = 0;
static const StreamType STREAM_MMSH = 1;
static const StreamType STREAM_NONE = 0xFFFF;

#endif
