#include "core/key_map.h"

#include <gtest/gtest.h>

#include <set>
#include <vector>

namespace tervain {
namespace {

std::optional<KeyStroke> strokeOf(std::string_view chord) { return KeyMap::stroke(chord); }

TEST(KeyMapTablesTest, HoldExactlyTheNamedEntries) {
  EXPECT_EQ(KeyMap::modifierFlags().size(), 11u);
  EXPECT_EQ(KeyMap::keyCodes().size(), 76u);

  std::size_t singleCharacters = 0;
  std::set<std::uint16_t> codes;
  for (const auto& [name, code] : KeyMap::keyCodes()) {
    if (name.size() == 1) ++singleCharacters;
    codes.insert(code);
  }
  EXPECT_EQ(singleCharacters, 47u);
  EXPECT_EQ(codes.size(), 76u) << "every key name has its own code";

  EXPECT_EQ(KeyMap::keyCodes().at("\\"), 42);
  EXPECT_EQ(KeyMap::keyCodes().at("`"), 50);
  EXPECT_EQ(KeyMap::keyCodes().at("b"), 11);
  EXPECT_EQ(KeyMap::keyCodes().at("l"), 37);
  EXPECT_EQ(KeyMap::keyCodes().at("forwarddelete"), 117);
  EXPECT_EQ(KeyMap::keyCodes().at("f15"), 113);
  EXPECT_EQ(KeyMap::modifierFlags().at("fn"), Modifier::fn);
  EXPECT_EQ(KeyMap::modifierFlags().at("super"), Modifier::command);
  EXPECT_EQ(KeyMap::modifierFlags().at("option"), Modifier::option);
  EXPECT_EQ(KeyMap::keyCodes().count("A"), 0u);
  EXPECT_EQ(KeyMap::keyCodes().count("f16"), 0u);
  EXPECT_EQ(KeyMap::keyCodes().count("+"), 0u);
}

TEST(KeyMapNormalizeTest, AppliesTheEightAliasesOnly) {
  for (const auto& [name, normal] : std::vector<std::pair<std::string, std::string>>{
           {"enter", "return"}, {"escape", "esc"}, {"backspace", "delete"}, {"arrowup", "up"},
           {"arrowdown", "down"}, {"arrowleft", "left"}, {"arrowright", "right"},
           {"spacebar", "space"}, {"Enter", "Enter"}, {"return", "return"}, {"del", "del"},
           {"", ""}}) {
    EXPECT_EQ(KeyMap::normalizeKeyName(name), normal) << name;
  }
}

// Modifiers combine into flags; unknown ones are skipped, and modifiers get no aliases and no
// trimming; empty parts are dropped; a key name that lower-cases or canonicalises to a table
// name counts; anything else is no chord.
TEST(KeyMapChordTest, Chords) {
  constexpr Modifiers cmd = Modifier::command;
  const std::pair<const char*, std::optional<KeyStroke>> cases[] = {
      {"Cmd+Shift+Z", KeyStroke{6, cmd | Modifier::shift}},
      {"ctrl+alt+delete", KeyStroke{51, Modifier::control | Modifier::option}},
      {"ctrl+alt+backspace", KeyStroke{51, Modifier::control | Modifier::option}},
      {"command+enter", KeyStroke{36, cmd}}, {"enter", KeyStroke{36, 0}},
      {"shift+ArrowUp", KeyStroke{126, Modifier::shift}}, {"fn+f1", KeyStroke{122, Modifier::fn}},
      {"meta+super+cmd+a", KeyStroke{0, cmd}}, {"cmd+=", KeyStroke{24, cmd}},
      {"A", KeyStroke{0, 0}}, {"escape+a", KeyStroke{0, 0}}, {"hyper+s", KeyStroke{1, 0}},
      {"cmd +s", KeyStroke{1, 0}}, {"enter+s", KeyStroke{1, 0}}, {"cmd++s", KeyStroke{1, cmd}},
      {"+cmd+s+", KeyStroke{1, cmd}},
      {"cmd+\xE2\x84\xAA", KeyStroke{40, cmd}},  // KELVIN SIGN
      {"\xCD\xBE", KeyStroke{41, 0}},            // GREEK QUESTION MARK
      {"\xE1\xBF\xAF", KeyStroke{50, 0}},        // GREEK VARIA
      {"cmd", std::nullopt}, {"+", std::nullopt}, {"++", std::nullopt}, {"cmd+", std::nullopt},
      {"", std::nullopt}, {"cmd + s", std::nullopt},  // the key part is " s"
      {"cmd+f16", std::nullopt}, {"cmd+\xC3\xA9", std::nullopt}};
  for (const auto& [chord, stroke] : cases) EXPECT_EQ(strokeOf(chord), stroke) << chord;
}

}  // namespace
}  // namespace tervain
