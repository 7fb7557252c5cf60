/* macOS flavour: the 12-byte struct sockaddr_vm with svm_len, from <sys/vsock.h>. */
#define _DARWIN_C_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/vsock.h>
#include <unistd.h>

#include "vsock/tervain_vsock.h"

static int make_socket(void) {
  int fd = socket(AF_VSOCK, SOCK_STREAM, 0);
  if (fd < 0) return -errno;
  (void)fcntl(fd, F_SETFD, FD_CLOEXEC);
  return fd;
}

static void fill_address(struct sockaddr_vm* addr, uint32_t cid, uint32_t port) {
  memset(addr, 0, sizeof *addr);
  addr->svm_len = sizeof *addr;
  addr->svm_family = AF_VSOCK;
  addr->svm_reserved1 = 0;
  addr->svm_port = port;
  addr->svm_cid = cid;
}

int32_t tervain_vsock_listen(uint32_t port, int32_t backlog) {
  int fd = make_socket();
  if (fd < 0) return fd;
  struct sockaddr_vm addr;
  fill_address(&addr, VMADDR_CID_ANY, port);
  if (bind(fd, (struct sockaddr*)&addr, sizeof addr) != 0 || listen(fd, backlog) != 0) {
    int saved = errno;
    close(fd);
    return -saved;
  }
  return fd;
}

int32_t tervain_vsock_connect(uint32_t cid, uint32_t port) {
  int fd = make_socket();
  if (fd < 0) return fd;
  struct sockaddr_vm addr;
  fill_address(&addr, cid, port);
  while (connect(fd, (struct sockaddr*)&addr, sizeof addr) != 0) {
    if (errno == EINTR) continue;
    int saved = errno;
    close(fd);
    return -saved;
  }
  return fd;
}

/* Darwin has no accept4: the descriptor is marked right after accept. Children never see it
 * anyway, since they are spawned with POSIX_SPAWN_CLOEXEC_DEFAULT. */
int32_t tervain_accept(int32_t listen_fd) {
  int fd = accept(listen_fd, NULL, NULL);
  if (fd < 0) return -errno;
  (void)fcntl(fd, F_SETFD, FD_CLOEXEC);
  return fd;
}

void tervain_set_nosigpipe(int32_t fd) { (void)fcntl(fd, F_SETNOSIGPIPE, 1); }

long tervain_write(int32_t fd, const void* data, unsigned long size) {
  return (long)write(fd, data, size);
}
