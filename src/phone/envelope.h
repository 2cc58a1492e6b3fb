#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/secret_text.h"
#include "phone/records.h"

namespace sorvane::phone {

// The outer message of the link (docs/phone-link.md, Envelope).

inline constexpr std::int64_t kProtocolVersion = 4;

/// Sent as the name of the case.
enum class Kind {
  challenge,
  pair,
  paired,
  hello,
  helloAck,
  approvalRequest,
  approvalResponse,
  cancel,
  unpair,
  keyApproval,
  keyApprovalAnswer,
  approverRegister,
  approverRegisterAnswer,
};
std::string_view nameOf(Kind kind);

struct Envelope {
  std::int64_t v = kProtocolVersion;
  Kind kind = Kind::challenge;
  std::optional<PairRequest> pairRequest{};
  std::optional<PublicKey> peerPublicKey{};
  std::optional<Challenge> challenge{};
  std::optional<base::Bytes> sealed{};
  std::optional<bool> ok{};
  std::optional<std::string> macName{};
  bool operator==(const Envelope&) const = default;
};

/// Whether the envelope carries what its kind does and nothing else, in this version, and whether `from` sends its
/// kind.
bool isWellFormed(const Envelope& envelope, Side from);

/// The message that `from` sent, or nullopt for everything that is not as the page says.
std::optional<Envelope> decodeEnvelope(std::string_view json, Side from);
/// Texts must be UTF-8.
std::string encodeEnvelope(const Envelope& envelope);

}  // namespace sorvane::phone
