#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/secret_text.h"

namespace sorvane::approver {

/// A raw Curve25519 public key, and a random challenge.
using PublicKey = std::array<std::uint8_t, 32>;
using Challenge = std::array<std::uint8_t, 32>;

/// The kinds of message that the computer sends, by the names of the wire.
enum class FromComputer { challenge, paired, helloAck, approvalRequest, cancel, unpair, keyApproval, approverRegister };

/// Envelope is the outside of one message of the computer. It holds what its kind carries, and nothing else.
struct Envelope {
  FromComputer kind{};
  std::optional<PublicKey> peerPublicKey;
  std::optional<Challenge> challenge;
  std::optional<base::Bytes> sealed;
  std::optional<bool> ok;
  std::optional<std::string> macName;  ///< 1 to 64 characters
};

/// Reads a body (docs/phone-link.md, Envelope). Throws LinkError for one that is not as its kind has to be, and for the
/// kinds that only a phone sends.
Envelope readEnvelope(std::string_view body);

/// The kinds of message that this device sends.
enum class FromPhone { pair, hello, approvalResponse, unpair, keyApprovalAnswer, approverRegisterAnswer };

/// Bodies of messages: "hello" with this device's key, "pair" with its request, and what carries a sealed record alone.
std::string helloEnvelope(const PublicKey& phone, const base::Bytes& sealedProof);
std::string pairEnvelope(const PublicKey& phone, const base::Bytes& sealedConfirm);
std::string sealedEnvelope(FromPhone kind, const base::Bytes& sealed);

}  // namespace sorvane::approver
