#include "base/json.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "base/json_writer.h"
#include "support/corpus.h"

namespace sorvane::base {
namespace {

TEST(Json, thePublishedSuiteIsAcceptedAndRefusedAsItSays) {
  int accepted = 0, refused = 0, either = 0;
  for (const auto& file : std::filesystem::directory_iterator(test::corpus("json_parsing/test_parsing"))) {
    const std::string name = file.path().filename().string();
    const bool parsed = parseJson(test::textOfFile(file.path())).has_value();
    if (name[0] == 'y') {
      // The suite allows doubled keys; here they are refused, so that no two readers see different requests.
      EXPECT_EQ(parsed, name.find("duplicated_key") == std::string::npos) << name;
      ++accepted;
    } else if (name[0] == 'n') {
      EXPECT_FALSE(parsed) << name;
      ++refused;
    } else {
      ++either;
    }
  }
  EXPECT_EQ(accepted, 95);
  EXPECT_EQ(refused, 188);
  EXPECT_EQ(either, 35);
}

TEST(Json, depthAndDoubledKeysAreBounded) {
  const auto nested = [](std::size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); };
  EXPECT_TRUE(parseJson(nested(kMaxJsonDepth)));
  EXPECT_FALSE(parseJson(nested(kMaxJsonDepth + 1)));
  EXPECT_FALSE(parseJson(R"({"a":{"b":1,"\u0062":2}})"));
  EXPECT_TRUE(parseJson(R"({"a":{"b":1},"b":{"b":2}})"));
}

TEST(Json, whatTheWriterWritesIsReadBackEqual) {
  std::string every;
  for (int c = 0; c < 128; ++c) every += static_cast<char>(c);
  every += "\xE2\x80\xA8\xF0\x9F\x94\x91/";
  for (const auto style : {JsonWriter::Style::compact, JsonWriter::Style::pretty}) {
    JsonWriter writer(style);
    writer.beginObject().field("text", every).strings("list", {"a", "", "\n"}).key("n").integer(INT64_MIN);
    writer.field("absent", std::optional<std::string>()).key("empty").beginArray().endArray();
    writer.key("o").beginObject().endObject();
    writer.key("deep").beginArray().beginArray().boolean(true).endArray().integer(-1).endArray().endObject();
    const auto value = parseJson(writer.view());
    ASSERT_TRUE(value) << writer.view();
    EXPECT_EQ((*value)["text"], every);
    EXPECT_EQ((*value)["list"], Json::parse(R"(["a","","\n"])"));
    EXPECT_EQ((*value)["n"], INT64_MIN);
    EXPECT_FALSE(value->contains("absent"));
    EXPECT_EQ((*value)["deep"], Json::parse("[[true],-1]"));
    EXPECT_EQ(value->size(), 6U);
  }
  JsonWriter pretty(JsonWriter::Style::pretty);
  pretty.beginArray().beginObject().field("a", "b").field("c", "/").endObject().endArray();
  EXPECT_EQ(pretty.view(), "[\n  {\n    \"a\": \"b\",\n    \"c\": \"/\"\n  }\n]");
}

}  // namespace
}  // namespace sorvane::base
