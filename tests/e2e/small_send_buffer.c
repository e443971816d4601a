/* Loaded into the worker: the controller socket starts with the smallest
 * send buffer the kernel allows, as on a system whose default is set that
 * low. With HALVARINE_SNDBUF_CAPPED set, requests for more are cut to it
 * too, as on a board whose kernel caps socket buffers far below this
 * machine's. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdlib.h>
#include <sys/socket.h>

static const int SMALL = 4096;

int setsockopt(int fd, int level, int name, const void* value, socklen_t len) {
  static int (*real)(int, int, int, const void*, socklen_t);
  if (!real) real = (int (*)(int, int, int, const void*, socklen_t))dlsym(RTLD_NEXT, "setsockopt");
  if (level == SOL_SOCKET && name == SO_SNDBUF && getenv("HALVARINE_SNDBUF_CAPPED") != NULL)
    return real(fd, level, name, &SMALL, sizeof SMALL);
  return real(fd, level, name, value, len);
}

int connect(int fd, const struct sockaddr* addr, socklen_t len) {
  static int (*real)(int, const struct sockaddr*, socklen_t);
  if (!real) real = (int (*)(int, const struct sockaddr*, socklen_t))dlsym(RTLD_NEXT, "connect");
  const int rc = real(fd, addr, len);
  if (rc == 0 && addr->sa_family == AF_UNIX)
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &SMALL, sizeof SMALL);
  return rc;
}
