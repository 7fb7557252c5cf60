#include "core/line_split_buffer.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tervain {
namespace {

std::vector<std::string> drain(LineSplitBuffer& buffer) {
  std::vector<std::string> lines;
  while (auto line = buffer.next()) lines.emplace_back(*line);
  return lines;
}

TEST(LineSplitBufferTest, YieldsLinesAndKeepsTheUnterminatedRest) {
  LineSplitBuffer buffer;
  buffer.append("one\ntwo\nthr");
  EXPECT_EQ(drain(buffer), (std::vector<std::string>{"one", "two"}));
  EXPECT_EQ(buffer.pendingBytes(), 3u);
  buffer.append("ee\n");
  EXPECT_EQ(drain(buffer), (std::vector<std::string>{"three"}));
  EXPECT_EQ(buffer.pendingBytes(), 0u);
}

TEST(LineSplitBufferTest, RemovesExactlyOneTrailingCarriageReturn) {
  LineSplitBuffer buffer;
  buffer.append("a\r\nb\r\r\n\r\n\nc\rd\n");
  EXPECT_EQ(drain(buffer), (std::vector<std::string>{"a", "b\r", "", "", "c\rd"}));
}

// A carriage return still goes when its line feed comes in a later append.
TEST(LineSplitBufferTest, ByteAtATimeAndBinaryContent) {
  LineSplitBuffer buffer;
  const std::string stream = std::string("x\0y", 3) + "\r\n" + std::string(1000, 'z') + "\n";
  std::vector<std::string> lines;
  for (char c : stream) {
    buffer.append(std::string_view(&c, 1));
    while (auto line = buffer.next()) lines.emplace_back(*line);
  }
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0], std::string("x\0y", 3));
  EXPECT_EQ(lines[1], std::string(1000, 'z'));
}

TEST(LineSplitBufferTest, TakePendingHandsOverOnlyUnreturnedBytes) {
  LineSplitBuffer buffer;
  buffer.append("first\n{\"t\":\"i\"}\npart");
  ASSERT_TRUE(buffer.next());
  EXPECT_EQ(buffer.takePending(), "{\"t\":\"i\"}\npart");
  EXPECT_EQ(buffer.pendingBytes(), 0u);
  EXPECT_FALSE(buffer.next());
}

}  // namespace
}  // namespace tervain
