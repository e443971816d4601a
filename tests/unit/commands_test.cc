// The handlers' acceptance rules and the replies that need no stream, over a
// real socket pair standing in for the controller.

#include "commands/commands.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "channel/protocol.h"
#include "channel/transport.h"
#include "core/process.h"
#include "mms/wrapper_mms.h"
#include "stderr_capture.h"

namespace {

class Handlers : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds_));
    g_controlFd = fds_[0];
    g_wrapperMms.reset();
  }
  void TearDown() override {
    g_controlFd = -1;
    close(fds_[0]);
    close(fds_[1]);
  }
  // Every reply sent so far, parsed; fails on any bytes left over.
  std::vector<ParamList> replies() {
    std::string bytes;
    char buf[4096];
    ssize_t n;
    while ((n = read(fds_[1], buf, sizeof buf)) > 0) bytes.append(buf, static_cast<size_t>(n));
    std::vector<ParamList> out;
    Packet frame;
    while (extractPacket(bytes, frame) == 0) {
      ParamList p;
      EXPECT_EQ(0u, parsePacket(frame, p));
      out.push_back(ParamList(p.begin() + 1, p.end()));
    }
    EXPECT_TRUE(bytes.empty());
    return out;
  }
  static ParamList request(std::initializer_list<std::string> fields) {
    ParamList p{std::string(9, '\0')};
    p.insert(p.end(), fields);
    return p;
  }
  int fds_[2];
};

TEST_F(Handlers, RefuseShortListsAndWrongWordsSilently) {
  struct Case {
    ResultCode (*handler)(const ParamList&);
    ParamList req;
  } cases[] = {
      {commandCcheck, request({})},
      {commandCcheck, request({"CCHEC"})},
      {commandCcheck, request({"ccheck"})},
      {commandGsize, request({""})},
      {commandClose, request({"CLOS"})},
      {commandPend, request({"PEN"})},
      {commandConnect, request({"CONNECT"})},
      {commandConnect, request({"CONN", "mms://x"})},
      {commandRead, request({"READ"})},
      {commandRead, request({"READ", "0001000"})},
      {commandRead, request({"READ", "000001000"})},
      {commandRead, request({"REA", "00001000"})},
  };
  StderrCapture err;
  for (const Case& c : cases) EXPECT_EQ(4u, c.handler(c.req)) << testing::PrintToString(c.req);
  EXPECT_EQ("", err.text());
  EXPECT_TRUE(replies().empty());
}

TEST_F(Handlers, RepliesWithoutAStream) {
  StderrCapture err;
  EXPECT_EQ(0u, commandCcheck(request({"CCHECKX", "extra"})));
  EXPECT_EQ(0u, commandGsize(request({"GSIZE"})));
  EXPECT_EQ(0u, commandClose(request({"CLOSE"})));
  EXPECT_EQ(0u, commandRead(request({"READX", "00000010"})));
  EXPECT_EQ(0u, commandPend(request({"PEND"})));
  EXPECT_EQ("", err.text());
  const std::vector<ParamList> expected = {
      {"CCHECKX", "OK_"}, {"GSIZE", "ERR"}, {"CLOSE", "OK_"}, {"READX", "ERR"}, {"PEND", "OK_"}};
  EXPECT_EQ(expected, replies());
}

TEST_F(Handlers, AClosedStreamObjectAnswersLikeNoStream) {
  g_wrapperMms.reset(new WrapperMms("mms://127.0.0.1:1/x"));
  StderrCapture err;
  commandGsize(request({"GSIZE"}));
  commandClose(request({"CLOSE"}));
  commandRead(request({"READ", "abcdefgh"}));
  EXPECT_EQ("", err.text());
  const std::vector<ParamList> expected = {{"GSIZE", "ERR"}, {"CLOSE", "OK_"}, {"READ", "ERR"}};
  EXPECT_EQ(expected, replies());
  g_wrapperMms.reset();
}

TEST_F(Handlers, CommandTableMatchesByPrefixInOrder) {
  StderrCapture err;
  EXPECT_EQ(COMMAND_SERVED, dispatchCommand(request({"CCHECK"})));
  EXPECT_EQ(COMMAND_SERVED, dispatchCommand(request({"GSIZEABC"})));
  EXPECT_EQ(COMMAND_DROPPED, dispatchCommand(request({"CONN"})));
  EXPECT_EQ(COMMAND_DROPPED, dispatchCommand(request({"connect", "x"})));
  EXPECT_EQ(COMMAND_DROPPED, dispatchCommand(request({""})));
  EXPECT_EQ(COMMAND_DROPPED, dispatchCommand(request({})));
  EXPECT_EQ(COMMAND_END, dispatchCommand(request({"PENDING"})));
  EXPECT_EQ("[Halvarine] recv PEND command!\n", err.text());
  const std::vector<ParamList> expected = {
      {"CCHECK", "OK_"}, {"GSIZEABC", "ERR"}, {"PENDING", "OK_"}};
  EXPECT_EQ(expected, replies());
}

TEST(ReadLimit, LargestCountFillsTheBodyExactly) {
  EXPECT_EQ(65511, maxReadCount(4));
  EXPECT_EQ(65510, maxReadCount(5));
  EXPECT_EQ(0, maxReadCount(70000));
}

}  // namespace
