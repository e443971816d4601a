// CONNECT, GSIZE, CLOSE, PEND and SIGTERM with real streams: which
// transport each form of URL is opened with and through which proxy, as the
// worker's log lines and replies show it; what replacing, failing and
// closing a stream leave behind; and how the process ends with a stream
// open.

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "tests/e2e/stream_test_support.h"

using controller::Field;
using controller::hex;
using controller::Reply;
using controller::Request;
using e2e::expectedReadReply;
using e2e::expectedReply;
using e2e::REFUSED;
using e2e::withRefusalsJoined;

namespace {

const char CONNECT_CALL[] = "[WrapperMms::connect()] call! ";
const char OPEN_MMST[] = "[WrapperMms::connect()] open MMST stream!";
const char MMST_OK[] = "[WrapperMms::connect()] open MMST stream success!";
const char MMST_FAILED[] = "[WrapperMms::connect()] open MMST stream failed!";
const char OPEN_MMSH[] = "[WrapperMms::connect()] open MMSH stream!";
const char MMSH_OK[] = "[WrapperMms::connect()] open MMSH stream success!";
const char MMSH_FAILED[] = "[WrapperMms::connect()] open MMSH stream failed! ";
const char TCP_CONNECT[] = "[WrapperMms::io_tcp_connect]";
const char TCP_FAILED[] = "[WrapperMms::io_tcp_connect] connect failed.";
const char READ_EOF[] = "[WrapperMms::io_read()] EOF";
const char SET_PROXY[] = "[WrapperMms::connect()] set proxy! : ";
const char CLOSE_MMST[] = "[WrapperMms::close()] close MMST stream! ";
const char CLOSE_MMSH[] = "[WrapperMms::close()] close MMSH stream! ";
const char CONNECT_OK[] = "[commandConnect()] MMS connect server!! : 0";
const char CONNECT_FAILED[] = "[commandConnect()] MMS connect server!! : 2";
const char SIZE_7[] = "[commandConnect()] command size : 7";

const char SIGTERM_TEXT[] = "\n**** SIGINT ****\n";

// ---- The forms of URL

// One row: the URL and the lines of its CONNECT after the url line, with
// {H} an MMSH server's port, {T} an MMST server's port, {R} a port that
// refuses and {BAD} a name that does not resolve.
struct UrlForm {
  const char* name;
  const char* url;
  std::vector<std::string> lines;
  const char* status;
};

// A successful MMSH open: the describe request (answered with the header,
// then the server's close) and the play request.
const std::vector<std::string> MMSH_OPENS = {TCP_CONNECT, READ_EOF, TCP_CONNECT};

std::vector<std::string> join(std::initializer_list<std::vector<std::string>> parts) {
  std::vector<std::string> all;
  for (const auto& p : parts) all.insert(all.end(), p.begin(), p.end());
  return all;
}

void PrintTo(const UrlForm& form, std::ostream* os) { *os << form.url; }

const std::vector<UrlForm>& urlForms() {
  static const std::vector<UrlForm> forms = {
      {"direct_mms", "mms://127.0.0.1:{T}/x", {OPEN_MMST, TCP_CONNECT, MMST_OK, CONNECT_OK}, "OK_"},
      {"direct_mmst", "mmst://127.0.0.1:{T}/x", {OPEN_MMST, TCP_CONNECT, MMST_OK, CONNECT_OK},
       "OK_"},
      {"direct_mmsh", "mmsh://127.0.0.1:{H}/x",
       join({{OPEN_MMSH}, MMSH_OPENS, {MMSH_OK, CONNECT_OK}}), "OK_"},
      // libmms opens nothing by the http:// name: the open proves the rewrite.
      {"direct_http", "http://127.0.0.1:{H}/x",
       join({{OPEN_MMSH}, MMSH_OPENS, {MMSH_OK, CONNECT_OK}}), "OK_"},
      {"direct_http_refused", "http://127.0.0.1:{R}/x",
       {OPEN_MMSH, TCP_CONNECT, REFUSED, TCP_FAILED,
        std::string(MMSH_FAILED) + "mmsh://127.0.0.1:{R}/x", CONNECT_FAILED},
       "ERR"},
      {"direct_mms_refused", "mms://127.0.0.1:{R}/x",
       {OPEN_MMST, TCP_CONNECT, REFUSED, TCP_FAILED, MMST_FAILED, OPEN_MMSH, TCP_CONNECT, REFUSED,
        TCP_FAILED, std::string(MMSH_FAILED) + "mms://127.0.0.1:{R}/x", CONNECT_FAILED},
       "ERR"},
      // The MMSH server stands in for the proxy: libmms sends it its usual
      // request, so the stream's own host is never looked up.
      {"proxy_mmsh", "http://127.0.0.1:{H}/mmsh://{BAD}/x",
       join({{std::string(SET_PROXY) + "http://127.0.0.1:{H}", OPEN_MMSH}, MMSH_OPENS,
             {MMSH_OK, CONNECT_OK}}),
       "OK_"},
      {"proxy_mms", "http://127.0.0.1:{H}/mms://{BAD}/x",
       join({{std::string(SET_PROXY) + "http://127.0.0.1:{H}", OPEN_MMSH}, MMSH_OPENS,
             {MMSH_OK, CONNECT_OK}}),
       "OK_"},
      {"proxy_http", "http://127.0.0.1:{H}/http://{BAD}/x",
       join({{std::string(SET_PROXY) + "http://127.0.0.1:{H}", OPEN_MMSH}, MMSH_OPENS,
             {MMSH_OK, CONNECT_OK}}),
       "OK_"},
      // No MMST attempt for a proxy form, whatever the scheme: libmms
      // refuses mmst:// over MMSH.
      {"proxy_mmst", "http://127.0.0.1:{H}/mmst://{BAD}/x",
       {std::string(SET_PROXY) + "http://127.0.0.1:{H}", OPEN_MMSH,
        std::string(MMSH_FAILED) + "mmst://{BAD}/x", CONNECT_FAILED},
       "ERR"},
      {"proxy_http_refused", "http://127.0.0.1:{R}/http://{BAD}/x",
       {std::string(SET_PROXY) + "http://127.0.0.1:{R}", OPEN_MMSH, TCP_CONNECT, REFUSED,
        TCP_FAILED, std::string(MMSH_FAILED) + "mmsh://{BAD}/x", CONNECT_FAILED},
       "ERR"},
      // The first marker in the fixed order splits, not the first in the URL.
      {"proxy_marker_order", "http://127.0.0.1:{R}/http://{BAD}/mms://{BAD}/x",
       {std::string(SET_PROXY) + "http://127.0.0.1:{R}/http://{BAD}", OPEN_MMSH, TCP_CONNECT,
        REFUSED, TCP_FAILED, std::string(MMSH_FAILED) + "mms://{BAD}/x", CONNECT_FAILED},
       "ERR"},
      {"proxy_marker_twice", "http://127.0.0.1:{H}/mmsh://{BAD}/a/mmsh://{BAD}/x",
       join({{std::string(SET_PROXY) + "http://127.0.0.1:{H}", OPEN_MMSH}, MMSH_OPENS,
             {MMSH_OK, CONNECT_OK}}),
       "OK_"},
      // An empty proxy is set as the empty string, which libmms cannot use;
      // removing the variable instead would open the stream.
      {"marker_at_start", "/mmsh://127.0.0.1:{H}/x",
       {SET_PROXY, OPEN_MMSH, std::string(MMSH_FAILED) + "mmsh://127.0.0.1:{H}/x", CONNECT_FAILED},
       "ERR"},
      // Scheme tests are case-sensitive: MMST first, and no rewrite.
      {"capitals", "HTTP://127.0.0.1:{H}/x",
       {OPEN_MMST, MMST_FAILED, OPEN_MMSH, std::string(MMSH_FAILED) + "HTTP://127.0.0.1:{H}/x",
        CONNECT_FAILED},
       "ERR"},
  };
  return forms;
}

class StreamConnect : public e2e::StreamTest {
 protected:
  // Replaces the placeholders of a row.
  std::string fill(std::string text) {
    const std::map<std::string, std::string> values = {
        {"{H}", std::to_string(mmsh().port())},
        {"{T}", std::to_string(mmst().port())},
        {"{R}", std::to_string(refusing.port())},
        {"{BAD}", e2e::unresolvableHost()}};
    for (const auto& v : values) {
      for (size_t at; (at = text.find(v.first)) != std::string::npos;) {
        text.replace(at, v.first.size(), v.second);
      }
    }
    return text;
  }

  MmsTestServer& mmsh() {
    if (mmsh_ == nullptr) mmsh_ = &startServer(Transport::MMSH);
    return *mmsh_;
  }
  MmsTestServer& mmst() {
    if (mmst_ == nullptr) mmst_ = &startServer(Transport::MMST);
    return *mmst_;
  }
  std::string mmshUrl() { return "mmsh://127.0.0.1:" + std::to_string(mmsh().port()) + "/x"; }
  std::string mmstUrl() { return "mms://127.0.0.1:" + std::to_string(mmst().port()) + "/x"; }

  // READ of 1000 bytes that must be the next ones of `reference` at `pos`.
  void expectRead(const std::string& reference, size_t pos) {
    const unsigned char echo = nextEcho();
    Reply r = call(Request::command("READ", echo, {"00001000"}));
    EXPECT_TRUE(r.frame == expectedReadReply(echo, "READ", reference.substr(pos, 1000)))
        << "READ at " << pos;
  }

  void expectStatus(const std::string& word, const std::string& status) {
    const unsigned char echo = nextEcho();
    Reply r = call(Request::command(word, echo));
    EXPECT_EQ(hex(expectedReply(echo, {word, status})), hex(r.frame));
  }

  e2e::RefusingPort refusing;

 private:
  MmsTestServer* mmsh_ = nullptr;
  MmsTestServer* mmst_ = nullptr;
};

class UrlForms : public StreamConnect, public ::testing::WithParamInterface<UrlForm> {};

TEST_P(UrlForms, OpenWithTheTransportAndProxyTheFormCallsFor) {
  const UrlForm& form = GetParam();
  ASSERT_TRUE(refusing.valid());
  const std::string url = fill(form.url);
  const unsigned char echo = nextEcho();
  Reply r = call(Request::command("CONNECT", echo, {url}));
  EXPECT_EQ(hex(expectedReply(echo, {"CONNECT", form.status})), hex(r.frame));

  std::vector<std::string> expected = {SIZE_7, CONNECT_CALL, "[WrapperMms::connect()] url=" + url};
  for (const std::string& line : form.lines) expected.push_back(fill(line));
  EXPECT_EQ(expected, withRefusalsJoined(newLines()));

  // Whatever was opened is closed again by CLOSE; a failed open left
  // nothing to close.
  expectStatus("CLOSE", "OK_");
  std::vector<std::string> closing;
  if (std::string(form.status) == "OK_") {
    closing = {form.lines.front() == OPEN_MMST ? CLOSE_MMST : CLOSE_MMSH,
               "[commandClose()] MMS close!! : 0"};
  }
  EXPECT_EQ(closing, newLines());
}

INSTANTIATE_TEST_SUITE_P(Rows, UrlForms, ::testing::ValuesIn(urlForms()),
                         [](const ::testing::TestParamInfo<UrlForm>& info) {
                           return std::string(info.param.name);
                         });

TEST_F(StreamConnect, EmptyUrlAsCountedFieldIsTriedAndFails) {
  Request req = request("CONNECT");
  req.fields.push_back(Field::countedField(""));
  Reply r = call(req);
  EXPECT_EQ(hex(expectedReply(req.echo, {"CONNECT", "ERR"})), hex(r.frame));
  EXPECT_EQ((std::vector<std::string>{SIZE_7, CONNECT_CALL, "[WrapperMms::connect()] url=",
                                      OPEN_MMST, MMST_FAILED, OPEN_MMSH, MMSH_FAILED,
                                      CONNECT_FAILED}),
            newLines());
}

// A proxy set for one stream is gone for the next direct one: the second
// server is reached itself, not through the first.
TEST_F(StreamConnect, DirectFormAfterProxyFormUsesNoProxy) {
  MmsTestServer& proxy = mmsh();
  MmsTestServer& direct = startServer(Transport::MMSH);
  ASSERT_EQ("OK_", connect("http://127.0.0.1:" + std::to_string(proxy.port()) + "/mmsh://" +
                           e2e::unresolvableHost() + "/x")
                       .status());
  ASSERT_EQ("OK_", connect("mmsh://127.0.0.1:" + std::to_string(direct.port()) + "/x").status());
  // The describe connection is done before the play request opens.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
  while (direct.connectionsServed() < 1 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_GE(direct.connectionsServed(), 1);
}

// ---- Replacing, failing, refusing

TEST_F(StreamConnect, NewConnectClosesTheOpenStreamFirst) {
  const std::string mmsUrl = mmstUrl(), mmshUrl_ = mmshUrl();
  const std::string mmstBytes = referenceFor(mmsUrl), mmshBytes = referenceFor(mmshUrl_);

  ASSERT_EQ("OK_", connect(mmsUrl).status());
  EXPECT_EQ(openLines(mmsUrl, Transport::MMST), newLines());
  expectRead(mmstBytes, 0);
  expectRead(mmstBytes, 1000);

  // Over an open MMST stream: its close line comes before the new connect.
  ASSERT_EQ("OK_", connect(mmshUrl_).status());
  std::vector<std::string> expected = openLines(mmshUrl_, Transport::MMSH);
  expected.insert(expected.begin() + 1, CLOSE_MMST);
  EXPECT_EQ(expected, newLines());
  expectRead(mmshBytes, 0);

  // And over an open MMSH stream; the MMST server has its session back.
  ASSERT_EQ("OK_", connect(mmsUrl).status());
  expected = openLines(mmsUrl, Transport::MMST);
  expected.insert(expected.begin() + 1, CLOSE_MMSH);
  EXPECT_EQ(expected, newLines());
  expectRead(mmstBytes, 0);
}

TEST_F(StreamConnect, FailedConnectLeavesAClosedStreamBehind) {
  ASSERT_TRUE(refusing.valid());
  const std::string good = mmshUrl();
  ASSERT_EQ("OK_", connect(good).status());
  newLines();

  const std::string bad = "mmsh://127.0.0.1:" + std::to_string(refusing.port()) + "/x";
  const unsigned char echo = nextEcho();
  Reply r = call(Request::command("CONNECT", echo, {bad}));
  EXPECT_EQ(hex(expectedReply(echo, {"CONNECT", "ERR"})), hex(r.frame));
  EXPECT_EQ((std::vector<std::string>{SIZE_7, CLOSE_MMSH, CONNECT_CALL,
                                      "[WrapperMms::connect()] url=" + bad, OPEN_MMSH,
                                      TCP_CONNECT, REFUSED, TCP_FAILED,
                                      std::string(MMSH_FAILED) + bad, CONNECT_FAILED}),
            withRefusalsJoined(newLines()));

  // The unopened object answers without touching the library or logging.
  expectStatus("GSIZE", "ERR");
  expectStatus("CLOSE", "OK_");
  const unsigned char readEcho = nextEcho();
  EXPECT_EQ(hex(expectedReply(readEcho, {"READ", "ERR"})),
            hex(call(Request::command("READ", readEcho, {"00001000"})).frame));
  EXPECT_EQ(std::vector<std::string>{}, newLines());

  // Replacing it closes nothing.
  ASSERT_EQ("OK_", connect(good).status());
  EXPECT_EQ(openLines(good, Transport::MMSH), newLines());
}

TEST_F(StreamConnect, ConnectWithoutUrlIsRefusedAndTheStreamStaysOpen) {
  const std::string url = mmshUrl();
  const std::string bytes = referenceFor(url);
  ASSERT_EQ("OK_", connect(url).status());
  newLines();
  ASSERT_TRUE(session.send(request("CONNECT"))) << session.error();
  ASSERT_TRUE(session.send(request("CONN", {url}))) << session.error();
  expectOnlyCcheckReply(nextEcho());
  EXPECT_EQ(std::vector<std::string>{}, newLines());
  expectRead(bytes, 0);
}

TEST_F(StreamConnect, LongerWordIsServedAndExtraElementsIgnored) {
  const std::string url = mmshUrl();
  const unsigned char echo = nextEcho();
  Reply r = call(Request::command("CONNECTION", echo, {url, "extra", "more"}));
  EXPECT_EQ(hex(expectedReply(echo, {"CONNECTION", "OK_"})), hex(r.frame));
  std::vector<std::string> expected = openLines(url, Transport::MMSH);
  expected.front() = "[commandConnect()] command size : 10";
  EXPECT_EQ(expected, newLines());
}

// ---- GSIZE and CLOSE on an open stream

class OpenStream : public StreamConnect, public ::testing::WithParamInterface<Transport> {
 protected:
  void SetUp() override {
    StreamConnect::SetUp();
    if (HasFatalFailure()) return;
    url = GetParam() == Transport::MMST ? mmstUrl() : mmshUrl();
    std::string error;
    ASSERT_TRUE(e2e::libmmsLength(url, libraryLength, error)) << error;
    ASSERT_EQ("OK_", connect(url).status());
    newLines();
  }
  const char* name() const { return GetParam() == Transport::MMST ? "MMST" : "MMSH"; }
  const char* closeLine() const { return GetParam() == Transport::MMST ? CLOSE_MMST : CLOSE_MMSH; }

  std::string url;
  uint32_t libraryLength = 0;
};

TEST_P(OpenStream, GsizeReportsWhatTheLibraryReports) {
  // The header and every data packet, as the server cuts the file: not the
  // file size that the header declares, which counts the index object that
  // MMS never carries.
  const AsfFile& f = e2e::sampleAsf();
  EXPECT_EQ(f.header.size() + f.packets.size() * f.packetSize, libraryLength);
  EXPECT_LT(libraryLength, f.fileSize);

  char digits[32];
  snprintf(digits, sizeof digits, "%016u", libraryLength);
  for (int i = 0; i < 2; ++i) {
    const unsigned char echo = nextEcho();
    Reply r = call(Request::command("GSIZE", echo));
    EXPECT_EQ(hex(expectedReply(echo, {"GSIZE", "OK_", digits})), hex(r.frame));
    EXPECT_EQ((std::vector<std::string>{"[WrapperMms::getLength()] call! ",
                                        std::string("[WrapperMms::getLength()] get ") + name() +
                                            " length : " + std::to_string(libraryLength),
                                        "[commandGsize()] MMS get size!! : 0"}),
              newLines());
  }
}

TEST_P(OpenStream, CloseClosesOnceThenHasNothingToClose) {
  expectStatus("CLOSE", "OK_");
  EXPECT_EQ((std::vector<std::string>{closeLine(), "[commandClose()] MMS close!! : 0"}),
            newLines());
  expectStatus("CLOSE", "OK_");
  expectStatus("GSIZE", "ERR");
  EXPECT_EQ(std::vector<std::string>{}, newLines());
  // The library let go of the connection: the server takes the next one.
  ASSERT_EQ("OK_", connect(url).status());
  EXPECT_EQ(openLines(url, GetParam()), newLines());
}

TEST_P(OpenStream, PendAnswersThenClosesTheStreamAndEnds) {
  const unsigned char echo = nextEcho();
  Reply r = call(Request::command("PEND", echo));
  EXPECT_EQ(hex(expectedReply(echo, {"PEND", "OK_"})), hex(r.frame));
  EXPECT_TRUE(session.receiveEof(e2e::REPLY_TIMEOUT_S)) << session.error();
  expectExit(0);
  EXPECT_EQ((std::vector<std::string>{"[Halvarine] recv PEND command!", closeLine(),
                                      "[Halvarine] MMS close!! : 0",
                                      "[Halvarine] application finished !!"}),
            newLines());
}

TEST_P(OpenStream, SigtermWhileIdleClosesTheStreamOnTheWayOut) {
  const size_t before = session.worker().stderrText().size();
  ASSERT_TRUE(session.worker().sendSignal(SIGTERM)) << session.worker().error();
  expectExit(0);
  EXPECT_EQ(std::string(SIGTERM_TEXT) + closeLine() + "\n",
            session.worker().stderrText().substr(before));
  EXPECT_TRUE(session.receiveEof(e2e::REPLY_TIMEOUT_S)) << session.error();
}

INSTANTIATE_TEST_SUITE_P(Transports, OpenStream,
                         ::testing::Values(Transport::MMST, Transport::MMSH),
                         [](const ::testing::TestParamInfo<Transport>& info) {
                           return std::string(info.param == Transport::MMST ? "MMST" : "MMSH");
                         });

// ---- Slow: the MMST attempt waits out its time-out

// An MMSH-only server never answers the MMST opening: the read callback
// gives up after 7 seconds, and MMSH takes over with the same URL.
TEST_F(StreamConnect, SlowMmsUrlFallsBackToMmshAfterTheMmstTimeout) {
  const std::string url = "mms://127.0.0.1:" + std::to_string(mmsh().port()) + "/x";
  const std::string bytes = referenceFor("mmsh://127.0.0.1:" + std::to_string(mmsh().port()) + "/x");
  const unsigned char echo = nextEcho();
  const auto start = std::chrono::steady_clock::now();
  Reply r;
  ASSERT_TRUE(session.call(Request::command("CONNECT", echo, {url}), 15, r)) << session.error();
  const double took =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_EQ(hex(expectedReply(echo, {"CONNECT", "OK_"})), hex(r.frame));
  EXPECT_GE(took, 6.5);
  EXPECT_LT(took, 10.0);
  const std::vector<std::string> lines = newLines();
  std::vector<std::string> expected = {SIZE_7, CONNECT_CALL, "[WrapperMms::connect()] url=" + url,
                                       OPEN_MMST, TCP_CONNECT,
                                       "[WrapperMms::io_read()] select timeout!", MMST_FAILED,
                                       OPEN_MMSH};
  expected = join({expected, MMSH_OPENS, {MMSH_OK, CONNECT_OK}});
  EXPECT_EQ(expected, lines);
  expectRead(bytes, 0);
}

}  // namespace
