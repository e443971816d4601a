// The server side of MMS over TCP. A client walks through a fixed opening
// (connect, funnel info, protocol select, open file, header request, stream
// selection, start playing); the server answers each step, sends the ASF
// header as header data packets and then the file's data packets, ends with
// an end-of-stream report and waits for the client to leave. Anything the
// two clients we serve (libmms and ffmpeg) would never send ends the session.

#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <string>

#include "base/clock.h"
#include "tools/mmsserver/mmst_reports.h"
#include "tools/mmsserver/mmst_wire.h"
#include "tools/mmsserver/sessions.h"

namespace mmsserver {

namespace {

using mmst::Command;

// Declared by an absurd header size, zeros behind the real header. Far
// beyond what any client buffers, yet not so near 2^32 that a client's
// arithmetic wraps.
constexpr uint32_t ABSURD_HEADER_BYTES = 0x10000000;

void logLine(const std::string& text) {
  fprintf(stderr, "mmst: %s\n", text.c_str());
}

std::string hex16(uint16_t v) {
  char buf[8];
  snprintf(buf, sizeof buf, "0x%02x", v);
  return buf;
}

class MmstSession {
 public:
  MmstSession(Link& link, const AsfFile& file, const ServerOptions& options)
      : link_(link),
        conn_(link.connection()),
        file_(file),
        options_(options),
        packets_(file, options.live),
        header_(link.header(file)),
        framing_(headerFraming(file.packetSize)),
        startedMs_(nowMs()) {}

  void run();

 private:
  enum class Next { GO_ON, END };
  using Handler = Next (MmstSession::*)(const Command&);
  struct Entry {
    uint16_t id;
    Handler handler;
  };
  static const Entry COMMANDS[];

  bool readCommand(Command& cmd);
  Next dispatch(const Command& cmd);
  bool reply(uint16_t id, const std::string& body);
  // A handler's ends: the report sent (END when it could not be), or the
  // session ended with the reason logged.
  Next answer(uint16_t id, const std::string& body) {
    return reply(id, body) ? Next::GO_ON : Next::END;
  }
  static Next refuse(const std::string& why) {
    logLine(why);
    return Next::END;
  }
  bool sendNextPacket();
  static HeaderFraming headerFraming(uint32_t packetSize);

  Next onConnect(const Command& cmd);
  Next onFunnelInfo(const Command& cmd);
  Next onConnectFunnel(const Command& cmd);
  Next onOpenFile(const Command& cmd);
  Next onReadBlock(const Command& cmd);
  Next onStreamSwitch(const Command& cmd);
  Next onStartPlaying(const Command& cmd);
  Next onPong(const Command& cmd);
  Next onCloseFile(const Command& cmd);

  Link& link_;
  Connection& conn_;
  const AsfFile& file_;
  const ServerOptions& options_;
  PacketSource packets_;
  const std::string header_;  // as served
  const HeaderFraming framing_;
  const int64_t startedMs_;
  uint32_t sequence_ = 0;
  bool connected_ = false;
  bool opened_ = false;
  bool playing_ = false;
  uint8_t mediaIncarnation_ = 0;
  size_t nextPacket_ = 0;
};

const MmstSession::Entry MmstSession::COMMANDS[] = {
    {mmst::cs::CONNECT, &MmstSession::onConnect},
    {mmst::cs::FUNNEL_INFO, &MmstSession::onFunnelInfo},
    {mmst::cs::CONNECT_FUNNEL, &MmstSession::onConnectFunnel},
    {mmst::cs::OPEN_FILE, &MmstSession::onOpenFile},
    {mmst::cs::READ_BLOCK, &MmstSession::onReadBlock},
    {mmst::cs::STREAM_SWITCH, &MmstSession::onStreamSwitch},
    {mmst::cs::START_PLAYING, &MmstSession::onStartPlaying},
    {mmst::cs::PONG, &MmstSession::onPong},
    {mmst::cs::CLOSE_FILE, &MmstSession::onCloseFile},
};

void MmstSession::run() {
  for (;;) {
    // While playing, a client command (close, keepalive, a new start) is
    // taken between two data packets; otherwise the session waits for one.
    if (playing_ && !conn_.readable(0)) {
      if (!sendNextPacket()) return;
      continue;
    }
    Command cmd;
    if (!readCommand(cmd) || dispatch(cmd) == Next::END) return;
  }
}

bool MmstSession::readCommand(Command& cmd) {
  std::string bytes(mmst::LEAD_BYTES, '\0');
  if (!conn_.readExact(&bytes[0], bytes.size())) return false;  // gone or silent
  const size_t total = mmst::messageSize(bytes);
  if (total == 0) {
    logLine("client sent something that is not a command message");
    return false;
  }
  bytes.resize(total);
  if (!conn_.readExact(&bytes[mmst::LEAD_BYTES], total - mmst::LEAD_BYTES)) return false;
  std::string why;
  if (!mmst::parseCommand(bytes, cmd, why)) {
    logLine("bad command message: " + why);
    return false;
  }
  if (cmd.direction != mmst::TO_SERVER) {
    logLine("command " + hex16(cmd.id) + " does not go client to server");
    return false;
  }
  return true;
}

MmstSession::Next MmstSession::dispatch(const Command& cmd) {
  for (const Entry& e : COMMANDS) {
    if (e.id == cmd.id) return (this->*e.handler)(cmd);
  }
  logLine("unexpected command " + hex16(cmd.id));
  return Next::END;
}

bool MmstSession::reply(uint16_t id, const std::string& body) {
  const uint64_t time100ns = static_cast<uint64_t>(msSince(startedMs_)) * 10000;
  return link_.send(mmst::makeCommand(mmst::TO_CLIENT, id, sequence_++, time100ns, body));
}

MmstSession::Next MmstSession::onConnect(const Command&) {
  if (connected_) return refuse("second connect on one session");
  connected_ = true;
  return answer(mmst::sc::REPORT_CONNECTED, mmst::connectedReport());
}

MmstSession::Next MmstSession::onFunnelInfo(const Command&) {
  if (!connected_) return refuse("funnel info before connect");
  return answer(mmst::sc::REPORT_FUNNEL_INFO, mmst::funnelInfoReport());
}

// The client names a transport (always TCP from our clients); the data will
// flow on this connection whatever it names.
MmstSession::Next MmstSession::onConnectFunnel(const Command&) {
  if (!connected_) return refuse("protocol select before connect");
  return answer(mmst::sc::REPORT_CONNECTED_FUNNEL, mmst::connectedFunnelReport());
}

// Any file name opens the one file this server has.
MmstSession::Next MmstSession::onOpenFile(const Command&) {
  if (!connected_ || opened_) return refuse("open file out of order");
  opened_ = true;
  if (link_.noSuchFile()) {
    reply(mmst::sc::REPORT_OPEN_FILE, mmst::noSuchFileReport());
    return Next::END;
  }
  mmst::OpenFile facts;
  facts.headerBytes = static_cast<uint32_t>(link_.declaredHeaderSize(header_.size(), framing_));
  facts.packetBytes = link_.declaredPacketSize(file_.packetSize);
  facts.live = options_.live;
  // As the header announces them: a broadcast has no duration and no count.
  const double fileSeconds = static_cast<double>(file_.playDuration100ns) / 1e7;
  facts.seconds = options_.live ? 0 : fileSeconds;
  facts.packets = options_.declaredPackets >= 0 ? static_cast<uint64_t>(options_.declaredPackets)
                                                : (options_.live ? 0 : file_.packets.size());
  const uint64_t dataBytes = static_cast<uint64_t>(file_.packets.size()) * file_.packetSize;
  facts.bitRate = fileSeconds > 0 ? static_cast<uint32_t>(dataBytes * 8 / fileSeconds) : 0;
  const std::string body = mmst::openFileReport(facts);
  return answer(mmst::sc::REPORT_OPEN_FILE, body);
}

MmstSession::Next MmstSession::onReadBlock(const Command& cmd) {
  // The client names the incarnation it wants on header packets.
  constexpr size_t OFF_HEADER_INCARNATION = 40;
  if (!opened_) return refuse("header request before open file");
  const uint32_t incarnation = mmst::fits(cmd.body, OFF_HEADER_INCARNATION, 4)
                                   ? getLe32(cmd.body, OFF_HEADER_INCARNATION)
                                   : 0x100;
  if (incarnation > 0xFF) return refuse("header request without a usable packet incarnation");
  std::string body = mmst::reportPrefix(incarnation);
  putLe32(body, 0);  // play sequence
  if (!reply(mmst::sc::REPORT_READ_BLOCK, body)) return Next::END;
  HeaderFraming framing = framing_;
  framing.prefix = [piece = framing.piece, incarnation](uint64_t at, size_t n, uint64_t total) {
    const uint8_t flags = at == 0 && at + n == total ? mmst::HEADER_WHOLE
                          : at + n == total          ? mmst::HEADER_LAST
                                                     : mmst::HEADER_MORE;
    return mmst::makeDataPrefix(static_cast<uint32_t>(at / piece),
                                static_cast<uint8_t>(incarnation), flags, n);
  };
  return link_.sendHeader(header_, framing) ? Next::GO_ON : Next::END;
}

// The header goes in data packets of at most one ASF packet's size,
// flagged first, middle or last; the incarnation is the one the client
// named in its header request.
HeaderFraming MmstSession::headerFraming(uint32_t packetSize) {
  HeaderFraming framing;
  framing.piece = packetSize == 0 ? 4096 : std::min<size_t>(packetSize, mmst::MAX_DATA_PAYLOAD);
  framing.absurdBytes = ABSURD_HEADER_BYTES;
  framing.fillAbsurd = true;
  return framing;
}

MmstSession::Next MmstSession::onStreamSwitch(const Command& cmd) {
  // A count, then one 6-byte entry (flags, stream id, selection) per stream.
  constexpr size_t ENTRY_BYTES = 6;
  if (!opened_) return refuse("stream selection before open file");
  const uint32_t count = mmst::fits(cmd.body, 0, 4) ? getLe32(cmd.body, 0) : 0;
  if (count == 0 || count > (cmd.body.size() - 4) / ENTRY_BYTES)
    return refuse("stream selection count does not match its entries");
  // Every stream of the file is served whatever the selection says: libmms
  // picks the best audio and the best video stream and ffmpeg asks for all,
  // which for our files (one of each at most) is every stream.
  return reply(mmst::sc::REPORT_STREAM_SWITCH, mmst::reportPrefix(mmst::PLAY_INCARNATION_IDLE))
             ? Next::GO_ON
             : Next::END;
}

MmstSession::Next MmstSession::onStartPlaying(const Command& cmd) {
  constexpr size_t OFF_LOCATION = 20;     // first packet wanted, ~0 for "from the start"
  constexpr size_t OFF_INCARNATION = 28;  // to mark this run's data packets
  if (!opened_) return refuse("start playing before open file");
  if (!mmst::fits(cmd.body, OFF_INCARNATION, 4) || getLe32(cmd.body, OFF_INCARNATION) > 0xFF)
    return refuse("start playing request too short or with a bad incarnation");
  const uint32_t location = getLe32(cmd.body, OFF_LOCATION);
  const uint32_t incarnation = getLe32(cmd.body, OFF_INCARNATION);
  if (file_.packetSize > mmst::MAX_DATA_PAYLOAD)
    return refuse("ASF packets too large for MMS over TCP");
  // A time position is not honoured: without an index, play from the start.
  nextPacket_ = location == 0xFFFFFFFFu ? 0 : std::min<size_t>(location, file_.packets.size());
  mediaIncarnation_ = static_cast<uint8_t>(incarnation);
  playing_ = true;
  return reply(mmst::sc::REPORT_STARTED_PLAYING, mmst::startedPlayingReport(incarnation))
             ? Next::GO_ON
             : Next::END;
}

bool MmstSession::sendNextPacket() {
  if (packets_.has(nextPacket_)) {
    const std::string& payload = packets_.at(nextPacket_);
    const std::string prefix = mmst::makeDataPrefix(static_cast<uint32_t>(nextPacket_),
                                                    mediaIncarnation_, 0, payload.size());
    const size_t index = nextPacket_++;
    return link_.sendPacket(index, prefix, payload);
  }
  playing_ = false;
  const bool sent = reply(mmst::sc::REPORT_END_OF_STREAM, mmst::reportPrefix(mediaIncarnation_));
  link_.streamEnded();
  return sent;
}

// A client sends 0x1B only to answer a ping. Answering it with another 0x1B
// would start an endless exchange, as both clients answer every 0x1B.
MmstSession::Next MmstSession::onPong(const Command&) {
  return Next::GO_ON;
}

MmstSession::Next MmstSession::onCloseFile(const Command&) {
  return Next::END;
}

}  // namespace

void serveMmstConnection(Link& link, const AsfFile& file, const ServerOptions& options) {
  MmstSession(link, file, options).run();
}

}  // namespace mmsserver
