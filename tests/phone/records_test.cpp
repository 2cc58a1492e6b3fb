#include "phone/records.h"

#include <gtest/gtest.h>

#include <functional>
#include <set>

#include "phone/digests.h"
#include "vectors.h"

namespace sorvane::phone {
namespace {

using Json = nlohmann::ordered_json;

/// What the record's reader and writer make of a text.
using Recode = std::function<std::optional<std::string>(std::string_view)>;
template <typename Record>
std::optional<std::string> recoded(std::string_view json) {
  const auto record = decodeRecord<Record>(json);
  return record ? std::optional(std::string(encodeRecord(*record).view())) : std::nullopt;
}
/// The same of a box that `side` opens.
using OpenBox = std::function<std::optional<std::string>(const Channel&, const base::Bytes&)>;
template <typename Record>
std::optional<std::string> opened(const Channel& channel, const base::Bytes& box) {
  const auto record = channel.open<Record>(box);
  return record ? std::optional(std::string(encodeRecord(*record).view())) : std::nullopt;
}

struct Codec {
  Recode recode;
  OpenBox open;
  std::set<std::string> optional;
};
template <typename Record>
std::pair<std::string, Codec> codec(std::set<std::string> optional) {
  return {std::string(Record::kLabel), Codec{recoded<Record>, opened<Record>, std::move(optional)}};
}
const std::map<std::string, Codec>& codecs() {
  static const std::map<std::string, Codec> all = {
      codec<PairConfirm>({}),
      codec<HelloProof>({"features"}),
      codec<MacProof>({}),
      codec<ApprovalRequest>({"subject", "version", "allowedTargets", "declaredTarget"}),
      codec<ApprovalResponse>({"presenceSignature"}),
      codec<ApprovalCancel>({}),
      codec<KeyApprovalAsk>({"workspaceName", "connectionName", "sessionId", "zone", "a", "é"}),
      codec<KeyApprovalAnswer>({"signature"}),
      codec<ApproverRegisterAsk>({"workspaceName"}),
      codec<ApproverRegisterAnswer>({"publicKey", "signature"}),
      codec<UnpairNotice>({}),
  };
  return all;
}

/// Every key of `object`, and of the objects in it, taken away or made another type by turns.
void spoilEachKey(const Json& whole, const Json::json_pointer& at, const Codec& codec, int& refused) {
  for (const auto& [key, value] : whole[at].items()) {
    Json without = whole;
    without[at].erase(key);
    const bool isOptional = codec.optional.contains(key);
    EXPECT_EQ(codec.recode(without.dump()), isOptional ? std::optional(without.dump()) : std::nullopt) << without;
    for (const Json& other : {Json(nullptr), Json(1.5), Json::array({1}), Json{{"a", 1}}, Json("A=")}) {
      if (other.is_string() && value.is_string() && !base::parseBase64(value.get<std::string>())) continue;
      Json spoilt = whole;
      spoilt[at][key] = other;
      // "A=" is no base64 but a text like others.
      const auto written = codec.recode(spoilt.dump());
      if (written && other.is_string()) continue;
      EXPECT_FALSE(written) << spoilt;
      ++refused;
    }
    if (value.is_object()) spoilEachKey(whole, at / key, codec, refused);
  }
}

TEST(Record, ofAnotherWriterIsWrittenBackToTheSameBytesAndNeedsEachOfItsKeys) {
  std::set<std::string> labels;
  int refused = 0;
  for (const auto& vector : linkVectors()["records"]) {
    const auto& label = vector["label"].get_ref<const std::string&>();
    const auto& json = vector["json"].get_ref<const std::string&>();
    const Codec& codec = codecs().at(label);
    EXPECT_EQ(codec.recode(json), json);
    Json whole = Json::parse(json);
    spoilEachKey(whole, Json::json_pointer(), codec, refused);
    whole["unheardOf"] = Json::array({nullptr});
    EXPECT_EQ(codec.recode(whole.dump()), json);
    labels.insert(label);
  }
  EXPECT_EQ(labels.size(), codecs().size());
  EXPECT_GT(refused, 300);
}

TEST(Record, opensUnderItsOwnLabelAndDirectionOnly) {
  int openings = 0;
  for (const auto& vector : linkVectors()["records"]) {
    const base::Bytes box = base64Of(vector["box"]);
    for (const auto& [label, codec] : codecs()) {
      for (const Side side : {Side::mac, Side::phone}) {
        const auto json = codec.open(recordedChannel(side), box);
        // What goes one way only needs no side; the end of a pairing comes from the other.
        const bool fits = label == vector["label"] && (label != "unpair" || side != sideOf(vector["from"]));
        EXPECT_EQ(json, fits ? std::optional(vector["json"].get<std::string>()) : std::nullopt) << label;
        openings += json.has_value();
      }
    }
  }
  EXPECT_EQ(openings, 14 * 2 + 2);
  const Channel mac = recordedChannel(Side::mac), phone = recordedChannel(Side::phone);
  const UnpairNotice notice{publicKeyOf("phone")};
  EXPECT_EQ(phone.open<UnpairNotice>(mac.seal(notice)), notice);
  EXPECT_EQ(mac.open<UnpairNotice>(phone.seal(notice)), notice);
  EXPECT_FALSE(mac.open<UnpairNotice>(mac.seal(notice)));
  EXPECT_FALSE(Channel::of(Side::phone, keyOf("stranger"), publicKeyOf("mac"))->open<UnpairNotice>(mac.seal(notice)));
  EXPECT_FALSE(Channel::of(Side::mac, keyOf("mac"), PublicKey{}));
}

TEST(Record, isHeldToItsEdges) {
  const auto vectorOf = [](std::string_view label) {
    for (const auto& vector : linkVectors()["records"]) {
      if (vector["label"] == label) return Json::parse(vector["json"].get<std::string>());
    }
    return Json();
  };
  const auto text = [](std::size_t size) { return std::string(size, 'x'); };
  const auto base64Of = [](std::size_t size) { return base::base64(base::Bytes(size, 0xFF)); };
  const auto names = [](std::size_t count) {
    std::string all;
    for (std::size_t i = 0; i < count; ++i) all += "é";
    return all;
  };
  const struct {
    std::string label, key;
    Json value;
    bool accepted;
  } cases[] = {
      {"approval-cancel", "/id", text(64), true},
      {"approval-cancel", "/id", text(65), false},
      {"approval-cancel", "/id", "", false},
      {"approval-cancel", "/id", names(32), true},
      {"approval-cancel", "/id", names(33), false},
      {"approval-cancel", "/id", std::string("a\0b", 3), false},
      {"approval-response", "/id", text(65), false},
      {"approval-response", "/nonce", base64Of(31), false},
      {"approval-response", "/digest", base64Of(33), false},
      {"approval-response", "/presenceSignature", "", true},
      {"approval-response", "/approved", 1, false},
      {"pair-confirm", "/presenceKey", base64Of(33), false},
      {"pair-confirm", "/deviceName", names(64), true},
      {"pair-confirm", "/deviceName", names(65), false},
      {"pair-confirm", "/deviceName", "", false},
      {"pair-confirm", "/deviceName", "a\x1b[2J", false},
      {"pair-confirm", "/deviceName", "a\u009bb", false},
      {"approval-request", "/expiresAt", 815999400.0, false},
      {"approval-request", "/expiresAt", "2026-11-10T10:30:00Z", false},
      {"approval-request", "/expiresAt", 252423993599, true},
      {"approval-request", "/expiresAt", 252423993600, false},
      {"approval-request", "/issuedAt", -63113904000, true},
      {"approval-request", "/issuedAt", -63113904001, false},
      {"approval-request", "/issuedAt", INT64_MIN, false},
      {"approval-request", "/issuedAt", UINT64_MAX, false},
      {"approval-request", "/details/version", INT64_MIN, true},
      {"approval-request", "/details/version", INT64_MAX, true},
      {"approval-request", "/details/version", std::uint64_t{INT64_MAX} + 1, false},
      {"approval-request", "/details/kind", "UseEnvironment", false},
      {"approval-request", "/details/kind", "unlock", true},
      {"approval-request", "/details/allowedTargets", Json::array(), true},
      {"approval-request", "/details/allowedTargets", {"a", 1}, false},
      {"approval-request", "/details/reason", std::string("a\0b", 3), false},
      {"keyApproval", "/fields", Json::object(), true},
      {"keyApproval", "/fields/zone", 7, false},
      {"keyApproval", "/fields/zone", nullptr, false},
  };
  for (const auto& [label, key, value, accepted] : cases) {
    Json record = vectorOf(label);
    record[Json::json_pointer(key)] = value;
    const auto written = codecs().at(label).recode(record.dump());
    EXPECT_EQ(written, accepted ? std::optional(record.dump()) : std::nullopt) << label << key << value;
  }
}

TEST(Digest, isWhatAnotherWriterMakesOfTheSameRecord) {
  std::map<std::string, int> count;
  for (const auto& vector : linkVectors()["digests"]) {
    const auto& json = vector["json"].get_ref<const std::string&>();
    const std::string of = vector["of"];
    const Digest digest = of == "approval"      ? approvalDigest(decodeRecord<ApprovalRequest>(json).value())
                          : of == "keyApproval" ? keyApprovalDigest(decodeRecord<KeyApprovalAsk>(json).value())
                                                : registrationDigest(decodeRecord<ApproverRegisterAsk>(json).value());
    EXPECT_EQ(base::hexLower(digest), vector["digest"].get<std::string>()) << json;
    ++count[of];
  }
  EXPECT_EQ(count, (std::map<std::string, int>{{"approval", 18}, {"keyApproval", 6}, {"registration", 2}}));
}

}  // namespace
}  // namespace sorvane::phone
