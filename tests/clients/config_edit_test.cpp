#include "clients/config_edit.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <set>

#include "support/corpus.h"

namespace sorvane::clients {
namespace {

using enum ConfigFormat;

const EntryPath kJsonPath{"mcpServers", "sorvane"};
const EntryPath kTomlPath{"mcp_servers", "sorvane"};
const EntryPath& pathOf(ConfigFormat format) {
  return format == json ? kJsonPath : kTomlPath;
}
const OrderedJson kSmall = OrderedJson::parse(R"({"command":"s","args":["mcp"]})");
const OrderedJson kFull = OrderedJson::parse(
    R"({"type":"stdio","command":"/opt/a \"b\"\\c","args":["mcp","--x=1"],"on":true,"limit":-7,"env":{"B.x":"ü\n","A":""}})");

std::string withCrlf(std::string text) {
  for (std::size_t at = 0; (at = text.find('\n', at)) != std::string::npos; at += 2) text.replace(at, 1, "\r\n");
  return text;
}

std::string refusal(ConfigFormat format, std::string_view document) {
  try {
    (void)findEntry(format, document, pathOf(format));
    return "";
  } catch (const ConfigEditError& error) {
    return error.sentence();
  }
}

std::string replaced(std::string text, std::string_view from, std::string_view to) {
  const std::size_t at = text.find(from);
  if (at == std::string::npos) throw std::logic_error("nothing to replace in " + text);
  return text.replace(at, from.size(), to);
}

/// Sets `entry`, and checks all that holds after every change: it is found, read back, and can be undone to the byte.
std::string setAndCheck(ConfigFormat format, const std::string& document, const OrderedJson& entry) {
  const Edited edited = setEntry(format, document, pathOf(format), entry);
  EXPECT_TRUE(findEntry(format, edited.document, pathOf(format))) << edited.document;
  EXPECT_EQ(readEntry(format, edited.document, pathOf(format)), base::Json::parse(entry.dump())) << edited.document;
  EXPECT_EQ(restoreEntry(format, edited.document, pathOf(format), edited.undo), document) << edited.document;
  const Edited again = setEntry(format, edited.document, pathOf(format), entry);
  EXPECT_EQ(again.document, edited.document);
  EXPECT_EQ(restoreEntry(format, again.document, pathOf(format), again.undo), edited.document);
  return edited.document;
}

struct Change {
  std::string before;
  std::string after;
};

TEST(JsonEdit, anEntryIsPutInTheDocumentsOwnStyleAndTakenOutAgain) {
  const std::string whole =
      "{\n  \"mcpServers\": {\n    \"sorvane\": {\n      \"command\": \"s\",\n      \"args\": [\n        \"mcp\"\n     "
      " "
      "]\n    }\n  }\n}\n";
  const std::string tabs =
      "\n\t\t\"sorvane\": {\n\t\t\t\"command\": \"s\",\n\t\t\t\"args\": [\n\t\t\t\t\"mcp\"\n\t\t\t]\n\t\t}";
  const std::string four =
      "\n    \"mcpServers\": {\n        \"sorvane\": {\n            \"command\": \"s\",\n            \"args\": [\n     "
      "           \"mcp\"\n            ]\n        }\n    }";
  const std::string twoDeep =
      "\n    \"sorvane\": {\n      \"command\": \"s\",\n      \"args\": [\n        \"mcp\"\n      ]\n    }";
  const std::vector<Change> changes{
      {"", whole},
      {" \n\t", whole},
      {"\r\n", withCrlf(whole)},
      {"\xEF\xBB\xBF", "\xEF\xBB\xBF" + whole},
      {"{}", whole.substr(0, whole.size() - 1)},
      {"\xEF\xBB\xBF{ }\n", "\xEF\xBB\xBF" + whole},
      // One line stays one line.
      {R"({"a":1})", R"({"a":1, "mcpServers":{"sorvane":{"command":"s","args":["mcp"]}}})"},
      {R"({"mcpServers":{}})", R"({"mcpServers":{"sorvane":{"command":"s","args":["mcp"]}}})"},
      // Tabs; the comment stays with the member that it was written behind.
      {"{\n\t\"mcpServers\": {\n\t\t\"a\": {} // mine /* too */\n\t\t// \"b\": {}\n\t}\n}",
       "{\n\t\"mcpServers\": {\n\t\t\"a\": {}, // mine /* too */" + tabs + "\n\t\t// \"b\": {}\n\t}\n}"},
      // Four spaces, trailing commas, a key in escapes that is not ours, punctuation within strings.
      {"// {\"mcpServers\"\n{\n    \"x\": \"}, // \\\" {\", /* , */\n}",
       "// {\"mcpServers\"\n{\n    \"x\": \"}, // \\\" {\", /* , */" + four + ",\n}"},
      // A parent without members but with comments, and one whose key is written in escapes.
      {"{\n  \"mcpServers\": { // none yet\n  }\n}", "{\n  \"mcpServers\": { // none yet" + twoDeep + "\n  }\n}"},
      {"{\n  \"mcp\\u0053ervers\": {\n  }\n}", "{\n  \"mcp\\u0053ervers\": {" + twoDeep + "\n  }\n}"},
      {"{\n  \"mcpServers\": { /* none */ }\n}", "{\n  \"mcpServers\": { /* none */" + twoDeep + "\n   }\n}"},
  };
  for (const Change& change : changes) {
    EXPECT_EQ(setAndCheck(json, change.before, kSmall), change.after) << change.before;
    (void)setAndCheck(json, change.before, kFull);
    (void)setAndCheck(json, withCrlf(change.before), kFull);
  }
}

TEST(JsonEdit, anEntryThatStandsIsReplacedInPlaceAndPutBack) {
  const std::string before =
      "{\"z\":0,\n\t\"mcpServers\" : {\n\t\t\"sorvane\" /*1*/ : { \"command\": \"old\", } // 2\n\t, \"b\": [1,],},}";
  EXPECT_EQ(readEntry(json, before, kJsonPath), base::Json::parse(R"({"command":"old"})"));
  EXPECT_EQ(findEntry(json, before, kJsonPath)->text, "{ \"command\": \"old\", }");
  const std::string after = setAndCheck(json, before, kFull);
  EXPECT_TRUE(after.starts_with("{\"z\":0,\n\t\"mcpServers\" : {\n\t\t\"sorvane\" /*1*/ : {\n"));
  EXPECT_TRUE(after.ends_with("} // 2\n\t, \"b\": [1,],},}"));
  // The order of the keys is their author's.
  EXPECT_LT(after.find("\"type\""), after.find("\"command\""));
  EXPECT_LT(after.find("\"B.x\""), after.find("\"A\""));
}

TEST(JsonEdit, whatOthersChangedMeanwhileStaysWhenOurPieceIsTakenOut) {
  struct Case {
    std::string before, from, to, after;
  };
  const std::string end = "\n      ]\n    }";
  const std::vector<Case> cases{
      // A neighbour came behind, came before, went away.
      {"{}", end, end + ",\n    \"b\": 1", "{\n  \"mcpServers\": {\n    \"b\": 1\n  }\n}"},
      {"{}", "\n    \"sorvane\"", "\n    \"b\": 1,\n    \"sorvane\"", "{\n  \"mcpServers\": {\n    \"b\": 1\n  }\n}"},
      {"{}", "\n  }\n}", "\n  },\n  \"b\": 1\n}", "{\n  \"b\": 1\n}"},
      {"", "\n  }\n}", "\n  },\n  \"b\": 1\n}", "{\n  \"b\": 1\n}\n"},
      {"{\n  \"a\": 1 // one\n}", "\"a\": 1,", "", "{\n   // one\n}"},
      {"{\n  \"a\": 1 // one\n}", "\n  }\n}", "\n  },\n  \"b\": 2\n}", "{\n  \"a\": 1, // one\n  \"b\": 2\n}"},
      {"{\n  \"a\": 1,\n}", "\n  },\n}", "\n  }\n}", "{\n  \"a\": 1\n}"},
      // Comments came, and must not swallow what follows them.
      {"{}", "{\n  \"mcp", "{ // c\n  \"mcp", "{ // c\n}"},
      {"{ }", "\n  }\n}", "\n  }}", "{}"},
      {"{\n  \"a\": 1 // c\n}", "\n  }\n}", "\n  }}", "{\n  \"a\": 1 // c\n  }"},
      {"{}", "{\n    \"sor", "{ // c\n    \"sor", "{\n  \"mcpServers\": { // c\n  }\n}"},
      {"", "{\n  \"mcp", "{ // c\n  \"mcp", "{ // c\n}\n"},
      {"{}", "{\n  \"mcp", "{ // c \n\n  \"mcp", "{ // c \n}"},
      {"", "{\n  \"mcp", "{ // c \n  \"mcp", "{ // c\n}\n"},
      {"{\n  \"a\": 1 // c\n}", "// c\n  \"mcpServers\"", "// c\r\n  \"mcpServers\"", "{\n  \"a\": 1 // c\n}"},
      // Indented anew around the entry.
      {"{\"a\":1}", ", \"mcp", ",\n\t\"mcp", "{\"a\":1}"},
  };
  for (const Case& one : cases) {
    const Edited edited = setEntry(json, one.before, kJsonPath, kSmall);
    const std::string changed = replaced(edited.document, one.from, one.to);
    const auto restored = restoreEntry(json, changed, kJsonPath, edited.undo);
    EXPECT_EQ(restored, one.after) << changed;
    EXPECT_EQ(findEntry(json, *restored, kJsonPath), std::nullopt);
  }
}

TEST(ConfigEdit, anEntryThatWasChangedOrIsGoneIsLeftAlone) {
  for (const ConfigFormat format : {json, toml}) {
    for (const std::string& before : {std::string(), setEntry(format, "", pathOf(format), kSmall).document}) {
      const Edited edited = setEntry(format, before, pathOf(format), kFull);
      EXPECT_EQ(restoreEntry(format, replaced(edited.document, "-7", "-8"), pathOf(format), edited.undo), std::nullopt);
      EXPECT_EQ(restoreEntry(format, replaced(edited.document, "sorvane", "other"), pathOf(format), edited.undo),
                std::nullopt);
      EXPECT_EQ(restoreEntry(format, "", pathOf(format), edited.undo), std::nullopt);
      EXPECT_THROW((void)restoreEntry(format, edited.document, pathOf(format), "{}"), ConfigEditError);
    }
  }
}

TEST(ConfigEdit, aDamagedDocumentIsRefusedByAllWithItsLineAndWithoutItsText) {
  const auto deep = [](std::size_t depth) { return "\"x\": " + std::string(depth, '[') + std::string(depth, ']'); };
  const std::string big = "\"x\": \"" + std::string(kMaxConfigBytes, 'a') + "\"";
  struct Case {
    ConfigFormat format;
    std::string document, what;
  };
  const std::vector<Case> cases{
      {json, "{\n\"k\": \"hunter2", "line 2 a string is not closed"},
      {json, "{\n\"k\": \"hunter2\"", "line 2 a comma or a closing brace"},
      {json, "{\"a\": 1 \"b\": 2}", "a comma or a closing brace"},
      {json, "{\"a\": [1 2]}", "a closing bracket"},
      {json, "{,}", "a key in double quotes"},
      {json, "{'a': 1}", "a key in double quotes"},
      {json, "{\"a\" 1}", "the colon"},
      {json, "{\"a\": hunter2}", "where a value belongs"},
      {json, "{\"a\": \"\\q\"}", "unknown escape"},
      {json, "{} {}", "behind the end"},
      {json, "{} /* ", "a comment is not closed"},
      {json, "{ // a\r\"b\": 1\n}", "carriage return"},
      {json, "[]", "other than an object"},
      {json, "{\"mcpServers\": null}", "other than an object"},
      {json, "{\"mcpServers\": {},\n\"mcp\\u0053ervers\": {}}", "line 2 a key on the way to the entry stands a second"},
      {json, "{\"mcpServers\": {\"sorvane\": {}, \"sorvane\": {}}}", "stands a second time"},
      {json, "{\"a\": \"\xC3\"}", "not UTF-8"},
      {json, std::string("{}\0", 3), "not UTF-8"},
      {json, "{" + deep(64) + "}", "deeper than 64"},
      {json, "{" + big + "}", "larger than 4 MiB"},
      {toml, "a = 1\nb = \"hunter2\n", "line 2 a string is not closed"},
      {toml, "b = '''\n[mcp_servers.sorvane]\n", "line 1 a string is not closed"},
      {toml, "a = [1, 2\n", "a closing bracket"},
      {toml, "a = { b = 1\n", "a closing brace"},
      {toml, "a = hunter2", "where a value belongs"},
      {toml, "a = 01", "where a value belongs"},
      {toml, "a = '1' b = 2", "behind the end of a value"},
      {toml, "a\n", "the equals sign"},
      {toml, "[a\n", "header is not closed"},
      {toml, "[[a]\n", "header is not closed"},
      {toml, "[mcp_servers]\n[mcp_servers]\n", "line 2 a table on the way"},
      {toml, "[mcp_servers.sorvane]\n[mcp_servers.'sorvane']\n", "stands a second time"},
      {toml, "a = \"\\q\"", "unknown escape"},
      {toml, "a = \"\\uD800\"", "broken escape"},
      {toml, "a = \"\xFF\"", "not UTF-8"},
      {toml, "x = " + std::string(65, '[') + std::string(65, ']'), "deeper than 64"},
      // Sound, but not to be edited as text.
      {toml, "mcp_servers = { sorvane = {} }", "written as a value"},
      {toml, "[mcp_servers]\nsorvane = {}", "line 2 the entry or its parent is written as a value"},
      {toml, "mcp_servers.\"sorvane\".command = ''", "dotted keys"},
      {toml, "[mcp_servers]\nsorvane.env.A = ''", "dotted keys"},
      {toml, "[[mcp_servers]]", "array of tables"},
      {toml, "[[mcp_servers.sorvane]]", "array of tables"},
      {toml, "[mcp_servers.sorvane.env]\n[b]\n[mcp_servers.sorvane]", "line 3 a part of the entry stands apart"},
  };
  for (const Case& one : cases) {
    const std::string sentence = refusal(one.format, one.document);
    const std::string shown = one.document.substr(0, 80);
    EXPECT_NE(sentence.find(one.what), std::string::npos) << sentence << "\n" << shown;
    EXPECT_NE(sentence.find(" Nothing was changed. "), std::string::npos) << shown;
    EXPECT_EQ(sentence.find("hunter2"), std::string::npos);
    const EntryPath& path = pathOf(one.format);
    EXPECT_THROW((void)readEntry(one.format, one.document, path), ConfigEditError) << shown;
    EXPECT_THROW((void)setEntry(one.format, one.document, path, kSmall), ConfigEditError) << shown;
    EXPECT_THROW((void)restoreEntry(one.format, one.document, path, ""), ConfigEditError) << shown;
  }
  EXPECT_EQ(refusal(json, "{" + deep(63) + "}"), "");
  EXPECT_EQ(refusal(toml, "x = " + std::string(64, '[') + std::string(64, ']')), "");
  EXPECT_EQ(refusal(json, "{\n{"),
            "The configuration file is damaged: in line 2 a key in double quotes or a closing brace is missing. "
            "Nothing was changed. Correct the file by hand, then try again.");
}

TEST(JsonEdit, thePublishedSuiteIsAcceptedAndRefusedAsItSays) {
  int accepted = 0, refused = 0;
  std::set<std::string> more;
  for (const auto& file : std::filesystem::directory_iterator(test::corpus("json_parsing/test_parsing"))) {
    const std::string name = file.path().filename().string();
    const std::string sentence = refusal(json, "{\"x\":" + test::textOfFile(file.path()) + "\n}");
    if (name[0] == 'y') {
      EXPECT_EQ(sentence, "") << name;
      ++accepted;
    } else if (name[0] == 'n' && !sentence.empty()) {
      ++refused;
    } else if (name[0] == 'n') {
      more.insert(name);
    }
  }
  EXPECT_EQ(accepted, 95);
  EXPECT_EQ(refused, 181);
  // Comments and trailing commas, those of the object around the case included.
  EXPECT_EQ(more, (std::set<std::string>{"n_array_comma_after_close.json", "n_array_extra_comma.json",
                                         "n_array_number_and_comma.json", "n_object_trailing_comma.json",
                                         "n_object_trailing_comment.json", "n_object_trailing_comment_slash_open.json",
                                         "n_structure_object_with_comment.json"}));
}

TEST(TomlEdit, anEntryIsAppendedAsTablesAndTakenOutAgain) {
  const std::string small = "[mcp_servers.sorvane]\ncommand = \"s\"\nargs = [\"mcp\"]";
  const std::vector<Change> changes{
      {"", small + "\n"},
      {" \n", small + "\n"},
      {"\xEF\xBB\xBF", "\xEF\xBB\xBF" + small + "\n"},
      {"a = 1\n", "a = 1\n\n" + small + "\n"},
      {"a = 1\n\n", "a = 1\n\n" + small + "\n"},
      {"[a]\nb = 1 # c", "[a]\nb = 1 # c\n\n" + small},
      {"\n\n# only a comment\n", "\n\n# only a comment\n\n" + small + "\n"},
      // What looks like our header within strings, comments and arrays is none.
      {"a = \"\"\"\n[mcp_servers.sorvane]\n\\\"\"\"\"\"\nb = '''\n[mcp_servers.sorvane]\n''''\n",
       "a = \"\"\"\n[mcp_servers.sorvane]\n\\\"\"\"\"\"\nb = '''\n[mcp_servers.sorvane]\n''''\n\n" + small + "\n"},
      {"#[mcp_servers.sorvane]\nc = [\n[ 1, # ]\n],\n]\n",
       "#[mcp_servers.sorvane]\nc = [\n[ 1, # ]\n],\n]\n\n" + small + "\n"},
      // Neighbours of the entry and of its parent.
      {"mcp_servers.b.command = 'x'\n[mcp_servers.sorvane2]\n",
       "mcp_servers.b.command = 'x'\n[mcp_servers.sorvane2]\n\n" + small + "\n"},
      {"[mcp_servers]\n[x.mcp_servers.sorvane]\n", "[mcp_servers]\n[x.mcp_servers.sorvane]\n\n" + small + "\n"},
  };
  for (const Change& change : changes) {
    EXPECT_EQ(setAndCheck(toml, change.before, kSmall), change.after) << change.before;
    (void)setAndCheck(toml, change.before, kFull);
    (void)setAndCheck(toml, withCrlf(change.before), kFull);
  }
  EXPECT_EQ(setEntry(toml, "a = 1\r\n", kTomlPath, kSmall).document, withCrlf("a = 1\n\n" + small + "\n"));
  EXPECT_EQ(
      setEntry(toml, "", kTomlPath, kFull).document,
      "[mcp_servers.sorvane]\ntype = \"stdio\"\ncommand = \"/opt/a \\\"b\\\"\\\\c\"\nargs = [\"mcp\", \"--x=1\"]\n"
      "on = true\nlimit = -7\n\n[mcp_servers.sorvane.env]\n\"B.x\" = \"ü\\n\"\nA = \"\"\n");
}

TEST(TomlEdit, everySpellingOfAnEntryIsReadReplacedAndPutBack) {
  const std::string entry =
      " [ mcp_servers . \"sor\\u0076ane\" ] # ours\ncommand = 'a\\b'\n# between\nargs = [ \"x\", # one\n  '''y''', ]\n"
      "limit = 0x1_0\nf = 1_0.5e1\nenv.\"B.x\" = \"\"\"\nu\\\n   v\"\"\"\"\n\n[mcp_servers.sorvane.more]\nd = {e.f = "
      "+2} # end";
  const std::string before = "a = 1\n" + entry + "\n# of b\n[b]\n";
  EXPECT_EQ(findEntry(toml, before, kTomlPath)->text, entry.substr(1));
  EXPECT_EQ(readEntry(toml, before, kTomlPath),
            base::Json::parse(R"({"command":"a\\b","args":["x","y"],"limit":16,"f":105.0,"env":{"B.x":"uv\""},)"
                              R"("more":{"d":{"e":{"f":2}}}})"));
  EXPECT_EQ(setAndCheck(toml, before, kSmall),
            "a = 1\n [mcp_servers.sorvane]\ncommand = \"s\"\nargs = [\"mcp\"]\n# of b\n[b]\n");
  for (const char* pair :
       {"d = 1979-05-27 07:32:00Z", "d = inf", "d = 1\nd = 2", "d = 1\nd.e = 2", "d = 99999999999999999999"}) {
    const std::string document = "[mcp_servers.sorvane]\n" + std::string(pair) + "\n";
    EXPECT_TRUE(findEntry(toml, document, kTomlPath)) << pair;
    EXPECT_EQ(readEntry(toml, document, kTomlPath), std::nullopt) << pair;
  }
}

TEST(TomlEdit, whatOthersChangedMeanwhileStaysWhenOurPieceIsTakenOut) {
  struct Case {
    std::string before, from, to, after;
  };
  const std::string end = "args = [\"mcp\"]";
  const std::vector<Case> cases{
      {"a = 1\n", end + "\n", end + "\n\n[b]\n", "a = 1\n\n[b]\n"},
      {"a = 1", end, end + "\n[b]", "a = 1\n[b]"},
      {"a = 1\n", "\n\n[mcp", "\n[mcp", "a = 1\n"},
      {"a = 1\n", "\n\n[mcp", "\n# c\n[mcp", "a = 1\n# c\n"},
      {"a = 1\n", "a = 1\n\n", "", ""},
      {"a = 1", "= 1\n", "= 1\r\n", "a = 1\r\n\n"},
      {"", end + "\n", end + "  \n[b]\n", "  \n[b]\n"},
      {"", "[mcp", "# c\n[mcp", "# c\n"},
      {"a = 1\n", "a = 1\n\n[mcp_servers.sorvane]\ncommand = \"s\"\n" + end + "\n",
       "a = 1\n[mcp_servers.sorvane]\ncommand = \"s\"\n" + end + "\n[b]\n", "a = 1\n[b]\n"},
  };
  for (const Case& one : cases) {
    const Edited edited = setEntry(toml, one.before, kTomlPath, kSmall);
    const std::string changed = replaced(edited.document, one.from, one.to);
    EXPECT_EQ(restoreEntry(toml, changed, kTomlPath, edited.undo), one.after) << changed;
  }
}

TEST(ConfigEdit, anEntryThatCannotBeWrittenIsRefused) {
  const OrderedJson bytes{{"command", "a\xFF"}};
  EXPECT_THROW((void)setEntry(json, "", kJsonPath, bytes), ConfigEditError);
  EXPECT_THROW((void)setEntry(toml, "", kTomlPath, bytes), ConfigEditError);
  EXPECT_THROW((void)setEntry(toml, "", kTomlPath, OrderedJson{{"command", nullptr}}), std::invalid_argument);
}

}  // namespace
}  // namespace sorvane::clients
