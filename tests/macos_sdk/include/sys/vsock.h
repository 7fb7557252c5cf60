/* Darwin's <sys/vsock.h>, as far as the agent uses it: the 12-byte socket address (Linux's is
 * 16 bytes and has no length byte). AF_VSOCK itself (40) comes from <sys/socket.h> on both. */
#ifndef TERVAIN_SDK_SYS_VSOCK_H
#define TERVAIN_SDK_SYS_VSOCK_H

#include <stdint.h>

struct sockaddr_vm {
  uint8_t svm_len;
  uint8_t svm_family; /* Darwin's sa_family_t is 8 bits */
  uint16_t svm_reserved1;
  uint32_t svm_port;
  uint32_t svm_cid;
};

_Static_assert(sizeof(struct sockaddr_vm) == 12, "Darwin's sockaddr_vm is 12 bytes");

#define VMADDR_CID_ANY ((uint32_t)-1)
#define VMADDR_PORT_ANY ((uint32_t)-1)

#endif
