// parsePacket on arbitrary bytes taken as one whole frame, and makePacket on
// what it parsed.
//
// Properties:
//  - the result is 0 or 5; a frame rejected for its size, start sequence or
//    end mark leaves the list as it was;
//  - otherwise element 0 is the 9 header bytes and every field lies inside
//    the body;
//  - on 0, the fields framed again by makePacket (each as text where text
//    can carry it, else counted) give a well-formed frame that extractPacket
//    cuts whole and parsePacket reads back to the same fields, with the echo
//    byte of the original header.

#include <stddef.h>
#include <stdint.h>

#include <string>

#include "channel/control_socket.h"
#include "channel/packet.h"
#include "fuzz/fuzz_check.h"

namespace {

// A text field ends at the first 0x0A, and an empty one or one that begins
// with 0x00 would be read as the end of the list or as a counted field.
bool travelsAsText(const std::string& field) {
  return !field.empty() && field[0] != '\0' && field.find('\n') == std::string::npos;
}

std::string asCounted(const std::string& data) {
  std::string field(COUNTED_PREFIX_LEN, '\0');
  putCountedPrefix(&field[0], static_cast<uint16_t>(data.size()));
  return field + data;
}

void checkRoundTrip(const ParamList& parsed) {
  ParamList request{parsed[0]};
  size_t bodyLen = 1;
  for (size_t i = 1; i < parsed.size(); ++i) {
    request.push_back(travelsAsText(parsed[i]) ? parsed[i] : asCounted(parsed[i]));
    bodyLen += request.back().size() + 1;
  }
  // makePacket needs a word: an empty one, which ends the list at once.
  if (parsed.size() < 2) request.push_back(std::string());
  if (parsed.size() < 2) bodyLen += 1;

  Packet frame;
  const ResultCode made = makePacket(request, frame);
  if (bodyLen > FRAME_MAX_BODY) {
    FUZZ_CHECK(made == MAKE_TOO_LONG);
    return;
  }
  FUZZ_CHECK(made == RESULT_OK);
  fuzzframe::checkReplyFrame(frame);
  FUZZ_CHECK(frame.size() == bodyLen + FRAME_OVERHEAD);
  FUZZ_CHECK(frame[7] == parsed[0][HEADER_ECHO]);

  std::string buffer = frame;
  Packet cut;
  FUZZ_CHECK(extractPacket(buffer, cut) == RESULT_OK);
  FUZZ_CHECK(cut == frame && buffer.empty());

  ParamList again, want = parsed;
  want[0] = frame.substr(FRAME_START_LEN, FRAME_HEADER_LEN);
  FUZZ_CHECK(parsePacket(frame, again) == RESULT_OK);
  FUZZ_CHECK(again == want);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzzframe::silenceDiagnostics();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const Packet frame(reinterpret_cast<const char*>(data), size);
  ParamList params(1, "untouched");
  const ResultCode rc = parsePacket(frame, params);
  FUZZ_CHECK(rc == RESULT_OK || rc == PARSE_MALFORMED);

  const bool judgedWhole =
      size >= FRAME_OVERHEAD && fuzzframe::startsFrame(frame) && data[size - 1] == FRAME_ETX;
  if (!judgedWhole) {
    FUZZ_CHECK(rc == PARSE_MALFORMED);
    FUZZ_CHECK(params.size() == 1 && params[0] == "untouched");
    return 0;
  }
  FUZZ_CHECK(!params.empty());
  FUZZ_CHECK(params[0] == frame.substr(FRAME_START_LEN, FRAME_HEADER_LEN));

  // Each field is at least its own bytes plus one 0x0A of the body.
  const size_t body = size - FRAME_OVERHEAD;
  size_t used = 0;
  for (size_t i = 1; i < params.size(); ++i) used += params[i].size() + 1;
  FUZZ_CHECK(used <= body);

  if (rc == RESULT_OK) checkRoundTrip(params);
  return 0;
}
