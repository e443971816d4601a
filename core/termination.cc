#include "core/termination.h"

#include <signal.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include "base/wait.h"

namespace {

const char NOTICE[] = "\n**** SIGINT ****\n";

volatile sig_atomic_t g_pending = 0;  // a SIGTERM waits for a safe point
volatile sig_atomic_t g_ending = 0;   // the notice is written or being written
// Set from the start of a wait (before its safe point looks at g_pending)
// until its system call has returned: a handler that finds it set has
// interrupted the thread in a wait. The worker has one thread.
volatile sig_atomic_t g_sleeping = 0;
timer_t g_graceTimer;
bool g_haveGraceTimer = false;

void writeNotice() {
  // Nothing to do if it fails: the process ends either way.
  [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, NOTICE, sizeof NOTICE - 1);
}

// Only where the thread holds no lock.
[[noreturn]] void endWithCleanup() {
  g_ending = 1;
  writeNotice();
  exit(0);
}

// Async-signal-safe all through.
[[noreturn]] void endWithoutCleanup() {
  g_ending = 1;
  writeNotice();
  _exit(0);
}

void onSafePoint() {
  if (g_pending && !g_ending) endWithCleanup();
}

// The flag is set before the safe point looks, so a signal that comes after
// the look finds the thread asleep.
void onEnterWait() {
  g_sleeping = 1;
  onSafePoint();
}

void onLeaveWait() {
  g_sleeping = 0;
}

// Both a SIGTERM from outside and the end of the grace come here: the grace
// timer signals with SIGTERM itself, so that no other signal's disposition
// is touched (a SIGALRM from outside does what it would do to any process),
// and the kernel marks the timer's signals SI_TIMER, which kill() cannot.
void onTerminate(int, siginfo_t* info, void*) {
  if (g_ending) return;
  if (info->si_code == SI_TIMER) {
    // No safe point came in time: the thread is stuck where it may hold a
    // lock.
    if (g_pending) endWithoutCleanup();
    return;
  }
  if (g_sleeping) endWithCleanup();
  if (!g_haveGraceTimer) endWithoutCleanup();
  if (g_pending) return;  // a second SIGTERM does not put the grace off
  g_pending = 1;
  struct itimerspec grace = {};
  grace.it_value.tv_sec = TERMINATION_GRACE_MS / 1000;
  grace.it_value.tv_nsec = (TERMINATION_GRACE_MS % 1000) * 1000000L;
  timer_settime(g_graceTimer, 0, &grace, nullptr);
}

}  // namespace

bool installTerminationHandler() {
  struct sigaction action = {};
  action.sa_sigaction = onTerminate;
  action.sa_flags = SA_RESTART | SA_SIGINFO;
  sigemptyset(&action.sa_mask);
  if (sigaction(SIGTERM, &action, nullptr) != 0) return false;
  struct sigevent event = {};
  event.sigev_notify = SIGEV_SIGNAL;
  event.sigev_signo = SIGTERM;
  // Without a timer a SIGTERM away from a wait ends the process at once,
  // without the clean-up.
  g_haveGraceTimer = timer_create(CLOCK_MONOTONIC, &event, &g_graceTimer) == 0;
  SafePointHooks hooks;
  hooks.enterWait = onEnterWait;
  hooks.leaveWait = onLeaveWait;
  hooks.atSafePoint = onSafePoint;
  setSafePointHooks(hooks);
  return true;
}

void closeTerminationWindow() {
  sigset_t held;
  sigemptyset(&held);
  sigaddset(&held, SIGTERM);
  sigprocmask(SIG_BLOCK, &held, nullptr);
  if (g_pending && !g_ending) {
    g_ending = 1;
    writeNotice();
  }
}
