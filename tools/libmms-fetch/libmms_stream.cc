#include "tools/libmms-fetch/libmms_stream.h"

#include "base/text.h"

namespace libmmsfetch {

LibmmsStream::~LibmmsStream() {
  if (mms_ != nullptr) mms_close(mms_);
  if (mmsh_ != nullptr) mmsh_close(mmsh_);
}

bool LibmmsStream::open(const std::string& url, int bandwidth) {
  if (startsWith(url, "mms://") || startsWith(url, "mmst://")) {
    mms_ = mms_connect(nullptr, nullptr, url.c_str(), bandwidth);
    return mms_ != nullptr;
  }
  if (startsWith(url, "http://")) return open("mmsh://" + url.substr(7), bandwidth);
  if (startsWith(url, "mmsh://")) mmsh_ = mmsh_connect(nullptr, nullptr, url.c_str(), bandwidth);
  return mmsh_ != nullptr;
}

int LibmmsStream::read(char* buf, int len) {
  return mms_ != nullptr ? mms_read(nullptr, mms_, buf, len) : mmsh_read(nullptr, mmsh_, buf, len);
}

uint32_t LibmmsStream::length() const {
  return mms_ != nullptr ? mms_get_length(mms_) : mmsh_get_length(mmsh_);
}

uint32_t LibmmsStream::headerLength() const {
  return mms_ != nullptr ? mms_get_asf_header_len(mms_) : mmsh_get_asf_header_len(mmsh_);
}

uint64_t LibmmsStream::packetLength() const {
  return mms_ != nullptr ? mms_get_asf_packet_len(mms_) : mmsh_get_asf_packet_len(mmsh_);
}

bool LibmmsStream::readAll(const std::string& url, int bandwidth, std::string& out) {
  LibmmsStream stream;
  if (!stream.open(url, bandwidth)) return false;
  char buf[32768];
  out.clear();
  for (int got; (got = stream.read(buf, sizeof buf)) > 0;)
    out.append(buf, static_cast<size_t>(got));
  return true;
}

}  // namespace libmmsfetch
