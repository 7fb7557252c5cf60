#include "core/key_map.h"

#include <utility>
#include <vector>

namespace tervain::KeyMap {
namespace {

constexpr Modifiers kCommand = Modifier::command;
constexpr Modifiers kControl = Modifier::control;
constexpr Modifiers kAlternate = Modifier::option;
constexpr Modifiers kShift = Modifier::shift;
constexpr Modifiers kSecondaryFn = Modifier::fn;

// Lower-cases a chord for lookup. Every name in the tables is ASCII, so besides the ASCII
// letters only the few code points that a full Unicode lower-casing and canonical comparison
// would turn into an ASCII table character can matter: KELVIN SIGN (lower-cases to "k"), GREEK
// QUESTION MARK (canonically ";") and GREEK VARIA (canonically "`"). Everything else non-ASCII
// can never match and is left as it is.
std::string lowerForLookup(std::string_view chord) {
  std::string out;
  out.reserve(chord.size());
  for (std::size_t i = 0; i < chord.size(); ++i) {
    const auto c = static_cast<unsigned char>(chord[i]);
    const std::string_view rest = chord.substr(i);
    if (c >= 'A' && c <= 'Z') {
      out.push_back(static_cast<char>(c - 'A' + 'a'));
    } else if (rest.starts_with("\xE2\x84\xAA")) {  // U+212A KELVIN SIGN
      out.push_back('k');
      i += 2;
    } else if (rest.starts_with("\xCD\xBE")) {  // U+037E GREEK QUESTION MARK
      out.push_back(';');
      i += 1;
    } else if (rest.starts_with("\xE1\xBF\xAF")) {  // U+1FEF GREEK VARIA
      out.push_back('`');
      i += 2;
    } else {
      out.push_back(static_cast<char>(c));
    }
  }
  return out;
}

}  // namespace

const std::unordered_map<std::string, Modifiers>& modifierFlags() {
  // A function-local static: built exactly once, thread-safely, on first use.
  // clang-format off
  static const std::unordered_map<std::string, Modifiers> table = {
      {"cmd", kCommand},      {"command", kCommand}, {"meta", kCommand},
      {"super", kCommand},    {"ctrl", kControl},    {"control", kControl},
      {"alt", kAlternate},    {"opt", kAlternate},   {"option", kAlternate},
      {"shift", kShift},      {"fn", kSecondaryFn},
  };
  // clang-format on
  return table;
}

const std::unordered_map<std::string, std::uint16_t>& keyCodes() {
  // clang-format off
  static const std::unordered_map<std::string, std::uint16_t> table = {
      {"a", 0},        {"s", 1},         {"d", 2},          {"f", 3},
      {"h", 4},        {"g", 5},         {"z", 6},          {"x", 7},
      {"c", 8},        {"v", 9},         {"b", 11},         {"q", 12},
      {"w", 13},       {"e", 14},        {"r", 15},         {"y", 16},
      {"t", 17},       {"1", 18},        {"2", 19},         {"3", 20},
      {"4", 21},       {"6", 22},        {"5", 23},         {"=", 24},
      {"9", 25},       {"7", 26},        {"-", 27},         {"8", 28},
      {"0", 29},       {"]", 30},        {"o", 31},         {"u", 32},
      {"[", 33},       {"i", 34},        {"p", 35},         {"l", 37},
      {"j", 38},       {"'", 39},        {"k", 40},         {";", 41},
      {"\\", 42},      {",", 43},        {"/", 44},         {"n", 45},
      {"m", 46},       {".", 47},        {"`", 50},         {"return", 36},
      {"tab", 48},     {"space", 49},    {"delete", 51},    {"esc", 53},
      {"home", 115},   {"end", 119},     {"pageup", 116},   {"pagedown", 121},
      {"forwarddelete", 117}, {"left", 123}, {"right", 124}, {"down", 125},
      {"up", 126},     {"f1", 122},      {"f2", 120},       {"f3", 99},
      {"f4", 118},     {"f5", 96},       {"f6", 97},        {"f7", 98},
      {"f8", 100},     {"f9", 101},      {"f10", 109},      {"f11", 103},
      {"f12", 111},    {"f13", 105},     {"f14", 107},      {"f15", 113},
  };
  // clang-format on
  return table;
}

std::string normalizeKeyName(std::string_view name) {
  static constexpr std::pair<std::string_view, std::string_view> kAliases[] = {
      {"enter", "return"},   {"escape", "esc"},     {"backspace", "delete"}, {"arrowup", "up"},
      {"arrowdown", "down"}, {"arrowleft", "left"}, {"arrowright", "right"}, {"spacebar", "space"},
  };
  for (const auto& [alias, canonical] : kAliases) {
    if (name == alias) return std::string(canonical);
  }
  return std::string(name);
}

std::optional<KeyStroke> stroke(std::string_view chord) {
  const std::string lowered = lowerForLookup(chord);
  std::vector<std::string_view> parts;
  std::string_view rest = lowered;
  while (!rest.empty()) {
    const std::size_t plus = rest.find('+');
    const std::string_view part = rest.substr(0, plus);
    if (!part.empty()) parts.push_back(part);
    if (plus == std::string_view::npos) break;
    rest.remove_prefix(plus + 1);
  }
  if (parts.empty()) return std::nullopt;

  const auto key = keyCodes().find(normalizeKeyName(parts.back()));
  if (key == keyCodes().end()) return std::nullopt;

  KeyStroke result{key->second, 0};
  parts.pop_back();
  for (const std::string_view modifier : parts) {
    // Modifiers are looked up as written (lower-cased, no aliases); unknown ones are ignored.
    const auto flag = modifierFlags().find(std::string(modifier));
    if (flag != modifierFlags().end()) result.modifiers |= flag->second;
  }
  return result;
}

}  // namespace tervain::KeyMap
