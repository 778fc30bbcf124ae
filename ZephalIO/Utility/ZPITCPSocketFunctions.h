// The work of the exported TCP functions, for the library's own use too. The rules of
// ZPKSocketFunctions.h hold, except for the differences that ZPISocketOwner describes.
#pragma once

#include "Utility/ZPISocket.h"

/// See passive_tcp.
int ZPIPassiveTCP(int port, bool reuse, ZPISocketOwner owner);

/// See active_tcp_ex.
int ZPIActiveTCP(const char* host, int port, int* out_fd, ZPISocketOwner owner);
