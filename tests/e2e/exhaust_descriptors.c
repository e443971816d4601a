/* Loaded into the worker: once the dynamic loader is done, allow no
 * descriptor beyond the three standard ones, so the worker's own socket()
 * fails for real with EMFILE. */
#include <sys/resource.h>

__attribute__((constructor)) static void exhaustDescriptors(void) {
  struct rlimit limit = {3, 3};
  setrlimit(RLIMIT_NOFILE, &limit);
}
