/* The Unix-domain development transport, shared by every platform. */
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "vsock/tervain_vsock.h"

static int make_socket(void) {
#ifdef SOCK_CLOEXEC
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
#else
  int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  if (fd >= 0) (void)fcntl(fd, F_SETFD, FD_CLOEXEC);
#endif
  return fd < 0 ? -errno : fd;
}

static int fill_address(struct sockaddr_un* addr, const char* path) {
  memset(addr, 0, sizeof *addr);
  addr->sun_family = AF_UNIX;
  if (strlen(path) >= sizeof addr->sun_path) return -ENAMETOOLONG;
  strcpy(addr->sun_path, path);
  return 0;
}

int32_t tervain_unix_connect(const char* path) {
  struct sockaddr_un addr;
  int rc = fill_address(&addr, path);
  if (rc < 0) return rc;
  int fd = make_socket();
  if (fd < 0) return fd;
  while (connect(fd, (struct sockaddr*)&addr, sizeof addr) != 0) {
    if (errno == EINTR) continue;
    int saved = errno;
    close(fd);
    return -saved;
  }
  return fd;
}

/* A socket file is stale when nothing accepts on it any more. */
static int remove_stale_socket(const char* path) {
  struct stat st;
  if (lstat(path, &st) != 0) return errno == ENOENT ? 0 : -errno;
  if (!S_ISSOCK(st.st_mode)) return -EEXIST;
  int probe = tervain_unix_connect(path);
  if (probe >= 0) {
    close(probe);
    return -EADDRINUSE;
  }
  if (probe != -ECONNREFUSED) return probe;
  if (unlink(path) != 0 && errno != ENOENT) return -errno;
  return 0;
}

int32_t tervain_unix_listen(const char* path, int32_t backlog) {
  struct sockaddr_un addr;
  int rc = fill_address(&addr, path);
  if (rc < 0) return rc;
  rc = remove_stale_socket(path);
  if (rc < 0) return rc;
  /* The socket is bound under a side name and renamed into place once it listens: whoever waits
   * for the path to appear can connect at once instead of being refused between bind and listen.
   * A path too long for the side name is bound directly. */
  struct sockaddr_un side;
  char side_path[sizeof addr.sun_path];
  const int renamed = strlen(path) + sizeof ".new" <= sizeof side_path;
  if (renamed) {
    strcpy(side_path, path);
    strcat(side_path, ".new");
    rc = fill_address(&side, side_path);
    if (rc < 0) return rc;
    if (unlink(side_path) != 0 && errno != ENOENT) return -errno;
  }
  const char* bound_path = renamed ? side_path : path;
  int fd = make_socket();
  if (fd < 0) return fd;
  /* The agent runs commands for whoever connects: the socket must be born private, so the
   * umask is narrowed around bind rather than chmod-ing a file that others could already use. */
  mode_t old_mask = umask(077);
  rc = bind(fd, (struct sockaddr*)(renamed ? &side : &addr), sizeof addr);
  int saved = errno;
  umask(old_mask);
  if (rc != 0 || chmod(bound_path, 0600) != 0 || listen(fd, backlog) != 0 ||
      (renamed && rename(side_path, path) != 0)) {
    if (rc == 0) {
      saved = errno;
      unlink(bound_path);
    }
    close(fd);
    return -saved;
  }
  return fd;
}
