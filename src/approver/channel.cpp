#include "approver/channel.h"

#include <array>
#include <string>

#include "approver/frame.h"
#include "crypto/aead.h"
#include "crypto/derivation.h"

namespace sorvane::approver {
namespace {

constexpr std::string_view kSalt = "sorvane-channel-v2", kInfo = "sorvane-channel";

constexpr std::string_view kToComputer = "phone>mac", kToPhone = "mac>phone";

struct Name {
  std::string_view label, direction;
};
Name nameOf(Record record) {
  switch (record) {
    case Record::pairConfirm:
      return {"pair-confirm", kToComputer};
    case Record::helloProof:
      return {"hello-proof", kToComputer};
    case Record::macProof:
      return {"mac-proof", kToPhone};
    case Record::approvalRequest:
      return {"approval-request", kToPhone};
    case Record::approvalResponse:
      return {"approval-response", kToComputer};
    case Record::approvalCancel:
      return {"approval-cancel", kToPhone};
    case Record::keyApprovalAsk:
      return {"keyApproval", kToPhone};
    case Record::keyApprovalAnswer:
      return {"keyApprovalAnswer", kToComputer};
    case Record::approverRegisterAsk:
      return {"approverRegister", kToPhone};
    case Record::approverRegisterAnswer:
      return {"approverRegisterAnswer", kToComputer};
    case Record::unpairFromComputer:
      return {"unpair", kToPhone};
    case Record::unpairFromPhone:
      return {"unpair", kToComputer};
  }
  return {};
}

std::string associatedOf(Record record) {
  const Name name = nameOf(record);
  return "sorvane-approver-v4|" + std::string(name.label) + "|" + std::string(name.direction);
}

}  // namespace

std::optional<Channel> Channel::between(const crypto::AgreementKey& own, const PublicKey& computer) {
  const auto shared = own.agree(computer);
  if (!shared) return std::nullopt;
  std::array<std::uint8_t, crypto::SymmetricKey::kBytes> bytes{};
  crypto::hkdfSha256(shared->bytes(), base::bytesOf(kSalt), base::bytesOf(kInfo), bytes);
  auto key = crypto::SymmetricKey::fromBytes(bytes);
  base::wipe(bytes.data(), bytes.size());
  return Channel(std::move(*key));
}

base::Bytes Channel::seal(Record record, std::string_view text) const {
  return crypto::sealChaCha(key_, base::bytesOf(text), associatedOf(record));
}

base::SecretText Channel::open(Record record, std::span<const std::uint8_t> box) const {
  auto text = crypto::openChaCha(key_, box, associatedOf(record));
  if (!text) throw LinkError(LinkError::Case::unreadable);
  return std::move(*text);
}

}  // namespace sorvane::approver
