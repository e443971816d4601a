#include <halvarine/url.h>

namespace halvarine {

const char* const PROXY_MARKERS[] = {"/mms://", "/mmst://", "/mmsh://", "/http://"};
const size_t PROXY_MARKER_COUNT = sizeof PROXY_MARKERS / sizeof PROXY_MARKERS[0];

bool splitProxyForm(const std::string& url, std::string& proxy, std::string& target) {
  for (size_t i = 0; i < PROXY_MARKER_COUNT; ++i) {
    const size_t at = url.find(PROXY_MARKERS[i]);
    if (at == std::string::npos) continue;
    proxy = url.substr(0, at);
    target = url.substr(at + 1);
    return true;
  }
  return false;
}

}  // namespace halvarine
