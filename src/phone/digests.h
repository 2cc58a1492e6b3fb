#pragma once

#include "base/secret_text.h"
#include "phone/records.h"

namespace sorvane::phone {

// What an answer is bound to: the digest of everything that was asked (docs/phone-link.md, Digests and signatures).

Digest approvalDigest(const ApprovalRequest& request);
Digest keyApprovalDigest(const KeyApprovalAsk& ask);
Digest registrationDigest(const ApproverRegisterAsk& ask);

/// What a presence signature is made over.
base::Bytes presenceMessage(const Digest& digest);

}  // namespace sorvane::phone
