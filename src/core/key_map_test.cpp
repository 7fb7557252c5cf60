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

TEST(KeyMapChordTest, ModifiersCombineIntoFlags) {
  EXPECT_EQ(strokeOf("Cmd+Shift+Z"), (KeyStroke{6, Modifier::command | Modifier::shift}));
  EXPECT_EQ(strokeOf("ctrl+alt+delete"), (KeyStroke{51, Modifier::control | Modifier::option}));
  EXPECT_EQ(strokeOf("ctrl+alt+backspace"), (KeyStroke{51, Modifier::control | Modifier::option}));
  EXPECT_EQ(strokeOf("command+enter"), (KeyStroke{36, Modifier::command}));
  EXPECT_EQ(strokeOf("enter"), (KeyStroke{36, 0}));
  EXPECT_EQ(strokeOf("shift+arrowup"), (KeyStroke{126, Modifier::shift}));
  EXPECT_EQ(strokeOf("shift+ArrowUp"), (KeyStroke{126, Modifier::shift}));
  EXPECT_EQ(strokeOf("fn+f1"), (KeyStroke{122, Modifier::fn}));
  EXPECT_EQ(strokeOf("meta+super+cmd+a"), (KeyStroke{0, Modifier::command}));
  EXPECT_EQ(strokeOf("cmd+="), (KeyStroke{24, Modifier::command}));
  EXPECT_EQ(strokeOf("A"), (KeyStroke{0, 0}));
}

TEST(KeyMapChordTest, UnknownModifiersAreSkipped) {
  EXPECT_EQ(strokeOf("escape+a"), (KeyStroke{0, 0}));
  EXPECT_EQ(strokeOf("hyper+s"), (KeyStroke{1, 0}));
  // Modifiers get no aliases and no trimming.
  EXPECT_EQ(strokeOf("cmd +s"), (KeyStroke{1, 0}));
  EXPECT_EQ(strokeOf("enter+s"), (KeyStroke{1, 0}));
}

TEST(KeyMapChordTest, EmptyPartsAreDropped) {
  const KeyStroke cmdS{1, Modifier::command};
  EXPECT_EQ(strokeOf("cmd++s"), cmdS);
  EXPECT_EQ(strokeOf("+cmd+s+"), cmdS);
  EXPECT_EQ(strokeOf("cmd+s"), cmdS);
}

TEST(KeyMapChordTest, UnrecognisedChords) {
  EXPECT_EQ(strokeOf("cmd"), std::nullopt);
  EXPECT_EQ(strokeOf("+"), std::nullopt);
  EXPECT_EQ(strokeOf("++"), std::nullopt);
  EXPECT_EQ(strokeOf("cmd+"), std::nullopt);
  EXPECT_EQ(strokeOf(""), std::nullopt);
  EXPECT_EQ(strokeOf("cmd + s"), std::nullopt);  // the key part is " s"
  EXPECT_EQ(strokeOf("cmd+f16"), std::nullopt);
  EXPECT_EQ(strokeOf("cmd+\xC3\xA9"), std::nullopt);  // "é"
}

TEST(KeyMapChordTest, NonAsciiThatLowerCasesOrCanonicalisesToATableName) {
  EXPECT_EQ(strokeOf("cmd+\xE2\x84\xAA"), (KeyStroke{40, Modifier::command}));  // KELVIN SIGN
  EXPECT_EQ(strokeOf("\xCD\xBE"), (KeyStroke{41, 0}));                 // GREEK QUESTION MARK
  EXPECT_EQ(strokeOf("\xE1\xBF\xAF"), (KeyStroke{50, 0}));             // GREEK VARIA
}

}  // namespace
}  // namespace tervain
