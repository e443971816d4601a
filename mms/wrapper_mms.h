#ifndef HALVARINE_MMS_WRAPPER_MMS_H
#define HALVARINE_MMS_WRAPPER_MMS_H

// The worker's one handle on an MMS stream, over TCP (MMST) or HTTP (MMSH),
// opened through libmms with the worker's own socket callbacks.

#include <libmms/mms.h>
#include <libmms/mmsh.h>
#include <stdint.h>

#include <boost/shared_ptr.hpp>
#include <string>

#include "base/result_code.h"
#include "mms/stream_type.h"

// Result codes of the stream operations.
static const ResultCode MMS_NULL_BUFFER = 1;           // read: buffer is null
static const ResultCode MMS_OPEN_FAILED = 2;           // connect: no protocol opened it
static const ResultCode MMS_BAD_READ_TYPE = 3;         // read: connected, unknown stream type
static const ResultCode MMS_NO_DATA = 4;               // read: the library delivered no bytes
static const ResultCode MMS_NOT_CONNECTED = 5;         // read, getLength, getCurrentPos
static const ResultCode MMS_BAD_STREAM_TYPE = 0xFFFF;  // getLength, getCurrentPos, close

// Invariant: while m_connected is true, m_streamType names the protocol and
// its handle is set; while it is false, m_streamType is STREAM_NONE.
class WrapperMms {
 public:
  explicit WrapperMms(const std::string& url);
  virtual ~WrapperMms();  // closes an open stream

  // Opens the stream named by the URL given at construction, closing an
  // open one first. 0 open; 2 no protocol could open it.
  ResultCode connect();

  // One library read of up to `length` bytes into `buffer`; `count` gets the
  // bytes delivered (0 on every failure). 0 bytes delivered; 1 null buffer;
  // 5 not connected; 3 unknown stream type; 4 the library gave no bytes.
  ResultCode read(char* buffer, int length, int& count);

  // Stream length and read position as the library reports them (low 32
  // bits). 0 delivered; 5 not connected; 0xFFFF unknown stream type.
  ResultCode getLength(uint32_t& length);
  ResultCode getCurrentPos(uint32_t& position);

  // Closes the stream, if open. 0 closed (or was not open); 0xFFFF unknown
  // stream type, nothing changed.
  ResultCode close();

  bool isConnected() const { return m_connected; }

  // The socket callbacks libmms calls for every connect, write and read of
  // the stream; installed in the library's I/O table by connect().
  static int io_tcp_connect(void* data, const char* host, int port);
  static mms_off_t io_read(void* data, int socket, char* buf, mms_off_t num);
  static mms_off_t io_write(void* data, int socket, char* buf, mms_off_t num);

 private:
  WrapperMms(const WrapperMms&);
  WrapperMms& operator=(const WrapperMms&);

  // The library's calls for one protocol: every operation goes through the
  // entry of its stream type, so none branches on the type itself.
  struct ProtocolOps;
  static const ProtocolOps PROTOCOL_OPS[];
  // The entry for `type`; null for an unknown type.
  static const ProtocolOps* opsFor(StreamType type);

  std::string m_url;
  mms_io_t* m_io;
  mms_t* m_mms;
  mmsh_t* m_mmsh;
  StreamType m_streamType;
  bool m_connected;
};

// The current stream; empty until the first CONNECT.
extern boost::shared_ptr<WrapperMms> g_wrapperMms;

#endif
