// The controller library's own faults that the worker tests would not
// reveal: strict judging of replies, the listener's claim on its path, and
// clean-up on every path. Private socket paths, no worker.

#include <errno.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "tests/support/support.h"

using std::string_literals::operator""s;

namespace {

const support::TempDir dir;
const std::string CCHECK_REPLY = support::expectedReply(0x07, {"CCHECK", "OK_"});

TEST(ReplyFrames, EveryDamagedOrMissingByteAndEveryBodyNotExactlyFieldsIsRejected) {
  halvarine::Reply r;
  std::vector<std::string> bad = {support::expectedReply(0x08, {"CCHECK", "OK_"})};
  // The last with a counted field whose spare byte is not 0.
  for (const std::string& body : {"CCHECK\nOK_\n"s, "CCHECK\nOK_\n\nX\n\n"s, "CCHECK\n\nOK_\n\n"s,
                                  "CCHECK\nOK_"s, ""s, "READ\nOK_\n\0\0\1\1a\n\n"s})
    bad.push_back(support::frameAround(0x07, body, 'R'));
  for (const std::string& good :
       {CCHECK_REPLY, support::expectedReadReply(0x07, "READ", "abcde")}) {
    ASSERT_TRUE(halvarine::decodeReply(good, 0x07, r, nullptr)) << halvarine::hex(good);
    for (size_t i = 0; i < good.size(); ++i) {
      bad.push_back(good.substr(0, i));
      bad.push_back(good.substr(0, i) + static_cast<char>(good[i] + 1) + good.substr(i + 1));
    }
  }
  for (const std::string& frame : bad)
    EXPECT_FALSE(halvarine::decodeReply(frame, 0x07, r, nullptr)) << halvarine::hex(frame);
}

// What a worker sends is judged as it comes; a worker that has gone is an
// error, not SIGPIPE.
TEST(Connection, BytesOutsideAFrameAnEndInsideOneOrAGonePeerAreErrors) {
  // Sent before the worker's end closes; then r receive a reply, e receive
  // the end, s send; a word of the error.
  const std::vector<std::tuple<std::string, char, std::string>> rows = {
      {"x" + CCHECK_REPLY, 'r', "78 16 16 02"},
      {CCHECK_REPLY.substr(0, 12), 'r', "closed"},
      {"z", 'e', "7A"},
      {"", 's', "send"}};
  halvarine::Reply r;
  for (const auto& [sent, then, word] : rows) {
    int fds[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds));
    halvarine::ControllerConnection worker{halvarine::UniqueFd(fds[0])},
        conn{halvarine::UniqueFd(fds[1])};
    ASSERT_TRUE(worker.sendRaw(sent)) << worker.error();
    worker.close();
    EXPECT_FALSE(then == 'r'   ? conn.receive(0x07, 1000, r)
                 : then == 'e' ? conn.receiveEof(1000)
                               : conn.sendRaw(std::string(1 << 20, 'x')));
    EXPECT_NE(std::string::npos, conn.error().find(word)) << conn.error();
  }
}

// Another listener keeps the path; a stale socket is replaced, a plain file
// kept; only the socket file made here is removed, by its owner, moved or not.
TEST(Listener, ClaimsAndReleasesOnlyWhatIsFree) {
  const std::string path = dir.file("l"), plain = dir.file("plain");
  ASSERT_TRUE(support::unixSocket(path, false).valid() && support::writeFile(plain, "x"));
  {
    halvarine::ControllerListener first, second, third;
    ASSERT_TRUE(first.listen(path)) << first.error();
    EXPECT_FALSE(second.listen(path));
    const halvarine::ControllerListener moved(std::move(first));
    EXPECT_TRUE(support::unixSocket(path, true).valid()) << "the first one no longer accepts";
    EXPECT_FALSE(third.listen(plain));
  }
  EXPECT_TRUE(!support::fileExists(path) && support::fileExists(plain));

  halvarine::ControllerListener a, b;
  ASSERT_TRUE(a.listen(path)) << a.error();
  unlink(path.c_str());
  ASSERT_TRUE(b.listen(path)) << b.error();
  a.close();
  EXPECT_TRUE(support::unixSocket(path, true).valid())
      << "a listener removed another's socket file";
}

TEST(Cleanup, ChildrenAreReapedTheirStderrNeverBlocksAndAFailedStartLeavesNothing) {
  halvarine::ChildProcess loud, quiet;
  ASSERT_TRUE(loud.start({"/bin/sh", "-c", "head -c 300000 /dev/zero | tr '\\0' x >&2"}));
  halvarine::ExitStatus st;
  EXPECT_TRUE(loud.waitExit(10000, st) && loud.output().size() == 300000u) << loud.error();

  ASSERT_TRUE(quiet.start({"sleep", "30"})) << quiet.error();
  const pid_t pid = quiet.pid();
  EXPECT_TRUE(halvarine::ChildProcess(std::move(quiet)).running());
  EXPECT_TRUE(kill(pid, 0) == -1 && errno == ESRCH) << "child " << pid << " left";

  // A worker that never connects, ended or running on, fails the start,
  // which says why, and leaves nothing.
  for (const auto& [worker, says] :
       {std::pair("exec true", "exit 0"), std::pair("exec sleep 30", "nobody connected")}) {
    halvarine::WorkerSession s;
    halvarine::WorkerSession::Options o;
    o.launcher = {"sh", "-c", worker};  // the worker's path becomes $0
    o.socketPath = dir.file("w");
    o.acceptTimeoutMs = 1000;
    EXPECT_FALSE(s.start(o) || s.error().find(says) == std::string::npos) << s.error();
    EXPECT_FALSE(support::fileExists(o.socketPath) || s.worker().running()) << worker;
  }
}

}  // namespace
