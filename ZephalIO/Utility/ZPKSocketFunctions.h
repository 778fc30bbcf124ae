/* The library's socket functions, with C linkage: IPv4 stream sockets, all blocking (ip(7),
 * tcp(7)).
 *
 * A descriptor is an int, and -1 means failure; errno then tells the system's reason. They hold no
 * state, take no lock, report no ZPKError and write nothing to the log. Any thread may call them,
 * except that active_tcp and active_tcp_ex use gethostbyname(3) for a name, which is not safe on
 * two threads at once.
 *
 * The caller owns every socket that is returned and closes it with close(2). A program that is
 * started by fork(2) and exec(2) inherits it, unless the caller sets FD_CLOEXEC (fcntl(2)). What
 * channels and servers open for themselves is not inherited.
 *
 * SIGPIPE: where the system has SO_NOSIGPIPE, it is set on the socket. Elsewhere, Linux included,
 * passive_tcp, active_tcp, active_tcp_ex and no_sigpipe set the signal to be ignored for the whole
 * process, at every call that finds it with its default action; a program that is started inherits
 * that. Either way a write to a peer that has gone fails with EPIPE. Channels and servers leave the
 * signal alone: their own writes do not raise it.
 *
 * A signal handler without SA_RESTART does not end a connect: the call goes on to wait. */
#pragma once

#include <stdbool.h>

#include "Utility/ZPKExport.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Listens on a TCP port of all interfaces, with a backlog of 5. Only the low 16 bits of `port`
 * count; 0 lets the system choose. With `reuse`, SO_REUSEADDR and SO_REUSEPORT are set, so that two
 * listeners which both ask for it share a port without a word. Sets TCP_NODELAY. A port that cannot
 * be bound gives -1 and one line on standard output, which says "busy" for EADDRINUSE and
 * "restricted" for any other reason. */
ZPK_EXPORT int passive_tcp(int port, bool reuse);

/* Connects to a TCP port. `host` is a dotted IPv4 address or a name; null, or a name that does not
 * resolve, fails like a refused connection. Only the low 16 bits of `port` count. Blocks for as
 * long as connect(2) does. Sets SO_KEEPALIVE and TCP_NODELAY. Nothing is printed on failure. */
ZPK_EXPORT int active_tcp(const char* host, int port);

/* As active_tcp. If `out_fd` is not null, the socket is stored there before the blocking connect,
 * so that another thread can see it meanwhile, and the result again at the end, -1 on failure. */
ZPK_EXPORT int active_tcp_ex(const char* host, int port, int* out_fd);

/* Sees to it that a write to `fd` after its peer has gone fails with EPIPE and raises no SIGPIPE
 * (see above). The result is that of setsockopt(2): 0, or -1 with errno, for example EBADF or
 * ENOTSOCK. */
ZPK_EXPORT int no_sigpipe(int fd);

/* Sets TCP_NODELAY (tcp(7)) and returns the result of setsockopt(2). */
ZPK_EXPORT int tcp_nodelay(int fd);

/* Sets SO_KEEPALIVE (socket(7)) and returns the result of setsockopt(2). */
ZPK_EXPORT int so_keepalive(int fd);

#ifdef __cplusplus
}
#endif
