// Winsock for the layer's own use, shared by the win32 files.
#ifndef RTOS_WINSOCK_H
#define RTOS_WINSOCK_H

namespace rtos {

// Starts Winsock once for the layer's own calls (sockets, lookups), apart from
// the counted SocketStartup of the library: a socket call made before the
// framework starts, or after it ended, must not fail with WSANOTINITIALISED.
// Never undone; Winsock ends with the process.
bool EnsureWinsock();

}  // namespace rtos

#endif  // RTOS_WINSOCK_H
