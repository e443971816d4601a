// The fault matrix: every way a media server or the controller can misbehave
// that we defend against, each row naming the fault and the outcome the
// worker must show. A row whose case an end-to-end test elsewhere already
// checks names that test instead of repeating it; docs/RELIABILITY.md holds
// the same table with the outcomes observed.
//
// The hazard rows are data that libmms 0.6.4 itself cannot survive and that
// no wait of the worker can stop, because the library never waits long or
// never waits at all. For them the outcome is the controller's: the worker
// dies or stops answering, the controller notices (its socket ends, or no
// reply comes within its reply time-out), kills the worker and is left with
// no process and no socket file.

#include <signal.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "tests/faults/fault_support.h"

using controller::ExitStatus;
using controller::FetchStatus;
using controller::Field;
using controller::Reply;
using controller::Request;

namespace {

using Clock = std::chrono::steady_clock;

const int BIG_READ = 65511;
// Loopback opens take milliseconds; a reply later than this never comes. It
// is longer than the worker's CPU budget for one library call, so a loop
// that budget ends is seen as the worker's death, not as a missing reply.
const int HAZARD_REPLY_TIMEOUT_S = 15;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

const char* name(Transport t) { return t == Transport::MMST ? "MMST" : "MMSH"; }

class FaultMatrix;
using Runner = void (FaultMatrix::*)(Transport);

struct Row {
  const char* id;            // test name; "Slow" ones sit out a media wait
  const char* fault;
  const char* outcome;       // what the worker (or, for hazards, the controller) shows
  Transport transport;
  Runner run;                // nullptr: coveredBy checks it
  const char* coveredBy;
};

// gtest prints rows by their id.
void PrintTo(const Row& row, std::ostream* os) { *os << row.id; }

class FaultMatrix : public faults::FaultTest, public ::testing::WithParamInterface<Row> {
 public:
  // ---- Media servers

  // A server fault that must end the open at once with ERR, the worker
  // still serving afterwards.
  void openFailsAtOnce(Transport t, const Faults& faults) {
    MmsTestServer& server = startServer(t, faults);
    const auto start = Clock::now();
    EXPECT_EQ("ERR", connect(server.url()).status());
    const double took = secondsSince(start);
    EXPECT_LT(took, 3.0) << "the open waited for a time-out";
    expectOnlyCcheckReply(nextEcho());
    report(GetParam().id, "CONNECT ERR after " + std::to_string(took) + " s");
  }

  void refuse(Transport t) {
    Faults f;
    f.refuse = true;
    openFailsAtOnce(t, f);
  }

  // Past the replies before it and the first bytes of the header, on both
  // transports.
  void resetMidHeader(Transport t) {
    Faults f;
    f.resetAfter = t == Transport::MMST ? 900 : 600;
    openFailsAtOnce(t, f);
  }

  void truncatedHeader(Transport t) {
    Faults f;
    f.truncateHeader = 300;
    openFailsAtOnce(t, f);
  }

  void absurdHeaderSize(Transport t) {
    Faults f;
    f.absurdHeaderSize = true;
    openFailsAtOnce(t, f);
  }

  void absurdPacketSize(Transport t) {
    Faults f;
    f.absurdPacketSize = true;
    openFailsAtOnce(t, f);
  }

  void closeBeforePlay(Transport t) {
    Faults f;
    f.closeBeforePlay = true;
    openFailsAtOnce(t, f);
  }

  // Bytes of the second data packet one at a time, 2.5 s apart: no single
  // wait reaches 7 s, so the READ that needs them waits them all out and
  // answers with every byte.
  void drip(Transport t) {
    Faults f;
    f.slowPacket = 1;
    f.slowBytes = 3;
    f.slowGapMs = 2500;
    const std::string reference = asfStreamBytes(e2e::sampleAsf());
    const size_t count = e2e::sampleAsf().header.size() + 2 * e2e::sampleAsf().packetSize;
    MmsTestServer& server = startServer(t, f);
    const auto start = Clock::now();
    ASSERT_EQ("OK_", connect(server.url()).status());
    const unsigned char echo = nextEcho();
    Reply r;
    ASSERT_TRUE(session.call(Request::command("READ", echo, {countDigits(static_cast<int>(count))}),
                             15, r))
        << session.error();
    const double took = secondsSince(start);
    EXPECT_GE(took, 7.0) << "the slow bytes were not waited for";
    EXPECT_TRUE(r.frame == e2e::expectedReadReply(echo, "READ", reference.substr(0, count)))
        << "status " << r.status();
    report(GetParam().id, "READ of " + std::to_string(count) + " answered whole after " +
                              std::to_string(took) + " s");
  }

  // A pause of 8 s inside a data packet: the read callback gives up after
  // 7 s with one byte of the packet, and libmms takes the short read as a
  // failed packet but keeps the connection, so it reads on from the middle
  // of the packet. The rest of the stream is not delivered in order.
  void shortRead(Transport t) {
    Faults f;
    f.slowPacket = 1;
    f.slowBytes = 1;
    f.slowGapMs = 8000;
    const std::string reference = asfStreamBytes(e2e::sampleAsf());
    MmsTestServer& server = startServer(t, f);
    ASSERT_EQ("OK_", connect(server.url()).status());
    size_t delivered = 0;
    bool wrongBytes = false;
    std::string last;
    for (int i = 0; i < 12 && !wrongBytes; ++i) {
      const unsigned char echo = nextEcho();
      Reply r;
      ASSERT_TRUE(session.call(Request::command("READ", echo, {countDigits(BIG_READ)}), 10, r))
          << session.error();
      last = r.status();
      if (last != "OK_") break;
      const std::string data = r.values().at(1).bytes;
      wrongBytes = reference.compare(delivered, data.size(), data) != 0;
      delivered += data.size();
    }
    EXPECT_TRUE(wrongBytes || delivered < reference.size())
        << "the stream survived the short read whole";
    report(GetParam().id, wrongBytes ? "bytes that are not the stream's after " +
                                           std::to_string(delivered) + " bytes"
                                     : "stream ends (" + last + ") after " +
                                           std::to_string(delivered) + " of " +
                                           std::to_string(reference.size()) + " bytes");
  }

  // ---- The controller

  // 50 MB without a start sequence: the worker keeps only the tail that may
  // begin one, so its resident memory does not follow the garbage.
  void garbage(Transport) {
    const pid_t pid = session.worker().pid();
    expectOnlyCcheckReply(nextEcho());
    const long before = faults::sampleProcess(pid).rssKb;
    ASSERT_GT(before, 0);
    // 0x16 never occurs, so no start sequence can form across pieces.
    std::string piece(1 << 20, '\0');
    for (size_t i = 0; i < piece.size(); ++i) piece[i] = static_cast<char>('A' + i % 23);
    long peak = before;
    for (int mb = 0; mb < 50; ++mb) {
      ASSERT_TRUE(session.sendRaw(piece)) << session.error();
      peak = std::max(peak, faults::sampleProcess(pid).rssKb);
    }
    expectOnlyCcheckReply(nextEcho());
    peak = std::max(peak, faults::sampleProcess(pid).rssKb);
    EXPECT_LT(peak - before, 256) << "resident memory grew with the garbage";
    report(GetParam().id, "VmRSS " + std::to_string(before) + " kB before, peak " +
                              std::to_string(peak) + " kB over 50 MB");
  }

  // A 60,000-byte URL: libmms cuts what it sends to its buffers; the
  // worker answers and goes on serving.
  void longUrl(Transport t) {
    MmsTestServer& server = startServer(t);
    std::string url = server.url("");
    url.append(60000 - url.size(), 'a');
    // MMSH sends a request cut at its buffer, whose end never comes: the
    // answer may wait out the 7-second read wait.
    // Each log line that names the URL is 60 kB: the worker's standard
    // error must be read while it works, or the pipe fills and the worker
    // blocks on its next line.
    const unsigned char echo = nextEcho();
    const auto start = Clock::now();
    ASSERT_TRUE(session.send(Request::command("CONNECT", echo, {url}))) << session.error();
    Reply r;
    bool answered = false;
    while (!answered && secondsSince(start) < 15) {
      session.worker().stderrText();
      answered = session.connection().receive(echo, 1, r);
    }
    ASSERT_TRUE(answered) << session.error();
    const double took = secondsSince(start);
    EXPECT_TRUE(r.status() == "OK_" || r.status() == "ERR") << r.status();
    expectOnlyCcheckReply(nextEcho());
    report(GetParam().id, "CONNECT " + r.status() + " after " + std::to_string(took) + " s");
  }

  // A NUL byte inside the URL of a counted field: the library sees the URL
  // up to the NUL; the worker answers and goes on serving.
  void nulInUrl(Transport t) {
    MmsTestServer& server = startServer(t);
    const std::string url = server.url("sam") + std::string(1, '\0') + "ple.asf";
    const Reply r = connectCounted(url);
    EXPECT_TRUE(r.status() == "OK_" || r.status() == "ERR") << r.status();
    expectOnlyCcheckReply(nextEcho());
    report(GetParam().id, "CONNECT " + r.status());
  }

  // ---- libmms hazards

  // The worker dies by a signal inside CONNECT (`signal`, or any when 0);
  // the controller sees its socket end.
  void diesInConnect(Transport t, const Faults& f, int signal = 0) {
    MmsTestServer& server = startServer(t, f);
    Reply r;
    const auto start = Clock::now();
    const FetchStatus st = pipelineCall("CONNECT", {server.url()}, HAZARD_REPLY_TIMEOUT_S, r);
    const double took = secondsSince(start);
    EXPECT_EQ(FetchStatus::LOST, st) << controller::statusText(st);
    const ExitStatus how = killAndCheckNothingLeft();
    EXPECT_TRUE(how.signaled) << how.toString();
    if (signal != 0) {
      EXPECT_EQ(signal, how.signal) << how.toString();
    }
    report(GetParam().id, std::string("controller: ") + controller::statusText(st) + " after " +
                              std::to_string(took) + " s; worker ended by " + how.toString());
  }

  void manyStreamNumbers(Transport t) {
    Faults f;
    f.extraStreams = 22;
    diesInConnect(t, f);
  }

  void zeroSizeObject(Transport t) {
    Faults f;
    f.zeroSizeObject = true;
    diesInConnect(t, f, SIGPROF);
  }

  void extensionChild4GiB(Transport t) {
    Faults f;
    f.extensionChildOf4GiB = true;
    diesInConnect(t, f, SIGPROF);
  }

  void endlessHeadLines(Transport t) {
    Faults f;
    f.endlessHeadLines = true;
    diesInConnect(t, f, SIGPROF);
  }

  // One head line without end: libmms 0.6.4 stops the line at the end of
  // its 100 KiB buffer and fails the open.
  void endlessHeadLine(Transport t) {
    Faults f;
    f.endlessHeadLine = true;
    openFailsAtOnce(t, f);
  }

  // An end chunk that always announces another stream: libmms opens the
  // stream again each time, without limit, and hands its header on as
  // data again. Every READ is answered; the stream never ends.
  void continueAtEnd(Transport t) {
    Faults f;
    f.continueAtEnd = true;
    const std::string header = e2e::sampleAsf().header;
    const size_t streamBytes = asfStreamBytes(e2e::sampleAsf()).size();
    MmsTestServer& server = startServer(t, f);
    ASSERT_EQ("OK_", connect(server.url()).status());
    std::string all;
    for (int i = 0; i < 12; ++i) {
      const Reply r = read(BIG_READ);
      ASSERT_EQ("OK_", r.status()) << "after " << all.size() << " bytes";
      all += r.values().at(1).bytes;
    }
    EXPECT_GT(all.size(), 3 * streamBytes);
    EXPECT_NE(std::string::npos, all.find(header, 1)) << "the header did not come again";
    EXPECT_GE(server.connectionsServed(), 6);
    report(GetParam().id, std::to_string(all.size()) + " bytes in 12 READs, no EOF; " +
                              std::to_string(server.connectionsServed()) +
                              " connections served");
  }
};

// Covered elsewhere: the test named checks the outcome.
const Row covered(const char* fault, const char* outcome, const char* test) {
  return Row{"", fault, outcome, Transport::MMST, nullptr, test};
}

const std::vector<Row>& matrix() {
  static const std::vector<Row> rows = {
      // ---- Media servers
      {"RefuseMmst", "server closes each connection at accept", "CONNECT ERR at once",
       Transport::MMST, &FaultMatrix::refuse, nullptr},
      {"RefuseMmsh", "server closes each connection at accept", "CONNECT ERR at once",
       Transport::MMSH, &FaultMatrix::refuse, nullptr},
      covered("port refuses the connection", "CONNECT ERR at once, one report per attempt",
              "callbacks_e2e ConnectFailures.RefusedPortFailsWithOneReportPerAttempt"),
      covered("server stalls before the header", "CONNECT ERR after the 7-second wait",
              "callbacks_e2e Callbacks.SlowStallBeforeTheHeaderFailsTheConnect"),
      covered("server stalls mid-stream", "READ answers what came after the 7-second wait",
              "callbacks_e2e MidStream.SlowStallMidReadTimesOutAfterSevenSeconds"),
      {"ResetMidHeaderMmst", "server resets inside the header", "CONNECT ERR at once",
       Transport::MMST, &FaultMatrix::resetMidHeader, nullptr},
      {"ResetMidHeaderMmsh", "server resets inside the header", "CONNECT ERR at once",
       Transport::MMSH, &FaultMatrix::resetMidHeader, nullptr},
      covered("server resets mid-data", "the bytes before the reset, then EOF, no wait",
              "callbacks_e2e MidStream.ResetEndsTheStreamAfterTheBytesBeforeIt"),
      {"DripMmst", "one byte every 2.5 s inside a data packet",
       "the READ waits them all out and answers whole", Transport::MMST, &FaultMatrix::drip,
       nullptr},
      {"DripMmsh", "one byte every 2.5 s inside a data packet",
       "the READ waits them all out and answers whole", Transport::MMSH, &FaultMatrix::drip,
       nullptr},
      {"TruncatedHeaderMmst", "header cut short, then close", "CONNECT ERR at once",
       Transport::MMST, &FaultMatrix::truncatedHeader, nullptr},
      {"TruncatedHeaderMmsh", "header cut short, then close", "CONNECT ERR at once",
       Transport::MMSH, &FaultMatrix::truncatedHeader, nullptr},
      {"AbsurdHeaderSizeMmst", "header length far beyond the real one", "CONNECT ERR at once",
       Transport::MMST, &FaultMatrix::absurdHeaderSize, nullptr},
      {"AbsurdHeaderSizeMmsh", "header length far beyond the real one", "CONNECT ERR at once",
       Transport::MMSH, &FaultMatrix::absurdHeaderSize, nullptr},
      {"AbsurdPacketSizeMmst", "packet size of 256 MiB", "CONNECT ERR at once", Transport::MMST,
       &FaultMatrix::absurdPacketSize, nullptr},
      {"AbsurdPacketSizeMmsh", "packet size of 1 GiB", "CONNECT ERR at once", Transport::MMSH,
       &FaultMatrix::absurdPacketSize, nullptr},
      {"CloseBeforePlayMmsh", "describe served, play connection closed unanswered",
       "CONNECT ERR at once", Transport::MMSH, &FaultMatrix::closeBeforePlay, nullptr},
      // ---- The controller
      covered("controller silent for 60 s", "the worker shuts down, status 0",
              "process_core_e2e_slow ProcessEnd.SlowSilenceOf60SecondsEndsTheProcess"),
      covered("controller closes mid-frame", "the worker shuts down, status 0",
              "process_core_e2e ProcessEnd.ControllerClosingInsideAFrameEndsTheProcess"),
      {"GarbageWithoutStart", "50 MB without a start sequence",
       "resident memory stays within 256 kB of where it was; the next frame is served",
       Transport::MMST, &FaultMatrix::garbage, nullptr},
      covered("length field cuts the frame short", "frame rejected and logged, the rest dropped",
              "process_core_e2e MalformedFrames.LengthFieldTooSmallCutsTheFrameShort"),
      covered("READ count 0", "EOF, the stream untouched",
              "stream_read_e2e ReplyLayout.CountFieldIsReadAsAtoiDoes"),
      covered("READ count 1", "one byte per READ, the whole stream",
              "stream_read_e2e Fetches/WholeStream.BytesAreWhatLibmmsReadsThenEofForGood"),
      covered("READ count 65511", "a reply whose body length is 0xFFFF",
              "stream_read_e2e ReplyLayout.LargestCountFillsTheBodyLengthField"),
      covered("READ count 65512, -0000001, -9999999, 99999999", "ERR, no byte of the stream lost",
              "stream_read_e2e ReplyLayout.CountsNoReplyCanCarryAreRefusedWithoutLoss"),
      covered("CONNECT with an empty URL", "the open is tried and fails: ERR",
              "stream_connect_e2e StreamConnect.EmptyUrlAsCountedFieldIsTriedAndFails"),
      {"LongUrlMmst", "CONNECT with a URL of 60,000 bytes", "answered; the worker goes on serving",
       Transport::MMST, &FaultMatrix::longUrl, nullptr},
      {"SlowLongUrlMmsh", "CONNECT with a URL of 60,000 bytes",
       "answered (after the 7-second wait); the worker goes on serving",
       Transport::MMSH, &FaultMatrix::longUrl, nullptr},
      {"NulInUrlMmst", "CONNECT with a NUL byte in a counted URL",
       "answered; the worker goes on serving", Transport::MMST, &FaultMatrix::nulInUrl, nullptr},
      {"NulInUrlMmsh", "CONNECT with a NUL byte in a counted URL",
       "answered; the worker goes on serving", Transport::MMSH, &FaultMatrix::nulInUrl, nullptr},
      covered("SIGTERM during a READ that waits on a stalled server",
              "the 18-byte notice, status 0, the stream released, no shut-down lines",
              "callbacks_e2e MidStream.SigtermDuringAWaitingReadEndsTheProcessAtOnce"),
      // ---- libmms 0.6.4 hazards: the controller's outcome
      {"ManyStreamNumbersMmsh", "23 streams numbered from 1000",
       "worker dies by a signal in CONNECT; controller sees its socket end; nothing left",
       Transport::MMSH, &FaultMatrix::manyStreamNumbers, nullptr},
      {"ZeroSizeObjectMmst", "header object of size 0",
       "worker spins without I/O until its CPU budget ends it (SIGPROF); controller sees its socket end; nothing left",
       Transport::MMST, &FaultMatrix::zeroSizeObject, nullptr},
      {"ZeroSizeObjectMmsh", "header object of size 0",
       "worker spins without I/O until its CPU budget ends it (SIGPROF); controller sees its socket end; nothing left",
       Transport::MMSH, &FaultMatrix::zeroSizeObject, nullptr},
      {"ExtensionChild4GiBMmsh", "header extension child of 2^32 bytes",
       "worker spins without I/O until its CPU budget ends it (SIGPROF); controller sees its socket end; nothing left",
       Transport::MMSH, &FaultMatrix::extensionChild4GiB, nullptr},
      {"EndlessHeadLinesMmsh", "HTTP head lines without end",
       "worker reads byte by byte until its CPU budget ends it (SIGPROF); controller sees its socket end; nothing left",
       Transport::MMSH, &FaultMatrix::endlessHeadLines, nullptr},
      {"EndlessHeadLineMmsh", "one HTTP head line without end",
       "CONNECT ERR once the line fills libmms's 100 KiB buffer",
       Transport::MMSH, &FaultMatrix::endlessHeadLine, nullptr},
      {"ContinueAtEndMmsh", "end chunk always announces another stream",
       "READs answered for ever, the header again inside the data; reconnects without limit",
       Transport::MMSH, &FaultMatrix::continueAtEnd, nullptr},
      {"SlowShortReadMmst", "8 s pause inside a data packet",
       "READ answers after 7 s; the rest of the stream is lost or misread", Transport::MMST,
       &FaultMatrix::shortRead, nullptr},
      {"SlowShortReadMmsh", "8 s pause inside a data packet",
       "READ answers after 7 s; the rest of the stream is lost or misread", Transport::MMSH,
       &FaultMatrix::shortRead, nullptr},
  };
  return rows;
}

std::vector<Row> runnableRows() {
  std::vector<Row> out;
  for (const Row& r : matrix()) {
    if (r.run != nullptr) out.push_back(r);
  }
  return out;
}

TEST_P(FaultMatrix, Outcome) {
  SCOPED_TRACE(std::string(GetParam().fault) + " over " + name(GetParam().transport) +
               ": must give: " + GetParam().outcome);
  (this->*GetParam().run)(GetParam().transport);
}

INSTANTIATE_TEST_SUITE_P(Rows, FaultMatrix, ::testing::ValuesIn(runnableRows()),
                         [](const ::testing::TestParamInfo<Row>& info) {
                           return std::string(info.param.id);
                         });

// Every row is either run here or names the test that runs it.
TEST(FaultMatrixTable, EveryRowHasAnOwner) {
  for (const Row& r : matrix()) {
    EXPECT_TRUE((r.run != nullptr) != (r.coveredBy != nullptr)) << r.fault;
  }
}

}  // namespace
