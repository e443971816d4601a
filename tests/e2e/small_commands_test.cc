// CCHECK, GSIZE, CLOSE and PEND against the real worker, before any stream
// is opened: the replies byte for byte, the command-word matching, and
// silence for every request the worker must not answer.

#include <string>
#include <vector>

#include "tests/e2e/worker_test_support.h"

using controller::Field;
using controller::hex;
using controller::Reply;
using controller::Request;
using e2e::bytes;
using e2e::expectedReply;

namespace {

class SmallCommands : public e2e::WorkerTest {};

TEST_F(SmallCommands, CcheckReplyIsTheDocumentedFrame) {
  Reply r = call(Request::command("CCHECK", 0x07));
  EXPECT_EQ(hex(bytes({0x16, 0x16, 0x02, 0x00, 0xFD, 0x47, 0x52, 0x07, 0x00, 0x00, 0x0C, 0x00,
                       0x43, 0x43, 0x48, 0x45, 0x43, 0x4B, 0x0A, 0x4F, 0x4B, 0x5F, 0x0A, 0x0A,
                       0x03})),
            hex(r.frame));
  EXPECT_EQ("CCHECK", r.word());
  EXPECT_EQ("OK_", r.status());
  EXPECT_TRUE(r.values().empty());
}

TEST_F(SmallCommands, RepliesBeforeAnyConnectAreByteExact) {
  struct Case {
    const char* word;
    const char* status;
  };
  const Case cases[] = {{"CCHECK", "OK_"}, {"GSIZE", "ERR"}, {"CLOSE", "OK_"},
                        {"GSIZE", "ERR"},  {"CLOSE", "OK_"}, {"CCHECK", "OK_"}};
  unsigned char echo = 0x10;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.word);
    Reply r = call(Request::command(c.word, echo));
    EXPECT_EQ(hex(expectedReply(echo, {c.word, c.status})), hex(r.frame));
    ++echo;
  }
  // None of these writes a line without a stream.
  EXPECT_EQ(std::vector<std::string>{}, stderrLines());
}

TEST_F(SmallCommands, EchoByteIsCopiedWhateverItsValue) {
  for (int echo : {0x00, 0x01, 0x03, 0x0A, 0x16, 0x52, 0x7F, 0x80, 0xFF}) {
    SCOPED_TRACE(echo);
    Reply r = call(Request::command("CCHECK", static_cast<unsigned char>(echo)));
    EXPECT_EQ(hex(expectedReply(static_cast<unsigned char>(echo), {"CCHECK", "OK_"})),
              hex(r.frame));
  }
}

TEST_F(SmallCommands, ExtraElementsAreIgnoredAndNotEchoed) {
  Request req = Request::command("CCHECK", 0x21, {"one", "two"});
  req.fields.push_back(Field::countedField(std::string("\0\n\x03", 3)));
  EXPECT_EQ(hex(expectedReply(0x21, {"CCHECK", "OK_"})), hex(call(req).frame));

  EXPECT_EQ(hex(expectedReply(0x22, {"GSIZE", "ERR"})),
            hex(call(Request::command("GSIZE", 0x22, {"0000000000000500"})).frame));
  EXPECT_EQ(hex(expectedReply(0x23, {"CLOSE", "OK_"})),
            hex(call(Request::command("CLOSE", 0x23, {"now", "please"})).frame));
  // Fields after the list's closing 0x0A are no elements at all.
  // The empty field encodes as a lone 0x0A: the body is CCHECK 0A 0A GSIZE 0A 0A.
  Request trailing = Request::command("CCHECK", 0x24, {"", "GSIZE"});
  EXPECT_EQ(hex(expectedReply(0x24, {"CCHECK", "OK_"})), hex(call(trailing).frame));
}

TEST_F(SmallCommands, LongerWordsAreServedAndEchoedWhole) {
  EXPECT_EQ(hex(expectedReply(0x31, {"GSIZEX", "ERR"})),
            hex(call(Request::command("GSIZEX", 0x31)).frame));
  EXPECT_EQ(hex(expectedReply(0x32, {"CCHECKX", "OK_"})),
            hex(call(Request::command("CCHECKX", 0x32)).frame));
  EXPECT_EQ(hex(expectedReply(0x33, {"CLOSE_ALL", "OK_"})),
            hex(call(Request::command("CLOSE_ALL", 0x33)).frame));
  EXPECT_EQ(hex(expectedReply(0x34, {"CCHECK CCHECK", "OK_"})),
            hex(call(Request::command("CCHECK CCHECK", 0x34)).frame));
  EXPECT_EQ(std::vector<std::string>{}, stderrLines());
}

TEST_F(SmallCommands, WordsThatMatchNoCommandGetNoReply) {
  // Unknown, lower-case, proper beginnings of a literal, and the empty word
  // (an empty text field ends the list, so the frame has no command word).
  const char* words[] = {"HELLO", "ccheck", "Ccheck", "gsize", "close", "pend",
                         "CCHEC", "GSIZ",   "CLOS",   "PEN",   "C",     "",
                         " CCHECK", "XCCHECK"};
  unsigned char echo = 0x40;
  for (const char* w : words) {
    ASSERT_TRUE(session.send(Request::command(w, echo++))) << session.error();
  }
  // A frame with an empty body carries no command word either.
  ASSERT_TRUE(session.sendRaw(bytes({0x16, 0x16, 0x02, 0x00, 0xFF, 0xFF, 0x43, 0x50, 0x00,
                                     0x00, 0x00, 0x00, 0x03})))
      << session.error();
  expectOnlyCcheckReply(0x60);
  // Dropping writes nothing, and the worker is still serving.
  EXPECT_EQ(std::vector<std::string>{}, stderrLines());
  EXPECT_TRUE(session.worker().running());
}

TEST_F(SmallCommands, PipelinedRequestsAreAnsweredInOrder) {
  const std::vector<std::pair<std::string, std::string>> script = {
      {"CCHECK", "OK_"}, {"GSIZE", "ERR"}, {"CLOSE", "OK_"}, {"GSIZEX", "ERR"},
      {"CCHECK", "OK_"}};
  unsigned char echo = 0x70;
  for (const auto& step : script) {
    ASSERT_TRUE(session.send(Request::command(step.first, echo++))) << session.error();
  }
  echo = 0x70;
  for (const auto& step : script) {
    Reply r = receive(echo);
    EXPECT_EQ(hex(expectedReply(echo, {step.first, step.second})), hex(r.frame));
    ++echo;
  }
}

TEST_F(SmallCommands, PendAnswersThenEndsTheProcess) {
  Reply r = call(Request::command("PEND", 0x07));
  EXPECT_EQ(hex(expectedReply(0x07, {"PEND", "OK_"})), hex(r.frame));
  EXPECT_TRUE(session.receiveEof(e2e::REPLY_TIMEOUT_S)) << session.error();
  expectExit(0);
  EXPECT_EQ((std::vector<std::string>{"[Halvarine] recv PEND command!",
                                      "[Halvarine] application finished !!"}),
            stderrLines());
}

TEST_F(SmallCommands, LongerPendWordIsServedAsPend) {
  Reply r = call(Request::command("PENDING", 0x08, {"extra"}));
  EXPECT_EQ(hex(expectedReply(0x08, {"PENDING", "OK_"})), hex(r.frame));
  EXPECT_TRUE(session.receiveEof(e2e::REPLY_TIMEOUT_S)) << session.error();
  expectExit(0);
  EXPECT_EQ((std::vector<std::string>{"[Halvarine] recv PEND command!",
                                      "[Halvarine] application finished !!"}),
            stderrLines());
}

TEST_F(SmallCommands, RequestsAfterPendAreNotServed) {
  // PEND and a CCHECK in one write: the worker ends after PEND's reply.
  Packet pend, ccheck;
  ASSERT_TRUE(controller::encodeRequest(Request::command("PEND", 0x01), pend));
  ASSERT_TRUE(controller::encodeRequest(Request::command("CCHECK", 0x02), ccheck));
  ASSERT_TRUE(session.sendRaw(pend + ccheck)) << session.error();
  EXPECT_EQ(hex(expectedReply(0x01, {"PEND", "OK_"})), hex(receive(0x01).frame));
  EXPECT_TRUE(session.receiveEof(e2e::REPLY_TIMEOUT_S)) << session.error();
  expectExit(0);
}

}  // namespace
