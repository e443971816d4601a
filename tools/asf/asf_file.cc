#include "tools/asf/asf_file.h"

#include <algorithm>

#include "tools/common/file.h"

Guid guid(uint32_t d1, uint16_t d2, uint16_t d3, uint64_t d4) {
  Guid g{};
  for (int i = 0; i < 4; ++i) g.bytes[i] = static_cast<unsigned char>(d1 >> (8 * i));
  for (int i = 0; i < 2; ++i) g.bytes[4 + i] = static_cast<unsigned char>(d2 >> (8 * i));
  for (int i = 0; i < 2; ++i) g.bytes[6 + i] = static_cast<unsigned char>(d3 >> (8 * i));
  for (int i = 0; i < 8; ++i) g.bytes[8 + i] = static_cast<unsigned char>(d4 >> (8 * (7 - i)));
  return g;
}

const Guid HEADER_OBJECT = guid(0x75B22630, 0x668E, 0x11CF, 0xA6D900AA0062CE6CULL);
const Guid DATA_OBJECT = guid(0x75B22636, 0x668E, 0x11CF, 0xA6D900AA0062CE6CULL);
const Guid FILE_PROPERTIES = guid(0x8CABDCA1, 0xA947, 0x11CF, 0x8EE400C00C205365ULL);
const Guid STREAM_PROPERTIES = guid(0xB7DC0791, 0xA9B7, 0x11CF, 0x8EE600C00C205365ULL);
const Guid HEADER_EXTENSION = guid(0x5FBF03B5, 0xA92E, 0x11CF, 0x8EE300C00C205365ULL);
const Guid EXTENSION_RESERVED = guid(0xABD3D211, 0xA9BA, 0x11CF, 0x8EE600C00C205365ULL);
const Guid AUDIO_MEDIA = guid(0xF8699E40, 0x5B4D, 0x11CF, 0xA8FD00805F5C442BULL);
const Guid NO_ERROR_CORRECTION = guid(0x20FB5700, 0x5B55, 0x11CF, 0xA8FD00805F5C442BULL);
const Guid STREAM_BITRATE_PROPERTIES = guid(0x7BF875CE, 0x468D, 0x11D1, 0x8D82006097C9A2B2ULL);
const Guid PADDING = guid(0x1806D474, 0xCADF, 0x4509, 0xA4BA9AABCB96AAE8ULL);

bool guidAt(const std::string& s, size_t at, const Guid& g) {
  return at + GUID_SIZE <= s.size() &&
         s.compare(at, GUID_SIZE, reinterpret_cast<const char*>(g.bytes), GUID_SIZE) == 0;
}

void putGuid(std::string& out, const Guid& g) {
  out.append(reinterpret_cast<const char*>(g.bytes), GUID_SIZE);
}

namespace {

constexpr size_t DATA_OBJECT_HEADER_SIZE = 50;
constexpr size_t FILE_PROPERTIES_SIZE = 104;

// Offsets inside the File Properties Object.
constexpr size_t FP_FILE_ID = 24;
constexpr size_t FP_FILE_SIZE = 40;
constexpr size_t FP_PACKET_COUNT = 56;
constexpr size_t FP_PLAY_DURATION = 64;
constexpr size_t FP_SEND_DURATION = 72;
constexpr size_t FP_PREROLL = 80;
constexpr size_t FP_FLAGS = 88;
constexpr size_t FP_MIN_PACKET_SIZE = 92;
constexpr size_t FP_MAX_PACKET_SIZE = 96;
// Offsets inside the Data Object.
constexpr size_t DO_SIZE = 16;
constexpr size_t DO_TOTAL_PACKETS = 40;

constexpr uint32_t FLAG_BROADCAST = 0x01;
constexpr uint32_t FLAG_SEEKABLE = 0x02;

// Finds the File Properties Object among the Header Object's children.
// Returns its offset, or 0 when absent or when a child's size is broken.
size_t findFileProperties(const std::string& header, uint64_t headerSize) {
  size_t at = HEADER_OBJECT_FIXED_SIZE;
  while (at + OBJECT_HEAD_SIZE <= headerSize) {
    uint64_t size = getLe64(header, at + GUID_SIZE);
    if (size < OBJECT_HEAD_SIZE || size > headerSize - at) return 0;
    if (guidAt(header, at, FILE_PROPERTIES)) return size >= FILE_PROPERTIES_SIZE ? at : 0;
    at += size;
  }
  return 0;
}

}  // namespace

void putLe16(std::string& out, uint16_t v) {
  for (int i = 0; i < 2; ++i) out.push_back(static_cast<char>(v >> (8 * i)));
}

void putLe32(std::string& out, uint32_t v) {
  for (int i = 0; i < 4; ++i) out.push_back(static_cast<char>(v >> (8 * i)));
}

void putLe64(std::string& out, uint64_t v) {
  for (int i = 0; i < 8; ++i) out.push_back(static_cast<char>(v >> (8 * i)));
}

uint16_t getLe16(const std::string& in, size_t at) {
  return static_cast<uint16_t>(static_cast<unsigned char>(in[at]) |
                               static_cast<unsigned char>(in[at + 1]) << 8);
}

uint32_t getLe32(const std::string& in, size_t at) {
  return getLe16(in, at) | static_cast<uint32_t>(getLe16(in, at + 2)) << 16;
}

uint64_t getLe64(const std::string& in, size_t at) {
  return getLe32(in, at) | static_cast<uint64_t>(getLe32(in, at + 4)) << 32;
}

bool parseAsf(const std::string& bytes, AsfFile& out, std::string& error) {
  if (!guidAt(bytes, 0, HEADER_OBJECT) || bytes.size() < HEADER_OBJECT_FIXED_SIZE) {
    error = "no ASF Header Object at the start";
    return false;
  }
  uint64_t headerSize = getLe64(bytes, GUID_SIZE);
  if (headerSize < HEADER_OBJECT_FIXED_SIZE || headerSize > bytes.size() ||
      bytes.size() - headerSize < DATA_OBJECT_HEADER_SIZE) {
    error = "Header Object size " + std::to_string(headerSize) + " does not fit a file of " +
            std::to_string(bytes.size()) + " bytes with a Data Object";
    return false;
  }
  size_t fp = findFileProperties(bytes, headerSize);
  if (fp == 0) {
    error = "no well-formed File Properties Object in the header";
    return false;
  }
  uint32_t minPacket = getLe32(bytes, fp + FP_MIN_PACKET_SIZE);
  uint32_t maxPacket = getLe32(bytes, fp + FP_MAX_PACKET_SIZE);
  if (minPacket != maxPacket || minPacket == 0) {
    error = "packet sizes " + std::to_string(minPacket) + " and " + std::to_string(maxPacket) +
            " are not one fixed size";
    return false;
  }
  size_t data = static_cast<size_t>(headerSize);
  if (!guidAt(bytes, data, DATA_OBJECT)) {
    error = "no Data Object after the Header Object";
    return false;
  }

  AsfFile file;
  file.header = bytes.substr(0, data + DATA_OBJECT_HEADER_SIZE);
  file.packetSize = minPacket;
  file.fileId = bytes.substr(fp + FP_FILE_ID, GUID_SIZE);
  file.fileSize = getLe64(bytes, fp + FP_FILE_SIZE);
  file.playDuration100ns = getLe64(bytes, fp + FP_PLAY_DURATION);
  file.sendDuration100ns = getLe64(bytes, fp + FP_SEND_DURATION);
  file.broadcast = (getLe32(bytes, fp + FP_FLAGS) & FLAG_BROADCAST) != 0;

  // The Data Object's own size bounds the packets (an index may follow); a
  // broadcast-style file leaves it 0, and then the packets run to the end.
  uint64_t dataSize = getLe64(bytes, data + GUID_SIZE);
  size_t end = bytes.size();
  if (dataSize >= DATA_OBJECT_HEADER_SIZE && dataSize <= bytes.size() - data) end = data + dataSize;
  uint64_t declared = getLe64(bytes, data + DO_TOTAL_PACKETS);
  for (size_t at = data + DATA_OBJECT_HEADER_SIZE; at < end; at += file.packetSize) {
    if (declared != 0 && file.packets.size() == declared) break;
    std::string packet = bytes.substr(at, std::min<size_t>(file.packetSize, end - at));
    packet.resize(file.packetSize, '\0');
    file.packets.push_back(std::move(packet));
  }
  out = std::move(file);
  return true;
}

bool loadAsfFile(const std::string& path, AsfFile& out, std::string& error) {
  std::string bytes;
  if (!tools::readWholeFile(path, bytes, error)) return false;
  if (!parseAsf(bytes, out, error)) {
    error = path + ": " + error;
    return false;
  }
  return true;
}

std::string asfStreamBytes(const AsfFile& file) {
  std::string all = file.header;
  for (const std::string& p : file.packets) all += p;
  return all;
}

namespace {

// Where the File Properties Object and the Data Object start in `header`;
// false when either is missing.
bool locateObjects(const std::string& header, size_t& fp, size_t& data) {
  if (header.size() < HEADER_OBJECT_FIXED_SIZE || !guidAt(header, 0, HEADER_OBJECT)) return false;
  const uint64_t headerSize = std::min<uint64_t>(getLe64(header, GUID_SIZE), header.size());
  fp = findFileProperties(header, headerSize);
  data = static_cast<size_t>(headerSize);
  return fp != 0 && header.size() - data >= DATA_OBJECT_HEADER_SIZE &&
         guidAt(header, data, DATA_OBJECT);
}

void setLe32(std::string& s, size_t at, uint32_t v) {
  std::string field;
  putLe32(field, v);
  s.replace(at, 4, field);
}

void setLe64(std::string& s, size_t at, uint64_t v) {
  std::string field;
  putLe64(field, v);
  s.replace(at, 8, field);
}

}  // namespace

bool patchPacketSize(std::string& header, uint32_t packetSize) {
  if (header.size() < HEADER_OBJECT_FIXED_SIZE || !guidAt(header, 0, HEADER_OBJECT)) return false;
  uint64_t headerSize = std::min<uint64_t>(getLe64(header, GUID_SIZE), header.size());
  size_t fp = findFileProperties(header, headerSize);
  if (fp == 0) return false;
  setLe32(header, fp + FP_MIN_PACKET_SIZE, packetSize);
  setLe32(header, fp + FP_MAX_PACKET_SIZE, packetSize);
  return true;
}

bool declarePackets(std::string& header, uint64_t packets, uint32_t packetSize) {
  size_t fp = 0, data = 0;
  if (!locateObjects(header, fp, data)) return false;
  const uint64_t dataSize = DATA_OBJECT_HEADER_SIZE + packets * packetSize;
  setLe64(header, fp + FP_FILE_SIZE, data + dataSize);
  setLe64(header, fp + FP_PACKET_COUNT, packets);
  setLe64(header, data + DO_SIZE, dataSize);
  setLe64(header, data + DO_TOTAL_PACKETS, packets);
  return true;
}

bool declareRecording(std::string& header, uint64_t packets, uint32_t packetSize, uint64_t spanMs) {
  size_t fp = 0, data = 0;
  if (!declarePackets(header, packets, packetSize) || !locateObjects(header, fp, data)) {
    return false;
  }
  // Both durations are in 100 ns; the preroll, in ms, is the time players
  // hold back before the first packet plays, and the play duration counts it.
  const uint64_t prerollMs = getLe64(header, fp + FP_PREROLL);
  setLe64(header, fp + FP_SEND_DURATION, spanMs * 10000);
  setLe64(header, fp + FP_PLAY_DURATION, (spanMs + prerollMs) * 10000);
  const uint32_t flags = getLe32(header, fp + FP_FLAGS);
  setLe32(header, fp + FP_FLAGS, (flags & ~FLAG_BROADCAST) | FLAG_SEEKABLE);
  return true;
}

bool markBroadcast(std::string& header) {
  size_t fp = 0, data = 0;
  if (!locateObjects(header, fp, data)) return false;
  for (size_t field : {FP_FILE_SIZE, FP_PACKET_COUNT, FP_PLAY_DURATION, FP_SEND_DURATION}) {
    setLe64(header, fp + field, 0);
  }
  setLe32(header, fp + FP_FLAGS, FLAG_BROADCAST);
  // The Data Object's own head and nothing known behind it, as live servers
  // send it: a size of 0 would stop any reader that walks objects by size.
  setLe64(header, data + DO_SIZE, DATA_OBJECT_HEADER_SIZE);
  setLe64(header, data + DO_TOTAL_PACKETS, 0);
  return true;
}

namespace {

// The generated stream is 16-bit stereo PCM at 44.1 kHz, so a player can
// time it; the samples are a counter, which makes every packet distinct and
// a misplaced byte visible.
constexpr uint32_t SAMPLE_RATE = 44100;
constexpr uint16_t CHANNELS = 2;
constexpr uint16_t BLOCK_ALIGN = 4;
constexpr uint32_t BYTE_RATE = SAMPLE_RATE * BLOCK_ALIGN;
constexpr uint8_t STREAM_NUMBER = 1;
// Fixed part of one generated data packet: error correction (3), length
// flags and property flags (2), padding length (2), send time (4), duration
// (2); then the one payload's head: stream, object number, offset,
// replicated length (7) and replicated data (8).
constexpr uint32_t PACKET_OVERHEAD = 3 + 2 + 2 + 4 + 2 + 7 + 8;

std::string fileProperties(uint64_t fileSize, uint64_t packets, uint32_t packetSize,
                           uint64_t duration100ns) {
  std::string o;
  putGuid(o, FILE_PROPERTIES);
  putLe64(o, FILE_PROPERTIES_SIZE);
  putGuid(o, guid(0x48414C56, 0x4152, 0x494E, 0x4547454E45524154ULL));  // file id
  putLe64(o, fileSize);
  putLe64(o, 0);  // creation date
  putLe64(o, packets);
  putLe64(o, duration100ns);  // play duration
  putLe64(o, duration100ns);  // send duration
  putLe64(o, 0);              // preroll, ms
  putLe32(o, 0x02);           // seekable
  putLe32(o, packetSize);
  putLe32(o, packetSize);
  putLe32(o, BYTE_RATE * 8);  // maximum bitrate
  return o;
}

std::string streamProperties() {
  std::string wave;       // WAVEFORMATEX
  putLe16(wave, 0x0001);  // PCM
  putLe16(wave, CHANNELS);
  putLe32(wave, SAMPLE_RATE);
  putLe32(wave, BYTE_RATE);
  putLe16(wave, BLOCK_ALIGN);
  putLe16(wave, 16);  // bits per sample
  putLe16(wave, 0);   // no extra bytes

  std::string o;
  putGuid(o, STREAM_PROPERTIES);
  putLe64(o, 78 + wave.size());
  putGuid(o, AUDIO_MEDIA);
  putGuid(o, NO_ERROR_CORRECTION);
  putLe64(o, 0);  // time offset
  putLe32(o, static_cast<uint32_t>(wave.size()));
  putLe32(o, 0);  // error correction data length
  putLe16(o, STREAM_NUMBER);
  putLe32(o, 0);  // reserved
  o += wave;
  return o;
}

std::string headerExtension() {
  std::string o;
  putGuid(o, HEADER_EXTENSION);
  putLe64(o, 46);
  putGuid(o, EXTENSION_RESERVED);
  putLe16(o, 6);
  putLe32(o, 0);  // no extension objects
  return o;
}

std::string dataPacket(uint32_t index, uint32_t packetSize) {
  uint32_t payload = packetSize - PACKET_OVERHEAD;
  uint32_t sendMs = static_cast<uint32_t>(uint64_t{index} * payload * 1000 / BYTE_RATE);
  uint32_t nextMs = static_cast<uint32_t>(uint64_t{index + 1} * payload * 1000 / BYTE_RATE);
  std::string p;
  p.push_back('\x82');  // error correction data of 2 bytes follows
  p.append(2, '\0');
  p.push_back('\x10');  // one payload, padding length as WORD, fixed packet size
  p.push_back('\x5d');  // BYTE replicated length, DWORD offset, BYTE object, BYTE stream
  putLe16(p, 0);        // padding
  putLe32(p, sendMs);
  putLe16(p, static_cast<uint16_t>(nextMs - sendMs));
  p.push_back(static_cast<char>(0x80 | STREAM_NUMBER));  // key frame
  p.push_back(static_cast<char>(index & 0xff));          // media object number
  putLe32(p, 0);                                         // offset into the media object
  p.push_back(8);  // replicated data: object size, presentation time
  putLe32(p, payload);
  putLe32(p, sendMs);
  for (uint32_t i = 0; i < payload; ++i) {
    p.push_back(static_cast<char>((index * 7 + i) & 0xff));
  }
  return p;
}

}  // namespace

std::string generateAsf(uint64_t bytes, uint32_t packetSize) {
  packetSize = std::max(packetSize, PACKET_OVERHEAD + BLOCK_ALIGN);
  std::string children =
      fileProperties(0, 0, packetSize, 0) + streamProperties() + headerExtension();
  uint64_t headerSize = HEADER_OBJECT_FIXED_SIZE + children.size();
  uint64_t fixed = headerSize + DATA_OBJECT_HEADER_SIZE;
  uint64_t packets = bytes > fixed ? std::max<uint64_t>(1, (bytes - fixed) / packetSize) : 1;
  uint64_t payloadBytes = packets * (packetSize - PACKET_OVERHEAD);
  uint64_t duration100ns = payloadBytes * 10000000 / BYTE_RATE;
  uint64_t fileSize = fixed + packets * packetSize;
  children.replace(0, FILE_PROPERTIES_SIZE,
                   fileProperties(fileSize, packets, packetSize, duration100ns));

  std::string out;
  out.reserve(fileSize);
  putGuid(out, HEADER_OBJECT);
  putLe64(out, headerSize);
  putLe32(out, 3);  // child objects
  out.push_back('\x01');
  out.push_back('\x02');
  out += children;
  putGuid(out, DATA_OBJECT);
  putLe64(out, DATA_OBJECT_HEADER_SIZE + packets * packetSize);
  out.append(children, FP_FILE_ID, GUID_SIZE);
  putLe64(out, packets);
  out.push_back('\x01');
  out.push_back('\x01');
  for (uint64_t i = 0; i < packets; ++i) out += dataPacket(static_cast<uint32_t>(i), packetSize);
  return out;
}
