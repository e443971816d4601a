#ifndef HALVARINE_TOOLS_FETCH_RESUME_H
#define HALVARINE_TOOLS_FETCH_RESUME_H

// Going on with a stream on a new connection without splicing two streams
// into one file. The worker cannot seek, so a stream opened again is read
// from its start and what is already written is skipped; those bytes come
// anyway, so they are checked on the way: only when they are the bytes the
// output holds is the rest appended. A live stream (or one that changed)
// starts elsewhere on a new connection and fails the check before anything
// of it reaches the output.
//
// The same check lets --continue take up an earlier fetch's FILE.partial.

#include <halvarine/stream_fetch.h>
#include <stdint.h>

#include <string>
#include <vector>

namespace fetch {

// A 64-bit FNV-1a digest of a byte sequence and its length, fed in pieces.
class Digest {
 public:
  void add(const char* p, size_t n);
  void add(const std::string& bytes) { add(bytes.data(), bytes.size()); }
  uint64_t bytes() const { return bytes_; }
  bool operator==(const Digest& other) const {
    return hash_ == other.hash_ && bytes_ == other.bytes_;
  }
  bool operator!=(const Digest& other) const { return !(*this == other); }

 private:
  uint64_t hash_ = 14695981039346656037ull;
  uint64_t bytes_ = 0;
};

// Keeps digests of the data bytes written after the header, one for each
// block of BLOCK bytes, and checks a new connection's first bytes against
// them: a difference ends the pass at the end of the block that holds it,
// long before the rest of what is written has been read again.
class ResumeCheck : public halvarine::StreamWitness {
 public:
  static const uint64_t BLOCK = 64 * 1024;

  // A new connection begins; its first `skip` bytes must be the ones written.
  void startPass(uint64_t skip);
  // Bytes written outside a pass (an earlier fetch's, the stream's last
  // incomplete packet).
  void written(const std::string& bytes) { add(written_, bytes); }
  uint64_t writtenBytes() const { return written_.bytes; }
  // The last pass's bytes read again were not those written: the first
  // difference lies in the block from differsFrom().
  bool differs() const { return differs_; }
  uint64_t differsFrom() const { return differsFrom_; }
  // The last pass read again all it was to skip, and they matched.
  bool confirmed() const { return confirmed_; }

  bool skipped(const std::string& bytes) override;
  void kept(const std::string& bytes) override { add(written_, bytes); }

 private:
  struct Blocks {
    std::vector<Digest> done;  // each of BLOCK bytes
    Digest open;               // the block being filled
    uint64_t bytes = 0;
  };
  static void add(Blocks& to, const std::string& bytes);

  Blocks written_;
  Blocks reread_;
  uint64_t skip_ = 0;
  bool differs_ = false;
  uint64_t differsFrom_ = 0;
  bool confirmed_ = false;
};

// Whether a file's stream header and a stream's are the same stream's,
// apart from what finishing a recording rewrites (sizes, packet counts,
// durations, the broadcast flag).
bool sameStreamHeader(const std::string& a, const std::string& b);

// An earlier fetch's file, as far as it can be continued.
struct EarlierFetch {
  std::string header;  // its stream header
  uint32_t packetSize = 0;
  uint64_t dataBytes = 0;  // whole data packets after the header
  uint64_t fileBytes = 0;  // the file's size (past header + dataBytes: a packet's start)
};

// Reads the file at `path`: its header, and the digest of its whole data
// packets into `check`. False with `error` when it holds no ASF stream
// header.
bool readEarlierFetch(const std::string& path, EarlierFetch& out, ResumeCheck& check,
                      std::string& error);

}  // namespace fetch

#endif
