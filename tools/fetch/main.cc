// halvarine-fetch: fetches or records MMS streams through the worker,
// acting as its controller, and writes each stream's bytes to a file or
// standard output. See --help for the options and the exit statuses.

#include <halvarine/controller.h>

#include "tools/fetch/fetch.h"
#include "tools/fetch/many.h"
#include "tools/fetch/options.h"
#include "tools/fetch/outcome.h"
#include "tools/fetch/stop.h"

int main(int argc, char** argv) {
  fetch::Options options;
  switch (fetch::parseOptions(argc, argv, options)) {
    case fetch::Parsed::RUN:
      break;
    case fetch::Parsed::ANSWERED:
      return fetch::exitStatus({fetch::Ending::COMPLETED});
    case fetch::Parsed::BAD_USAGE:
      return fetch::exitStatus({fetch::Ending::BAD_USAGE});
  }
  int status;
  if (options.urls.size() > 1) {
    status = fetch::fetchMany(options);
  } else {
    halvarine::keepReplyBuffersResident();
    status = fetch::Fetch(options).run();
  }
  fetch::endByStopSignal();
  return status;
}
