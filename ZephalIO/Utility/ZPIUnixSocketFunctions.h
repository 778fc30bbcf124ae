// Unix-domain stream sockets (unix(7)): the counterparts of the exported TCP functions, with the
// same rules.
#pragma once

#include <string>

#include "Utility/ZPISocket.h"

/// Listens on a path, with a backlog of 5; returns the socket, which the caller owns, or -1. If the
/// path is a socket file without a live listener, it is removed first; one that has a listener, or
/// any other kind of file, is left alone. A failure prints one line on standard output, which says
/// "busy" for EADDRINUSE and "restricted" otherwise. A path longer than the platform's sun_path is
/// truncated; an empty one fails with ENOENT. Nothing in the library calls it.
int passive_unix(const std::string& path);

/// Connects to a path, truncated likewise; returns the socket, which the caller owns, or -1 with
/// errno, and prints nothing. `owner` decides whether programs that are started inherit the socket,
/// and how SIGPIPE is avoided.
int active_unix(const std::string& path, ZPISocketOwner owner = ZPISocketOwner::kUser);
