#include "tools/fetch/worker.h"

#include <halvarine/controller.h>
#include <limits.h>
#include <unistd.h>

namespace fetch {

std::string findWorker(const std::string& named) {
  if (!named.empty()) {
    if (named.find('/') != std::string::npos) return named;
    const std::string found = halvarine::findOnPath(named);
    return found.empty() ? named : found;
  }
  const std::string fromEnvironment = halvarine::workerFromEnvironment();
  if (!fromEnvironment.empty()) return fromEnvironment;
  char self[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  if (n > 0) {
    std::string dir(self, static_cast<size_t>(n));
    dir.erase(dir.find_last_of('/') + 1);
    for (const char* relative : {"halvarine", "../libexec/halvarine/halvarine"}) {
      if (halvarine::workerProblem(dir + relative).empty()) return dir + relative;
    }
  }
  return halvarine::defaultWorkerPath();
}

}  // namespace fetch
