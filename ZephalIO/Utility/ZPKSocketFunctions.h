/** @file
 * The library's socket functions, with C linkage: IPv4 stream sockets, all blocking (ip(7),
 * tcp(7)).
 *
 * A file descriptor is an int; -1 means failure, and errno then holds the system's reason. The
 * functions have no state, take no lock, report no ZPKError and write nothing to the log. Any
 * thread may call them, except that active_tcp and active_tcp_ex look up names with
 * gethostbyname(3), which is not safe on two threads at the same time.
 *
 * The caller owns every socket that is returned and closes it with close(2). A program that is
 * started by fork(2) and exec(2) inherits it unless the caller sets FD_CLOEXEC (fcntl(2)). The
 * sockets that channels and servers open for themselves are not inherited.
 *
 * SIGPIPE: if the system has SO_NOSIGPIPE, it is set on the socket. Otherwise, Linux included, each
 * call of passive_tcp, active_tcp, active_tcp_ex and no_sigpipe that finds SIGPIPE at its default
 * action ignores it for the whole process, and programs that are started inherit that. Either way a
 * write fails with EPIPE if the peer has gone away. Channels and servers leave the signal alone:
 * their own writes do not raise it.
 *
 * A signal handler without SA_RESTART does not end a connect: the call continues to wait. */
#pragma once

#include <stdbool.h>

#include "Utility/ZPKExport.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Listens on a TCP port of all interfaces, with a backlog of 5. Only the low 16 bits of `port`
 * count; 0 lets the system choose. With `reuse`, SO_REUSEADDR and SO_REUSEPORT are set, so two
 * listeners that both ask for it silently share a port. Sets TCP_NODELAY. If the port cannot be
 * bound, it returns -1 and prints one line on standard output, which says "busy" for EADDRINUSE and
 * "restricted" for any other reason. */
ZPK_EXPORT int passive_tcp(int port, bool reuse);

/** Connects to a TCP port. `host` is a dotted IPv4 address or a name; null, or a name that does not
 * resolve, fails like a refused connection, with EHOSTUNREACH. Only the low 16 bits of `port`
 * count. Blocks as long as connect(2) does. Sets SO_KEEPALIVE and TCP_NODELAY. A failure prints
 * nothing. */
ZPK_EXPORT int active_tcp(const char* host, int port);

/** Like active_tcp. If `out_fd` is not null, the socket is stored there before connect blocks, so
 * that another thread can see it, and at the end the result: the socket, or -1 on failure. */
ZPK_EXPORT int active_tcp_ex(const char* host, int port, int* out_fd);

/** Makes a write to `fd` after its peer has gone away fail with EPIPE and raise no SIGPIPE (see
 * above). Returns 0, or -1 with errno, for example EBADF or ENOTSOCK, like setsockopt(2). */
ZPK_EXPORT int no_sigpipe(int fd);

/** Sets TCP_NODELAY (tcp(7)) and returns the result of setsockopt(2). */
ZPK_EXPORT int tcp_nodelay(int fd);

/** Sets SO_KEEPALIVE (socket(7)) and returns the result of setsockopt(2). */
ZPK_EXPORT int so_keepalive(int fd);

#ifdef __cplusplus
}
#endif
