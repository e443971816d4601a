#include "base/allocator.h"

#include <malloc.h>

void keepReplyBuffersResident() {
#if defined(M_TRIM_THRESHOLD) && defined(M_TOP_PAD)
  mallopt(M_TRIM_THRESHOLD, 1024 * 1024);
  mallopt(M_TOP_PAD, 256 * 1024);
#endif
}
