#ifndef HALVARINE_BASE_TEXT_H
#define HALVARINE_BASE_TEXT_H

// Small text helpers shared by the tools and the controller library.

#include <errno.h>
#include <string.h>

#include <string>

// "what: <errno's text>", for a call that has just failed.
inline std::string errnoText(const std::string& what) {
  return what + ": " + strerror(errno);
}

// True when `text` begins with `prefix`; `rest`, when given, gets what follows.
inline bool startsWith(const std::string& text, const char* prefix, std::string* rest = nullptr) {
  const size_t n = strlen(prefix);
  if (text.compare(0, n, prefix) != 0) return false;
  if (rest != nullptr) *rest = text.substr(n);
  return true;
}

#endif
