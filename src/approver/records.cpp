#include "approver/records.h"

#include <algorithm>

#include "approver/digest_input.h"
#include "approver/fields.h"
#include "base/codec.h"
#include "base/json_writer.h"
#include "base/unicode.h"
#include "crypto/derivation.h"
#include "crypto/key.h"
#include "crypto/mac.h"

namespace sorvane::approver {
namespace {

using Kind = ApprovalRequest::Kind;

constexpr std::string_view kPairingText = "sorvane-pairing-v1";
constexpr std::string_view kPresenceText = "sorvane-presence-v3";
constexpr std::size_t kMostIdBytes = 64, kMostNameCharacters = 64;

struct KindName {
  std::string_view name;
  Kind kind;
};
constexpr std::array kKindNames{KindName{"useEnvironment", Kind::useEnvironment},
                                KindName{"readSecret", Kind::readSecret}, KindName{"unlock", Kind::unlock},
                                KindName{"other", Kind::other}, KindName{"taskSession", Kind::taskSession}};

void require(bool holds) {
  if (!holds) throw LinkError(LinkError::Case::unreadable);
}

std::string readId(const Fields& fields) {
  std::string id = fields.text("id");
  require(!id.empty() && id.size() <= kMostIdBytes);
  return id;
}

std::string readName(const Fields& fields) {
  std::string name = fields.text("macName");
  require(!name.empty() && base::characterCount(name) <= kMostNameCharacters);
  return name;
}

Kind readKind(const Fields& fields) {
  const std::string name = fields.text("kind");
  const auto found =
      std::find_if(kKindNames.begin(), kKindNames.end(), [&name](const KindName& each) { return each.name == name; });
  require(found != kKindNames.end());
  return found->kind;
}

std::string_view nameOf(Kind kind) {
  return std::find_if(kKindNames.begin(), kKindNames.end(), [kind](const KindName& each) { return each.kind == kind; })
      ->name;
}

}  // namespace

MacProof readMacProof(std::string_view text) {
  const Fields fields = Fields::of(text);
  return {fields.bytesOfSize<32>("phoneChallenge"), fields.bytesOfSize<32>("challenge"),
          fields.bytesOfSize<32>("macPublicKey")};
}

ApprovalRequest readApprovalRequest(std::string_view text) {
  const Fields fields = Fields::of(text);
  const Fields details = fields.object("details");
  ApprovalRequest request{
      .id = readId(fields),
      .nonce = fields.bytesOfSize<32>("nonce"),
      .details = {.kind = readKind(details),
                  .reason = details.text("reason"),
                  .requestor = details.text("requestor"),
                  .subject = details.optionalText("subject"),
                  .version = details.optionalInteger("version"),
                  .allowedTargets = details.optionalTexts("allowedTargets"),
                  .declaredTarget = details.optionalText("declaredTarget")},
      .macName = readName(fields),
      .issuedAt = fields.date("issuedAt"),
      .expiresAt = fields.date("expiresAt"),
  };
  require(request.issuedAt < request.expiresAt);
  return request;
}

crypto::Sha256Digest digestOf(const ApprovalRequest& request) {
  const ApprovalRequest::Details& details = request.details;
  return DigestInput("sorvane-approval-v2")
      .text(request.id)
      .bytes(request.nonce)
      .date(request.issuedAt)
      .date(request.expiresAt)
      .text(nameOf(details.kind))
      .text(details.reason)
      .text(details.requestor)
      .optionalText(details.subject)
      .optionalInteger(details.version)
      .optionalTexts(details.allowedTargets)
      .optionalText(details.declaredTarget)
      .text(request.macName)
      .digest();
}

KeyApprovalAsk readKeyApprovalAsk(std::string_view text) {
  const Fields fields = Fields::of(text);
  return {.id = readId(fields),
          .nonce = fields.bytesOfSize<32>("nonce"),
          .fields = fields.textsByName("fields"),
          .workspaceName = fields.optionalText("workspaceName"),
          .connectionName = fields.optionalText("connectionName"),
          .macName = readName(fields),
          .expiresAt = fields.date("expiresAt"),
          .sessionId = fields.optionalText("sessionId")};
}

crypto::Sha256Digest digestOf(const KeyApprovalAsk& ask) {
  std::vector<std::string> pairs;
  for (const auto& [name, value] : ask.fields) {
    pairs.push_back(name);
    pairs.push_back(value);
  }
  return DigestInput("sorvane-key-approval-v1")
      .text(ask.id)
      .bytes(ask.nonce)
      .optionalTexts(pairs)
      .optionalText(ask.workspaceName)
      .optionalText(ask.connectionName)
      .text(ask.macName)
      .date(ask.expiresAt)
      .optionalText(ask.sessionId)
      .digest();
}

ApproverRegisterAsk readApproverRegisterAsk(std::string_view text) {
  const Fields fields = Fields::of(text);
  return {.id = readId(fields),
          .nonce = fields.bytesOfSize<32>("nonce"),
          .workspaceId = fields.text("workspaceId"),
          .workspaceName = fields.optionalText("workspaceName"),
          .userId = fields.text("userId"),
          .label = fields.text("label"),
          .macName = readName(fields),
          .expiresAt = fields.date("expiresAt")};
}

crypto::Sha256Digest digestOf(const ApproverRegisterAsk& ask) {
  return DigestInput("sorvane-approver-register-v1")
      .text(ask.id)
      .bytes(ask.nonce)
      .text(ask.workspaceId)
      .optionalText(ask.workspaceName)
      .text(ask.userId)
      .text(ask.label)
      .text(ask.macName)
      .date(ask.expiresAt)
      .digest();
}

std::string readApprovalCancel(std::string_view text) {
  return readId(Fields::of(text));
}

PublicKey readUnpairNotice(std::string_view text) {
  return Fields::of(text).bytesOfSize<32>("phonePublicKey");
}

std::string write(const HelloProof& proof) {
  base::JsonWriter writer;
  writer.beginObject().key("challenge").base64(proof.challenge).key("phonePublicKey").base64(proof.phonePublicKey);
  writer.key("phoneChallenge").base64(proof.phoneChallenge).endObject();
  return std::string(writer.view());
}

std::string write(const PairConfirm& confirm) {
  base::JsonWriter writer;
  writer.beginObject().key("phonePublicKey").base64(confirm.phonePublicKey);
  // The key lies in a file, under a passphrase.
  writer.key("presenceKey").base64(confirm.presenceKey).key("hardwarePresenceKey").boolean(false);
  writer.field("deviceName", confirm.deviceName).field("proof", confirm.proof).endObject();
  return std::string(writer.view());
}

std::string writeUnpairNotice(const PublicKey& phone) {
  base::JsonWriter writer;
  writer.beginObject().key("phonePublicKey").base64(phone).endObject();
  return std::string(writer.view());
}

base::Bytes presenceMessage(const crypto::Sha256Digest& digest) {
  base::Bytes message(kPresenceText.begin(), kPresenceText.end());
  message.push_back(0);
  message.insert(message.end(), digest.begin(), digest.end());
  return message;
}

std::string pairingProof(std::string_view code, const PairingKeys& keys) {
  base::Bytes info(keys.mac.begin(), keys.mac.end());
  info.insert(info.end(), keys.phone.begin(), keys.phone.end());
  std::array<std::uint8_t, crypto::SymmetricKey::kBytes> bytes{};
  crypto::hkdfSha256(base::bytesOf(code), base::bytesOf(kPairingText), info, bytes);
  const auto key = crypto::SymmetricKey::fromBytes(bytes);
  base::wipe(bytes.data(), bytes.size());
  const DigestInput message =
      DigestInput(kPairingText).bytes(keys.mac).bytes(keys.phone).bytes(keys.challenge).bytes(keys.presenceKey);
  return base::base64(crypto::hmacSha256(key->bytes(), message.view()));
}

}  // namespace sorvane::approver
