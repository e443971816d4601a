#ifndef HALVARINE_MMS_CPU_BUDGET_H
#define HALVARINE_MMS_CPU_BUDGET_H

// A bound on the CPU time of one library call. Some hostile server data
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

class CpuBudget {
 public:
  CpuBudget() { arm(LIBRARY_CALL_CPU_BUDGET_S); }
  ~CpuBudget() { arm(0); }
  CpuBudget(const CpuBudget&) = delete;
  CpuBudget& operator=(const CpuBudget&) = delete;

 private:
  static void arm(int seconds) {
    struct itimerval timer = {};
    timer.it_value.tv_sec = seconds;
    setitimer(ITIMER_PROF, &timer, nullptr);
  }
};

#endif
