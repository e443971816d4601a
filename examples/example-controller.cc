// A minimal controller built on the installed Halvarine controller library:
// starts the worker, opens one stream, reads it to the end into a file and
// ends the worker with PEND.
//
//   example-controller URL FILE
//
// The worker is the installed one (/usr/libexec/halvarine/halvarine), or
// the one HALVARINE_WORKER names.

#include <fcntl.h>
#include <halvarine/controller.h>
#include <stdio.h>

int main(int argc, char** argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: %s URL FILE\n", argv[0]);
    return 2;
  }
  halvarine::UniqueFd out(open(argv[2], O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  if (!out.valid()) {
    perror(argv[2]);
    return 1;
  }

  // Listens on the controller socket, starts the worker, accepts it.
  halvarine::WorkerSession session;
  if (!session.start(halvarine::WorkerSession::Options())) {
    fprintf(stderr, "cannot start the worker: %s\n", session.error().c_str());
    return 1;
  }

  // Replies come back in request order; the pipeline matches them, sends
  // the keep-alive and bounds every wait.
  halvarine::RequestPipeline pipeline(session.connection(), halvarine::PipelineOptions());
  // PEND, then SIGTERM and SIGKILL if the worker does not end by itself.
  halvarine::WorkerSession::FinishOptions finish;
  finish.pendGraceMs = 2000;
  finish.exitGraceMs = 2000;
  finish.termGraceMs = 1000;
  halvarine::Reply reply;
  if (!pipeline.call(halvarine::WORD_CONNECT, {argv[1]}, reply)) {
    fprintf(stderr, "CONNECT: %s\n", pipeline.error().c_str());
    return 1;
  }
  if (reply.status() != halvarine::STATUS_OK) {
    fprintf(stderr, "the worker could not open %s; it wrote:\n%s", argv[1],
            session.worker().output().c_str());
    session.finish(&pipeline, finish);
    return 1;
  }

  // READs, several in flight, until the worker answers EOF.
  const halvarine::StreamFetchResult result =
      halvarine::fetchStream(pipeline, halvarine::StreamFetchOptions(), out.get());
  if (result.status != halvarine::FetchStatus::DONE) {
    fprintf(stderr, "READ: %s: %s\n", halvarine::statusText(result.status), result.error.c_str());
    return 1;
  }

  // PEND: the worker answers, closes the stream and exits with status 0.
  const halvarine::WorkerSession::Finished ended = session.finish(&pipeline, finish);
  printf("%llu bytes in %llu READ replies; worker: %s\n",
         static_cast<unsigned long long>(result.bytes),
         static_cast<unsigned long long>(result.reads), ended.status.toString().c_str());
  return ended.pendAnswered && ended.status.exited && ended.status.code == 0 ? 0 : 1;
}
