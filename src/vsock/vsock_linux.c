/* Linux flavour: struct sockaddr_vm from <linux/vm_sockets.h> (16 bytes, no length byte). */
#define _GNU_SOURCE
#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>
#include <linux/vm_sockets.h>

#include "vsock/tervain_vsock.h"

static void fill_address(struct sockaddr_vm* addr, uint32_t cid, uint32_t port) {
  memset(addr, 0, sizeof *addr);
  addr->svm_family = AF_VSOCK;
  addr->svm_port = port;
  addr->svm_cid = cid;
}

int32_t tervain_vsock_listen(uint32_t port, int32_t backlog) {
  int fd = socket(AF_VSOCK, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -errno;
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
  int fd = socket(AF_VSOCK, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -errno;
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

int32_t tervain_accept(int32_t listen_fd) {
  int fd = accept4(listen_fd, NULL, NULL, SOCK_CLOEXEC);
  return fd < 0 ? -errno : fd;
}

void tervain_set_nosigpipe(int32_t fd) { (void)fd; }

long tervain_write(int32_t fd, const void* data, unsigned long size) {
  ssize_t n = send(fd, data, size, MSG_NOSIGNAL);
  if (n < 0 && errno == ENOTSOCK) n = write(fd, data, size);
  return (long)n;
}
