#ifndef HALVARINE_BASE_UNIX_ADDRESS_H
#define HALVARINE_BASE_UNIX_ADDRESS_H

// The address of a Unix socket path, set up in one place. Callers bind and
// connect with the whole structure's size, not the path's: the worker and
// the controller name the same address the same way.

#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>

// `path` as an AF_UNIX address; false, `addr` cleared, when the path is empty
// or too long for one.
inline bool unixAddress(const char* path, sockaddr_un& addr) {
  memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  const size_t len = strlen(path);
  if (len == 0 || len >= sizeof addr.sun_path) return false;
  memcpy(addr.sun_path, path, len + 1);
  return true;
}

#endif
