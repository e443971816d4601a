/* Loaded into the worker: the first read from the controller socket that
 * returns bytes holding HALVARINE_TERM_AFTER (a command word) sends the
 * worker SIGTERM before the bytes are handed back. The signal then lands
 * after the wait for the frame has ended and before the frame is served, a
 * window a few microseconds wide that no outside sender can aim at. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

ssize_t read(int fd, void* buf, size_t count) {
  static ssize_t (*real)(int, void*, size_t);
  static int sent;
  if (!real) real = (ssize_t(*)(int, void*, size_t))dlsym(RTLD_NEXT, "read");
  const ssize_t n = real(fd, buf, count);
  const char* word = getenv("HALVARINE_TERM_AFTER");
  if (n <= 0 || sent || word == NULL || memmem(buf, (size_t)n, word, strlen(word)) == NULL)
    return n;
  struct sockaddr_storage address;
  socklen_t len = sizeof address;
  const int err = errno;
  if (getsockname(fd, (struct sockaddr*)&address, &len) == 0 && address.ss_family == AF_UNIX) {
    sent = 1;
    kill(getpid(), SIGTERM);
  }
  errno = err;
  return n;
}
