#ifndef HALVARINE_MMS_PROTOCOL_OPS_H
#define HALVARINE_MMS_PROTOCOL_OPS_H

// The library's calls for one protocol, private to the stream object: its
// operations and its opening go through the entry of the stream type.

#include "mms/wrapper_mms.h"

struct WrapperMms::ProtocolOps {
  StreamType type;
  const char* name;  // "MMST" or "MMSH", as the log lines name it
  // The failed-open line ends with the target (MMSH) or without it (MMST).
  bool failureNamesTarget;
  // Opens `target` and keeps the handle (null on failure): true when open.
  bool (*open)(WrapperMms& w, const std::string& target);
  int (*read)(WrapperMms& w, char* buffer, int length);
  uint32_t (*length)(const WrapperMms& w);
  uint32_t (*position)(const WrapperMms& w);
  // Closes the stream and forgets the handle.
  void (*close)(WrapperMms& w);
};

#endif
