// CONNECT, GSIZE, CLOSE and PEND with real streams: the transport and
// proxy each form of URL is opened with, as the log and replies show, and
// what replacing, failing and closing a stream leave behind.

#include <map>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/support.h"

using halvarine::hex;
using halvarine::Reply;
using halvarine::Request;
using support::expectedReadReply;
using support::expectedReply;
using support::REFUSED;

namespace {

using Lines = std::vector<std::string>;

const std::string CONNECT_CALL = "[WrapperMms::connect()] call! ";
const std::string OPEN_MMST = "[WrapperMms::connect()] open MMST stream!";
const std::string MMST_OK = "[WrapperMms::connect()] open MMST stream success!";
const std::string MMST_FAILED = "[WrapperMms::connect()] open MMST stream failed!";
const std::string OPEN_MMSH = "[WrapperMms::connect()] open MMSH stream!";
const std::string MMSH_OK = "[WrapperMms::connect()] open MMSH stream success!";
const std::string MMSH_FAILED = "[WrapperMms::connect()] open MMSH stream failed! ";
const std::string TCP_CONNECT = "[WrapperMms::io_tcp_connect]";
const std::string TCP_FAILED = "[WrapperMms::io_tcp_connect] connect failed.";
const std::string UNRESOLVED = "[WrapperMms::io_tcp_connect] unable to resolve host: {BAD}";
const std::string READ_EOF = "[WrapperMms::io_read()] EOF";
const std::string SET_PROXY = "[WrapperMms::connect()] set proxy! : ";
const std::string CLOSE_MMST = "[WrapperMms::close()] close MMST stream! ";
const std::string CLOSE_MMSH = "[WrapperMms::close()] close MMSH stream! ";
const std::string CONNECT_OK = "[commandConnect()] MMS connect server!! : 0";
const std::string CONNECT_FAILED = "[commandConnect()] MMS connect server!! : 2";
const std::string SIZE_7 = "[commandConnect()] command size : 7";

Lines join(std::initializer_list<Lines> parts) {
  Lines all;
  for (const Lines& p : parts) all.insert(all.end(), p.begin(), p.end());
  return all;
}

// A successful MMSH open: describe (header, then the server's close), play.
const Lines MMSH_OPENED = {TCP_CONNECT, READ_EOF, TCP_CONNECT, MMSH_OK, CONNECT_OK};
const Lines MMST_OPENED = {TCP_CONNECT, MMST_OK, CONNECT_OK};
Lines viaProxy(const std::string& proxy) {
  return join({{SET_PROXY + proxy, OPEN_MMSH}, MMSH_OPENED});
}

// One row: the URL and its CONNECT's lines after the url line, with {H} an
// MMSH server's port, {T} an MMST server's port, {R} a refusing port and
// {BAD} a name that cannot resolve.
struct UrlForm {
  const char* name;
  const char* url;
  Lines lines;
  const char* status;
};

void PrintTo(const UrlForm& form, std::ostream* os) {
  *os << form.url;
}

const std::vector<UrlForm>& urlForms() {
  static const std::vector<UrlForm> forms = {
      {"direct_mms", "mms://127.0.0.1:{T}/x", join({{OPEN_MMST}, MMST_OPENED}), "OK_"},
      {"direct_mmst", "mmst://127.0.0.1:{T}/x", join({{OPEN_MMST}, MMST_OPENED}), "OK_"},
      {"direct_mmsh", "mmsh://127.0.0.1:{H}/x", join({{OPEN_MMSH}, MMSH_OPENED}), "OK_"},
      // libmms opens nothing by the http:// name: the open proves the rewrite.
      {"direct_http", "http://127.0.0.1:{H}/x", join({{OPEN_MMSH}, MMSH_OPENED}), "OK_"},
      {"direct_http_refused",
       "http://127.0.0.1:{R}/x",
       {OPEN_MMSH, TCP_CONNECT, REFUSED, TCP_FAILED, MMSH_FAILED + "mmsh://127.0.0.1:{R}/x",
        CONNECT_FAILED},
       "ERR"},
      // mms:// tries MMST, then MMSH with the same URL: one report each.
      {"direct_mms_refused",
       "mms://127.0.0.1:{R}/x",
       {OPEN_MMST, TCP_CONNECT, REFUSED, TCP_FAILED, MMST_FAILED, OPEN_MMSH, TCP_CONNECT, REFUSED,
        TCP_FAILED, MMSH_FAILED + "mms://127.0.0.1:{R}/x", CONNECT_FAILED},
       "ERR"},
      {"direct_mms_unresolvable",
       "mms://{BAD}/x",
       {OPEN_MMST, TCP_CONNECT, UNRESOLVED, MMST_FAILED, OPEN_MMSH, TCP_CONNECT, UNRESOLVED,
        MMSH_FAILED + "mms://{BAD}/x", CONNECT_FAILED},
       "ERR"},
      {"direct_mmsh_unresolvable",
       "mmsh://{BAD}/x",
       {OPEN_MMSH, TCP_CONNECT, UNRESOLVED, MMSH_FAILED + "mmsh://{BAD}/x", CONNECT_FAILED},
       "ERR"},
      // The MMSH server stands in for the proxy, so {BAD} is never looked up.
      {"proxy_mmsh", "http://127.0.0.1:{H}/mmsh://{BAD}/x", viaProxy("http://127.0.0.1:{H}"),
       "OK_"},
      {"proxy_mms", "http://127.0.0.1:{H}/mms://{BAD}/x", viaProxy("http://127.0.0.1:{H}"), "OK_"},
      {"proxy_http", "http://127.0.0.1:{H}/http://{BAD}/x", viaProxy("http://127.0.0.1:{H}"),
       "OK_"},
      // No MMST attempt for a proxy form: libmms refuses mmst:// over MMSH.
      {"proxy_mmst",
       "http://127.0.0.1:{H}/mmst://{BAD}/x",
       {SET_PROXY + "http://127.0.0.1:{H}", OPEN_MMSH, MMSH_FAILED + "mmst://{BAD}/x",
        CONNECT_FAILED},
       "ERR"},
      {"proxy_http_refused",
       "http://127.0.0.1:{R}/http://{BAD}/x",
       {SET_PROXY + "http://127.0.0.1:{R}", OPEN_MMSH, TCP_CONNECT, REFUSED, TCP_FAILED,
        MMSH_FAILED + "mmsh://{BAD}/x", CONNECT_FAILED},
       "ERR"},
      // The first marker in the fixed order splits, not the first in the URL.
      {"proxy_marker_order",
       "http://127.0.0.1:{R}/http://{BAD}/mms://{BAD}/x",
       {SET_PROXY + "http://127.0.0.1:{R}/http://{BAD}", OPEN_MMSH, TCP_CONNECT, REFUSED,
        TCP_FAILED, MMSH_FAILED + "mms://{BAD}/x", CONNECT_FAILED},
       "ERR"},
      {"proxy_marker_twice", "http://127.0.0.1:{H}/mmsh://{BAD}/a/mmsh://{BAD}/x",
       viaProxy("http://127.0.0.1:{H}"), "OK_"},
      // An empty proxy is set as "", which libmms cannot use.
      {"marker_at_start",
       "/mmsh://127.0.0.1:{H}/x",
       {SET_PROXY, OPEN_MMSH, MMSH_FAILED + "mmsh://127.0.0.1:{H}/x", CONNECT_FAILED},
       "ERR"},
      // Scheme tests are case-sensitive: MMST first, and no rewrite.
      {"capitals",
       "HTTP://127.0.0.1:{H}/x",
       {OPEN_MMST, MMST_FAILED, OPEN_MMSH, MMSH_FAILED + "HTTP://127.0.0.1:{H}/x", CONNECT_FAILED},
       "ERR"},
  };
  return forms;
}

class StreamConnect : public support::StreamTest {
 protected:
  std::string fill(std::string text) {
    const std::map<std::string, std::string> values = {{"{H}", std::to_string(mmsh().port())},
                                                       {"{T}", std::to_string(mmst().port())},
                                                       {"{R}", std::to_string(refusing.port())},
                                                       {"{BAD}", support::unresolvableHost()}};
    for (const auto& v : values) {
      for (size_t at; (at = text.find(v.first)) != std::string::npos;) {
        text.replace(at, v.first.size(), v.second);
      }
    }
    return text;
  }

  MmsTestServer& mmsh() {
    return mmsh_ != nullptr ? *mmsh_ : *(mmsh_ = &startServer(Transport::MMSH));
  }
  MmsTestServer& mmst() {
    return mmst_ != nullptr ? *mmst_ : *(mmst_ = &startServer(Transport::MMST));
  }
  std::string mmshUrl() { return "mmsh://127.0.0.1:" + std::to_string(mmsh().port()) + "/x"; }
  std::string mmstUrl() { return "mms://127.0.0.1:" + std::to_string(mmst().port()) + "/x"; }

  // READ 1000 must give `reference` from its start.
  void expectFirstBytes(const std::string& reference) {
    const Request req = request("READ", {"00001000"});
    EXPECT_TRUE(call(req).frame == expectedReadReply(req.echo, "READ", reference.substr(0, 1000)));
  }

  // CONNECT `url` answered with exactly `status`.
  void expectConnect(const std::string& url, const std::string& status) {
    const Request req = request("CONNECT", {url});
    EXPECT_EQ(hex(expectedReply(req.echo, {"CONNECT", status})), hex(call(req, 15).frame));
  }

  support::RefusingPort refusing;

 private:
  MmsTestServer* mmsh_ = nullptr;
  MmsTestServer* mmst_ = nullptr;
};

class UrlForms : public StreamConnect, public ::testing::WithParamInterface<UrlForm> {};

TEST_P(UrlForms, OpenWithTheTransportAndProxyTheFormCallsFor) {
  const UrlForm& form = GetParam();
  const std::string url = fill(form.url);
  const auto start = support::Clock::now();
  expectConnect(url, form.status);
  EXPECT_LT(support::secondsSince(start), 2.0) << "no form may wait for a time-out";
  Lines expected = {SIZE_7, CONNECT_CALL, "[WrapperMms::connect()] url=" + url};
  for (const std::string& line : form.lines) expected.push_back(fill(line));
  EXPECT_EQ(expected, support::withRefusalsJoined(newLines()));

  // CLOSE closes what was opened; a failed open left nothing to close.
  expectStatus("CLOSE", "OK_");
  Lines closing;
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
  EXPECT_EQ("ERR", connectCounted("").status());
  EXPECT_EQ((Lines{SIZE_7, CONNECT_CALL, "[WrapperMms::connect()] url=", OPEN_MMST, MMST_FAILED,
                   OPEN_MMSH, MMSH_FAILED, CONNECT_FAILED}),
            newLines());
}

// A proxy set for one stream is gone for the next direct one.
TEST_F(StreamConnect, DirectFormAfterProxyFormUsesNoProxy) {
  MmsTestServer& direct = startServer(Transport::MMSH);
  expectConnect("http://127.0.0.1:" + std::to_string(mmsh().port()) + "/mmsh://" +
                    support::unresolvableHost() + "/x",
                "OK_");
  expectConnect("mmsh://127.0.0.1:" + std::to_string(direct.port()) + "/x", "OK_");
  // The describe connection is done before the play request opens.
  for (int i = 0; i < 200 && direct.connectionsServed() < 1; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_GE(direct.connectionsServed(), 1);
}

TEST_F(StreamConnect, NewConnectClosesTheOpenStreamFirst) {
  const std::string mmsUrl = mmstUrl(), mmshUrl_ = mmshUrl();
  const std::string mmstBytes = referenceFor(mmsUrl), mmshBytes = referenceFor(mmshUrl_);
  expectConnect(mmsUrl, "OK_");
  newLines();
  expectFirstBytes(mmstBytes);

  // The old stream's close line comes before the new connect.
  expectConnect(mmshUrl_, "OK_");
  Lines expected = openLines(mmshUrl_, Transport::MMSH);
  expected.insert(expected.begin() + 1, CLOSE_MMST);
  EXPECT_EQ(expected, newLines());
  expectFirstBytes(mmshBytes);

  // And over MMSH; the MMST server has its session back.
  expectConnect(mmsUrl, "OK_");
  expected = openLines(mmsUrl, Transport::MMST);
  expected.insert(expected.begin() + 1, CLOSE_MMSH);
  EXPECT_EQ(expected, newLines());
  expectFirstBytes(mmstBytes);
}

TEST_F(StreamConnect, FailedConnectLeavesAClosedStreamBehind) {
  const std::string good = mmshUrl();
  expectConnect(good, "OK_");
  newLines();
  const std::string bad = "mmsh://127.0.0.1:" + std::to_string(refusing.port()) + "/x";
  expectConnect(bad, "ERR");
  EXPECT_EQ((Lines{SIZE_7, CLOSE_MMSH, CONNECT_CALL, "[WrapperMms::connect()] url=" + bad,
                   OPEN_MMSH, TCP_CONNECT, REFUSED, TCP_FAILED, MMSH_FAILED + bad, CONNECT_FAILED}),
            support::withRefusalsJoined(newLines()));

  // The unopened object answers without the library and without a line.
  expectStatus("GSIZE", "ERR");
  expectStatus("CLOSE", "OK_");
  const Request read = request("READ", {"00001000"});
  EXPECT_EQ(hex(expectedReply(read.echo, {"READ", "ERR"})), hex(call(read).frame));
  EXPECT_EQ(Lines{}, newLines());
  // Replacing it closes nothing.
  expectConnect(good, "OK_");
  EXPECT_EQ(openLines(good, Transport::MMSH), newLines());
}

// ---- GSIZE and PEND on an open stream

class OpenStream : public StreamConnect, public ::testing::WithParamInterface<Transport> {
 protected:
  void SetUp() override {
    StreamConnect::SetUp();
    if (HasFatalFailure()) return;
    url = GetParam() == Transport::MMST ? mmstUrl() : mmshUrl();
    std::string ignored;
    ASSERT_TRUE(support::libmmsStream(url, ignored, &libraryLength));
    expectConnect(url, "OK_");
    newLines();
  }
  const char* name() const { return GetParam() == Transport::MMST ? "MMST" : "MMSH"; }

  std::string url;
  uint32_t libraryLength = 0;
};

TEST_P(OpenStream, GsizeReportsWhatTheLibraryReports) {
  // The header and every packet as served: not the file size the header
  // declares, which counts the index object MMS never carries.
  const AsfFile& f = support::sampleAsf();
  EXPECT_EQ(f.header.size() + f.packets.size() * f.packetSize, libraryLength);
  EXPECT_LT(libraryLength, f.fileSize);
  char digits[32];
  snprintf(digits, sizeof digits, "%016u", libraryLength);
  for (int i = 0; i < 2; ++i) {
    const Request req = request("GSIZE");
    EXPECT_EQ(hex(expectedReply(req.echo, {"GSIZE", "OK_", digits})), hex(call(req).frame));
    EXPECT_EQ((Lines{"[WrapperMms::getLength()] call! ",
                     std::string("[WrapperMms::getLength()] get ") + name() +
                         " length : " + std::to_string(libraryLength),
                     "[commandGsize()] MMS get size!! : 0"}),
              newLines());
  }
}

TEST_P(OpenStream, PendAnswersThenClosesTheStreamAndEnds) {
  expectStatus("PEND", "OK_");
  EXPECT_TRUE(session.receiveEof(support::REPLY_TIMEOUT_MS)) << session.error();
  expectExit(0);
  EXPECT_EQ((Lines{"[Halvarine] recv PEND command!",
                   GetParam() == Transport::MMST ? CLOSE_MMST : CLOSE_MMSH,
                   "[Halvarine] MMS close!! : 0", "[Halvarine] application finished !!"}),
            newLines());
}

INSTANTIATE_TEST_SUITE_P(Transports, OpenStream,
                         ::testing::Values(Transport::MMST, Transport::MMSH),
                         [](const ::testing::TestParamInfo<Transport>& info) {
                           return std::string(info.param == Transport::MMST ? "MMST" : "MMSH");
                         });

// An MMSH-only server never answers the MMST opening: after the 7-second
// wait MMSH takes over with the same URL.
TEST_F(StreamConnect, SlowMmsUrlFallsBackToMmshAfterTheMmstTimeout) {
  const std::string port = std::to_string(mmsh().port());
  const std::string url = "mms://127.0.0.1:" + port + "/x";
  const std::string bytes = referenceFor("mmsh://127.0.0.1:" + port + "/x");
  const auto start = support::Clock::now();
  expectConnect(url, "OK_");
  EXPECT_GE(support::secondsSince(start), 6.5);
  EXPECT_LT(support::secondsSince(start), 10.0);
  EXPECT_EQ(join({{SIZE_7, CONNECT_CALL, "[WrapperMms::connect()] url=" + url, OPEN_MMST,
                   TCP_CONNECT, "[WrapperMms::io_read()] select timeout!", MMST_FAILED, OPEN_MMSH},
                  MMSH_OPENED}),
            newLines());
  expectFirstBytes(bytes);
}

}  // namespace
