#include "core/line_split_buffer.h"

#include <cstring>

namespace tervain {
namespace {
constexpr std::size_t kKeptCapacity = 256 * 1024;
}  // namespace

void LineSplitBuffer::append(std::string_view bytes) {
  if (start > 0 && start == data.size()) {
    // After a huge line, give its memory back rather than keep it for the connection's life.
    if (data.capacity() > kKeptCapacity) {
      std::string().swap(data);
    } else {
      data.clear();
    }
    start = 0;
    scanned = 0;
  } else if (start > 0 && start >= data.size() / 2) {
    // Compact when the consumed prefix dominates, so the buffer does not grow without bound
    // under a steady stream of small lines.
    data.erase(0, start);
    start = 0;
  }
  data.append(bytes);
}

std::optional<std::string_view> LineSplitBuffer::next() {
  const std::size_t from = start + scanned;
  const void* hit = from < data.size()
                        ? std::memchr(data.data() + from, '\n', data.size() - from)
                        : nullptr;
  if (hit == nullptr) {
    scanned = data.size() - start;
    return std::nullopt;
  }
  const auto end = static_cast<std::size_t>(static_cast<const char*>(hit) - data.data());
  std::string_view line(data.data() + start, end - start);
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  start = end + 1;
  scanned = 0;
  return line;
}

std::string LineSplitBuffer::takePending() {
  std::string rest = data.substr(start);
  data.clear();
  start = 0;
  scanned = 0;
  return rest;
}

}  // namespace tervain
