/* Loaded into the worker: the controller socket starts with the smallest
 * send buffer the kernel allows, as on a system whose default is set that
 * low. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <sys/socket.h>

static const int SMALL = 4096;

int connect(int fd, const struct sockaddr* addr, socklen_t len) {
  static int (*real)(int, const struct sockaddr*, socklen_t);
  if (!real) real = (int (*)(int, const struct sockaddr*, socklen_t))dlsym(RTLD_NEXT, "connect");
  const int rc = real(fd, addr, len);
  if (rc == 0 && addr->sa_family == AF_UNIX)
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &SMALL, sizeof SMALL);
  return rc;
}
