#ifndef HALVARINE_BASE_WORKER_LOG_H
#define HALVARINE_BASE_WORKER_LOG_H

// Texts of the worker's diagnostic lines that a controller reads back
// (controller/diagnosis.cc) to say why a CONNECT failed. They are named here
// once, for the worker's opening sequence and socket callbacks that write
// them and for the diagnosis that matches them; changing one changes what
// every controller that reads the lines sees.

// The opening sequence: one line per attempt, and one when the URL names a
// proxy (the proxy follows on the same line).
constexpr char LOG_SET_PROXY[] = "[WrapperMms::connect()] set proxy! : ";
constexpr char LOG_OPEN_MMST[] = "[WrapperMms::connect()] open MMST stream!";
constexpr char LOG_OPEN_MMSH[] = "[WrapperMms::connect()] open MMSH stream!";

// The connect callback: its prefix alone when the connection is made, and
// with what follows when the name or the socket failed.
constexpr char LOG_TCP_CONNECT[] = "[WrapperMms::io_tcp_connect]";
constexpr char LOG_UNRESOLVED_HOST[] = "[WrapperMms::io_tcp_connect] unable to resolve host: ";
constexpr char LOG_NO_SOCKET[] = "[WrapperMms::io_tcp_connect] failed to create socket: ";
// A connect that failed at once: this line, then the errno on the next.
constexpr char LOG_CONNECT_ERR[] = "ERR - connect";
constexpr char LOG_CONNECT_ERRNO[] = " errno = ";
// A connect that failed while it was waited for, with its errno.
constexpr char LOG_CONNECT_ERR_LATER[] = "ERR - connect with select : ";
constexpr char LOG_CONNECT_TIMEOUT[] = "ERR - timeout";

// The read callback's wait that ran out.
constexpr char LOG_READ_NAME[] = "[WrapperMms::io_read()] ";
constexpr char LOG_SELECT_TIMEOUT[] = "select timeout!";

#endif
