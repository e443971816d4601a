#ifndef HALVARINE_BASE_ALLOCATOR_H
#define HALVARINE_BASE_ALLOCATOR_H

// Each READ reply allocates up to two 64 KiB buffers on either side of the
// controller socket and frees them before the next. With the allocator's
// default trim threshold (128 KiB) every free hands the heap top back to the
// system and the next reply faults the same pages in again, which costs more
// than the copy. Worker and controllers call this once at start to keep them.
void keepReplyBuffersResident();

#endif
