/* Listening sockets for the agent: AF_VSOCK in a guest, a Unix-domain socket for development.
 * Plain C so that the platform's own socket headers stay out of the C++ code. Every function
 * returns a descriptor (close-on-exec) or a negated errno; none leaves errno for the caller. */
#ifndef TERVAIN_VSOCK_H
#define TERVAIN_VSOCK_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Listens on the given vsock port of any context id. */
int32_t tervain_vsock_listen(uint32_t port, int32_t backlog);

/* Listens on a Unix-domain stream socket at path with mode 0600. A stale socket file at path
 * (one nobody accepts on) is replaced; a live socket gives -EADDRINUSE and any other kind of
 * file -EEXIST. */
int32_t tervain_unix_listen(const char* path, int32_t backlog);

/* accept() whose result is close-on-exec from birth where the platform allows it. */
int32_t tervain_accept(int32_t listen_fd);

/* Connects to a Unix-domain stream socket (client side and tests). */
int32_t tervain_unix_connect(const char* path);

/* Connects to a vsock port of the given context id (host-side client only). */
int32_t tervain_vsock_connect(uint32_t cid, uint32_t port);

/* Makes writes to fd fail with EPIPE instead of raising SIGPIPE where the platform can mark a
 * descriptor so (F_SETNOSIGPIPE); elsewhere a no-op, and tervain_write covers sockets. */
void tervain_set_nosigpipe(int32_t fd);

/* write() that never raises SIGPIPE on a socket; returns the count or -1 with errno set. */
long tervain_write(int32_t fd, const void* data, unsigned long size);

#ifdef __cplusplus
}
#endif

#endif
