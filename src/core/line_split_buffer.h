// Cuts a byte stream into line-feed-terminated lines.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace tervain {

// Accumulates bytes and yields complete lines with the line feed and one trailing carriage
// return removed. Empty lines are returned too; callers skip them.
//
// Consumed bytes are dropped lazily and the search for the next line feed resumes where the
// previous one stopped, so a line that arrives one byte at a time costs linear work, not
// quadratic.
class LineSplitBuffer {
 public:
  LineSplitBuffer() = default;

  void append(std::string_view bytes);

  // The next complete line, or nothing when no line feed is held. The view stays valid until
  // the next call to append() or next().
  std::optional<std::string_view> next();

  // Bytes held that were not yet returned as lines.
  std::size_t pendingBytes() const { return data.size() - start; }

  // Moves out the bytes not yet returned as lines, leaving the buffer empty.
  std::string takePending();

 private:
  std::string data;
  std::size_t start = 0;    // first byte not yet returned
  std::size_t scanned = 0;  // bytes from start known to hold no line feed
};

}  // namespace tervain
