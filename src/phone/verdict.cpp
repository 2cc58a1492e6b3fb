#include "phone/verdict.h"

#include "base/secret_text.h"
#include "crypto/presence_key.h"
#include "phone/digests.h"

namespace sorvane::phone {
namespace {

using Verdict = ApprovalResponseVerdict;

bool isPresent(const PairedPhone& phone, const ApprovalResponse& answer) {
  return answer.presenceSignature &&
         crypto::verifyPresence(phone.presenceKey, presenceMessage(answer.digest), *answer.presenceSignature);
}

bool isSame(const Digest& left, const Digest& right) {
  return base::sameInConstantTime(base::textOf(left), base::textOf(right));
}

}  // namespace

std::string_view nameOf(Verdict verdict) {
  switch (verdict) {
    case Verdict::accepted:
      return "accepted";
    case Verdict::notAuthenticated:
      return "notAuthenticated";
    case Verdict::revoked:
      return "revoked";
    case Verdict::unreadable:
      return "unreadable";
    case Verdict::unknownRequest:
      return "unknownRequest";
    case Verdict::wrongDevice:
      return "wrongDevice";
    case Verdict::mismatched:
      return "mismatched";
    case Verdict::expired:
      return "expired";
    case Verdict::missingPresence:
      return "missingPresence";
  }
  return {};
}

bool endsLink(Verdict verdict) {
  switch (verdict) {
    case Verdict::accepted:
    case Verdict::unknownRequest:
    case Verdict::expired:
      return false;
    case Verdict::notAuthenticated:
    case Verdict::revoked:
    case Verdict::unreadable:
    case Verdict::wrongDevice:
    case Verdict::mismatched:
    case Verdict::missingPresence:
      return true;
  }
  return true;
}

Verdict judge(const AnswerFacts& facts) {
  if (!facts.isAuthenticated) return Verdict::notAuthenticated;
  if (!facts.phone) return Verdict::revoked;
  if (!facts.answer) return Verdict::unreadable;
  const ApprovalResponse& answer = *facts.answer;
  if (!facts.request || facts.request->request.id != answer.id) return Verdict::unknownRequest;
  const ApprovalRequest& request = facts.request->request;
  if (facts.request->phone != facts.phone->publicKey) return Verdict::wrongDevice;
  if (!isSame(answer.nonce, request.nonce) || !isSame(answer.digest, approvalDigest(request))) {
    return Verdict::mismatched;
  }
  if (facts.request->isOver || facts.now > request.expiresAt) return Verdict::expired;
  if (answer.approved && !isPresent(*facts.phone, answer)) return Verdict::missingPresence;
  return Verdict::accepted;
}

}  // namespace sorvane::phone
