// Decoding of the frames an exec stream sends to the host.
//
// Output frames carry up to 64 KiB of data as base64, so a busy command sends lines of some
// 87,000 characters; running each through a general JSON parser would cost more than decoding
// the base64. decodeExecFrame() therefore scans the flat objects the agent writes ({"t":"o",
// "d":"..."}, {"t":"x","code":0}, in any key order, slashes escaped or not) by hand, and hands
// anything else (other escapes, other value types, nesting) to the JSON parser, so any valid
// JSON text gives the same answer either way.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tervain::client {

struct ExecFrame {
  std::string tag;                  // "t"; empty when absent or not a string
  bool hasData = false;             // "d" was a string
  std::string_view data;            // "d", unescaped (base64 text); valid until the next decode
  std::optional<std::int64_t> code;  // "code" when an integer
  std::string message;              // "m" when a string
  bool timedOut = false;            // "timedOut" is true (an "x" frame of a timed-out command)
  // An ordinary failure reply ({"ok":false,"error":...}) in place of a frame: the agent does
  // not run exec at all. Holds its error text.
  std::optional<std::string> replyError;
};

// Decodes one frame line. False when the line is not a JSON object. scratch holds unescaped
// text that frame.data may point into.
bool decodeExecFrame(std::string_view line, ExecFrame& frame, std::string& scratch);

}  // namespace tervain::client
