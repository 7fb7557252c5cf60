// Blocking socket reads and writes, shared by the agent and the client.
#pragma once

#include <chrono>
#include <cstddef>
#include <string_view>

namespace tervain {

// Writes every byte (never raising SIGPIPE); false when the peer is gone or the write fails.
bool writeAll(int fd, std::string_view bytes);

enum class ReadStatus { data, closed, timedOut, failed };

struct ReadResult {
  ReadStatus status;
  std::size_t count = 0;  // bytes read when status is data
  int error = 0;          // errno when status is failed
};

// One read of at most size bytes, retried on EINTR. A zero timeout waits for ever.
ReadResult readSome(int fd, char* buffer, std::size_t size, std::chrono::milliseconds timeout);

// Waits up to `wait` for the peer to close its end (or its sending side), and says whether it
// has; takes no bytes from the socket. Bytes waiting to be read do not end the wait early. A
// negative fd just waits.
bool peerClosedWithin(int fd, std::chrono::milliseconds wait);

}  // namespace tervain
