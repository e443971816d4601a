#include "channel/packet.h"

#include <string.h>
#ifdef __SSE2__
#include <immintrin.h>
#endif

#include <algorithm>
#include <iostream>
#include <string_view>

namespace {

const char START_SEQUENCE[FRAME_START_LEN] = {
    static_cast<char>(FRAME_SYN), static_cast<char>(FRAME_SYN), static_cast<char>(FRAME_STX)};

}  // namespace

// Every byte of every READ reply passes through the checksum, so it is the
// worker's hottest loop. The sum only needs 16 bits, which lets many bytes
// be added per step.

namespace {

uint32_t byteSumByWords(const unsigned char* p, size_t len) {
  typedef uintptr_t Word;
  // 0x00FF00FF...: the low byte of each 16-bit lane.
  const Word LOW_BYTES = ~Word(0) / 0xFFFF * 0xFF;
  // Each word adds at most 2 x 255 to a lane, so 128 words fit in a lane
  // before it could carry into the next.
  const size_t WORDS_PER_FOLD = 128;
  uint32_t sum = 0;
  size_t i = 0;
  for (; i < len && reinterpret_cast<uintptr_t>(p + i) % sizeof(Word) != 0; ++i) sum += p[i];
  while (len - i >= sizeof(Word)) {
    const size_t words = std::min((len - i) / sizeof(Word), WORDS_PER_FOLD);
    Word lanes = 0;
    for (size_t k = 0; k < words; ++k, i += sizeof(Word)) {
      Word w;
      memcpy(&w, p + i, sizeof w);
      lanes += (w & LOW_BYTES) + ((w >> 8) & LOW_BYTES);
    }
    for (unsigned shift = 0; shift < sizeof(Word) * 8; shift += 16)
      sum += (lanes >> shift) & 0xFFFF;
  }
  for (; i < len; ++i) sum += p[i];
  return sum;
}

#ifdef __SSE2__
// Every x86-64 processor has SSE2, whose psadbw adds 16 bytes into two
// 64-bit lanes in one instruction: with its load and the 64-bit add after
// it, under 0.25 instructions per byte, where a byte at a time takes 2.
// Processors with AVX2 (most since 2013) do 32 bytes per instruction, and
// take unaligned memory operands, for about 0.07 per byte.
uint32_t byteSumSse2(const unsigned char* p, size_t len) {
  uint32_t sum = 0;
  size_t i = 0;
  for (; i < len && reinterpret_cast<uintptr_t>(p + i) % 16 != 0; ++i) sum += p[i];
  const __m128i zero = _mm_setzero_si128();
  __m128i acc = zero;
  const __m128i* v = reinterpret_cast<const __m128i*>(p + i);
  const __m128i* const end = v + (len - i) / 128 * 8;
  for (; v != end; v += 8) {
    const __m128i a = _mm_add_epi64(_mm_sad_epu8(v[0], zero), _mm_sad_epu8(v[1], zero));
    const __m128i b = _mm_add_epi64(_mm_sad_epu8(v[2], zero), _mm_sad_epu8(v[3], zero));
    const __m128i c = _mm_add_epi64(_mm_sad_epu8(v[4], zero), _mm_sad_epu8(v[5], zero));
    const __m128i d = _mm_add_epi64(_mm_sad_epu8(v[6], zero), _mm_sad_epu8(v[7], zero));
    acc = _mm_add_epi64(acc, _mm_add_epi64(_mm_add_epi64(a, b), _mm_add_epi64(c, d)));
  }
  i = static_cast<size_t>(reinterpret_cast<const unsigned char*>(end) - p);
  uint64_t lanes[2];
  _mm_storeu_si128(reinterpret_cast<__m128i*>(lanes), acc);
  sum += static_cast<uint32_t>(lanes[0] + lanes[1]);
  return sum + byteSumByWords(p + i, len - i);
}

__attribute__((target("avx2"))) uint32_t byteSumAvx2(const unsigned char* p, size_t len) {
  const __m256i zero = _mm256_setzero_si256();
  __m256i acc = zero;
  size_t i = 0;
  for (; len - i >= 128; i += 128) {
    const __m256i* v = reinterpret_cast<const __m256i*>(p + i);
    const __m256i a = _mm256_add_epi64(_mm256_sad_epu8(_mm256_loadu_si256(v), zero),
                                       _mm256_sad_epu8(_mm256_loadu_si256(v + 1), zero));
    const __m256i b = _mm256_add_epi64(_mm256_sad_epu8(_mm256_loadu_si256(v + 2), zero),
                                       _mm256_sad_epu8(_mm256_loadu_si256(v + 3), zero));
    acc = _mm256_add_epi64(acc, _mm256_add_epi64(a, b));
  }
  uint64_t lanes[4];
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(lanes), acc);
  const uint32_t sum = static_cast<uint32_t>(lanes[0] + lanes[1] + lanes[2] + lanes[3]);
  return sum + byteSumByWords(p + i, len - i);
}

bool hasAvx2() {
  static const bool avx2 = __builtin_cpu_supports("avx2");
  return avx2;
}

uint32_t byteSum(const unsigned char* p, size_t len) {
  return hasAvx2() ? byteSumAvx2(p, len) : byteSumSse2(p, len);
}
#else
uint32_t byteSum(const unsigned char* p, size_t len) {
  return byteSumByWords(p, len);
}
#endif

}  // namespace

std::vector<ByteSum> byteSumVariants() {
  std::vector<ByteSum> all{byteSumByWords};
#ifdef __SSE2__
  all.push_back(byteSumSse2);
  if (hasAvx2()) all.push_back(byteSumAvx2);
#endif
  return all;
}

uint16_t bodyChecksum(const char* body, size_t len) {
  const uint32_t sum = byteSum(reinterpret_cast<const unsigned char*>(body), len);
  return static_cast<uint16_t>(~sum);
}

void putCountedPrefix(char* at, uint16_t length) {
  unsigned char* p = reinterpret_cast<unsigned char*>(at);
  p[0] = COUNTED_FIELD_MARK;
  putBe16(p + 1, length);
  p[3] = 0x00;
}

bool buildFrame(const unsigned char header[FRAME_HEADER_LEN], const ParamList& fields,
                Packet& out) {
  size_t bodyLen = 1;
  for (size_t i = 1; i < fields.size(); ++i) bodyLen += fields[i].size() + 1;
  if (bodyLen > FRAME_MAX_BODY) return false;

  out.clear();
  out.reserve(bodyLen + FRAME_OVERHEAD);
  out.append(START_SEQUENCE, FRAME_START_LEN);
  out.append(reinterpret_cast<const char*>(header), FRAME_HEADER_LEN);
  for (size_t i = 1; i < fields.size(); ++i) {
    out.append(fields[i]);
    out.push_back(static_cast<char>(FIELD_END));
  }
  out.push_back(static_cast<char>(FIELD_END));
  out.push_back(static_cast<char>(FRAME_ETX));

  unsigned char* h = reinterpret_cast<unsigned char*>(&out[FRAME_START_LEN]);
  putBe16(h + HEADER_CHECKSUM, bodyChecksum(out.data() + FRAME_BODY_OFFSET, bodyLen));
  putBe16(h + HEADER_LENGTH, static_cast<uint16_t>(bodyLen));
  return true;
}

ResultCode makePacket(const ParamList& params, Packet& out) {
  if (params.size() < 2) {
    std::cerr << "[makePacket()] parameter list is empty!" << std::endl;
    return MAKE_EMPTY_LIST;
  }
  unsigned char header[FRAME_HEADER_LEN] = {0};
  header[HEADER_KIND] = REPLY_KIND;
  // Element 0 is a request header; a shorter one has no echo byte to give.
  header[HEADER_ECHO] =
      params[0].size() > HEADER_ECHO ? static_cast<unsigned char>(params[0][HEADER_ECHO]) : 0;
  if (!buildFrame(header, params, out)) {
    std::cerr << "[makePacket()] reply too long!" << std::endl;
    return MAKE_TOO_LONG;
  }
  return RESULT_OK;
}

ResultCode parsePacket(const Packet& frame, ParamList& params) {
  if (frame.size() < FRAME_OVERHEAD) {
    std::cerr << "[parsePacket()] packet is empty!" << std::endl;
    return PARSE_MALFORMED;
  }
  const unsigned char* f = reinterpret_cast<const unsigned char*>(frame.data());
  if (memcmp(f, START_SEQUENCE, FRAME_START_LEN) != 0) {
    std::cerr << "[parsePacket()] no [SYN][SYN][STX] !" << std::endl;
    return PARSE_MALFORMED;
  }
  if (f[frame.size() - 1] != FRAME_ETX) {
    std::cerr << "[parsePacket()] no [ETX]!" << std::endl;
    return PARSE_MALFORMED;
  }

  params.clear();
  params.emplace_back(frame, FRAME_START_LEN, FRAME_HEADER_LEN);

  // The length field was already used to cut the frame; the body is what
  // lies between the header and the end mark.
  size_t pos = FRAME_BODY_OFFSET;
  const size_t end = frame.size() - 1;
  while (pos < end) {
    if (f[pos] == COUNTED_FIELD_MARK) {
      if (end - pos < COUNTED_PREFIX_LEN) return PARSE_MALFORMED;
      const size_t len = getBe16(f + pos + 1);
      const size_t data = pos + COUNTED_PREFIX_LEN;
      if (end - data < len + 1 || f[data + len] != FIELD_END) return PARSE_MALFORMED;
      params.emplace_back(frame, data, len);
      pos = data + len + 1;
      continue;
    }
    const size_t nl = frame.find(static_cast<char>(FIELD_END), pos);
    if (nl == std::string::npos || nl >= end) return PARSE_MALFORMED;
    if (nl == pos) return RESULT_OK;  // an empty field ends the list
    params.emplace_back(frame, pos, nl - pos);
    pos = nl + 1;
  }
  return RESULT_OK;
}

FrameSearch findFrame(const char* bytes, size_t size, size_t& start, size_t& length) {
  start = std::string_view(bytes, size).find(std::string_view(START_SEQUENCE, FRAME_START_LEN));
  if (start == std::string_view::npos) return FRAME_NO_START;
  if (size - start < FRAME_LENGTH_OFFSET + 2) return FRAME_INCOMPLETE;
  length = getBe16(reinterpret_cast<const unsigned char*>(bytes) + start + FRAME_LENGTH_OFFSET) +
           FRAME_OVERHEAD;
  return size - start < length ? FRAME_INCOMPLETE : FRAME_FOUND;
}

ResultCode extractPacket(std::string& buffer, Packet& out) {
  size_t start = 0, length = 0;
  const FrameSearch search = findFrame(buffer.data(), buffer.size(), start, length);
  if (search == FRAME_NO_START) {
    // Nothing before a start sequence can ever be part of a frame, so once
    // the garbage grows past the limit it is dropped, all but the bytes that
    // may be the first part of a start sequence split across reads.
    if (buffer.size() > RECV_GARBAGE_LIMIT) buffer.erase(0, buffer.size() - (FRAME_START_LEN - 1));
    return EXTRACT_NO_FRAME;
  }
  buffer.erase(0, start);
  if (search == FRAME_INCOMPLETE) return EXTRACT_NO_FRAME;
  out.assign(buffer, 0, length);
  buffer.erase(0, length);
  return RESULT_OK;
}
