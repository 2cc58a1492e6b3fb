#include "phone/digests.h"

#include "crypto/digest.h"
#include "phone/length_fields.h"

namespace sorvane::phone {

Digest approvalDigest(const ApprovalRequest& request) {
  const ApprovalDetails& details = request.details;
  LengthFields fields("sorvane-approval-v2");
  fields.add(request.id).add(request.nonce).add(request.issuedAt).add(request.expiresAt);
  fields.add(nameOf(details.kind)).add(details.reason).add(details.requestor).add(details.subject);
  fields.add(details.version).add(details.allowedTargets).add(details.declaredTarget);
  fields.add(request.macName);
  return crypto::sha256(fields.bytes());
}

Digest keyApprovalDigest(const KeyApprovalAsk& ask) {
  LengthFields fields("sorvane-key-approval-v1");
  fields.add(ask.id).add(ask.nonce).add(ask.fields).add(ask.workspaceName).add(ask.connectionName);
  fields.add(ask.macName).add(ask.expiresAt).add(ask.sessionId);
  return crypto::sha256(fields.bytes());
}

Digest registrationDigest(const ApproverRegisterAsk& ask) {
  LengthFields fields("sorvane-approver-register-v1");
  fields.add(ask.id).add(ask.nonce).add(ask.workspaceId).add(ask.workspaceName).add(ask.userId);
  fields.add(ask.label).add(ask.macName).add(ask.expiresAt);
  return crypto::sha256(fields.bytes());
}

base::Bytes presenceMessage(const Digest& digest) {
  constexpr std::string_view kDomain = "sorvane-presence-v3";
  base::Bytes message(kDomain.begin(), kDomain.end());
  message.push_back(0);
  message.insert(message.end(), digest.begin(), digest.end());
  return message;
}

}  // namespace sorvane::phone
