#ifndef HALVARINE_TOOLS_MMSSERVER_MMST_REPORTS_H
#define HALVARINE_TOOLS_MMSSERVER_MMST_REPORTS_H

// The bodies of the test server's MMS-over-TCP reports, as the session
// sends them in command messages (mmst_wire.h frames them). Pure: the
// session decides when each goes out.

#include <stdint.h>

#include <string>

namespace mmst {

// The play incarnation of reports outside a play run; neither client reads
// it.
constexpr uint32_t PLAY_INCARNATION_IDLE = 0xF0F0F0EF;

// Every report starts with a result (0: success) and a play incarnation.
std::string reportPrefix(uint32_t playIncarnation);

// The answer to connect: the server's revision and version.
std::string connectedReport();
// The answer to funnel info: one cub, one disk.
std::string funnelInfoReport();
// The answer to protocol select: the funnel's name.
std::string connectedFunnelReport();

// What the open-file report says about the file, as the header announces it.
struct OpenFile {
  bool live = false;  // a broadcast, else a file that can seek
  double seconds = 0;
  uint64_t packets = 0;
  uint32_t packetBytes = 0;
  uint32_t bitRate = 0;  // bits a second
  uint32_t headerBytes = 0;
};
std::string openFileReport(const OpenFile& file);
// The open-file report of a server that has no such file.
std::string noSuchFileReport();

// The answer to start playing, for the run marked `incarnation`.
std::string startedPlayingReport(uint32_t incarnation);

}  // namespace mmst

#endif
