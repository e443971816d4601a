#include "mms/wrapper_mms.h"

#include <iostream>

#include "mms/protocol_ops.h"
#include "mms/read_batch.h"

boost::shared_ptr<WrapperMms> g_wrapperMms;

// The position is a 64-bit offset in libmms; its low 32 bits are kept.
const WrapperMms::ProtocolOps WrapperMms::PROTOCOL_OPS[] = {
    {STREAM_MMST, "MMST", false,
     [](WrapperMms& w, const std::string& target) {
       w.m_mms = mms_connect(w.m_io, nullptr, target.c_str(), 0);
       return w.m_mms != nullptr;
     },
     [](WrapperMms& w, char* buffer, int length) {
       return mms_read(w.m_io, w.m_mms, buffer, length);
     },
     [](const WrapperMms& w) { return static_cast<uint32_t>(mms_get_length(w.m_mms)); },
     [](const WrapperMms& w) { return static_cast<uint32_t>(mms_get_current_pos(w.m_mms)); },
     [](WrapperMms& w) {
       mms_close(w.m_mms);
       w.m_mms = nullptr;
     }},
    {STREAM_MMSH, "MMSH", true,
     [](WrapperMms& w, const std::string& target) {
       w.m_mmsh = mmsh_connect(w.m_io, nullptr, target.c_str(), 0);
       return w.m_mmsh != nullptr;
     },
     [](WrapperMms& w, char* buffer, int length) {
       return mmsh_read(w.m_io, w.m_mmsh, buffer, length);
     },
     [](const WrapperMms& w) { return static_cast<uint32_t>(mmsh_get_length(w.m_mmsh)); },
     [](const WrapperMms& w) { return static_cast<uint32_t>(mmsh_get_current_pos(w.m_mmsh)); },
     [](WrapperMms& w) {
       mmsh_close(w.m_mmsh);
       w.m_mmsh = nullptr;
     }},
};

const WrapperMms::ProtocolOps* WrapperMms::opsFor(StreamType type) {
  for (const ProtocolOps& ops : PROTOCOL_OPS) {
    if (ops.type == type) return &ops;
  }
  return nullptr;
}

WrapperMms::WrapperMms(const std::string& url)
    : m_url(url),
      m_io(nullptr),
      m_mms(nullptr),
      m_mmsh(nullptr),
      m_streamType(STREAM_NONE),
      m_connected(false) {}

WrapperMms::~WrapperMms() {
  close();
}

ResultCode WrapperMms::read(char* buffer, int length, int& count) {
  count = 0;
  if (buffer == nullptr) return MMS_NULL_BUFFER;
  if (!m_connected) return MMS_NOT_CONNECTED;
  const ProtocolOps* ops = opsFor(m_streamType);
  if (ops == nullptr) return MMS_BAD_READ_TYPE;
  int got;
  {
    // The CPU budget is the command's (armCommandCpuBudget).
    ReadBatch batch(length);
    got = ops->read(*this, buffer, length);
  }
  // Whatever the library returns that is not 0 is passed on as the count.
  count = got;
  return got == 0 ? MMS_NO_DATA : RESULT_OK;
}

ResultCode WrapperMms::getLength(uint32_t& length) {
  std::cerr << "[WrapperMms::getLength()] call! " << std::endl;
  if (!m_connected) return MMS_NOT_CONNECTED;
  const ProtocolOps* ops = opsFor(m_streamType);
  if (ops == nullptr) return MMS_BAD_STREAM_TYPE;
  length = ops->length(*this);
  std::cerr << "[WrapperMms::getLength()] get " << ops->name << " length : " << length << std::endl;
  return RESULT_OK;
}

ResultCode WrapperMms::getCurrentPos(uint32_t& position) {
  // This line has always lacked its opening bracket; log readers match it
  // as it is.
  std::cerr << "WrapperMms::getCurrentPos()] call! " << std::endl;
  if (!m_connected) return MMS_NOT_CONNECTED;
  const ProtocolOps* ops = opsFor(m_streamType);
  if (ops == nullptr) return MMS_BAD_STREAM_TYPE;
  position = ops->position(*this);
  std::cerr << "[WrapperMms::getCurrentPos()] get " << ops->name << " pos! offset=" << position
            << std::endl;
  return RESULT_OK;
}

ResultCode WrapperMms::close() {
  if (m_connected) {
    const ProtocolOps* ops = opsFor(m_streamType);
    if (ops == nullptr) return MMS_BAD_STREAM_TYPE;
    std::cerr << "[WrapperMms::close()] close " << ops->name << " stream! " << std::endl;
    ops->close(*this);
  }
  m_streamType = STREAM_NONE;
  m_connected = false;
  return RESULT_OK;
}
