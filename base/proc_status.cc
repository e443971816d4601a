#include "base/proc_status.h"

#include <stdio.h>
#include <string.h>

#include <string>

#include "base/file.h"

long procStatusKb(pid_t pid, const char* field) {
  const std::string path = "/proc/" + std::to_string(pid) + "/status";
  UniqueFile status(fopen(path.c_str(), "re"));
  if (!status) return -1;
  const size_t len = strlen(field);
  char line[256];
  while (fgets(line, sizeof line, status.get()) != nullptr) {
    long kb = -1;
    if (strncmp(line, field, len) == 0 && line[len] == ':' &&
        sscanf(line + len + 1, "%ld", &kb) == 1)
      return kb;
  }
  return -1;
}
