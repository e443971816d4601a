// The controller library's own faults that the worker tests would not
// reveal: strict judging of replies, the listener's claim on its path, and
// clean-up on every path. Private socket paths; workers only where two
// sessions run at once.

#include <errno.h>
#include <signal.h>
#include <string.h>
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
}

// GSIZE's length field: sixteen digits, signed as the worker prints a 32-bit
// length, so a length past 2^31 comes back from its minus sign.
TEST(ReplyFrames, TheLengthIsReadOnlyFromAWellFormedOkReply) {
  using halvarine::Field;
  const struct Row {
    std::vector<Field> fields;
    int64_t length;
  } rows[] = {
      {{Field::text("GSIZE"), Field::text("OK_"), Field::text("0000000000001234")}, 1234},
      {{Field::text("GSIZE"), Field::text("OK_"), Field::text("-000000000000001")}, 4294967295},
      {{Field::text("GSIZE"), Field::text("OK_"), Field::text("-000002147483648")}, 2147483648},
      {{Field::text("GSIZE"), Field::text("OK_"), Field::text("0000004294967296")}, -1},
      {{Field::text("GSIZE"), Field::text("OK_"), Field::text("00000000000012x4")}, -1},
      {{Field::text("GSIZE"), Field::text("OK_"), Field::text("000000000001234")}, -1},
      {{Field::text("GSIZE"), Field::text("OK_"), Field::countedField("0000000000001234")}, -1},
      {{Field::text("GSIZE"), Field::text("ERR"), Field::text("0000000000001234")}, -1},
      {{Field::text("GSIZE"), Field::text("OK_")}, -1},
  };
  for (const Row& row : rows) {
    halvarine::Reply r;
    r.fields = row.fields;
    EXPECT_EQ(row.length, halvarine::replyLength(r)) << r.fields.back().bytes;
  }
  halvarine::Reply r;
  std::string why;
  EXPECT_FALSE(halvarine::decodeReply(CCHECK_REPLY, 0x08, r, &why));
  EXPECT_NE(std::string::npos, why.find("echo byte is 0x07, expected 0x08")) << why;
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

// Whatever is in the way is named with its owner and left as it is; only
// this user's own stale socket is replaced.
TEST(Listener, SaysWhatIsInTheWayAndWhoseAndLeavesIt) {
  using Failure = halvarine::ControllerListener::Failure;
  const bool root = geteuid() == 0;
  const std::string me = root ? "root (uid 0)" : "(uid " + std::to_string(geteuid()) + ")";
  halvarine::ControllerListener live;
  ASSERT_TRUE(live.listen(dir.file("live"))) << live.error();
  const struct Row {
    std::string name;  // made in its own directory
    char kind;         // f file, d directory, s stale socket, l the live listener's
    bool foreign;      // owned by nobody (root only)
    bool locked;       // its directory read-only (not root)
    Failure failure;
    std::string says;
  } rows[] = {
      {"file", 'f', false, false, Failure::UNUSABLE, "is in the way: a regular file of "},
      {"dir", 'd', false, false, Failure::UNUSABLE, "is in the way: a directory of "},
      {"live", 'l', false, false, Failure::TAKEN, "another controller is running: it listens on"},
      {"stale", 's', false, false, Failure::NONE, ""},
      {"foreign", 's', true, false, Failure::UNUSABLE,
       "is a stale socket of nobody (uid 65534) with nobody listening; it is not this user's"},
      {"locked", 's', false, true, Failure::UNUSABLE,
       "with nobody listening, and it cannot be removed: Permission denied"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    if ((row.foreign && !root) || (row.locked && root)) continue;
    const std::string sub = dir.file("in-" + row.name);
    ASSERT_EQ(0, mkdir(sub.c_str(), 0755));
    const std::string path = row.kind == 'l' ? dir.file("live") : sub + "/" + row.name;
    const bool made = row.kind == 'f'   ? support::writeFile(path, "x")
                      : row.kind == 'd' ? mkdir(path.c_str(), 0755) == 0
                      : row.kind == 's' ? support::unixSocket(path, false).valid()
                                        : true;
    ASSERT_TRUE(made && (!row.foreign || chown(path.c_str(), 65534, 65534) == 0) &&
                (!row.locked || chmod(sub.c_str(), 0555) == 0))
        << strerror(errno);
    halvarine::ControllerListener l;
    EXPECT_EQ(row.failure == Failure::NONE, l.listen(path)) << l.error();
    EXPECT_EQ(row.failure, l.failure());
    EXPECT_NE(std::string::npos, l.error().find(row.says)) << l.error();
    if (row.failure == Failure::UNUSABLE) {
      EXPECT_NE(std::string::npos, l.error().find(row.foreign ? "nobody" : me)) << l.error();
    }
    EXPECT_TRUE(support::fileExists(path)) << "removed";
    chmod(sub.c_str(), 0755);
  }
}

// Two workers at once, each on a socket of its own in a directory that
// goes with its session.
TEST(Session, PrivateSocketsSideBySideLeaveNothing) {
  if (!support::privateTmpRefused().empty()) {
    GTEST_SKIP() << "no private sockets here: " << support::privateTmpRefused();
  }
  const support::TempDir runtime;
  setenv("XDG_RUNTIME_DIR", runtime.path().c_str(), 1);
  halvarine::WorkerSession::Options o;
  o.worker = support::workerPath();
  o.socket = halvarine::SocketMode::PRIVATE;
  {
    halvarine::WorkerSession a, b;
    ASSERT_TRUE(a.start(o)) << a.error();
    ASSERT_TRUE(b.start(o)) << b.error();
    EXPECT_TRUE(a.privateSocket() && b.privateSocket() && a.fallbackReason().empty());
    EXPECT_NE(a.listener().path(), b.listener().path());
    EXPECT_EQ(0, a.listener().path().rfind(runtime.path() + "/halvarine-", 0));
    for (halvarine::WorkerSession* s : {&b, &a}) {
      halvarine::Reply r;
      ASSERT_TRUE(s->call(halvarine::Request::command("CCHECK", 0x07), 5000, r)) << s->error();
      EXPECT_EQ(halvarine::hex(CCHECK_REPLY), halvarine::hex(r.frame));
    }
    a.stop(1000);
    EXPECT_EQ(1, std::distance(std::filesystem::directory_iterator(runtime.path()),
                               std::filesystem::directory_iterator()));
  }
  EXPECT_TRUE(std::filesystem::is_empty(runtime.path()));

  // What a private /tmp would hide is refused, with the reason, and leaves
  // nothing either.
  halvarine::WorkerSession hidden;
  o.launcher = {"/tmp/launcher"};
  EXPECT_FALSE(hidden.start(o));
  EXPECT_EQ(halvarine::WorkerSession::StartFailure::NO_PRIVATE_SOCKET, hidden.startFailure());
  EXPECT_NE(std::string::npos, hidden.error().find("/tmp/launcher lies under /tmp"))
      << hidden.error();
  EXPECT_TRUE(std::filesystem::is_empty(runtime.path()));
  unsetenv("XDG_RUNTIME_DIR");
}

}  // namespace
