#include "tools/mmsserver/faults.h"

#include <algorithm>

#include "base/clock.h"

namespace mmsserver {

namespace {

// Declared by the absurd-packet-size fault: far past what either client
// buffers (libmms takes up to 100 KiB, ffmpeg 64 KiB), yet not so near 2^32
// that a client's arithmetic wraps.
constexpr uint32_t ABSURD_PACKET_BYTES = 0x10000000;

// The first stream number the extra streams of the extraStreams fault take:
// four digits each, so 23 of them overflow any buffer sized for two.
constexpr uint16_t FIRST_EXTRA_STREAM = 1000;
constexpr size_t HEADER_OBJECT_COUNT_AT = 24;

// Appends `object` to the Header Object's children in `header`, fixing the
// Header Object's size and child count; the Data Object's start stays last.
void appendHeaderObject(std::string& header, const std::string& object) {
  if (header.size() < HEADER_OBJECT_FIXED_SIZE || !guidAt(header, 0, HEADER_OBJECT)) return;
  const uint64_t size = getLe64(header, GUID_SIZE);
  if (size > header.size()) return;
  header.insert(static_cast<size_t>(size), object);
  std::string field;
  putLe64(field, size + object.size());
  header.replace(GUID_SIZE, 8, field);
  field.clear();
  putLe32(field, getLe32(header, HEADER_OBJECT_COUNT_AT) + 1);
  header.replace(HEADER_OBJECT_COUNT_AT, 4, field);
}

std::string streamBitrateProperties(int streams) {
  std::string o;
  putGuid(o, STREAM_BITRATE_PROPERTIES);
  putLe64(o, OBJECT_HEAD_SIZE + 2 + 6 * static_cast<uint64_t>(streams));
  putLe16(o, static_cast<uint16_t>(streams));
  for (int i = 0; i < streams; ++i) {
    putLe16(o, static_cast<uint16_t>(FIRST_EXTRA_STREAM + i));
    putLe32(o, 8000);  // average bit rate
  }
  return o;
}

// An object head with nothing behind it that declares `declared` bytes.
std::string objectHead(const Guid& g, uint64_t declared) {
  std::string o;
  putGuid(o, g);
  putLe64(o, declared);
  return o;
}

// A Header Extension Object whose one child declares `childSize` bytes.
std::string headerExtensionWithChild(uint64_t childSize) {
  const std::string child = objectHead(PADDING, childSize);
  std::string o;
  putGuid(o, HEADER_EXTENSION);
  putLe64(o, 46 + child.size());
  putGuid(o, EXTENSION_RESERVED);
  putLe16(o, 6);
  putLe32(o, static_cast<uint32_t>(child.size()));
  return o + child;
}

}  // namespace

Faults faultsForConnection(const Faults& configured, int index) {
  const int first = configured.firstConnections;
  return first <= 0 || index < first ? configured : Faults();
}

Link::Link(Connection& conn, const Faults& faults, int64_t rate, int index)
    : conn_(conn), faults_(faults), rate_(rate) {
  if (faults_.mutateSeed > 0) {
    // One run of mutations per seed and connection, whatever the timing; a
    // seed also picks how often they come, from every 16th send to every
    // 128th (a stream of the sample is about 140 sends).
    const uint64_t seed = static_cast<uint64_t>(faults_.mutateSeed);
    random_.seed(seed * 1000003 + static_cast<uint64_t>(index));
    mutateOneIn_ = uint64_t{16} << (seed % 4);
  }
}

// ---- Bytes

bool Link::send(const char* p, size_t n) {
  if (mutateOneIn_ == 0) return deliver(p, n, Delivery());
  std::string bytes(p, n);
  const Delivery how = mutate(bytes);
  return deliver(bytes.data(), bytes.size(), how);
}

// One mutation, now and then: what a mutating proxy between server and
// client could do to one send.
Link::Delivery Link::mutate(std::string& bytes) {
  Delivery how;
  if (bytes.empty() || below(mutateOneIn_) != 0) return how;
  const size_t at = static_cast<size_t>(below(bytes.size()));
  const size_t length = 1 + static_cast<size_t>(below(std::min<size_t>(64, bytes.size() - at)));
  switch (below(6)) {
    case 0:  // bit flips
      for (uint64_t flips = 1 + below(3); flips > 0; --flips) {
        bytes[static_cast<size_t>(below(bytes.size()))] ^= static_cast<char>(1 << below(8));
      }
      break;
    case 1:  // a slice cut out
      bytes.erase(at, length);
      break;
    case 2:  // a slice said twice
      bytes.insert(at + length, bytes, at, length);
      break;
    case 3: {  // an absurd value where the length fields of frame heads sit
      static const uint32_t ABSURD[] = {0xFFFFFFFF, 0, 0x7FFFFFFF, 0x80000000};
      const uint32_t value = ABSURD[below(4)];
      const size_t width = below(2) == 0 ? 2 : 4;
      const size_t field = static_cast<size_t>(below(std::min<size_t>(16, bytes.size())));
      for (size_t i = 0; i < width && field + i < bytes.size(); ++i) {
        bytes[field + i] = static_cast<char>(value >> (8 * i));
      }
      break;
    }
    case 4:  // a drip: the first bytes in small pieces
      how.dripUntil = std::min<size_t>(64, bytes.size());
      how.dripPiece = 1 + static_cast<size_t>(below(8));
      how.gapMs = 1;
      break;
    default:  // a reset inside the send
      how.resetAt = static_cast<int64_t>(at);
      break;
  }
  return how;
}

bool Link::deliver(const char* p, size_t n, const Delivery& how) {
  if (!conn_.open()) return false;
  const bool drip = faults_.dripIntervalMs > 0;
  for (size_t done = 0; done < n;) {
    // Whichever byte-count fault comes first takes over at its count.
    const bool stallFirst = faults_.stallAfter >= 0 &&
                            (faults_.resetAfter < 0 || faults_.stallAfter <= faults_.resetAfter);
    const int64_t limit = stallFirst ? faults_.stallAfter : faults_.resetAfter;
    if (limit >= 0 && sent_ >= limit) {
      if (stallFirst) {
        conn_.holdUntilClientLeaves();
      } else {
        conn_.reset();
      }
      return false;
    }
    if (how.resetAt >= 0 && static_cast<int64_t>(done) >= how.resetAt) {
      conn_.reset();
      return false;
    }
    size_t piece = drip ? 1 : n - done;
    if (done < how.dripUntil)
      piece = std::min(piece, std::min(how.dripPiece, how.dripUntil - done));
    if (limit >= 0) piece = std::min(piece, static_cast<size_t>(limit - sent_));
    if (how.resetAt >= 0) piece = std::min(piece, static_cast<size_t>(how.resetAt) - done);
    if (!pace(piece) || !conn_.write(p + done, piece)) return false;
    const bool dripped = drip || done < how.dripUntil;
    done += piece;
    sent_ += static_cast<int64_t>(piece);
    if (dripped && !conn_.pause(drip ? faults_.dripIntervalMs : how.gapMs)) return false;
  }
  return true;
}

// Byte k goes out no sooner than k / rate seconds after the first, in
// pieces of a fiftieth of a second's worth.
bool Link::pace(size_t& piece) {
  if (rate_ <= 0) return true;
  const int64_t now = nowMs();
  if (firstSendMs_ < 0) firstSendMs_ = now;
  piece = std::min(piece, static_cast<size_t>(std::max<int64_t>(1, rate_ / 50)));
  const int64_t due = firstSendMs_ + sent_ * 1000 / rate_;
  return due <= now || conn_.pause(static_cast<int>(due - now));
}

// ---- What the protocol carries

std::string Link::header(const AsfFile& file) const {
  std::string header = file.header;
  if (faults_.extraStreams > 0) {
    appendHeaderObject(header, streamBitrateProperties(faults_.extraStreams));
  }
  if (faults_.extensionChildOf4GiB) {
    appendHeaderObject(header, headerExtensionWithChild(uint64_t{1} << 32));
  }
  // Last, so that every other object has been seen when a walk stops here.
  if (faults_.zeroSizeObject) appendHeaderObject(header, objectHead(PADDING, 0));
  // Clients take the packet size from the File Properties Object.
  if (faults_.absurdPacketSize) patchPacketSize(header, ABSURD_PACKET_BYTES);
  return header;
}

uint64_t Link::declaredHeaderSize(uint64_t real, const HeaderFraming& framing) const {
  return faults_.absurdHeaderSize ? framing.absurdBytes : real;
}

uint32_t Link::declaredPacketSize(uint32_t real) const {
  return faults_.absurdPacketSize ? ABSURD_PACKET_BYTES : real;
}

bool Link::sendHeader(const std::string& header, const HeaderFraming& framing) {
  const uint64_t total = declaredHeaderSize(header.size(), framing);
  const bool cutting = faults_.truncateHeader >= 0;
  const uint64_t cut =
      cutting ? std::min<uint64_t>(total, static_cast<uint64_t>(faults_.truncateHeader)) : total;
  for (uint64_t at = 0; at < total; at += framing.piece) {
    const size_t n = static_cast<size_t>(std::min<uint64_t>(framing.piece, total - at));
    std::string frame = framing.prefix(at, n, total);
    const size_t prefixBytes = frame.size();
    if (at < header.size()) {
      frame.append(header, static_cast<size_t>(at), std::min<size_t>(n, header.size() - at));
    }
    if (frame.size() - prefixBytes < n) {  // an absurd size: past the real header
      if (!framing.fillAbsurd) {
        send(frame);
        return false;
      }
      frame.resize(prefixBytes + n, '\0');
    }
    if (at + n > cut) {  // the frame declares its full length but the bytes stop at the cut
      frame.resize(prefixBytes + static_cast<size_t>(cut - at));
      send(frame);
      return false;
    }
    if (!send(frame)) return false;
  }
  return !cutting;
}

bool Link::sendPacket(size_t index, const std::string& prefix, const std::string& payload) {
  if (!send(prefix)) return false;
  if (faults_.slowPacket < 0 || index != static_cast<size_t>(faults_.slowPacket)) {
    return send(payload);
  }
  const size_t slow = std::min(payload.size(), static_cast<size_t>(faults_.slowBytes));
  for (size_t b = 0; b < slow; ++b) {
    if (!send(payload.data() + b, 1)) return false;
    // Waits out the gap unless the client speaks or leaves first; either
    // way the next send tells.
    conn_.readable(faults_.slowGapMs);
  }
  return send(payload.data() + slow, payload.size() - slow);
}

bool Link::sendResponseHead(const std::string& head) {
  if (!faults_.endlessHeadLines && !faults_.endlessHeadLine) return send(head);
  // The status line, then header lines (or one line) for as long as the
  // client takes them.
  if (!send(head.substr(0, head.find('\n') + 1))) return false;
  if (faults_.endlessHeadLine && !send("X-Filler: ")) return false;
  std::string block;
  while (block.size() < 4096) block += faults_.endlessHeadLine ? "aaaaaaaa" : "X-Filler: a\r\n";
  while (send(block)) {
  }
  return false;
}

void Link::streamEnded() {
  if (mutateOneIn_ != 0) conn_.finishSending();
}

}  // namespace mmsserver
