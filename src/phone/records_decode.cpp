#include <algorithm>

#include "base/unicode.h"
#include "phone/fields.h"
#include "phone/records.h"

namespace sorvane::phone {
namespace {

struct KindName {
  ApprovalDetails::Kind kind;
  std::string_view name;
};
constexpr KindName kKindNames[] = {
    {ApprovalDetails::Kind::useEnvironment, "useEnvironment"},
    {ApprovalDetails::Kind::readSecret, "readSecret"},
    {ApprovalDetails::Kind::unlock, "unlock"},
    {ApprovalDetails::Kind::other, "other"},
    {ApprovalDetails::Kind::taskSession, "taskSession"},
};

ApprovalDetails::Kind kindOf(std::string_view name) {
  const auto* const found = std::find_if(std::begin(kKindNames), std::end(kKindNames),
                                         [name](const KindName& row) { return row.name == name; });
  if (found == std::end(kKindNames)) throw WrongShape{};
  return found->kind;
}

std::string idOf(const Fields& in) {
  std::string id = in.text("id");
  if (id.empty() || id.size() > kMostIdBytes) throw WrongShape{};
  return id;
}

Nonce nonceOf(const Fields& in) {
  return in.bytesOf<32>("nonce");
}

ApprovalDetails detailsOf(const Fields& in) {
  ApprovalDetails details;
  details.kind = kindOf(in.text("kind"));
  details.reason = in.text("reason");
  details.requestor = in.text("requestor");
  details.subject = in.optionalText("subject");
  details.version = in.optionalInteger("version");
  details.allowedTargets = in.optionalTexts("allowedTargets");
  details.declaredTarget = in.optionalText("declaredTarget");
  return details;
}

}  // namespace

std::string_view nameOf(ApprovalDetails::Kind kind) {
  const auto* const found = std::find_if(std::begin(kKindNames), std::end(kKindNames),
                                         [kind](const KindName& row) { return row.kind == kind; });
  return found == std::end(kKindNames) ? std::string_view{} : found->name;
}

bool isDeviceName(std::string_view name) {
  std::size_t characters = 0;
  while (!name.empty()) {
    const base::Decoded next = base::decodeUtf8(name);
    if (!next.valid || base::isControl(next.character) || ++characters > kMostNameCharacters) return false;
    name.remove_prefix(next.size);
  }
  return characters >= 1;
}

template <>
std::optional<PairConfirm> decodeRecord<PairConfirm>(std::string_view json) {
  return decodedWith<PairConfirm>(json, [](const Fields& in) {
    PairConfirm record{in.bytesOf<32>("phonePublicKey"), in.bytesOf<65>("presenceKey"),
                       in.boolean("hardwarePresenceKey"), in.text("deviceName"), in.text("proof")};
    if (!isDeviceName(record.deviceName)) throw WrongShape{};
    return record;
  });
}

template <>
std::optional<HelloProof> decodeRecord<HelloProof>(std::string_view json) {
  return decodedWith<HelloProof>(json, [](const Fields& in) {
    return HelloProof{in.bytesOf<32>("challenge"), in.bytesOf<32>("phonePublicKey"), in.bytesOf<32>("phoneChallenge"),
                      in.optionalTexts("features")};
  });
}

template <>
std::optional<MacProof> decodeRecord<MacProof>(std::string_view json) {
  return decodedWith<MacProof>(json, [](const Fields& in) {
    return MacProof{in.bytesOf<32>("phoneChallenge"), in.bytesOf<32>("challenge"), in.bytesOf<32>("macPublicKey")};
  });
}

template <>
std::optional<ApprovalRequest> decodeRecord<ApprovalRequest>(std::string_view json) {
  return decodedWith<ApprovalRequest>(json, [](const Fields& in) {
    return ApprovalRequest{
        idOf(in),           nonceOf(in),         detailsOf(in.object("details")),
        in.text("macName"), in.date("issuedAt"), in.date("expiresAt"),
    };
  });
}

template <>
std::optional<ApprovalResponse> decodeRecord<ApprovalResponse>(std::string_view json) {
  return decodedWith<ApprovalResponse>(json, [](const Fields& in) {
    return ApprovalResponse{idOf(in), nonceOf(in), in.bytesOf<32>("digest"), in.boolean("approved"),
                            in.optionalBytes("presenceSignature")};
  });
}

template <>
std::optional<ApprovalCancel> decodeRecord<ApprovalCancel>(std::string_view json) {
  return decodedWith<ApprovalCancel>(json, [](const Fields& in) { return ApprovalCancel{idOf(in)}; });
}

template <>
std::optional<KeyApprovalAsk> decodeRecord<KeyApprovalAsk>(std::string_view json) {
  return decodedWith<KeyApprovalAsk>(json, [](const Fields& in) {
    return KeyApprovalAsk{
        idOf(in),
        nonceOf(in),
        in.textsByName("fields"),
        in.optionalText("workspaceName"),
        in.optionalText("connectionName"),
        in.text("macName"),
        in.date("expiresAt"),
        in.optionalText("sessionId"),
    };
  });
}

template <>
std::optional<KeyApprovalAnswer> decodeRecord<KeyApprovalAnswer>(std::string_view json) {
  return decodedWith<KeyApprovalAnswer>(json, [](const Fields& in) {
    return KeyApprovalAnswer{idOf(in), nonceOf(in), in.bytesOf<32>("digest"), in.boolean("approved"),
                             in.optionalBytes("signature")};
  });
}

template <>
std::optional<ApproverRegisterAsk> decodeRecord<ApproverRegisterAsk>(std::string_view json) {
  return decodedWith<ApproverRegisterAsk>(json, [](const Fields& in) {
    return ApproverRegisterAsk{
        idOf(in),          nonceOf(in),      in.text("workspaceId"), in.optionalText("workspaceName"),
        in.text("userId"), in.text("label"), in.text("macName"),     in.date("expiresAt"),
    };
  });
}

template <>
std::optional<ApproverRegisterAnswer> decodeRecord<ApproverRegisterAnswer>(std::string_view json) {
  return decodedWith<ApproverRegisterAnswer>(json, [](const Fields& in) {
    return ApproverRegisterAnswer{idOf(in), nonceOf(in), in.boolean("accepted"), in.optionalText("publicKey"),
                                  in.optionalBytes("signature")};
  });
}

template <>
std::optional<UnpairNotice> decodeRecord<UnpairNotice>(std::string_view json) {
  return decodedWith<UnpairNotice>(json,
                                   [](const Fields& in) { return UnpairNotice{in.bytesOf<32>("phonePublicKey")}; });
}

}  // namespace sorvane::phone
