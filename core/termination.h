#ifndef HALVARINE_CORE_TERMINATION_H
#define HALVARINE_CORE_TERMINATION_H

// SIGTERM ends the worker at once, wherever its one thread is: the 18-byte
// notice "\n**** SIGINT ****\n" on standard error, exit status 0, and after
// the notice nothing but what the exit-time clean-up writes (the close line
// of a stream that was still open). No reply and no log line of the worker's
// own follows the notice.
//
// The clean-up (releasing the stream through g_wrapperMms, freeing the
// statics, flushing stdio) is not async-signal-safe: it takes the allocator's
// and stdio's locks. Run from a handler that interrupted the thread inside
// the allocator or a log line, it could deadlock or corrupt the heap. So the
// handler never runs it where the thread may hold a lock:
//
//  - In a wait (the hooks of base/wait.h), the thread holds nothing: the
//    handler writes the notice and exits with the clean-up, at once. Every
//    blocking step of the worker but the name lookup is such a wait.
//  - Anywhere else the handler only notes the signal and starts a grace
//    timer of TERMINATION_GRACE_MS. The thread reaches a safe point within
//    microseconds as a rule (every wait, every transfer of the socket
//    callbacks, the top of the command loop once a frame is read and
//    before it is served, every step of the shut-down) and ends itself
//    there: the notice, then exit with the clean-up, before it sends or
//    starts anything else. The grace is long enough for a thread held up
//    on its way there (a loaded machine, a log line on a pipe the
//    controller drains late) and short beside any controller's wait
//    before SIGKILL.
//  - Where no safe point comes (a host-name lookup waiting on a DNS server,
//    a library call spinning over a damaged header), the timer ends the
//    process: the notice and _exit(0), without the clean-up. The kernel
//    closes the sockets; the stream's close line is not written.
//
// The timer signals with SIGTERM itself (told apart by its SI_TIMER code),
// so the worker takes no signal but SIGTERM: every other one keeps the
// disposition the process inherited.
//
// The one honest limit: the notice is a write to standard error, and a full
// standard-error pipe blocks any writer. A controller that does not read the
// worker's standard error holds its end back until it does.

static const int TERMINATION_GRACE_MS = 100;

// Installs the SIGTERM handler and creates the grace timer. False, errno set,
// when sigaction fails.
bool installTerminationHandler();

// The end of an orderly shut-down: a SIGTERM that came after the shut-down's
// last safe point still gets its notice, and one that comes later is no
// longer taken (the process is ending with status 0 anyway).
void closeTerminationWindow();

#endif
