#include <cstdio>
#include <cstdlib>

#include <gtest/gtest.h>

#include "client/tervain_client.h"

namespace tervain::client {
namespace {

// What a real POSIX shell makes of one word: printf '%s' WORD, run by popen's /bin/sh.
std::string throughShell(const std::string& word) {
  FILE* pipe = ::popen(("printf '%s' " + word).c_str(), "r");
  if (pipe == nullptr) return "<popen failed>";
  std::string out;
  char buffer[256];
  std::size_t n;
  while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) out.append(buffer, n);
  ::pclose(pipe);
  return out;
}

TEST(ShellQuoteTest, WrapsInSingleQuotes) {
  EXPECT_EQ(shellQuote("plain"), "'plain'");
  EXPECT_EQ(shellQuote(""), "''");
  EXPECT_EQ(shellQuote("it's"), "'it'\\''s'");
  EXPECT_EQ(shellQuote("''"), "''\\'''\\'''");
}

TEST(ShellQuoteTest, ARealShellGetsBackTheExactText) {
  const std::string texts[] = {
      "a file with spaces",   "it's \"quoted\"",  "$HOME `id` $(id) ${x}", "back\\slash\\",
      "new\nline\ttab",       "*.txt ? [ab]",     "-n",                    "'",
      "; rm -rf / #",         "ünïcödé ✓",        "a'b'c''d",              "~/not-home",
  };
  for (const std::string& text : texts) {
    EXPECT_EQ(throughShell(shellQuote(text)), text) << text;
  }
}

TEST(GuestPathWordTest, ExpandsOnlyALeadingHome) {
  const char* home = std::getenv("HOME");
  ASSERT_NE(home, nullptr);
  EXPECT_EQ(guestPathWord("~/a b's"), "\"$HOME\"/'a b'\\''s'");
  EXPECT_EQ(throughShell(guestPathWord("~/a b's")), std::string(home) + "/a b's");
  EXPECT_EQ(throughShell(guestPathWord("~")), home);
  EXPECT_EQ(throughShell(guestPathWord("/tmp/~/x")), "/tmp/~/x");
  EXPECT_EQ(throughShell(guestPathWord("~other/x")), "~other/x");
}

}  // namespace
}  // namespace tervain::client
