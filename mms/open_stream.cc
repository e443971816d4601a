// Opening a stream: the plan the URL calls for, carried out step by step,
// with the library's network traffic routed through the worker's own socket
// callbacks.

#include <stdlib.h>

#include <iostream>

#include "mms/cpu_budget.h"
#include "mms/opening_plan.h"
#include "mms/protocol_ops.h"
#include "mms/wrapper_mms.h"

ResultCode WrapperMms::connect() {
  std::cerr << "[WrapperMms::connect()] call! " << std::endl;
  if (m_connected) close();

  // The library hands out its own process-wide table as const, but it is
  // writable and it is the one every connection reads; patching it in place
  // is what routes MMST and MMSH traffic alike through our callbacks.
  m_io = const_cast<mms_io_t*>(mms_get_default_io_impl());
  m_io->read = &WrapperMms::io_read;
  m_io->write = &WrapperMms::io_write;
  m_io->connect = &WrapperMms::io_tcp_connect;

  std::cerr << "[WrapperMms::connect()] url=" << m_url << std::endl;

  const OpeningPlan plan = planOpening(m_url);
  if (plan.viaProxy) {
    // The proxy reaches libmms only through the environment; an empty proxy
    // still sets the variable.
    setenv("http_proxy", plan.proxy.c_str(), 1);
    std::cerr << "[WrapperMms::connect()] set proxy! : " << plan.proxy << std::endl;
  } else {
    // A proxy from an earlier stream must not outlive it.
    unsetenv("http_proxy");
  }

  for (const OpeningAttempt& attempt : plan.attempts) {
    const ProtocolOps& ops = *opsFor(attempt.transport);
    std::cerr << "[WrapperMms::connect()] open " << ops.name << " stream!" << std::endl;
    bool opened;
    {
      CpuBudget budget;
      opened = ops.open(*this, attempt.target);
    }
    if (opened) {
      std::cerr << "[WrapperMms::connect()] open " << ops.name << " stream success!" << std::endl;
      m_streamType = ops.type;
      m_connected = true;
      return RESULT_OK;
    }
    std::cerr << "[WrapperMms::connect()] open " << ops.name << " stream failed!";
    if (ops.failureNamesTarget) std::cerr << " " << attempt.target;
    std::cerr << std::endl;
  }
  // Still closed, as close() above or the object's invariant left it: no
  // protocol touched the state, only the handles.
  return MMS_OPEN_FAILED;
}
