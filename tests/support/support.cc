#include "tests/support/support.h"

#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>

#include "tools/common/file.h"
#include "tools/common/table.h"

using halvarine::Reply;
using halvarine::Request;

namespace support {

const AsfFile& sampleAsf() {
  static const AsfFile file = [] {
    AsfFile f;
    std::string error;
    if (!loadAsfFile(HALVARINE_SAMPLE_ASF, f, error))
      ADD_FAILURE() << "cannot load the sample: " << error;
    return f;
  }();
  return file;
}

// ---- Child processes

Child::Child(const std::vector<std::string>& argv) {
  Options options;
  options.captureStdout = true;
  start(argv, options);
}

std::string workerPath() {
  const std::string named = halvarine::workerFromEnvironment();
  if (!named.empty()) return named;
  const char* built = getenv("HALVARINE_BUILT_WORKER");
  return built != nullptr ? built : "";
}

std::vector<std::string> preloadEnv(const std::string& library) {
  const char* asan = getenv("ASAN_OPTIONS");
  return {"LD_PRELOAD=" + library,
          std::string("ASAN_OPTIONS=") + (asan ? asan : "") + ":verify_asan_link_order=0"};
}

std::unique_ptr<MmsTestServer> startMmsServer(const AsfFile& file, const ServerOptions& options) {
  std::unique_ptr<MmsTestServer> server(new MmsTestServer(file, options));
  std::string error;
  EXPECT_TRUE(server->start(error)) << error;
  return server;
}

// ---- Files

TempDir::TempDir() {
  const char* base = getenv("TMPDIR");
  std::string templ = std::string(base != nullptr ? base : "/tmp") + "/halvarine-test-XXXXXX";
  if (mkdtemp(&templ[0]) != nullptr) path_ = templ;
}

TempDir::~TempDir() {
  std::error_code ignored;
  if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
}

std::string readFile(const std::string& path) {
  std::string bytes, ignored;
  tools::readWholeFile(path, bytes, ignored);
  return bytes;
}

bool writeFile(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary);
  out << bytes;
  return static_cast<bool>(out);
}

bool fileExists(const std::string& path) {
  std::error_code ignored;
  return std::filesystem::exists(std::filesystem::symlink_status(path, ignored));
}

std::vector<std::vector<std::string>> tableRows(const std::string& path) {
  std::vector<tools::TableRow> rows;
  std::string error;
  if (!tools::readTable(path, rows, error)) ADD_FAILURE() << error;
  return rows;
}

long long firstDifference(const std::string& a, const std::string& b) {
  const size_t n = std::min(a.size(), b.size());
  for (size_t i = 0; i < n; ++i) {
    if (a[i] != b[i]) return static_cast<long long>(i);
  }
  return a.size() == b.size() ? -1 : static_cast<long long>(n);
}

size_t countLines(const std::vector<std::string>& lines, const std::string& line) {
  return static_cast<size_t>(std::count(lines.begin(), lines.end(), line));
}

// ---- The fault matrix

std::vector<FaultRow> faultRows(const std::vector<std::string>& outcomes) {
  std::vector<FaultRow> rows;
  for (const FaultCase& c : mmsserver::faultCases()) {
    if (std::find(outcomes.begin(), outcomes.end(), c.outcome) == outcomes.end()) continue;
    FaultRow r;
    r.row = c;
    std::string error;
    if (!mmsserver::parseFaults(c.arguments, r.faults, error))
      ADD_FAILURE() << c.id << ": " << error;
    const bool both = c.transport == "both";
    if (both || c.transport == "mmst" || c.transport == "-") {
      r.name = c.id + (c.transport == "-" ? "" : "Mmst");
      rows.push_back(r);
    }
    if (both || c.transport == "mmsh") {
      r.transport = StreamProtocol::MMSH;
      r.name = c.id + "Mmsh";
      rows.push_back(r);
    }
  }
  return rows;
}

// ---- URL forms

std::vector<UrlForm> urlForms() {
  std::vector<UrlForm> forms;
  for (const std::string& line : halvarine::splitLines(readFile(HALVARINE_URL_FORMS))) {
    if (line.empty() || line[0] == '#') {
      if (line.empty() && !forms.empty() && !forms.back().lines.empty()) forms.push_back({});
      continue;
    }
    if (forms.empty()) forms.push_back({});
    UrlForm& f = forms.back();
    if (f.url.empty()) {
      f.name = line.substr(0, line.find(' '));
      f.url = line.substr(line.find(' ') + 1);
    } else {
      f.lines.push_back(line);
    }
  }
  return forms;
}

// ---- Frames

std::string bytes(std::initializer_list<int> values) {
  std::string s;
  for (int v : values) s.push_back(static_cast<char>(v));
  return s;
}

std::string frameAround(unsigned char echo, const std::string& body, unsigned char kind) {
  unsigned sum = 0;
  for (unsigned char c : body) sum += c;
  const unsigned checksum = ~sum & 0xFFFF;
  return bytes({0x16, 0x16, 0x02, 0x00, static_cast<int>(checksum >> 8),
                static_cast<int>(checksum & 0xFF), kind, echo, 0x00,
                static_cast<int>((body.size() >> 8) & 0xFF), static_cast<int>(body.size() & 0xFF),
                0x00}) +
         body + "\x03";
}

std::string expectedReply(unsigned char echo, const std::vector<std::string>& fields) {
  std::string body;
  for (const std::string& f : fields) body += f + "\n";
  return frameAround(echo, body + "\n", 'R');
}

std::string expectedReadReply(unsigned char echo, const std::string& word,
                              const std::string& data) {
  const size_t n = data.size();
  const std::string body =
      word + "\nOK_\n" + countDigits(static_cast<int>(n)) + "\n" +
      bytes({0x00, static_cast<int>((n >> 8) & 0xFF), static_cast<int>(n & 0xFF), 0x00}) + data +
      "\n\n";
  return frameAround(echo, body, 'R');
}

std::string countDigits(int count) {
  char digits[16];
  snprintf(digits, sizeof digits, "%08d", count);
  return digits;
}

const char REFUSED[] = "<connection refused>";

std::vector<std::string> withRefusalsJoined(const std::vector<std::string>& lines) {
  const std::string errnoLine =
      " errno = " + std::to_string(ECONNREFUSED) + " / msg = " + strerror(ECONNREFUSED);
  std::vector<std::string> out;
  for (size_t i = 0; i < lines.size(); ++i) {
    if (lines[i] == "ERR - connect with select : " + std::to_string(ECONNREFUSED)) {
      out.push_back(REFUSED);
    } else if (lines[i] == "ERR - connect" && i + 1 < lines.size() && lines[i + 1] == errnoLine) {
      out.push_back(REFUSED);
      ++i;
    } else {
      out.push_back(lines[i]);
    }
  }
  return out;
}

// ---- Fixtures

void WorkerTest::SetUp() {
  startWorker();
}

void WorkerTest::startWorker(const std::vector<std::string>& prefix,
                             const std::vector<std::string>& env) {
  session = halvarine::WorkerSession();
  linesSeen_ = 0;
  halvarine::WorkerSession::Options options;
  options.worker = workerPath();
  ASSERT_FALSE(options.worker.empty()) << "neither HALVARINE_WORKER nor HALVARINE_BUILT_WORKER";
  options.launcher.insert(options.launcher.begin(), prefix.begin(), prefix.end());
  options.env = env;
  ASSERT_TRUE(session.start(options)) << session.error();
}

bool WorkerTest::startPreloaded(const std::string& library, const std::vector<std::string>& env) {
  session = halvarine::WorkerSession();
  if (!halvarine::launcherFromEnvironment().empty()) return false;
  std::vector<std::string> all = preloadEnv(library);
  all.insert(all.end(), env.begin(), env.end());
  startWorker({}, all);
  return true;
}

void WorkerTest::TearDown() {
  if (!HasFailure()) return;
  for (const std::string& line : outputLines()) std::cerr << "worker stderr: " << line << "\n";
}

Reply WorkerTest::call(const Request& req, int timeoutS) {
  Reply r;
  EXPECT_TRUE(session.call(req, timeoutS * 1000, r)) << session.error();
  if (r.fields.size() < 2) r.fields.resize(2);  // a failed call reads as empty words
  return r;
}

Reply WorkerTest::receive(unsigned char echo) {
  Reply r;
  EXPECT_TRUE(session.receive(echo, REPLY_TIMEOUT_MS, r)) << session.error();
  return r;
}

void WorkerTest::expectOnlyCcheckReply(unsigned char echo) {
  EXPECT_EQ(halvarine::hex(expectedReply(echo, {"CCHECK", "OK_"})),
            halvarine::hex(call(Request::command("CCHECK", echo)).frame));
}

void WorkerTest::expectExit(int code, int timeoutS) {
  halvarine::ExitStatus st;
  ASSERT_TRUE(session.worker().waitExit(timeoutS * 1000, st)) << session.worker().error();
  EXPECT_TRUE(st.exited && st.code == code) << st.toString();
}

void StreamTest::SetUp() {
  unsetenv("http_proxy");
  sampleAsf();
  WorkerTest::SetUp();
}

MmsTestServer& StreamTest::startServer(StreamProtocol transport, const Faults& faults,
                                       const std::string& address, int64_t declaredPackets) {
  ServerOptions options;
  options.protocol = transport;
  options.faults = faults;
  options.address = address;
  options.declaredPackets = declaredPackets;
  servers.push_back(startMmsServer(sampleAsf(), options));
  return *servers.back();
}

void StreamTest::expectReply(const std::string& word, const std::vector<std::string>& params,
                             const std::string& status) {
  const Request req = request(word, params);
  EXPECT_EQ(halvarine::hex(expectedReply(req.echo, {word, status})),
            halvarine::hex(call(req, 15).frame))
      << word;
}

void StreamTest::openStream(StreamProtocol transport, const Faults& faults) {
  referenceFor(startServer(transport).url());
  ASSERT_FALSE(HasFailure());
  url = startServer(transport, faults).url();
  ASSERT_EQ("OK_", connect(url).status());
  EXPECT_EQ(openLines(url, transport), newLines());
}

Reply StreamTest::expectNext(const std::string& countField, const std::string& word) {
  const Request req = request(word, {countField});
  const Reply r = call(req, 15);
  const size_t n = std::min<size_t>(atoi(countField.c_str()), reference.size() - pos);
  EXPECT_TRUE(r.frame == expectedReadReply(req.echo, word, reference.substr(pos, n)))
      << word << " " << countField << " at " << pos << ": "
      << halvarine::hex(r.frame.substr(0, 40));
  pos += n;
  return r;
}

std::string StreamTest::referenceFor(const std::string& url) {
  std::string got;
  EXPECT_TRUE(LibmmsStream::readAll(url, 0, got)) << "libmms cannot open " << url;
  EXPECT_TRUE(asfStreamBytes(sampleAsf()) == got) << "libmms read other bytes from " << url;
  return got;
}

Request StreamTest::request(const std::string& word, const std::vector<std::string>& params) {
  return Request::command(word, nextEcho(), params);
}

Reply StreamTest::connect(const std::string& url, int timeoutS) {
  return call(request("CONNECT", {url}), timeoutS);
}

Reply StreamTest::connectCounted(const std::string& url) {
  Request req = request("CONNECT");
  req.fields.push_back(halvarine::Field::countedField(url));
  return call(req);
}

StreamTest::Fetched StreamTest::readStream(int chunk, size_t maxBytes, int maxSeconds) {
  Fetched out;
  const int64_t start = nowMs();
  while (out.bytes.size() < maxBytes && secondsSince(start) < maxSeconds) {
    const Request req = request("READ", {countDigits(chunk)});
    Reply r = call(req, 10);
    out.lastStatus = r.status();
    if (r.status() != "OK_") break;
    const std::string data = r.values().at(1).bytes;
    EXPECT_TRUE(r.frame == expectedReadReply(req.echo, "READ", data)) << "READ reply malformed";
    out.bytes += data;
  }
  return out;
}

void StreamTest::endWorker() {
  halvarine::WorkerSession::FinishOptions how;
  how.pendGraceMs = how.exitGraceMs = REPLY_TIMEOUT_S * 1000;
  const halvarine::WorkerSession::Finished ended = session.finish(nullptr, how);
  EXPECT_TRUE(ended.pendAnswered) << "PEND unanswered, or no exit after it: " << session.error();
  EXPECT_TRUE(ended.status.exited && ended.status.code == 0) << ended.status.toString();
}

std::vector<std::string> StreamTest::newLines() {
  const std::vector<std::string> all = outputLines();
  std::vector<std::string> fresh(all.begin() + static_cast<long>(std::min(linesSeen_, all.size())),
                                 all.end());
  linesSeen_ = all.size();
  return fresh;
}

std::vector<std::string> StreamTest::openLines(const std::string& url, StreamProtocol transport) {
  std::vector<std::string> lines = {"[commandConnect()] command size : 7",
                                    "[WrapperMms::connect()] call! ",
                                    "[WrapperMms::connect()] url=" + url};
  for (const UrlForm& f : urlForms()) {
    if (f.name == (transport == StreamProtocol::MMST ? "mms" : "mmsh"))
      lines.insert(lines.end(), f.lines.begin(), f.lines.end());
  }
  return lines;
}

}  // namespace support
