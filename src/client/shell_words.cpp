#include "client/tervain_client.h"

namespace tervain::client {

std::string shellQuote(std::string_view text) {
  std::string out = "'";
  for (const char c : text) {
    if (c == '\'') {
      out += "'\\''";
    } else {
      out += c;
    }
  }
  out += '\'';
  return out;
}

std::string guestPathWord(std::string_view path) {
  if (path == "~") return "\"$HOME\"";
  if (path.starts_with("~/")) return "\"$HOME\"/" + shellQuote(path.substr(2));
  return shellQuote(path);
}

}  // namespace tervain::client
