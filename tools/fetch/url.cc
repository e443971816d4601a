#include "tools/fetch/url.h"

#include <ctype.h>
#include <halvarine/url.h>
#include <stdlib.h>

#include <algorithm>
#include <sstream>

namespace fetch {

namespace {

std::string lower(std::string s) {
  std::transform(s.begin(), s.end(), s.begin(),
                 [](unsigned char c) { return static_cast<char>(tolower(c)); });
  return s;
}

struct Parts {
  std::string scheme;  // lower case
  std::string host;    // lower case
  int port = 0;
  std::string rest;  // from the scheme's "://" on, as given
};

PreparedUrl failure(Ending problem, const std::string& why) {
  PreparedUrl p;
  p.usable = false;
  p.problem = problem;
  p.why = why;
  return p;
}

// Splits SCHEME://[USER@]HOST[:PORT][/PATH]. On failure `error` holds the
// reason as a PreparedUrl.
bool split(const std::string& url, const std::string& what, Parts& out, PreparedUrl& error) {
  const size_t colon = url.find("://");
  if (colon == std::string::npos || colon == 0 ||
      url.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789+.-") <
          colon) {
    error = failure(Ending::MALFORMED_URL, what + " \"" + url + "\" has no scheme such as mms://");
    return false;
  }
  out.scheme = lower(url.substr(0, colon));
  out.rest = url.substr(colon);
  const size_t start = colon + 3;
  std::string authority = url.substr(start, url.find_first_of("/?#", start) - start);
  authority =
      authority.substr(authority.find('@') == std::string::npos ? 0 : authority.rfind('@') + 1);
  if (!authority.empty() && authority[0] == '[') {
    error =
        failure(Ending::UNSUPPORTED_URL, what + " \"" + url +
                                             "\" names an IPv6 address; the worker connects over "
                                             "IPv4 only (give a name or an IPv4 address)");
    return false;
  }
  const size_t portAt = authority.find(':');
  out.host = lower(authority.substr(0, portAt));
  if (out.host.empty()) {
    error = failure(Ending::MALFORMED_URL, what + " \"" + url + "\" has no host");
    return false;
  }
  out.port = out.scheme == "mms" || out.scheme == "mmst" ? 1755 : 80;
  if (portAt != std::string::npos) {
    const std::string port = authority.substr(portAt + 1);
    if (port.empty() || port.size() > 5 ||
        port.find_first_not_of("0123456789") != std::string::npos || atoi(port.c_str()) < 1 ||
        atoi(port.c_str()) > 65535) {
      error = failure(Ending::MALFORMED_URL,
                      what + " \"" + url + "\": port \"" + port + "\" is not from 1 to 65535");
      return false;
    }
    out.port = atoi(port.c_str());
  }
  return true;
}

bool unsupported(const Parts& p, const std::string& url, const std::string& allowed,
                 PreparedUrl& error) {
  if (("," + allowed + ",").find("," + p.scheme + ",") != std::string::npos) return false;
  error = failure(Ending::UNSUPPORTED_URL, "unsupported scheme " + p.scheme + ":// in \"" + url +
                                               "\"; the worker opens mms://, mmst://, mmsh:// and "
                                               "http://");
  return true;
}

// no_proxy: "*", or names that match a host and its subdomains.
bool proxyBypassed(const std::string& host, const std::string& noProxy) {
  std::stringstream list(noProxy);
  for (std::string entry; std::getline(list, entry, ',');) {
    entry.erase(std::remove_if(entry.begin(), entry.end(), ::isspace), entry.end());
    entry = lower(entry.substr(entry.find_first_not_of('.') == std::string::npos
                                   ? entry.size()
                                   : entry.find_first_not_of('.')));
    if (entry == "*") return true;
    if (entry.empty()) continue;
    if (host == entry ||
        (host.size() > entry.size() &&
         host.compare(host.size() - entry.size() - 1, std::string::npos, "." + entry) == 0)) {
      return true;
    }
  }
  return false;
}

std::string endpoint(const Parts& p) {
  return p.host + ":" + std::to_string(p.port);
}

void nameTarget(const Parts& target, PreparedUrl& out) {
  out.scheme = target.scheme;
  out.host = target.host;
  out.port = target.port;
  const size_t at = target.rest.find_first_of("/?#", 3);
  out.path = at == std::string::npos ? "/" : target.rest.substr(at);
  if (out.path[0] != '/') out.path = "/" + out.path;
}

}  // namespace

PreparedUrl prepareUrl(const std::string& url, const std::string& proxy,
                       const std::string& noProxy) {
  PreparedUrl out;
  Parts target, via;
  // A URL that holds a marker is a proxy form to the worker, whatever the
  // user meant: judge it as the worker will split it.
  std::string proxyPart, targetPart;
  if (halvarine::splitProxyForm(url, proxyPart, targetPart)) {
    if (!split(proxyPart, "the proxy", via, out) || unsupported(via, proxyPart, "http", out) ||
        !split(targetPart, "the stream URL", target, out) ||
        unsupported(target, targetPart, "mms,mmsh,http", out)) {
      if (target.scheme == "mmst") out.why = "mmst:// (MMS over TCP) cannot go through a proxy";
      return out;
    }
    out.url = via.scheme + via.rest + "/" + target.scheme + target.rest;
    out.endpoint = endpoint(via);
    out.viaProxy = true;
    nameTarget(target, out);
    return out;
  }
  if (!split(url, "the URL", target, out) || unsupported(target, url, "mms,mmst,mmsh,http", out)) {
    return out;
  }
  out.url = target.scheme + target.rest;
  out.endpoint = endpoint(target);
  nameTarget(target, out);
  if (proxy.empty() || target.scheme == "mmst" || proxyBypassed(target.host, noProxy)) return out;

  // The environment's proxy, as curl takes it: "http://" may be left out.
  std::string p = proxy.find("://") == std::string::npos ? "http://" + proxy : proxy;
  while (p.size() > 1 && p.back() == '/') p.pop_back();
  PreparedUrl bad;
  if (!split(p, "http_proxy", via, bad) || unsupported(via, p, "http", bad)) {
    bad.problem = Ending::MALFORMED_URL;
    bad.why += " (http_proxy must be http://HOST:PORT)";
    return bad;
  }
  out.url = via.scheme + via.rest + "/" + out.url;
  out.endpoint = endpoint(via);
  out.viaProxy = true;
  return out;
}

PreparedUrl prepareUrlFromEnvironment(const std::string& url) {
  auto env = [](const char* a, const char* b) {
    const char* v = getenv(a);
    if (v == nullptr || *v == '\0') v = getenv(b);
    return std::string(v != nullptr ? v : "");
  };
  return prepareUrl(url, env("http_proxy", "HTTP_PROXY"), env("no_proxy", "NO_PROXY"));
}

}  // namespace fetch
