#include "core/process.h"

#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <iostream>

#include "channel/transport.h"
#include "channel/wait.h"
#include "mms/wrapper_mms.h"

const char CONTROLLER_SOCKET_PATH[] = "/tmp/zalProcess_Halvarine";

namespace {

void onTerminate(int) {
  static const char MESSAGE[] = "\n**** SIGINT ****\n";
  ssize_t ignored = write(STDERR_FILENO, MESSAGE, sizeof MESSAGE - 1);
  (void)ignored;
  // SIGTERM is let through only inside waitFd, so the main thread is asleep
  // in pselect and holds no stream or allocator lock: the exit-time clean-up
  // (closing an open stream among it) is safe to run from here.
  exit(0);
}

}  // namespace

bool installTerminationHandler() {
  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_handler = onTerminate;
  action.sa_flags = SA_RESTART;
  sigemptyset(&action.sa_mask);
  if (sigaction(SIGTERM, &action, nullptr) != 0) return false;

  // Hold SIGTERM everywhere but in the readiness wait. A SIGTERM that comes
  // while the process works is taken at its next wait, which every request
  // reaches within its own time-outs.
  sigset_t blocked, waitMask;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGTERM);
  sigprocmask(SIG_BLOCK, &blocked, &waitMask);
  sigdelset(&waitMask, SIGTERM);
  setWaitSignalMask(&waitMask);
  return true;
}

int runProcess() {
  keepReplyBuffersResident();
  if (!installTerminationHandler()) {
    perror("sigaction");
    return 1;
  }

  g_controlFd = socket(AF_UNIX, SOCK_STREAM, 0);
  if (g_controlFd == -1) {
    const int err = errno;
    std::cerr << "[Halvarine] create socket fail! errno=" << err << std::endl;
    return 1;
  }
  struct sockaddr_un address;
  memset(&address, 0, sizeof address);
  address.sun_family = AF_UNIX;
  memcpy(address.sun_path, CONTROLLER_SOCKET_PATH, sizeof CONTROLLER_SOCKET_PATH);
  // The whole address structure, not the path's length: the controller
  // binds the same way.
  if (connect(g_controlFd, reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0) {
    const int err = errno;
    std::cerr << "[Halvarine] connect fail! errno=" << err << std::endl;
    close(g_controlFd);
    return 1;
  }

  {
    Packet frame;
    ParamList request;
    for (;;) {
      if (readPacket(frame) != RESULT_OK) break;
      if (parsePacket(frame, request) != RESULT_OK) continue;
      if (dispatchCommand(request) == COMMAND_END) break;
    }

    if (g_wrapperMms && g_wrapperMms->isConnected()) {
      const ResultCode rc = g_wrapperMms->close();
      std::cerr << "[Halvarine] MMS close!! : " << static_cast<int>(rc) << std::endl;
    }
    close(g_controlFd);
    std::cerr << "[Halvarine] application finished !!" << std::endl;
  }
  return 0;
}
