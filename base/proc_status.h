#ifndef HALVARINE_BASE_PROC_STATUS_H
#define HALVARINE_BASE_PROC_STATUS_H

// Sizes a process reports about itself in /proc/PID/status, for the tools,
// tests and benchmarks that watch a worker's footprint.

#include <sys/types.h>

// The value of a field given in kB, named without its colon: "VmHWM" (the
// peak resident size), "VmRSS" (the resident size now). -1 when the process
// has gone or the field is not there.
long procStatusKb(pid_t pid, const char* field);

#endif
