#ifndef HALVARINE_TOOLS_ASF_ASF_FILE_H
#define HALVARINE_TOOLS_ASF_ASF_FILE_H

// An ASF file cut the way both MMS transports serve it: the header (the
// Header Object plus the 50-byte start of the Data Object) and the data
// packets of fixed size that follow.

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

struct AsfFile {
  std::string header;                // Header Object + 50-byte Data Object header
  uint32_t packetSize = 0;           // from the File Properties Object
  std::vector<std::string> packets;  // each exactly packetSize bytes
  uint64_t fileSize = 0;             // from the File Properties Object
  std::string fileId;                // 16 bytes, from the File Properties Object
  uint64_t playDuration100ns = 0;
  uint64_t sendDuration100ns = 0;  // from the File Properties Object
  bool broadcast = false;          // its Broadcast flag: a live stream
};

// Loads and cuts an ASF file. Returns false and sets `error` on a file that
// cannot be read or is not a well-formed ASF file.
bool loadAsfFile(const std::string& path, AsfFile& out, std::string& error);

// Same, from bytes already in memory.
bool parseAsf(const std::string& bytes, AsfFile& out, std::string& error);

// A generated well-formed ASF stream of about `bytes` bytes (one audio stream,
// packets of `packetSize` bytes with a deterministic payload), for throughput
// work where the committed sample is too small.
std::string generateAsf(uint64_t bytes, uint32_t packetSize = 8192);

// The header followed by every packet: the bytes a client of either
// transport hands its caller for `file`.
std::string asfStreamBytes(const AsfFile& file);

// Rewrites the minimum and maximum packet size of the File Properties Object
// inside `header` (as kept in AsfFile::header). False when the header has no
// File Properties Object.
bool patchPacketSize(std::string& header, uint32_t packetSize);

// Rewrites what `header` announces about the data that follows: `packets`
// data packets of `packetSize` bytes (the File Properties Object's file size
// and packet count, the Data Object's size and packet count). False when the
// header has no File Properties Object or no Data Object start.
bool declarePackets(std::string& header, uint64_t packets, uint32_t packetSize);

// Rewrites `header` to describe a recording of `packets` whole data packets
// of `packetSize` bytes whose send times cover `spanMs` milliseconds (from
// the first packet's send time to the end of the last one's duration): the
// sizes and packet counts as declarePackets does, the send duration as the
// span and the play duration as the span plus the preroll, the broadcast
// flag cleared and the seekable one set, so that players read it as an
// ordinary file of that length. False as for declarePackets.
bool declareRecording(std::string& header, uint64_t packets, uint32_t packetSize, uint64_t spanMs);

// Marks `header` as a broadcast, the way live servers announce one: the
// broadcast flag set and seekable cleared, the fields a broadcast cannot
// know (file size, packet counts, play and send duration) zero, and the Data
// Object as long as its own head (50 bytes), which libmms 0.6.4 reads as a
// count of 50 packets. False as for declarePackets.
bool markBroadcast(std::string& header);

// ---- The objects an ASF header is made of

// Object GUIDs as they sit on the wire: the first three groups little-endian.
struct Guid {
  unsigned char bytes[16];
};
Guid guid(uint32_t d1, uint16_t d2, uint16_t d3, uint64_t d4);
extern const Guid HEADER_OBJECT, DATA_OBJECT, FILE_PROPERTIES, STREAM_PROPERTIES, HEADER_EXTENSION,
    EXTENSION_RESERVED, AUDIO_MEDIA, NO_ERROR_CORRECTION, STREAM_BITRATE_PROPERTIES, PADDING;
bool guidAt(const std::string& s, size_t at, const Guid& g);
void putGuid(std::string& out, const Guid& g);

constexpr size_t GUID_SIZE = 16;
constexpr size_t OBJECT_HEAD_SIZE = 24;          // GUID + 64-bit object size
constexpr size_t HEADER_OBJECT_FIXED_SIZE = 30;  // + object count, two reserved bytes

// Little-endian wire fields, as ASF and both MMS framings use them. The
// readers take an offset that the caller has checked against the size.
void putLe16(std::string& out, uint16_t v);
void putLe32(std::string& out, uint32_t v);
void putLe64(std::string& out, uint64_t v);
uint16_t getLe16(const std::string& in, size_t at);
uint32_t getLe32(const std::string& in, size_t at);
uint64_t getLe64(const std::string& in, size_t at);

#endif
