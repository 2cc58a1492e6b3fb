#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "approver/envelope.h"
#include "base/secret_text.h"
#include "crypto/agreement.h"
#include "crypto/key.h"

namespace sorvane::approver {

/// What lies in a sealed box, and the way that it goes: a box opened as another is refused.
enum class Record {
  pairConfirm,
  helloProof,
  macProof,
  approvalRequest,
  approvalResponse,
  approvalCancel,
  keyApprovalAsk,
  keyApprovalAnswer,
  approverRegisterAsk,
  approverRegisterAnswer,
  unpairFromComputer,
  unpairFromPhone,
};

/// Channel seals and opens the records between this device and one computer (docs/phone-link.md, Channel).
class Channel {
 public:
  /// nullopt for a key of the computer that gives a secret which anybody could compute.
  static std::optional<Channel> between(const crypto::AgreementKey& own, const PublicKey& computer);

  base::Bytes seal(Record record, std::string_view text) const;
  /// Throws LinkError (unreadable) for a box that is not of this record, or not of this channel.
  base::SecretText open(Record record, std::span<const std::uint8_t> box) const;

 private:
  explicit Channel(crypto::SymmetricKey key) : key_(std::move(key)) {}

  crypto::SymmetricKey key_;
};

}  // namespace sorvane::approver
