#include "core/process.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <iostream>

#include "base/allocator.h"
#include "base/unix_address.h"
#include "base/wait.h"
#include "channel/control_socket.h"
#include "channel/protocol.h"
#include "core/termination.h"
#include "mms/cpu_budget.h"
#include "mms/wrapper_mms.h"

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
  unixAddress(CONTROLLER_SOCKET_PATH, address);
  // The whole address structure, not the path's length: the controller
  // binds the same way.
  if (connect(g_controlFd, reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0) {
    const int err = errno;
    std::cerr << "[Halvarine] connect fail! errno=" << err << std::endl;
    close(g_controlFd);
    return 1;
  }
  reserveReplyRoom();

  {
    Packet frame;
    ParamList request;
    for (;;) {
      if (readPacket(frame) != RESULT_OK) break;
      armCommandCpuBudget();
      // A SIGTERM that came after the wait ended, while the frame was being
      // read or cut out, ends the worker here, before the frame is acted on:
      // no line, no stream closed or opened, no connection to a media
      // server. The loop holds no lock at either point.
      safePoint();
      if (parsePacket(frame, request) != RESULT_OK) continue;
      safePoint();
      if (dispatchCommand(request) == COMMAND_END) break;
    }

    // Each step of the shut-down starts at a safe point: a SIGTERM that
    // came meanwhile ends the process there, and no further shut-down line
    // is written.
    safePoint();
    if (g_wrapperMms && g_wrapperMms->isConnected()) {
      const ResultCode rc = g_wrapperMms->close();
      safePoint();
      std::cerr << "[Halvarine] MMS close!! : " << static_cast<int>(rc) << std::endl;
    }
    safePoint();
    close(g_controlFd);
    safePoint();
    std::cerr << "[Halvarine] application finished !!" << std::endl;
    closeTerminationWindow();
  }
  return 0;
}
