#include "mms/cpu_budget.h"

#include <stdint.h>
#include <sys/time.h>

#include "base/clock.h"

namespace {

// When the timer was last set to the whole budget; -1 while it is stopped.
int64_t g_armedMs = -1;

void arm(int seconds) {
  struct itimerval timer = {};
  timer.it_value.tv_sec = seconds;
  setitimer(ITIMER_PROF, &timer, nullptr);
  g_armedMs = seconds > 0 ? nowMs() : -1;
}

}  // namespace

void armCommandCpuBudget() {
  if (g_armedMs < 0 || msSince(g_armedMs) >= 1000) arm(LIBRARY_CALL_CPU_BUDGET_S);
}

CpuBudget::CpuBudget() {
  arm(LIBRARY_CALL_CPU_BUDGET_S);
}

CpuBudget::~CpuBudget() {
  arm(0);
}
