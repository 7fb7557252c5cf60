#include "core/reply.h"

#include <gtest/gtest.h>

namespace tervain {
namespace {

TEST(ReplyTest, OneCompactLineWithRawUtf8) {
  Reply reply = Reply::failure("caf\u00e9 \u2014 a/b \"q\"");
  reply.body["list"] = {1, 2};
  EXPECT_EQ(serializeReply(reply),
            "{\"error\":\"caf\u00e9 \u2014 a/b \\\"q\\\"\",\"list\":[1,2],\"ok\":false}");
}

TEST(ReplyTest, UnserialisableRepliesBecomeTheFixedFallback) {
  EXPECT_EQ(kReplySerializationFailed.size(), 49u);
  EXPECT_EQ(serializeReply(Reply::failure("bad \xff utf-8")), kReplySerializationFailed);
  Reply nonFinite = Reply::success();
  nonFinite.body["scale"] = std::numeric_limits<double>::infinity();
  EXPECT_EQ(serializeReply(nonFinite), kReplySerializationFailed);
}

// Base64 and JSON members are written into the same object, JSON ones as they stand.
TEST(ReplyTest, SplicedMembers) {
  Reply reply = Reply::success();
  reply.body["format"] = "jpeg";
  reply.base64Members.emplace_back("image", std::string("\x00\xff\x10", 3));
  reply.jsonMembers.emplace_back("tree", R"({"ref":"e1","children":[{"ref":"e2"}]})");
  EXPECT_EQ(Json::parse(serializeReply(reply)), Json::parse(R"({"ok":true,"format":"jpeg",
      "image":"AP8Q","tree":{"ref":"e1","children":[{"ref":"e2"}]}})"));
  Reply onlyPayload;
  onlyPayload.base64Members.emplace_back("events", "");
  EXPECT_EQ(serializeReply(onlyPayload), R"({"events":""})");
  Reply onlyTree;
  onlyTree.jsonMembers.emplace_back("node", "{}");
  EXPECT_EQ(serializeReply(onlyTree), R"({"node":{}})");
}

}  // namespace
}  // namespace tervain
