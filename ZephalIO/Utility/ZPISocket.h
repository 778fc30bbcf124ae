// What the socket functions, the channels and the server have in common when they get a socket.
#pragma once

#include <sys/socket.h>

/// Whom a socket is made for.
enum class ZPISocketOwner {
  /// The library's user, through an exported function: a program that is started inherits it, and
  /// a write to a peer that has gone raises no SIGPIPE, whoever writes (see no_sigpipe).
  kUser,
  /// A channel or a server: no program that is started inherits it. They write without the signal,
  /// so its disposition, which started programs inherit, is left alone.
  kLibrary,
};

/// How many connections may wait at a listener of ours; the headers of the functions that make one
/// promise this number.
inline constexpr int kZPIBacklog = 5;

/// A new stream socket (socket(2)), or -1. What the library owns is closed by exec(2) from the
/// start, so that nothing leaks into a program that another thread starts at this moment.
int ZPIMakeSocket(int family, ZPISocketOwner owner);

/// connect(2) on a blocking socket, also when signals come meanwhile: 0, or -1 with the errno of
/// the connection.
int ZPIConnect(int fd, const sockaddr* address, socklen_t length);

/// Sees to it that a write to a peer that has gone raises no SIGPIPE, as the owner needs it.
void ZPIAvoidSigpipe(int fd, ZPISocketOwner owner);

/// accept(2) for a connection that no started program inherits; -1 with errno on failure.
int ZPIAccept(int listener);

/// Lets exec(2) close a socket that was made elsewhere. Standard input, output and error stay as
/// they are: every program that is started expects to find them.
void ZPICloseOnExec(int descriptor);
