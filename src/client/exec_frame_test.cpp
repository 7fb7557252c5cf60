#include "client/exec_frame.h"

#include <gtest/gtest.h>

#include "core/json.h"

namespace tervain::client {
namespace {

struct Decoded {
  bool ok = false;
  std::string tag;
  std::optional<std::string> data;
  std::optional<std::int64_t> code;
  std::string message;
  std::optional<std::string> replyError;
};

Decoded decode(std::string_view line) {
  ExecFrame frame;
  std::string scratch;
  Decoded d;
  d.ok = decodeExecFrame(line, frame, scratch);
  d.tag = frame.tag;
  if (frame.hasData) d.data = std::string(frame.data);
  d.code = frame.code;
  d.message = frame.message;
  d.replyError = frame.replyError;
  return d;
}

TEST(ExecFrameTest, ReadsOutputFramesInAnyKeyOrder) {
  for (const char* line : {R"({"t":"o","d":"aGk="})", R"({"d":"aGk=","t":"o"})",
                           R"( { "t" : "o" , "d" : "aGk=" } )"}) {
    const Decoded d = decode(line);
    EXPECT_TRUE(d.ok) << line;
    EXPECT_EQ(d.tag, "o") << line;
    EXPECT_EQ(d.data, "aGk=") << line;
  }
}

TEST(ExecFrameTest, UnescapesSlashesInData) {
  // Some JSON writers put a backslash before every slash, and base64 is full of slashes.
  EXPECT_EQ(decode(R"({"t":"e","d":"a\/b\/\/c"})").data, "a/b//c");
  EXPECT_EQ(decode(R"({"t":"e","d":"a/b"})").data, "a/b");
}

TEST(ExecFrameTest, ReadsExitCodesAndErrors) {
  EXPECT_EQ(decode(R"({"t":"x","code":0})").code, 0);
  EXPECT_EQ(decode(R"({"code":143,"t":"x"})").code, 143);
  EXPECT_EQ(decode(R"({"t":"x","code":-1})").code, -1);
  EXPECT_EQ(decode(R"({"t":"x","code":1.5})").code, std::nullopt);
  EXPECT_EQ(decode(R"({"t":"x","code":"3"})").code, std::nullopt);
  const Decoded err = decode(R"({"t":"err","m":"exec requires a \"command\" string"})");
  EXPECT_EQ(err.tag, "err");
  EXPECT_EQ(err.message, "exec requires a \"command\" string");
  EXPECT_EQ(decode("{\"m\":\"dulk \\u2014 x \\/ y\",\"t\":\"err\"}").message,
            "dulk \u2014 x / y");
}

TEST(ExecFrameTest, GivesTheSameAnswerAsTheJsonParser) {
  // Lines the flat scanner hands over: nesting, literals, other escapes, big numbers.
  for (const char* line : {R"({"t":"o","d":"aGk=","extra":{"a":[1,true,null]}})",
                           R"({"t":"x","code":7,"flag":true})",
                           R"({"t":"o","d":"a\u002fb"})",
                           R"({"t":"x","code":12345678901234567890})",
                           R"({"t":"x","code":1e2})"}) {
    const Decoded d = decode(line);
    const Json j = Json::parse(line);
    EXPECT_TRUE(d.ok) << line;
    EXPECT_EQ(d.tag, j["t"].get<std::string>()) << line;
    if (j.contains("d")) {
      EXPECT_EQ(d.data, j["d"].get<std::string>()) << line;
    }
  }
  EXPECT_EQ(decode(R"({"t":"x","code":12345678901234567890})").code, std::nullopt);
  EXPECT_EQ(decode(R"({"t":"x","code":1e2})").code, std::nullopt);
}

TEST(ExecFrameTest, NonObjectsAreNotFrames) {
  for (const char* line : {"", "[1,2]", "\"o\"", "{", "{\"t\":\"o\"", "{\"t\":\"o\"} x", "nul"}) {
    EXPECT_FALSE(decode(line).ok) << line;
  }
}

TEST(ExecFrameTest, MissingOrMistypedMembersStayEmpty) {
  const Decoded d = decode(R"({"t":5,"d":6})");
  EXPECT_TRUE(d.ok);
  EXPECT_EQ(d.tag, "");
  EXPECT_EQ(d.data, std::nullopt);
  EXPECT_EQ(decode("{}").tag, "");
}

TEST(ExecFrameTest, AnOrdinaryFailureReplyIsReported) {
  // An agent that does not know exec answers the request line like any unknown op.
  const Decoded d = decode(R"J({"ok":false,"error":"unknown op 'exec' (agent protocol v1)"})J");
  EXPECT_EQ(d.replyError, "unknown op 'exec' (agent protocol v1)");
  EXPECT_EQ(decode(R"({"t":"x","code":0})").replyError, std::nullopt);
}

}  // namespace
}  // namespace tervain::client
