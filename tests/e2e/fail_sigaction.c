/* Loaded into the worker to make sigaction fail: the one start-up failure
 * that cannot be produced for real. */
#include <errno.h>
#include <signal.h>

int sigaction(int sig, const struct sigaction* act, struct sigaction* old) {
  (void)sig;
  (void)act;
  (void)old;
  errno = EINVAL;
  return -1;
}
