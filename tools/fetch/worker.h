#ifndef HALVARINE_TOOLS_FETCH_WORKER_H
#define HALVARINE_TOOLS_FETCH_WORKER_H

// Which worker the tool starts.

#include <string>

namespace fetch {

// The worker: `named` (--worker; a bare name is looked up on PATH), else
// HALVARINE_WORKER, else the halvarine beside this program (the build
// tree), else the one in this program's installed prefix's libexec, else
// the path compiled into the controller library. The result may not be
// runnable: halvarine::workerProblem() says why.
std::string findWorker(const std::string& named);

}  // namespace fetch

#endif
