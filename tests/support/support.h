#ifndef HALVARINE_TESTS_SUPPORT_SUPPORT_H
#define HALVARINE_TESTS_SUPPORT_SUPPORT_H

// Shared by every test outside tests/unit: child processes, files, the
// sample, libmms as the oracle for stream bytes, frames written out by hand,
// loopback helpers, and fixtures that run the real worker on the fixed
// controller socket with the test MMS servers beside it.

#include <gtest/gtest.h>
#include <halvarine/controller.h>
#include <stdint.h>
#include <sys/types.h>

#include <initializer_list>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "base/clock.h"
#include "base/proc_status.h"
#include "tools/libmms-fetch/libmms_stream.h"
#include "tools/mmsserver/server.h"

namespace mmsserver {
inline void PrintTo(StreamProtocol t, std::ostream* os) {
  *os << (t == StreamProtocol::MMST ? "MMST" : "MMSH");
}
}  // namespace mmsserver

// The test servers' and the reference client's names, as every test uses
// them.
using libmmsfetch::LibmmsStream;
using mmsserver::FaultCase;
using mmsserver::Faults;
using mmsserver::MmsTestServer;
using mmsserver::ServerOptions;
using mmsserver::StreamProtocol;

namespace support {

// The build defines HALVARINE_SAMPLE_ASF, HALVARINE_MMS_SERVER and
// HALVARINE_FETCH: the paths of the sample and of the programs under test.

// The committed sample as the servers cut it; loaded once.
const AsfFile& sampleAsf();

// A child started at once; standard output and error go to one pipe,
// collected in output().
class Child : public halvarine::ChildProcess {
 public:
  explicit Child(const std::vector<std::string>& argv);
};

// The worker under test: HALVARINE_WORKER (a cross-built one, say), else
// HALVARINE_BUILT_WORKER, which the build passes to its tests.
std::string workerPath();
// The environment that preloads `library` (built for this host) into a
// program, a sanitized one included: its runtime need not come first.
std::vector<std::string> preloadEnv(const std::string& library);

// A test server of `file`, started; a failure to start is the test's.
std::unique_ptr<MmsTestServer> startMmsServer(const AsfFile& file, const ServerOptions& options);

// A private directory, removed with its files by the destructor.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

std::string readFile(const std::string& path);
bool writeFile(const std::string& path, const std::string& bytes);
bool fileExists(const std::string& path);
// The rows of a table file: each line that is neither empty nor a '#'
// comment, cut at its tabs; a file without rows is a failure.
std::vector<std::vector<std::string>> tableRows(const std::string& path);
// Offset of the first difference, -1 when equal: readable for big strings.
long long firstDifference(const std::string& a, const std::string& b);
size_t countLines(const std::vector<std::string>& lines, const std::string& line);

// ---- The fault matrix (tools/mmsserver/faults.tsv)

// A case row of the fault table as a test runs it: one per transport.
struct FaultRow {
  FaultCase row;
  StreamProtocol transport = StreamProtocol::MMST;  // MMST too for a row without one
  std::string name;                                 // the id, with Mmst or Mmsh for a transport
  Faults faults;                                    // from the row's arguments
};
inline void PrintTo(const FaultRow& r, std::ostream* os) {
  *os << r.name;
}
// The rows whose outcome kind is one of `outcomes`.
std::vector<FaultRow> faultRows(const std::vector<std::string>& outcomes);

// ---- Sockets

// A Unix-domain socket bound to `path`, not listening; or connected to it.
halvarine::UniqueFd unixSocket(const std::string& path, bool connected);
// True once nobody accepts on the controller socket path (another run may
// hold it for a while); the path is left free.
bool controllerPathFree(int timeoutS);
// Whether a child can be given a /tmp of its own here
// (ChildProcess::Options::privateTmp); "" when it can, else why not.
const std::string& privateTmpRefused();
// Open descriptors from /proc; -1 when gone.
long openFds(pid_t pid);
// No process `pid` (0: none to check), and, where workers share the fixed
// path, no controller socket file.
void expectNothingLeft(pid_t pid);

// A first label longer than DNS allows: the lookup fails with no query.
const std::string UNRESOLVABLE_HOST = std::string(64, 'x') + ".invalid";
uint16_t freeTcpPort(const std::string& address);

// tinyproxy on 127.0.0.1, its configuration in `dir`, serving (it said so)
// on `port`; null when it did not come up in three tries.
std::unique_ptr<Child> startTinyproxy(const TempDir& dir, uint16_t& port);

// A loopback TCP port that refuses: bound, never listening, while it lives.
class RefusingPort {
 public:
  RefusingPort();
  uint16_t port() const { return port_; }
  int fd() const { return fd_.get(); }  // listen() on it, and it accepts

 private:
  halvarine::UniqueFd fd_;
  uint16_t port_ = 0;
};

// A network namespace of the test's own, deleted with its files on
// destruction: only loopback, up; /etc/hosts as given, for what runs in it
// through prefix(). Root only.
class NetNamespace {
 public:
  ~NetNamespace();
  bool create(const std::string& hosts, std::string& error);
  // Every packet to `address` silently dropped on arrival, so that senders
  // see no error and wait (nft).
  bool dropTo(const std::string& address, std::string& error);
  bool exec(const std::vector<std::string>& argv, std::string& output);
  std::vector<std::string> prefix() const { return {"ip", "netns", "exec", name_}; }

 private:
  std::string name_, dir_;
  bool createdRoot_ = false;
};

// ---- Each form of URL a CONNECT may carry (tests/e2e/url_forms.txt)

// A name, the URL (with the placeholders the file describes) and the lines
// the worker writes after its url line.
struct UrlForm {
  std::string name, url;
  std::vector<std::string> lines;
};
inline void PrintTo(const UrlForm& f, std::ostream* os) {
  *os << f.name;
}
std::vector<UrlForm> urlForms();

// ---- Frames written out by hand, independently of the worker's codec

std::string bytes(std::initializer_list<int> values);
// 16 16 02 00, checksum, `kind`, `echo`, 00, length, 00, body, 03.
std::string frameAround(unsigned char echo, const std::string& body, unsigned char kind = 'C');
// A reply of text fields.
std::string expectedReply(unsigned char echo, const std::vector<std::string>& fields);
// A READ reply carrying `data`.
std::string expectedReadReply(unsigned char echo, const std::string& word, const std::string& data);
std::string countDigits(int count);  // %08d

// `lines` with each report of a refused connect (at once, or through the
// wait: the kernel's choice) replaced by the one line REFUSED.
extern const char REFUSED[];
std::vector<std::string> withRefusalsJoined(const std::vector<std::string>& lines);

const int REPLY_TIMEOUT_S = 5;
const int REPLY_TIMEOUT_MS = REPLY_TIMEOUT_S * 1000;

// The real worker connected to this controller; its standard error is
// shown when a test fails. SetUp starts it; a fixture that needs a launcher
// prefix overrides SetUp and calls startWorker itself.
class WorkerTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
  // A new worker in place of the session's, behind `prefix`, with `env`.
  void startWorker(const std::vector<std::string>& prefix = {},
                   const std::vector<std::string>& env = {});
  // A new worker with `library` preloaded and `env`; false where the
  // library, built for this host, cannot be loaded into it (a launcher).
  bool startPreloaded(const std::string& library, const std::vector<std::string>& env = {});

  halvarine::Reply call(const halvarine::Request& req, int timeoutS = REPLY_TIMEOUT_S);
  halvarine::Reply receive(unsigned char echo);
  // A CCHECK that must get exactly its reply as the next frame.
  void expectOnlyCcheckReply(unsigned char echo);
  void expectExit(int code, int timeoutS = REPLY_TIMEOUT_S);
  std::vector<std::string> outputLines() { return session.worker().outputLines(); }

  halvarine::WorkerSession session;
  size_t linesSeen_ = 0;  // of the worker's lines, by StreamTest::newLines
};

// The worker plus test servers of the sample; no http_proxy reaches it.
class StreamTest : public WorkerTest {
 protected:
  void SetUp() override;

  // A server of the sample; `declaredPackets` as ServerOptions has it.
  MmsTestServer& startServer(StreamProtocol transport, const Faults& faults = Faults(),
                             const std::string& address = "127.0.0.1",
                             int64_t declaredPackets = -1);
  // What libmms reads from `url`: every byte the server cut from the file.
  std::string referenceFor(const std::string& url);

  unsigned char nextEcho() { return echo_++; }
  halvarine::Request request(const std::string& word, const std::vector<std::string>& params = {});
  halvarine::Reply connect(const std::string& url, int timeoutS = REPLY_TIMEOUT_S);
  halvarine::Reply connectCounted(const std::string& url);  // the URL as a counted field
  halvarine::Reply read(int count) { return call(request("READ", {countDigits(count)})); }
  halvarine::Reply command(const std::string& word) { return call(request(word)); }
  // `word` with `params` answered with exactly `status`.
  void expectReply(const std::string& word, const std::vector<std::string>& params,
                   const std::string& status);

  // The sample over `transport` from a server with `faults` opened as `url`,
  // after libmms has read it whole from a clean twin (connections are
  // served one at a time: the reference comes before the worker holds one).
  void openStream(StreamProtocol transport, const Faults& faults = Faults());
  // `word` with `countField`: the reply carries the next bytes of the stream
  // (`reference` from `pos`), byte for byte.
  halvarine::Reply expectNext(const std::string& countField, const std::string& word = "READ");
  halvarine::Reply expectNext(int count) { return expectNext(countDigits(count)); }
  std::string url, reference = asfStreamBytes(sampleAsf());
  size_t pos = 0;

  // READs of `chunk` until a status other than OK_, `maxBytes` or
  // `maxSeconds`; the bytes, and the status that ended it.
  struct Fetched {
    std::string bytes;
    std::string lastStatus;
  };
  Fetched readStream(int chunk, size_t maxBytes, int maxSeconds);
  // PEND, its OK_, exit status 0.
  void endWorker();

  // Worker lines since the previous call.
  std::vector<std::string> newLines();
  // The lines of a CONNECT of `url` that opens at once over `transport`.
  static std::vector<std::string> openLines(const std::string& url, StreamProtocol transport);

  std::vector<std::unique_ptr<MmsTestServer>> servers;

 private:
  unsigned char echo_ = 0x20;
};

}  // namespace support

#endif
