#include "phone/envelope.h"

#include <gtest/gtest.h>

#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "base/codec.h"

namespace sorvane::phone {
namespace {

using Json = nlohmann::ordered_json;

const std::string k32 = base::base64(base::Bytes(32, 7));

Json everyKey() {
  return {{"pairRequest", {{"phonePublicKey", k32}, {"sealedConfirm", "AAAA"}}},
          {"peerPublicKey", k32},
          {"challenge", k32},
          {"sealed", "AAAA"},
          {"ok", true},
          {"macName", "Desk"}};
}

struct Row {
  std::string sides;
  std::set<std::string> keys;
};
const std::map<std::string, Row> kPage = {
    {"challenge", {"mac", {"challenge", "peerPublicKey", "macName"}}},
    {"pair", {"phone", {"pairRequest"}}},
    {"paired", {"mac", {"ok", "sealed"}}},
    {"hello", {"phone", {"peerPublicKey", "sealed"}}},
    {"helloAck", {"mac", {"ok", "sealed"}}},
    {"approvalRequest", {"mac", {"sealed"}}},
    {"approvalResponse", {"phone", {"sealed"}}},
    {"cancel", {"mac", {"sealed"}}},
    {"unpair", {"mac phone", {"sealed"}}},
    {"keyApproval", {"mac", {"sealed"}}},
    {"keyApprovalAnswer", {"phone", {"sealed"}}},
    {"approverRegister", {"mac", {"sealed"}}},
    {"approverRegisterAnswer", {"phone", {"sealed"}}},
    {"approvalresponse", {"", {"sealed"}}},
};

TEST(Envelope, carriesWhatItsKindDoesFromTheSideThatSendsItAndNothingElse) {
  const Json every = everyKey();
  int accepted = 0, refused = 0;
  for (const auto& [kind, row] : kPage) {
    for (unsigned chosen = 0; chosen < 128; ++chosen) {
      Json envelope{{"v", 4}, {"kind", kind}};
      std::set<std::string> keys;
      unsigned bit = 1;
      for (const auto& [key, value] : every.items()) {
        if (chosen & bit) envelope[key] = value;
        if (chosen & bit) keys.insert(key);
        bit <<= 1;
      }
      const bool isNo = (chosen & 64) != 0 && keys.contains("ok");
      if (isNo) envelope["ok"] = false;
      if ((chosen & 64) != 0 && !isNo) continue;
      for (const Side from : {Side::mac, Side::phone}) {
        const bool comes = row.sides.find(from == Side::mac ? "mac" : "phone") != std::string::npos;
        const bool fits = keys == row.keys || (isNo && row.keys.contains("ok"));
        const bool expected = comes && (isNo ? row.keys.contains("ok") && keys == std::set<std::string>{"ok"} : fits);
        const auto decoded = decodeEnvelope(envelope.dump(), from);
        ASSERT_EQ(decoded.has_value(), expected) << envelope.dump();
        ++(expected ? accepted : refused);
        if (!decoded) continue;
        EXPECT_EQ(encodeEnvelope(*decoded), envelope.dump());
      }
    }
  }
  EXPECT_EQ(accepted, 16);
  EXPECT_EQ(refused, 14 * 96 * 2 - 16);
}

std::string nested(int levels) {
  const auto size = static_cast<std::size_t>(levels);
  return std::string(size, '[') + std::string(size, ']');
}

TEST(Envelope, isReadStrictly) {
  const std::string hello = R"({"v":4,"kind":"hello","peerPublicKey":")" + k32 + R"(","sealed":"AAAA")";
  const std::string answer = R"({"v":4,"kind":"approvalResponse","sealed":)";
  const struct {
    std::string json;
    bool accepted;
  } cases[] = {
      {hello + "}", true},
      {" \n{\"kind\":\"unpair\",\"sealed\":\"AA==\",\"v\":4}\t", true},
      {hello + R"(,"later":{"a":[1]},"features":null})", true},
      {hello + ",\"x\":" + nested(15) + "}", true},
      {hello + ",\"x\":" + nested(16) + "}", false},
      {hello + ",\"x\":" + nested(30'000) + "}", false},
      {hello + ",\"challenge\":null}", false},
      {hello + R"(,"sealed":"AAAA"})", false},
      {hello + R"(,"\u0073ealed":"AAAA"})", false},
      {hello + "}}", false},
      {hello + "} {}", false},
      {hello, false},
      {hello + ",}", false},
      {hello + ",\"x\":\"\xff\"}", false},
      {hello + ",\"x\":\"\xed\xa0\x80\"}", false},
      {hello + std::string(",\"x\":\"\0\"}", 8), false},
      {hello + "}" + std::string(1, '\0'), false},
      {"\xEF\xBB\xBF" + hello + "}", false},
      {answer + "\"\"}", true},
      {answer + "\"AB==\"}", false},
      {answer + "\"AAA\"}", false},
      {answer + "\"AA_-\"}", false},
      {answer + "\"AA A\"}", false},
      {answer + "\"AAAA\\n\"}", false},
      {answer + "null}", false},
      {answer + "[0]}", false},
      {R"({"v":4,"kind":"hello","peerPublicKey":"AAAA","sealed":"AAAA"})", false},
      {R"({"v":4.0,"kind":"unpair","sealed":"AAAA"})", false},
      {R"({"v":"4","kind":"unpair","sealed":"AAAA"})", false},
      {R"({"v":5,"kind":"unpair","sealed":"AAAA"})", false},
      {R"({"v":18446744073709551620,"kind":"unpair","sealed":"AAAA"})", false},
      {R"({"kind":"unpair","sealed":"AAAA"})", false},
      {R"({"v":4,"kind":3,"sealed":"AAAA"})", false},
      {R"({"v":4,"sealed":"AAAA"})", false},
      {"[]", false},
      {"4", false},
      {"", false},
  };
  for (const auto& [json, accepted] : cases) {
    EXPECT_EQ(decodeEnvelope(json, Side::phone).has_value(), accepted) << json.substr(0, 200);
  }
  const auto named = [](std::string_view name) {
    return decodeEnvelope(R"({"v":4,"kind":"challenge","peerPublicKey":")" + k32 + R"(","challenge":")" + k32 +
                              R"(","macName":)" + std::string(name) + "}",
                          Side::mac);
  };
  EXPECT_EQ(named(R"("a \"desk\" \u00e9")")->macName, "a \"desk\" é");
  EXPECT_FALSE(named(R"("a\u0000b")"));
  EXPECT_FALSE(named("7"));
}

}  // namespace
}  // namespace sorvane::phone
