// Opening a stream: which transport, through which proxy, with the library's
// network traffic routed through the worker's own socket callbacks.

#include <stdlib.h>

#include <iostream>

#include "mms/cpu_budget.h"
#include "mms/wrapper_mms.h"

namespace {

// A URL of the form PROXY/SCHEME://... reaches the stream through an HTTP
// proxy. The markers are tried in this order, each over the whole URL, so
// the order decides which one splits a URL that holds several.
const char* const PROXY_MARKERS[] = {"/mms://", "/mmst://", "/mmsh://", "/http://"};

const char SCHEME_MMSH[] = "mmsh://";
const char SCHEME_HTTP[] = "http://";
const size_t SCHEME_LEN = 7;  // both of the above

bool hasScheme(const std::string& url, const char* scheme) {
  return url.compare(0, SCHEME_LEN, scheme) == 0;
}

}  // namespace

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

  std::string target = m_url;
  size_t markerPos = std::string::npos;
  for (const char* marker : PROXY_MARKERS) {
    markerPos = m_url.find(marker);
    if (markerPos != std::string::npos) break;
  }

  if (markerPos != std::string::npos) {
    // The proxy reaches libmms only through the environment; an empty proxy
    // still sets the variable.
    const std::string proxy = m_url.substr(0, markerPos);
    target = m_url.substr(markerPos + 1);
    setenv("http_proxy", proxy.c_str(), 1);
    std::cerr << "[WrapperMms::connect()] set proxy! : " << proxy << std::endl;
  } else {
    // A proxy from an earlier stream must not outlive it.
    unsetenv("http_proxy");
    if (!hasScheme(target, SCHEME_MMSH) && !hasScheme(target, SCHEME_HTTP)) {
      std::cerr << "[WrapperMms::connect()] open MMST stream!" << std::endl;
      {
        CpuBudget budget;
        m_mms = mms_connect(m_io, nullptr, target.c_str(), 0);
      }
      if (m_mms != nullptr) {
        std::cerr << "[WrapperMms::connect()] open MMST stream success!" << std::endl;
        m_connected = true;
        m_streamType = STREAM_MMST;
        return RESULT_OK;
      }
      std::cerr << "[WrapperMms::connect()] open MMST stream failed!" << std::endl;
    }
  }

  if (hasScheme(target, SCHEME_HTTP)) target.replace(0, SCHEME_LEN, SCHEME_MMSH);
  std::cerr << "[WrapperMms::connect()] open MMSH stream!" << std::endl;
  {
    CpuBudget budget;
    m_mmsh = mmsh_connect(m_io, nullptr, target.c_str(), 0);
  }
  if (m_mmsh != nullptr) {
    std::cerr << "[WrapperMms::connect()] open MMSH stream success!" << std::endl;
    m_streamType = STREAM_MMSH;
    m_connected = true;
    return RESULT_OK;
  }
  std::cerr << "[WrapperMms::connect()] open MMSH stream failed! " << target << std::endl;
  m_streamType = STREAM_NONE;
  m_connected = false;
  return MMS_OPEN_FAILED;
}
