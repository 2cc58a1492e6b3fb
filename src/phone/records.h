#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/date.h"
#include "base/secret_text.h"
#include "phone/approval_details.h"
#include "phone/registry.h"

namespace sorvane::phone {

// The sealed records of the link (docs/phone-link.md, Records), with the label that each is sealed under and the side
// it comes from.

enum class Side { mac, phone };
constexpr Side otherSide(Side side) {
  return side == Side::mac ? Side::phone : Side::mac;
}

using Challenge = std::array<std::uint8_t, 32>;
using Nonce = std::array<std::uint8_t, 32>;
using Digest = std::array<std::uint8_t, 32>;

/// Stands in the clear, in the envelope of a "pair".
struct PairRequest {
  PublicKey phonePublicKey{};
  base::Bytes sealedConfirm;
  bool operator==(const PairRequest&) const = default;
};

inline constexpr std::size_t kMostNameCharacters = 64;
/// Whether a device may call itself so: 1 to 64 Unicode characters, none a control character.
bool isDeviceName(std::string_view name);

struct PairConfirm {
  static constexpr std::string_view kLabel = "pair-confirm";
  static constexpr std::optional<Side> kFrom = Side::phone;
  PublicKey phonePublicKey{};
  PresenceKey presenceKey{};
  bool hardwarePresenceKey = false;
  std::string deviceName;
  std::string proof;
  bool operator==(const PairConfirm&) const = default;
};

struct HelloProof {
  static constexpr std::string_view kLabel = "hello-proof";
  static constexpr std::optional<Side> kFrom = Side::phone;
  Challenge challenge{};
  PublicKey phonePublicKey{};
  Challenge phoneChallenge{};
  std::optional<std::vector<std::string>> features;
  bool operator==(const HelloProof&) const = default;
};

struct MacProof {
  static constexpr std::string_view kLabel = "mac-proof";
  static constexpr std::optional<Side> kFrom = Side::mac;
  Challenge phoneChallenge{};
  Challenge challenge{};
  PublicKey macPublicKey{};
  bool operator==(const MacProof&) const = default;
};

inline constexpr std::size_t kMostIdBytes = 64;

struct ApprovalRequest {
  static constexpr std::string_view kLabel = "approval-request";
  static constexpr std::optional<Side> kFrom = Side::mac;
  std::string id;
  Nonce nonce{};
  ApprovalDetails details;
  std::string macName;
  base::Date issuedAt;
  base::Date expiresAt;
  bool operator==(const ApprovalRequest&) const = default;
};

struct ApprovalResponse {
  static constexpr std::string_view kLabel = "approval-response";
  static constexpr std::optional<Side> kFrom = Side::phone;
  std::string id;
  Nonce nonce{};
  Digest digest{};
  bool approved = false;
  std::optional<base::Bytes> presenceSignature;
  bool operator==(const ApprovalResponse&) const = default;
};

struct ApprovalCancel {
  static constexpr std::string_view kLabel = "approval-cancel";
  static constexpr std::optional<Side> kFrom = Side::mac;
  std::string id;
  bool operator==(const ApprovalCancel&) const = default;
};

struct KeyApprovalAsk {
  static constexpr std::string_view kLabel = "keyApproval";
  static constexpr std::optional<Side> kFrom = Side::mac;
  std::string id;
  Nonce nonce{};
  std::map<std::string, std::string> fields;
  std::optional<std::string> workspaceName;
  std::optional<std::string> connectionName;
  std::string macName;
  base::Date expiresAt;
  std::optional<std::string> sessionId;
  bool operator==(const KeyApprovalAsk&) const = default;
};

struct KeyApprovalAnswer {
  static constexpr std::string_view kLabel = "keyApprovalAnswer";
  static constexpr std::optional<Side> kFrom = Side::phone;
  std::string id;
  Nonce nonce{};
  Digest digest{};
  bool approved = false;
  std::optional<base::Bytes> signature;
  bool operator==(const KeyApprovalAnswer&) const = default;
};

struct ApproverRegisterAsk {
  static constexpr std::string_view kLabel = "approverRegister";
  static constexpr std::optional<Side> kFrom = Side::mac;
  std::string id;
  Nonce nonce{};
  std::string workspaceId;
  std::optional<std::string> workspaceName;
  std::string userId;
  std::string label;
  std::string macName;
  base::Date expiresAt;
  bool operator==(const ApproverRegisterAsk&) const = default;
};

struct ApproverRegisterAnswer {
  static constexpr std::string_view kLabel = "approverRegisterAnswer";
  static constexpr std::optional<Side> kFrom = Side::phone;
  std::string id;
  Nonce nonce{};
  bool accepted = false;
  std::optional<std::string> publicKey;
  std::optional<base::Bytes> signature;
  bool operator==(const ApproverRegisterAnswer&) const = default;
};

/// Either side sends it.
struct UnpairNotice {
  static constexpr std::string_view kLabel = "unpair";
  static constexpr std::optional<Side> kFrom = std::nullopt;
  PublicKey phonePublicKey{};
  bool operator==(const UnpairNotice&) const = default;
};

/// The stored and sent name of the case.
std::string_view nameOf(ApprovalDetails::Kind kind);

/// The record's JSON. Texts must be UTF-8.
base::SecretText encodeRecord(const PairConfirm& record);
base::SecretText encodeRecord(const HelloProof& record);
base::SecretText encodeRecord(const MacProof& record);
base::SecretText encodeRecord(const ApprovalRequest& record);
base::SecretText encodeRecord(const ApprovalResponse& record);
base::SecretText encodeRecord(const ApprovalCancel& record);
base::SecretText encodeRecord(const KeyApprovalAsk& record);
base::SecretText encodeRecord(const KeyApprovalAnswer& record);
base::SecretText encodeRecord(const ApproverRegisterAsk& record);
base::SecretText encodeRecord(const ApproverRegisterAnswer& record);
base::SecretText encodeRecord(const UnpairNotice& record);

/// One of the records above, or nullopt when the text is not as the page says.
template <typename Record>
std::optional<Record> decodeRecord(std::string_view json);
template <>
std::optional<PairConfirm> decodeRecord(std::string_view json);
template <>
std::optional<HelloProof> decodeRecord(std::string_view json);
template <>
std::optional<MacProof> decodeRecord(std::string_view json);
template <>
std::optional<ApprovalRequest> decodeRecord(std::string_view json);
template <>
std::optional<ApprovalResponse> decodeRecord(std::string_view json);
template <>
std::optional<ApprovalCancel> decodeRecord(std::string_view json);
template <>
std::optional<KeyApprovalAsk> decodeRecord(std::string_view json);
template <>
std::optional<KeyApprovalAnswer> decodeRecord(std::string_view json);
template <>
std::optional<ApproverRegisterAsk> decodeRecord(std::string_view json);
template <>
std::optional<ApproverRegisterAnswer> decodeRecord(std::string_view json);
template <>
std::optional<UnpairNotice> decodeRecord(std::string_view json);

}  // namespace sorvane::phone
