#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <string>
#include <variant>

#include "ScriptParser.h"

namespace flowmere::sim {
namespace {

ParsedScript parse(const std::string& text) {
  std::istringstream script(text);
  return parseScript(script);
}

TEST(ScriptParserTest, ConvertsEveryFieldAndCarriesTimeForwardFromTheLineBefore) {
  const ParsedScript parsed = parse(
      "# a comment, then a blank line\n"
      "\n"
      R"({"do":"client","id":"p","pid":7})"
      "\n"
      R"({"at":0.5,"do":"push","client":"p","width":64,"height":32,"pixelFormat":"x420",)"
      R"("pts":{"value":3,"timescale":30},"seq":9,"attachments":{"b":"2","a":"1"}})"
      "\n"
      R"({"do":"set","stream":"source","frameDuration":"+infinity"})"
      "\n");
  ASSERT_TRUE(parsed.ok()) << parsed.error;
  ASSERT_EQ(parsed.actions.size(), 3U);

  const auto& client = std::get<DefineClient>(parsed.actions[0].kind);
  EXPECT_EQ(parsed.actions[0].line, 3U);
  EXPECT_EQ(client.description, "p");  // the id stands in for a missing description

  const auto& push = std::get<Push>(parsed.actions[1].kind);
  EXPECT_EQ(parsed.actions[1].at, 0.5);
  EXPECT_EQ(push.pixelFormat, platform::kCVPixelFormatType_420YpCbCr10BiPlanarVideoRange);
  EXPECT_EQ(push.pts.value, 3);
  EXPECT_EQ(push.pts.timescale, 30);
  ASSERT_TRUE(push.image);
  // Attachments in key order, as the printed events have always listed them.
  EXPECT_EQ(push.image->attachments,
            (std::vector<std::pair<std::string, std::string>>{{"a", "1"}, {"b", "2"}}));

  const auto& set = std::get<SetProperties>(parsed.actions[2].kind);
  EXPECT_EQ(parsed.actions[2].at, 0.5);  // no "at": the time of the line before
  EXPECT_EQ(set.stream, StreamSide::kSource);
  EXPECT_FALSE(set.activeFormatIndex);
  ASSERT_TRUE(set.frameDuration);
  EXPECT_EQ(*set.frameDuration, platform::MediaTime::positiveInfinity());
}

TEST(ScriptParserTest, PushWithoutAnImageCarriesNone) {
  const ParsedScript parsed = parse(
      R"({"do":"client","id":"p","pid":1})"
      "\n"
      R"({"do":"push","client":"p","width":1,"height":1,"pts":"invalid","seq":1,"image":false})");
  ASSERT_TRUE(parsed.ok()) << parsed.error;
  EXPECT_FALSE(std::get<Push>(parsed.actions[1].kind).image);
}

// Each refusal names the line (counting comments and blank lines) and the first field at fault.
TEST(ScriptParserTest, RefusesTheFirstBadLineWithItsNumberAndReason) {
  const struct {
    const char* script;
    const char* error;
  } cases[] = {
      {"# header\n{\"do\":\"connect\",\"client\":\"x\"}",
       "line 2: no client \"x\" is defined before this line"},
      {"{\"at\":1,\"do\":\"wait\"}\n{\"at\":0.5,\"do\":\"wait\"}",
       "line 2: \"at\" must be a finite number, not earlier than the line before"},
      {"{\"do\":\"jump\"}", "line 1: unknown action \"jump\""},
      {"[1]", "line 1: each line must be a JSON object"},
      {"{\"do\":\"start\",\"stream\":\"both\"}",
       "line 1: \"stream\" must be \"sink\" or \"source\""},
      {"{\"do\":\"get\",\"target\":\"device\",\"properties\":[1]}",
       "line 1: \"properties\" must be a list of property names"},
      {"{\"do\":\"set\",\"stream\":\"sink\",\"frameDuration\":{\"value\":1,\"timescale\":"
       "4294967296}}",
       "line 1: \"frameDuration\" has a timescale out of range"},
      {"{\"do\":\"client\",\"id\":\"p\",\"pid\":1}\n"
       "{\"do\":\"feed\",\"client\":\"p\",\"width\":2,\"height\":0,\"count\":1,\"fps\":30,"
       "\"startPts\":\"invalid\"}",
       "line 2: \"height\" must be between 1 and 16384"},
      {"{\"do\":\"client\",\"id\":\"p\",\"pid\":1}\n"
       "{\"do\":\"feed\",\"client\":\"p\",\"width\":2,\"height\":2,\"count\":1,\"fps\":0,"
       "\"startPts\":\"invalid\"}",
       "line 2: \"fps\" must be above 0 and at most 10000"},
  };
  for (const auto& c : cases) {
    const ParsedScript parsed = parse(c.script);
    EXPECT_EQ(parsed.error, c.error) << c.script;
  }
  EXPECT_EQ(parse("{\"do\":").error.rfind("line 1: not JSON: ", 0), 0U);
}

TEST(ScriptParserTest, ListsEveryVerbOnce) {
  const auto verbs = scriptVerbs();
  EXPECT_EQ(verbs.size(), std::variant_size_v<ActionKind>);
  EXPECT_EQ(std::set<std::string_view>(verbs.begin(), verbs.end()).size(), verbs.size());
}

}  // namespace
}  // namespace flowmere::sim
