// What the socket functions, the channels and the server need to create, connect and accept a
// socket.
#pragma once

#include <sys/socket.h>

/// The owner that a socket is created for.
enum class ZPISocketOwner {
  /// The library's user, through an exported function. Programs that are started inherit the
  /// socket, and no write to a peer that has gone away raises SIGPIPE (see no_sigpipe).
  kUser,
  /// A channel or a server. Programs that are started do not inherit the socket. Its owner writes
  /// without the signal, so the process's action for SIGPIPE, which programs that are started
  /// inherit, is left alone.
  kLibrary,
};

/// The number of connections that may wait at a listener of the library; the headers of the
/// functions that create one promise this number.
inline constexpr int kZPIBacklog = 5;

/// Creates a stream socket (socket(2)); -1 with errno on failure. A socket of the library is closed
/// by exec(2) from the start, so it does not leak into a program that another thread starts at the
/// same moment.
int ZPIMakeSocket(int family, ZPISocketOwner owner);

/// Calls connect(2) on a blocking socket and completes it even if signals interrupt it: 0, or -1
/// with the errno of the connection. Without a socket (-1) it fails and leaves errno alone.
int ZPIConnect(int fd, const sockaddr* address, socklen_t length);

/// Makes writes to a peer that has gone away raise no SIGPIPE, in the way that the owner needs.
void ZPIAvoidSigpipe(int fd, ZPISocketOwner owner);

/// Calls accept(2) for a connection that programs which are started do not inherit; -1 with errno
/// on failure.
int ZPIAccept(int listener);

/// Lets exec(2) close a socket that was created elsewhere. Standard input, output and error stay
/// unchanged: every program that is started expects to find them.
void ZPICloseOnExec(int descriptor);
