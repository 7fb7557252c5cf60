#include "core/socket_io.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

#include "vsock/tervain_vsock.h"

namespace tervain {

bool writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const long n = tervain_write(fd, bytes.data(), bytes.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    if (n == 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(n));
  }
  return true;
}

ReadResult readSome(int fd, char* buffer, std::size_t size, std::chrono::milliseconds timeout) {
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + timeout;
  for (;;) {
    if (timeout.count() > 0) {
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
      if (left.count() <= 0) return {ReadStatus::timedOut};
      pollfd p{.fd = fd, .events = POLLIN};
      const int ready = ::poll(&p, 1, static_cast<int>(left.count()));
      if (ready < 0) {
        if (errno == EINTR) continue;
        return {ReadStatus::failed, 0, errno};
      }
      if (ready == 0) return {ReadStatus::timedOut};
    }
    const ssize_t n = ::read(fd, buffer, size);
    if (n > 0) return {ReadStatus::data, static_cast<std::size_t>(n)};
    if (n == 0) return {ReadStatus::closed};
    if (errno == EINTR || errno == EAGAIN) continue;
    // A peer that closes with our bytes still unread resets the connection: it went away all
    // the same.
    if (errno == ECONNRESET) return {ReadStatus::closed};
    return {ReadStatus::failed, 0, errno};
  }
}

bool peerClosedWithin(int fd, std::chrono::milliseconds wait) {
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + wait;
#ifdef POLLRDHUP
  constexpr short kEvents = POLLIN | POLLRDHUP;
#else
  constexpr short kEvents = POLLIN;
#endif
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) return false;
    pollfd p{.fd = fd, .events = kEvents, .revents = 0};
    const int ready = ::poll(&p, 1, static_cast<int>(left.count()));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return false;
    if ((p.revents & (POLLHUP | POLLERR | POLLNVAL)) != 0) return true;
#ifdef POLLRDHUP
    if ((p.revents & POLLRDHUP) != 0) return true;
#endif
    // Readable: either the end of the stream or the host's next request, already sent.
    char byte = 0;
    const ssize_t n = ::recv(fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    if (n == 0) return true;
    if (n < 0 && errno == ECONNRESET) return true;
    // A request waiting keeps the socket readable: poll would answer at once from now on, so
    // the rest of the wait is slept.
    std::this_thread::sleep_for(deadline - Clock::now());
    return false;
  }
}

}  // namespace tervain
