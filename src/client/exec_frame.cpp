#include "client/exec_frame.h"

#include <cstring>

#include "core/json.h"

namespace tervain::client {
namespace {

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

// The general path: whatever JSON allows.
bool decodeWithParser(std::string_view line, ExecFrame& frame, std::string& scratch) {
  frame = ExecFrame{};
  const Json value = Json::parse(line.begin(), line.end(), nullptr, false);
  if (value.is_discarded() || !value.is_object()) return false;
  if (auto t = value.find("t"); t != value.end() && t->is_string()) {
    frame.tag = t->get<std::string>();
  }
  if (auto d = value.find("d"); d != value.end() && d->is_string()) {
    scratch = d->get<std::string>();
    frame.hasData = true;
    frame.data = scratch;
  }
  if (auto code = value.find("code"); code != value.end() && code->is_number_integer()) {
    if (code->is_number_unsigned() && code->get<std::uint64_t>() > INT64_MAX) {
      frame.code = std::nullopt;
    } else {
      frame.code = code->get<std::int64_t>();
    }
  }
  if (auto m = value.find("m"); m != value.end() && m->is_string()) {
    frame.message = m->get<std::string>();
  }
  // Booleans never take the flat path, so only this one reads the flag.
  if (auto timedOut = value.find("timedOut"); timedOut != value.end()) {
    frame.timedOut = *timedOut == true;
  }
  if (auto ok = value.find("ok"); ok != value.end() && ok->is_boolean() && !ok->get<bool>()) {
    const auto error = value.find("error");
    frame.replyError = error != value.end() && error->is_string() ? error->get<std::string>()
                                                                  : "the agent refused exec";
  }
  return true;
}

// The flat objects the agent writes. Returns nothing when the text needs the general parser.
std::optional<bool> decodeFlat(std::string_view s, ExecFrame& frame, std::string& scratch) {
  frame = ExecFrame{};
  std::size_t i = 0;
  const std::size_t n = s.size();
  auto skip = [&] {
    while (i < n && isSpace(s[i])) ++i;
  };
  skip();
  if (i >= n || s[i] != '{') return std::nullopt;
  ++i;
  skip();
  if (i < n && s[i] == '}') {
    ++i;
  } else {
    for (;;) {
      skip();
      if (i >= n || s[i] != '"') return std::nullopt;
      const std::size_t keyStart = ++i;
      while (i < n && s[i] != '"' && s[i] != '\\') ++i;
      if (i >= n || s[i] != '"') return std::nullopt;
      const std::string_view key = s.substr(keyStart, i - keyStart);
      ++i;
      skip();
      if (i >= n || s[i] != ':') return std::nullopt;
      ++i;
      skip();
      if (i >= n) return std::nullopt;
      if (s[i] == '"') {
        const std::size_t valueStart = ++i;
        const char* end = static_cast<const char*>(std::memchr(s.data() + i, '"', n - i));
        if (end == nullptr) return std::nullopt;
        const std::size_t valueEnd = static_cast<std::size_t>(end - s.data());
        std::string_view text = s.substr(valueStart, valueEnd - valueStart);
        if (text.find('\\') != std::string_view::npos) {
          // Only "\/" (which some JSON writers put before every slash) is unescaped here, and
          // only in "d"; a quote escape would also have ended the memchr above too early.
          if (key != "d") return std::nullopt;
          scratch.clear();
          scratch.reserve(text.size());
          for (std::size_t k = 0; k < text.size(); ++k) {
            if (text[k] == '\\') {
              if (k + 1 >= text.size() || text[k + 1] != '/') return std::nullopt;
              ++k;
            }
            scratch.push_back(text[k]);
          }
          text = scratch;
        }
        if (key == "t") {
          frame.tag.assign(text);
        } else if (key == "d") {
          frame.hasData = true;
          frame.data = text;
        } else if (key == "m") {
          frame.message.assign(text);
        }
        i = valueEnd + 1;
      } else if (s[i] == '-' || (s[i] >= '0' && s[i] <= '9')) {
        const bool negative = s[i] == '-';
        if (negative) ++i;
        const std::size_t digitsStart = i;
        std::int64_t number = 0;
        while (i < n && s[i] >= '0' && s[i] <= '9') {
          if (i - digitsStart >= 18) return std::nullopt;
          number = number * 10 + (s[i] - '0');
          ++i;
        }
        if (i == digitsStart) return std::nullopt;
        if (i < n && (s[i] == '.' || s[i] == 'e' || s[i] == 'E')) return std::nullopt;
        if (key == "code") frame.code = negative ? -number : number;
      } else {
        return std::nullopt;
      }
      skip();
      if (i >= n) return std::nullopt;
      if (s[i] == ',') {
        ++i;
        continue;
      }
      if (s[i] != '}') return std::nullopt;
      ++i;
      break;
    }
  }
  skip();
  if (i != n) return std::nullopt;
  return true;
}

}  // namespace

bool decodeExecFrame(std::string_view line, ExecFrame& frame, std::string& scratch) {
  if (auto flat = decodeFlat(line, frame, scratch)) return *flat;
  return decodeWithParser(line, frame, scratch);
}

}  // namespace tervain::client
