#include "mms/opening_plan.h"

namespace {

const char* const PROXY_MARKERS[] = {"/mms://", "/mmst://", "/mmsh://", "/http://"};

const char SCHEME_MMSH[] = "mmsh://";
const char SCHEME_HTTP[] = "http://";
const size_t SCHEME_LEN = 7;  // both of the above

bool hasScheme(const std::string& url, const char* scheme) {
  return url.compare(0, SCHEME_LEN, scheme) == 0;
}

// libmms opens MMSH only by the mmsh:// name.
std::string mmshTarget(std::string target) {
  if (hasScheme(target, SCHEME_HTTP)) target.replace(0, SCHEME_LEN, SCHEME_MMSH);
  return target;
}

}  // namespace

OpeningPlan planOpening(const std::string& url) {
  OpeningPlan plan;
  for (const char* marker : PROXY_MARKERS) {
    const size_t at = url.find(marker);
    if (at == std::string::npos) continue;
    plan.viaProxy = true;
    plan.proxy = url.substr(0, at);
    plan.attempts.push_back({STREAM_MMSH, mmshTarget(url.substr(at + 1))});
    return plan;
  }
  if (!hasScheme(url, SCHEME_MMSH) && !hasScheme(url, SCHEME_HTTP)) {
    plan.attempts.push_back({STREAM_MMST, url});
  }
  plan.attempts.push_back({STREAM_MMSH, mmshTarget(url)});
  return plan;
}
