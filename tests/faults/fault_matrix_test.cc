// The fault matrix: every way a media server or the controller can misbehave
// that we defend against, each row naming the fault and the outcome the
// worker must show; a row that another test checks names that test.
// docs/RELIABILITY.md holds the same table with the outcomes observed.
//
// The hazard rows are data that libmms 0.6.4 cannot survive and no wait of
// the worker can stop. There the outcome is the controller's: the worker
// dies or stops answering, the controller notices (its socket ends, or no
// reply within its time-out), kills the worker and is left with no process
// and no socket file.

#include <signal.h>

#include <algorithm>
#include <iostream>
#include <string>
#include <vector>

#include "tests/support/support.h"

using halvarine::FetchStatus;
using halvarine::Reply;
using halvarine::Request;
using support::countDigits;
using support::secondsSince;

namespace {

const int BIG_READ = 65511;
// Longer than the worker's CPU budget for one library call, so a loop that
// budget ends is seen as the worker's death, not as a missing reply.
const int HAZARD_REPLY_TIMEOUT_S = 15;

enum class Kind {
  COVERED,
  OPEN_FAILS,
  DRIP,
  SHORT_READ,
  GARBAGE,
  LONG_URL,
  NUL_IN_URL,
  DIES,
  CONTINUES
};

struct Row {
  const char* id;  // test name; "Slow" ones sit out a media wait
  const char* fault;
  const char* outcome;
  Transport transport;
  Kind kind;
  Faults faults;
  int signal;  // DIES: the signal, 0 for any
  const char* coveredBy;
};

void PrintTo(const Row& row, std::ostream* os) {
  *os << row.id;
}

template <typename Set>
Faults with(Set set) {
  Faults f;
  set(f);
  return f;
}

Row row(const char* id, const char* fault, const char* outcome, Transport t, Kind kind,
        const Faults& faults = Faults(), int signal = 0) {
  return Row{id, fault, outcome, t, kind, faults, signal, nullptr};
}
Row covered(const char* fault, const char* outcome, const char* test) {
  return Row{"", fault, outcome, Transport::MMST, Kind::COVERED, Faults(), 0, test};
}

const Transport T = Transport::MMST;
const Transport H = Transport::MMSH;
const char ERR_AT_ONCE[] = "CONNECT ERR at once";
const char SERVES_ON[] = "answered; the worker goes on serving";
const char SPINS[] =
    "worker spins without I/O until its CPU budget ends it (SIGPROF); controller sees its socket "
    "end; nothing left";

const std::vector<Row>& matrix() {
  const Faults refuse = with([](Faults& f) { f.refuse = true; });
  const Faults truncated = with([](Faults& f) { f.truncateHeader = 300; });
  const Faults absurdHeader = with([](Faults& f) { f.absurdHeaderSize = true; });
  const Faults absurdPacket = with([](Faults& f) { f.absurdPacketSize = true; });
  // Bytes of the second packet 2.5 s apart: no single wait reaches 7 s.
  const Faults drip = with([](Faults& f) {
    f.slowPacket = 1;
    f.slowBytes = 3;
    f.slowGapMs = 2500;
  });
  // One byte, then 8 s: the callback gives up after 7 s.
  const Faults pause = with([](Faults& f) {
    f.slowPacket = 1;
    f.slowBytes = 1;
    f.slowGapMs = 8000;
  });
  const Faults zeroSize = with([](Faults& f) { f.zeroSizeObject = true; });
  static const std::vector<Row> rows = {
      // ---- Media servers
      row("RefuseMmst", "server closes each connection at accept", ERR_AT_ONCE, T, Kind::OPEN_FAILS,
          refuse),
      row("RefuseMmsh", "server closes each connection at accept", ERR_AT_ONCE, H, Kind::OPEN_FAILS,
          refuse),
      covered("port refuses the connection", "CONNECT ERR at once, one report per attempt",
              "stream_connect_e2e "
              "Rows/UrlForms.OpenWithTheTransportAndProxyTheFormCallsFor/direct_mms_refused"),
      covered("server stalls before the header", "CONNECT ERR after the 7-second wait",
              "callbacks_e2e_slow Callbacks.SlowStallBeforeTheHeaderFailsTheConnect"),
      covered("server stalls mid-stream", "READ answers what came after the 7-second wait",
              "callbacks_e2e_slow MidStream.SlowStallMidReadTimesOutAfterSevenSeconds"),
      // Past the replies before it and the first bytes of the header.
      row("ResetMidHeaderMmst", "server resets inside the header", ERR_AT_ONCE, T, Kind::OPEN_FAILS,
          with([](Faults& f) { f.resetAfter = 900; })),
      row("ResetMidHeaderMmsh", "server resets inside the header", ERR_AT_ONCE, H, Kind::OPEN_FAILS,
          with([](Faults& f) { f.resetAfter = 600; })),
      covered("server resets mid-data", "the bytes before the reset, then EOF, no wait",
              "callbacks_e2e MidStream.ResetEndsTheStreamAfterTheBytesBeforeIt"),
      row("DripMmst", "one byte every 2.5 s inside a data packet",
          "the READ waits them all out and answers whole", T, Kind::DRIP, drip),
      row("DripMmsh", "one byte every 2.5 s inside a data packet",
          "the READ waits them all out and answers whole", H, Kind::DRIP, drip),
      row("TruncatedHeaderMmst", "header cut short, then close", ERR_AT_ONCE, T, Kind::OPEN_FAILS,
          truncated),
      row("TruncatedHeaderMmsh", "header cut short, then close", ERR_AT_ONCE, H, Kind::OPEN_FAILS,
          truncated),
      row("AbsurdHeaderSizeMmst", "header length far beyond the real one", ERR_AT_ONCE, T,
          Kind::OPEN_FAILS, absurdHeader),
      row("AbsurdHeaderSizeMmsh", "header length far beyond the real one", ERR_AT_ONCE, H,
          Kind::OPEN_FAILS, absurdHeader),
      row("AbsurdPacketSizeMmst", "packet size of 256 MiB", ERR_AT_ONCE, T, Kind::OPEN_FAILS,
          absurdPacket),
      row("AbsurdPacketSizeMmsh", "packet size of 1 GiB", ERR_AT_ONCE, H, Kind::OPEN_FAILS,
          absurdPacket),
      row("CloseBeforePlayMmsh", "describe served, play connection closed unanswered", ERR_AT_ONCE,
          H, Kind::OPEN_FAILS, with([](Faults& f) { f.closeBeforePlay = true; })),
      // ---- The controller
      covered("controller silent for 60 s", "the worker shuts down, status 0",
              "process_core_e2e_slow ProcessEnd.SlowSilenceOf60SecondsEndsTheProcess"),
      covered("controller closes mid-frame", "the worker shuts down, status 0",
              "process_core_e2e ProcessEnd.ControllerClosingInsideAFrameEndsTheProcess"),
      row("GarbageWithoutStart", "50 MB without a start sequence",
          "resident memory stays within 256 kB of where it was; the next frame is served", T,
          Kind::GARBAGE),
      covered("length field cuts the frame short", "frame rejected and logged, the rest dropped",
              "process_core_e2e MalformedFrames.LengthFieldTooSmallCutsTheFrameShort"),
      covered("READ count 0", "EOF, the stream untouched",
              "stream_read_e2e ReplyLayout.CountFieldIsReadAsAtoiDoes"),
      covered("READ count 1", "one byte per READ, the whole stream",
              "stream_read_e2e Fetch/WholeStream.BytesAreWhatLibmmsReadsThenEofForGood/mms_1"),
      covered("READ count 65511", "a reply whose body length is 0xFFFF",
              "stream_read_e2e ReplyLayout.LargestCountFillsTheBodyLengthField"),
      covered("READ count 65512, -0000001, -9999999, 99999999", "ERR, no byte of the stream lost",
              "stream_read_e2e ReplyLayout.CountsNoReplyCanCarryAreRefusedWithoutLoss"),
      covered("CONNECT with an empty URL", "the open is tried and fails: ERR",
              "stream_connect_e2e StreamConnect.EmptyUrlAsCountedFieldIsTriedAndFails"),
      row("LongUrlMmst", "CONNECT with a URL of 60,000 bytes", SERVES_ON, T, Kind::LONG_URL),
      row("SlowLongUrlMmsh", "CONNECT with a URL of 60,000 bytes",
          "answered (after the 7-second wait); the worker goes on serving", H, Kind::LONG_URL),
      row("NulInUrlMmst", "CONNECT with a NUL byte in a counted URL", SERVES_ON, T,
          Kind::NUL_IN_URL),
      row("NulInUrlMmsh", "CONNECT with a NUL byte in a counted URL", SERVES_ON, H,
          Kind::NUL_IN_URL),
      covered("SIGTERM during a READ that waits on a stalled server",
              "the 18-byte notice, status 0, the stream released, no shut-down lines",
              "callbacks_e2e MidStream.SigtermDuringAWaitingReadEndsTheProcessAtOnce"),
      // ---- libmms 0.6.4 hazards: the controller's outcome
      row("ManyStreamNumbersMmsh", "23 streams numbered from 1000",
          "worker dies by a signal in CONNECT; controller sees its socket end; nothing left", H,
          Kind::DIES, with([](Faults& f) { f.extraStreams = 22; })),
      row("ZeroSizeObjectMmst", "header object of size 0", SPINS, T, Kind::DIES, zeroSize, SIGPROF),
      row("ZeroSizeObjectMmsh", "header object of size 0", SPINS, H, Kind::DIES, zeroSize, SIGPROF),
      row("ExtensionChild4GiBMmsh", "header extension child of 2^32 bytes", SPINS, H, Kind::DIES,
          with([](Faults& f) { f.extensionChildOf4GiB = true; }), SIGPROF),
      row("EndlessHeadLinesMmsh", "HTTP head lines without end",
          "worker reads byte by byte until its CPU budget ends it (SIGPROF); controller sees its "
          "socket end; nothing left",
          H, Kind::DIES, with([](Faults& f) { f.endlessHeadLines = true; }), SIGPROF),
      row("EndlessHeadLineMmsh", "one HTTP head line without end",
          "CONNECT ERR once the line fills libmms's 100 KiB buffer", H, Kind::OPEN_FAILS,
          with([](Faults& f) { f.endlessHeadLine = true; })),
      row("ContinueAtEndMmsh", "end chunk always announces another stream",
          "READs answered for ever, the header again inside the data; reconnects without limit", H,
          Kind::CONTINUES, with([](Faults& f) { f.continueAtEnd = true; })),
      row("SlowShortReadMmst", "8 s pause inside a data packet",
          "READ answers after 7 s; the rest of the stream is lost or misread", T, Kind::SHORT_READ,
          pause),
      row("SlowShortReadMmsh", "8 s pause inside a data packet",
          "READ answers after 7 s; the rest of the stream is lost or misread", H, Kind::SHORT_READ,
          pause),
  };
  return rows;
}

class FaultMatrix : public support::StreamTest, public ::testing::WithParamInterface<Row> {
 protected:
  void report(const std::string& observed) {
    std::cout << "[ observed ] " << GetParam().id << ": " << observed << std::endl;
  }

  // Ends the open at once with ERR; the worker still serving.
  void openFails(MmsTestServer& server) {
    const auto start = support::Clock::now();
    EXPECT_EQ("ERR", connect(server.url()).status());
    EXPECT_LT(secondsSince(start), 3.0) << "the open waited for a time-out";
    expectOnlyCcheckReply(nextEcho());
    report("CONNECT ERR after " + std::to_string(secondsSince(start)) + " s");
  }

  // The READ that needs the dripping bytes waits them all out, answers whole.
  void drip(MmsTestServer& server) {
    const AsfFile& sample = support::sampleAsf();
    const size_t count = sample.header.size() + 2 * sample.packetSize;
    const auto start = support::Clock::now();
    ASSERT_EQ("OK_", connect(server.url()).status());
    const Request req = request("READ", {countDigits(static_cast<int>(count))});
    const Reply r = call(req, 15);
    EXPECT_GE(secondsSince(start), 7.0) << "the slow bytes were not waited for";
    EXPECT_TRUE(r.frame == support::expectedReadReply(req.echo, "READ",
                                                      asfStreamBytes(sample).substr(0, count)))
        << "status " << r.status();
    report("READ answered whole after " + std::to_string(secondsSince(start)) + " s");
  }

  // libmms takes the short read as a failed packet but keeps the connection,
  // reading on from the middle of the packet: not the stream in order.
  void shortRead(MmsTestServer& server) {
    const std::string reference = asfStreamBytes(support::sampleAsf());
    ASSERT_EQ("OK_", connect(server.url()).status());
    size_t delivered = 0;
    bool wrongBytes = false;
    for (int i = 0; i < 12 && !wrongBytes; ++i) {
      const Reply r = call(request("READ", {countDigits(BIG_READ)}), 10);
      if (r.status() != "OK_") break;
      const std::string data = r.values().at(1).bytes;
      wrongBytes = reference.compare(delivered, data.size(), data) != 0;
      delivered += data.size();
    }
    EXPECT_TRUE(wrongBytes || delivered < reference.size()) << "the stream survived whole";
    report((wrongBytes ? "wrong bytes after " : "stream ends after ") + std::to_string(delivered));
  }

  // 50 MB without 0x16: the worker keeps only a tail that may start a frame.
  void garbage() {
    const pid_t pid = session.worker().pid();
    expectOnlyCcheckReply(nextEcho());
    const long before = support::residentKb(pid);
    ASSERT_GT(before, 0);
    std::string piece(1 << 20, '\0');
    for (size_t i = 0; i < piece.size(); ++i) piece[i] = static_cast<char>('A' + i % 23);
    long peak = before;
    for (int mb = 0; mb < 50; ++mb) {
      ASSERT_TRUE(session.sendRaw(piece)) << session.error();
      peak = std::max(peak, support::residentKb(pid));
    }
    expectOnlyCcheckReply(nextEcho());
    peak = std::max(peak, support::residentKb(pid));
    EXPECT_LT(peak - before, 256) << "resident memory grew with the garbage";
    report("VmRSS " + std::to_string(before) + " kB before, peak " + std::to_string(peak) + " kB");
  }

  // libmms cuts what it sends to its buffers (MMSH then waits out the 7 s
  // for an answer that never comes). Each log line naming the URL is 60 kB:
  // standard error is read meanwhile, or the full pipe blocks the worker.
  void longUrl(MmsTestServer& server) {
    std::string url = server.url("");
    url.append(60000 - url.size(), 'a');
    const Request req = request("CONNECT", {url});
    const auto start = support::Clock::now();
    ASSERT_TRUE(session.send(req)) << session.error();
    Reply r;
    bool answered = false;
    while (!answered && secondsSince(start) < 15) {
      session.worker().output();
      answered = session.connection().receive(req.echo, 1000, r);
    }
    ASSERT_TRUE(answered) << session.error();
    EXPECT_TRUE(r.status() == "OK_" || r.status() == "ERR") << r.status();
    expectOnlyCcheckReply(nextEcho());
    report("CONNECT " + r.status() + " after " + std::to_string(secondsSince(start)) + " s");
  }

  void nulInUrl(MmsTestServer& server) {
    const Reply r = connectCounted(server.url("sam") + std::string(1, '\0') + "ple.asf");
    EXPECT_TRUE(r.status() == "OK_" || r.status() == "ERR") << r.status();
    expectOnlyCcheckReply(nextEcho());
    report("CONNECT " + r.status());
  }

  // The worker dies by a signal inside CONNECT; the controller sees its
  // socket end, kills and reaps it, stops listening: nothing left.
  void dies(MmsTestServer& server, int signal) {
    halvarine::PipelineOptions options;
    options.replyTimeoutMs = HAZARD_REPLY_TIMEOUT_S * 1000;
    options.keepAliveMs = 0;
    options.deadlineMs = halvarine::monotonicMs() + (HAZARD_REPLY_TIMEOUT_S + 2) * 1000;
    halvarine::RequestPipeline pipeline(session.connection(), options);
    Reply r;
    const auto start = support::Clock::now();
    const FetchStatus st = pipeline.call("CONNECT", {server.url()}, r);
    EXPECT_EQ(FetchStatus::LOST, st) << halvarine::statusText(st);
    const pid_t pid = session.worker().pid();
    halvarine::ExitStatus how;
    if (!session.worker().waitExit(0, how)) {
      session.worker().kill();
      session.worker().waitExit(1000, how);
    }
    session.connection().close();
    session.listener().close();
    support::expectNothingLeft(pid);
    EXPECT_TRUE(how.signaled && (signal == 0 || how.signal == signal)) << how.toString();
    report(std::string("controller: ") + halvarine::statusText(st) + " after " +
           std::to_string(secondsSince(start)) + " s; worker ended by " + how.toString());
  }

  // libmms opens the stream again at each end chunk, the header handed on
  // as data again; every READ is answered, the stream never ends.
  void continues(MmsTestServer& server) {
    const AsfFile& sample = support::sampleAsf();
    ASSERT_EQ("OK_", connect(server.url()).status());
    std::string all;
    for (int i = 0; i < 12; ++i) {
      const Reply r = read(BIG_READ);
      ASSERT_EQ("OK_", r.status()) << "after " << all.size() << " bytes";
      all += r.values().at(1).bytes;
    }
    EXPECT_GT(all.size(), 3 * asfStreamBytes(sample).size());
    EXPECT_NE(std::string::npos, all.find(sample.header, 1)) << "the header did not come again";
    EXPECT_GE(server.connectionsServed(), 6);
    report(std::to_string(all.size()) + " bytes in 12 READs, no EOF; " +
           std::to_string(server.connectionsServed()) + " connections");
  }
};

TEST_P(FaultMatrix, Outcome) {
  const Row& r = GetParam();
  SCOPED_TRACE(std::string(r.fault) + ": must give: " + r.outcome);
  if (r.kind == Kind::GARBAGE) return garbage();
  MmsTestServer& server = startServer(r.transport, r.faults);
  switch (r.kind) {
    case Kind::OPEN_FAILS:
      return openFails(server);
    case Kind::DRIP:
      return drip(server);
    case Kind::SHORT_READ:
      return shortRead(server);
    case Kind::LONG_URL:
      return longUrl(server);
    case Kind::NUL_IN_URL:
      return nulInUrl(server);
    case Kind::DIES:
      return dies(server, r.signal);
    case Kind::CONTINUES:
      return continues(server);
    default:
      FAIL() << "row without a runner";
  }
}

std::vector<Row> runnableRows() {
  std::vector<Row> out;
  std::copy_if(matrix().begin(), matrix().end(), std::back_inserter(out),
               [](const Row& r) { return r.kind != Kind::COVERED; });
  return out;
}

INSTANTIATE_TEST_SUITE_P(Rows, FaultMatrix, ::testing::ValuesIn(runnableRows()),
                         [](const ::testing::TestParamInfo<Row>& info) {
                           return std::string(info.param.id);
                         });

TEST(FaultMatrixTable, EveryRowIsRunHereOrNamesItsTest) {
  for (const Row& r : matrix())
    EXPECT_NE(r.kind == Kind::COVERED, r.coveredBy == nullptr) << r.fault;
}

}  // namespace
