// Unix-domain stream sockets (unix(7)), the siblings of the exported TCP functions and under the
// same rules.
#pragma once

#include <string>

#include "Utility/ZPISocket.h"

/// Listens on a path, with a backlog of 5; returns the socket or -1. A socket file that nobody
/// listens on any more is removed first; one with a live listener, and a file of any other kind, is
/// left alone. A failure is one line on standard output, which says "busy" for EADDRINUSE and
/// "restricted" otherwise. A path longer than the platform's sun_path is cut; an empty one names
/// nothing and fails with ENOENT. Nothing in the library calls it.
int passive_unix(const std::string& path);

/// Connects to a path, cut likewise; returns the socket, or -1 with nothing printed. Whether a
/// program that is started inherits it, and what becomes of SIGPIPE, depends on `owner`.
int active_unix(const std::string& path, ZPISocketOwner owner = ZPISocketOwner::kUser);
