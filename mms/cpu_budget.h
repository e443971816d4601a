#ifndef HALVARINE_MMS_CPU_BUDGET_H
#define HALVARINE_MMS_CPU_BUDGET_H

// A bound on the CPU time of the library's work. Some hostile server data
// sends libmms into a loop that makes no system call at all (a header object
// that declares size 0), or into reading an endless HTTP head byte by byte;
// no socket time-out can end those. Past the budget SIGPROF, whose default
// action ends the process, stops the loop, and the controller sees its
// socket close instead of waiting out its reply deadline.
//
// Waiting costs no CPU, so a stream that is slow or stalled never comes near
// the budget; a well-formed open or read takes milliseconds.

#include <sys/time.h>

static const int LIBRARY_CALL_CPU_BUDGET_S = 4;

// The budget of each command of the controller's, armed as its frame comes
// in and left running. Every library call the command makes (the READ's
// read, the close) is bounded by it, and the command's own work
// (microseconds) counts too; what runs between two frames is the wait for
// the next one, which costs no CPU. The timer is set afresh only when a
// second or more has passed since it last was, and a process uses at most a
// second of CPU in a second, so each command has between
// LIBRARY_CALL_CPU_BUDGET_S - 1 and LIBRARY_CALL_CPU_BUDGET_S seconds: a loop
// is still cut off within the budget, and a stream read at full speed pays a
// system call a second for it, where a budget armed and stopped around each
// read paid two per READ. (A timer armed for one read and left running would
// not do: nothing would set it afresh, and a worker that then served only
// CCHECKs for hours would in the end be killed.)
void armCommandCpuBudget();

// The budget for one library call, stopped when it returns. The opening
// arms one per attempt: a CONNECT may try MMST and then MMSH, and each keeps
// its whole budget.
class CpuBudget {
 public:
  CpuBudget();
  ~CpuBudget();
  CpuBudget(const CpuBudget&) = delete;
  CpuBudget& operator=(const CpuBudget&) = delete;
};

#endif
