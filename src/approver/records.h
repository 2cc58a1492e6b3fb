#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "approver/envelope.h"
#include "base/date.h"
#include "base/secret_text.h"
#include "crypto/digest.h"

namespace sorvane::approver {

// The records inside the sealed boxes, and the digests over them (docs/phone-link.md, Records and Digests). Every
// reader throws LinkError for text that is no such record.

struct MacProof {
  Challenge phoneChallenge{}, challenge{};
  PublicKey macPublicKey{};
};
MacProof readMacProof(std::string_view text);

struct ApprovalRequest {
  enum class Kind { useEnvironment, readSecret, unlock, other, taskSession };
  struct Details {
    Kind kind = Kind::other;
    std::string reason, requestor;
    std::optional<std::string> subject;
    std::optional<std::int64_t> version;
    std::optional<std::vector<std::string>> allowedTargets;
    std::optional<std::string> declaredTarget;
  };
  std::string id;
  Challenge nonce{};
  Details details;
  std::string macName;
  base::Date issuedAt, expiresAt;
};
ApprovalRequest readApprovalRequest(std::string_view text);
crypto::Sha256Digest digestOf(const ApprovalRequest& request);

struct KeyApprovalAsk {
  std::string id;
  Challenge nonce{};
  std::map<std::string, std::string> fields;
  std::optional<std::string> workspaceName, connectionName;
  std::string macName;
  base::Date expiresAt;
  std::optional<std::string> sessionId;
};
KeyApprovalAsk readKeyApprovalAsk(std::string_view text);
crypto::Sha256Digest digestOf(const KeyApprovalAsk& ask);

struct ApproverRegisterAsk {
  std::string id;
  Challenge nonce{};
  std::string workspaceId;
  std::optional<std::string> workspaceName;
  std::string userId, label, macName;
  base::Date expiresAt;
};
ApproverRegisterAsk readApproverRegisterAsk(std::string_view text);
crypto::Sha256Digest digestOf(const ApproverRegisterAsk& ask);

/// The id of the request that nobody needs answered any more.
std::string readApprovalCancel(std::string_view text);
/// The key of the device whose pairing ends.
PublicKey readUnpairNotice(std::string_view text);

// What this device says.

struct HelloProof {
  Challenge challenge{}, phoneChallenge{};
  PublicKey phonePublicKey{};
};
std::string write(const HelloProof& proof);

struct PairConfirm {
  PublicKey phonePublicKey{};
  base::Bytes presenceKey;
  std::string deviceName, proof;
};
std::string write(const PairConfirm& confirm);

std::string writeUnpairNotice(const PublicKey& phone);

/// What is signed by the presence key with a yes.
base::Bytes presenceMessage(const crypto::Sha256Digest& digest);

/// `proof` of PairConfirm: that whoever sends these keys has the code (docs/phone-link.md, Pairing).
struct PairingKeys {
  PublicKey mac{}, phone{};
  Challenge challenge{};
  base::Bytes presenceKey;
};
std::string pairingProof(std::string_view code, const PairingKeys& keys);

}  // namespace sorvane::approver
