// The controller library's own faults that the worker tests would not
// reveal: strict judging of replies, the listener's claim on its path, and
// clean-up on every path. Private socket paths.

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
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
  std::string why;
  EXPECT_FALSE(halvarine::decodeReply(CCHECK_REPLY, 0x08, r, &why));
  EXPECT_NE(std::string::npos, why.find("echo byte is 0x07, expected 0x08")) << why;
}

// GSIZE's length field: sixteen digits, signed as the worker prints a 32-bit
// length, so a length past 2^31 comes back from its minus sign.
TEST(ReplyFrames, TheLengthIsReadOnlyFromAWellFormedOkReply) {
  using halvarine::Field;
  const std::vector<std::tuple<std::string, Field, int64_t>> rows = {
      {"OK_", Field::text("0000000000001234"), 1234},
      {"OK_", Field::text("-000000000000001"), 4294967295},
      {"OK_", Field::text("-000002147483648"), 2147483648},
      {"OK_", Field::text("0000004294967296"), -1},
      {"OK_", Field::text("00000000000012x4"), -1},
      {"OK_", Field::text("000000000001234"), -1},
      {"OK_", Field::countedField("0000000000001234"), -1},
      {"ERR", Field::text("0000000000001234"), -1},
  };
  for (const auto& [status, length, expected] : rows) {
    halvarine::Reply r;
    r.fields = {Field::text("GSIZE"), Field::text(status), length};
    EXPECT_EQ(expected, halvarine::replyLength(r)) << status << " " << length.bytes;
    r.fields.pop_back();
    EXPECT_EQ(-1, halvarine::replyLength(r));
  }
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

// Another listener keeps the path; a stale socket is replaced; only the
// socket file made here is removed, by its owner, moved or not. Whatever
// else is in the way is named with its owner and left as it is.
TEST(Listener, ClaimsAndReleasesOnlyWhatIsFree) {
  using Failure = halvarine::ControllerListener::Failure;
  const std::string path = dir.file("l");
  ASSERT_TRUE(support::unixSocket(path, false).valid());
  {
    halvarine::ControllerListener first, second;
    ASSERT_TRUE(first.listen(path)) << first.error();
    EXPECT_FALSE(second.listen(path));
    const halvarine::ControllerListener moved(std::move(first));
    EXPECT_TRUE(support::unixSocket(path, true).valid()) << "the first one no longer accepts";
  }
  EXPECT_FALSE(support::fileExists(path));
  halvarine::ControllerListener a, b;
  ASSERT_TRUE(a.listen(path)) << a.error();
  unlink(path.c_str());
  ASSERT_TRUE(b.listen(path)) << b.error();
  a.close();
  EXPECT_TRUE(support::unixSocket(path, true).valid()) << "a listener removed another's socket";

  const bool root = geteuid() == 0;
  const std::string me = root ? "root (uid 0)" : "(uid " + std::to_string(geteuid()) + ")";
  const std::string sub = dir.file("sub"), foreign = sub + "/foreign";
  ASSERT_EQ(0, mkdir(sub.c_str(), 0755));
  EXPECT_FALSE(a.listen(sub));
  EXPECT_EQ(Failure::UNUSABLE, a.failure());
  EXPECT_NE(std::string::npos, a.error().find("is in the way: a directory of " + me)) << a.error();
  if (!root) return;
  ASSERT_TRUE(support::unixSocket(foreign, false).valid() &&
              chown(foreign.c_str(), 65534, 65534) == 0);
  EXPECT_FALSE(a.listen(foreign));
  EXPECT_NE(std::string::npos, a.error().find("is a stale socket of nobody (uid 65534) with "
                                              "nobody listening; it is not this user's"))
      << a.error();
  EXPECT_TRUE(support::fileExists(foreign));
}

// A worker that never connects, ended or running on, fails the start, which
// says why and leaves nothing; so does one a private /tmp would hide.
TEST(Session, AFailedStartSaysWhyAndLeavesNothing) {
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
  if (!support::privateTmpRefused().empty()) return;
  const support::TempDir runtime;
  setenv("XDG_RUNTIME_DIR", runtime.path().c_str(), 1);
  halvarine::WorkerSession hidden;
  halvarine::WorkerSession::Options o;
  o.socket = halvarine::SocketMode::PRIVATE;
  o.launcher = {"/tmp/launcher"};
  EXPECT_FALSE(hidden.start(o));
  EXPECT_EQ(halvarine::WorkerSession::StartFailure::NO_PRIVATE_SOCKET, hidden.startFailure());
  EXPECT_NE(std::string::npos, hidden.error().find("/tmp/launcher lies under /tmp"))
      << hidden.error();
  EXPECT_TRUE(std::filesystem::is_empty(runtime.path()));
  unsetenv("XDG_RUNTIME_DIR");
}

}  // namespace
