#ifndef HALVARINE_TOOLS_LIBMMS_FETCH_LIBMMS_STREAM_H
#define HALVARINE_TOOLS_LIBMMS_FETCH_LIBMMS_STREAM_H

// A stream opened the way a plain libmms client opens it, with the library's
// own I/O: the reference that libmms-fetch and the tests compare the worker
// with. mms:// and mmst:// open MMS over TCP, mmsh:// and http:// MMS over
// HTTP (libmms knows HTTP only by the mmsh:// name).

#include <libmms/mms.h>
#include <libmms/mmsh.h>
#include <stdint.h>

#include <string>

namespace libmmsfetch {

class LibmmsStream {
 public:
  LibmmsStream() = default;
  ~LibmmsStream();
  LibmmsStream(const LibmmsStream&) = delete;
  LibmmsStream& operator=(const LibmmsStream&) = delete;

  // False when `url` is not an MMS URL or libmms cannot open it.
  bool open(const std::string& url, int bandwidth);
  // Up to `len` bytes into `buf`; 0 at the end (or when the library gives up).
  int read(char* buf, int len);
  // What libmms reports about the stream, as it reports it.
  uint32_t length() const;
  uint32_t headerLength() const;
  uint64_t packetLength() const;

  // The whole of `url`; false when it cannot open.
  static bool readAll(const std::string& url, int bandwidth, std::string& out);

 private:
  mms_t* mms_ = nullptr;
  mmsh_t* mmsh_ = nullptr;
};

}  // namespace libmmsfetch

#endif
