/* The Unix-domain development transport, shared by every platform. */
#include <errno.h>
#include <stdint.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
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

/* Writes path + ".new-" + six letters into out: a name for this attempt only. The letters mix the
 * process id, the clock and a counter; they need not be secret, since bind() never takes over an
 * existing name and a taken one is simply tried again under another. */
static void side_name(char* out, const char* path, unsigned attempt) {
  static const char letters[] = "abcdefghijklmnopqrstuvwxyz234567";
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  uint64_t x = ((uint64_t)getpid() << 40) ^ ((uint64_t)now.tv_sec << 30) ^ (uint64_t)now.tv_nsec ^
               ((uint64_t)attempt * 0x9E3779B97F4A7C15u);
  x ^= x >> 31;
  x *= 0xBF58476D1CE4E5B9u;
  x ^= x >> 29;
  strcpy(out, path);
  char* p = out + strlen(out);
  memcpy(p, ".new-", 5);
  p += 5;
  for (int i = 0; i < 6; ++i, x >>= 5) *p++ = letters[x & 31];
  *p = '\0';
}

enum { kSideSuffix = sizeof ".new-xxxxxx" - 1, kSideAttempts = 16 };

int32_t tervain_unix_listen(const char* path, int32_t backlog) {
  struct sockaddr_un addr;
  int rc = fill_address(&addr, path);
  if (rc < 0) return rc;
  rc = remove_stale_socket(path);
  if (rc < 0) return rc;
  int fd = make_socket();
  if (fd < 0) return fd;
  /* The socket is bound under a side name of its own and renamed into place once it listens:
   * whoever waits for the path to appear can connect at once instead of being refused between
   * bind and listen. The side name is fresh for each attempt and only a name this call bound is
   * ever removed, so no file of anyone else's is touched. A path too long for a side name is
   * bound directly. */
  struct sockaddr_un side;
  const int renamed = strlen(path) + kSideSuffix < sizeof side.sun_path;
  const char* bound_path = path;
  /* The agent runs commands for whoever connects: the socket must be born private, so the
   * umask is narrowed around bind rather than chmod-ing a file that others could already use. */
  mode_t old_mask = umask(077);
  int saved = 0;
  if (renamed) {
    memset(&side, 0, sizeof side);
    side.sun_family = AF_UNIX;
    rc = -1;
    saved = EADDRINUSE;
    for (unsigned attempt = 0; attempt < kSideAttempts && rc != 0 && saved == EADDRINUSE;
         ++attempt) {
      side_name(side.sun_path, path, attempt);
      rc = bind(fd, (struct sockaddr*)&side, sizeof side);
      saved = errno;
    }
    bound_path = side.sun_path;
  } else {
    rc = bind(fd, (struct sockaddr*)&addr, sizeof addr);
    saved = errno;
  }
  umask(old_mask);
  if (rc != 0 || chmod(bound_path, 0600) != 0 || listen(fd, backlog) != 0 ||
      (renamed && rename(bound_path, path) != 0)) {
    if (rc == 0) {
      saved = errno;
      unlink(bound_path); /* bound by this call, so ours to remove */
    }
    close(fd);
    return -saved;
  }
  return fd;
}
