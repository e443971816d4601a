#include "tools/fetch/stop.h"

#include <string.h>

#include <initializer_list>

namespace fetch {

volatile sig_atomic_t g_stopSignal = 0;

namespace {

void onStopSignal(int sig) {
  g_stopSignal = sig;
}

}  // namespace

bool installStopHandlers() {
  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_handler = onStopSignal;
  sigemptyset(&action.sa_mask);
  struct sigaction ignore;
  memset(&ignore, 0, sizeof ignore);
  ignore.sa_handler = SIG_IGN;
  sigemptyset(&ignore.sa_mask);
  for (int sig : {SIGINT, SIGTERM, SIGHUP}) {
    if (sigaction(sig, &action, nullptr) != 0) return false;
  }
  return sigaction(SIGPIPE, &ignore, nullptr) == 0;
}

const char* stopSignalName(int sig) {
  return sig == SIGHUP ? "SIGHUP" : sig == SIGTERM ? "SIGTERM" : "SIGINT";
}

void endByStopSignal() {
  const int sig = g_stopSignal;
  if (sig == 0) return;
  signal(sig, SIG_DFL);
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, sig);
  sigprocmask(SIG_UNBLOCK, &set, nullptr);
  raise(sig);
}

}  // namespace fetch
