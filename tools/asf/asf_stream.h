#ifndef HALVARINE_TOOLS_ASF_ASF_STREAM_H
#define HALVARINE_TOOLS_ASF_ASF_STREAM_H

// An ASF stream as a client receives it: the stream header (the Header
// Object and the 50-byte start of the Data Object, as AsfFile::header
// holds it), then data packets of one fixed size. What a client needs to
// know of the header to resume the stream, and to cut and finish a
// recording of it.

#include <stdint.h>

#include <string>

// The stream header's whole length, read from its first
// HEADER_OBJECT_FIXED_SIZE bytes; 0 when they do not begin an ASF Header
// Object.
uint64_t asfStreamHeaderLength(const std::string& start);

struct AsfStreamHeader {
  uint32_t packetSize = 0;
  // A broadcast (a live stream): its length and packet counts mean nothing,
  // and its end is its end.
  bool broadcast = false;
};

// Reads the whole stream header. False, with `error`, when it is not a
// well-formed ASF header with packets of one size.
bool readAsfStreamHeader(const std::string& header, AsfStreamHeader& out, std::string& error);

// Rewrites a stream `header` to announce the recording made of it: `packets`
// whole data packets of the header's packet size, the first and the last of
// which are `first` and `last` (the same one when there is one; unused when
// there is none). Its length is the time from the first packet's send time
// to the end of the last one's (see declareRecording). A packet whose times
// do not parse counts for no time. False when the header cannot be
// rewritten.
bool finishRecordingHeader(std::string& header, uint64_t packets, const std::string& first,
                           const std::string& last);

#endif
