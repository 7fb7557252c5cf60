#include "core/reply.h"

#include <gtest/gtest.h>

namespace tervain {
namespace {

TEST(ReplyTest, CompactJsonWithRawUtf8) {
  Reply reply = Reply::failure("caf\u00e9 \u2014 a/b \"q\"");
  const std::string bytes = serializeReply(reply);
  EXPECT_EQ(bytes.find('\n'), std::string::npos);
  EXPECT_NE(bytes.find("caf\u00e9 \u2014"), std::string::npos);
  EXPECT_EQ(Json::parse(bytes), reply.body);
}

TEST(ReplyTest, NoWhitespaceBetweenTokens) {
  Reply reply = Reply::success();
  reply.body["list"] = {1, 2};
  EXPECT_EQ(serializeReply(reply), R"({"list":[1,2],"ok":true})");
}

TEST(ReplyTest, UnserialisableRepliesBecomeTheFixedFallback) {
  EXPECT_EQ(kReplySerializationFailed.size(), 49u);
  EXPECT_EQ(serializeReply(Reply::failure("bad \xff utf-8")), kReplySerializationFailed);
  Reply nonFinite = Reply::success();
  nonFinite.body["scale"] = std::numeric_limits<double>::infinity();
  EXPECT_EQ(serializeReply(nonFinite), kReplySerializationFailed);
}

TEST(ReplyTest, Base64MembersAreWrittenIntoTheSameObject) {
  Reply reply = Reply::success();
  reply.body["format"] = "jpeg";
  reply.base64Members.emplace_back("image", std::string("\x00\xff\x10", 3));
  const Json parsed = Json::parse(serializeReply(reply));
  EXPECT_EQ(parsed["ok"], true);
  EXPECT_EQ(parsed["format"], "jpeg");
  EXPECT_EQ(parsed["image"], "AP8Q");

  Reply onlyPayload;
  onlyPayload.base64Members.emplace_back("events", "");
  EXPECT_EQ(serializeReply(onlyPayload), R"({"events":""})");
}

TEST(ReplyTest, JsonMembersAreSplicedAsTheyStand) {
  Reply reply = Reply::success();
  reply.jsonMembers.emplace_back("tree", R"({"ref":"e1","children":[{"ref":"e2"}]})");
  reply.base64Members.emplace_back("raw", "ab");
  EXPECT_EQ(Json::parse(serializeReply(reply)),
            Json::parse(R"({"ok":true,"tree":{"ref":"e1","children":[{"ref":"e2"}]},"raw":"YWI="})"));

  Reply onlyTree;
  onlyTree.jsonMembers.emplace_back("node", "{}");
  EXPECT_EQ(serializeReply(onlyTree), R"({"node":{}})");
}

}  // namespace
}  // namespace tervain
