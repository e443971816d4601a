// The bodies of the MMS-over-TCP reports.

#include "tools/mmsserver/mmst_reports.h"

#include <string.h>

#include "tools/asf/asf_file.h"

namespace mmst {

namespace {

constexpr uint32_t OPEN_FILE_ID = 1;
// The result a server reports for a file it does not have.
constexpr uint32_t RESULT_NO_SUCH_FILE = 0x80070002;
// A stored file can seek and stride; a live one is a broadcast, which is
// what libmms looks for in these attributes.
constexpr uint32_t FILE_CAN_SEEK_CAN_STRIDE = 0x01800000;
constexpr uint32_t FILE_BROADCAST = 0x02000000;

const char SERVER_VERSION[] = "9.0.0.0";
const char FUNNEL_NAME[] = "Funnel Of The Gods";

// Strings in reports are UTF-16LE with a terminating zero; ours are ASCII.
void putUtf16(std::string& out, const char* ascii) {
  for (const char* p = ascii; *p; ++p) putLe16(out, static_cast<uint8_t>(*p));
  putLe16(out, 0);
}

uint32_t utf16Units(const char* ascii) {
  return static_cast<uint32_t>(strlen(ascii) + 1);
}

void putDouble(std::string& out, double v) {
  uint64_t bits = 0;
  static_assert(sizeof bits == sizeof v, "IEEE double expected");
  memcpy(&bits, &v, sizeof bits);
  putLe64(out, bits);
}

}  // namespace

std::string reportPrefix(uint32_t playIncarnation) {
  std::string body;
  putLe32(body, 0);
  putLe32(body, playIncarnation);
  return body;
}

std::string connectedReport() {
  std::string body = reportPrefix(PLAY_INCARNATION_IDLE);
  putLe32(body, 0x0004000B);  // our protocol revision
  putLe32(body, 0x0003001C);  // the client revision we speak
  putDouble(body, 1.0);       // block group play time
  putLe32(body, 1);           // blocks per group
  putLe32(body, 1);           // open files at once
  putLe32(body, 0x8000);      // largest block
  putLe32(body, 0x00989680);  // largest bit rate
  putLe32(body, utf16Units(SERVER_VERSION));
  putLe32(body, 0);  // no version info
  putLe32(body, 0);  // no version URL
  putLe32(body, 0);  // no authentication package
  putUtf16(body, SERVER_VERSION);
  return body;
}

std::string funnelInfoReport() {
  std::string body = reportPrefix(PLAY_INCARNATION_IDLE);
  putLe32(body, 0);  // transport mask
  putLe32(body, 1);  // block fragments
  putLe32(body, 0);  // fragment bytes
  putLe32(body, 1);  // cubs
  putLe32(body, 0);  // failed cubs
  putLe32(body, 1);  // disks
  putLe32(body, 0);  // decluster
  putLe32(body, 0);  // datagram size
  return body;
}

std::string connectedFunnelReport() {
  std::string body = reportPrefix(PLAY_INCARNATION_IDLE);
  putLe32(body, 0x00040000);  // packet payload size
  putUtf16(body, FUNNEL_NAME);
  return body;
}

std::string openFileReport(const OpenFile& file) {
  std::string body = reportPrefix(PLAY_INCARNATION_IDLE);
  putLe32(body, OPEN_FILE_ID);
  putLe32(body, 0);  // padding
  putLe32(body, 0);  // file name (unused)
  putLe32(body, file.live ? FILE_BROADCAST : FILE_CAN_SEEK_CAN_STRIDE);
  putDouble(body, file.seconds);
  putLe32(body, static_cast<uint32_t>(file.packets));  // blocks
  body.append(16, '\0');
  putLe32(body, file.packetBytes);
  putLe64(body, file.packets);
  putLe32(body, file.bitRate);
  putLe32(body, file.headerBytes);
  body.append(36, '\0');
  return body;
}

std::string noSuchFileReport() {
  std::string body;
  putLe32(body, RESULT_NO_SUCH_FILE);
  putLe32(body, PLAY_INCARNATION_IDLE);
  body.append(88, '\0');
  return body;
}

std::string startedPlayingReport(uint32_t incarnation) {
  std::string body = reportPrefix(incarnation);
  putLe32(body, OPEN_FILE_ID);
  body.append(16, '\0');
  return body;
}

}  // namespace mmst
