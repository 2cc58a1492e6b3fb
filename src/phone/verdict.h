#pragma once

#include <string_view>

#include "base/date.h"
#include "phone/records.h"
#include "phone/registry.h"

namespace sorvane::phone {

/// How the computer judges an answer (docs/phone-link.md, Verdicts).
enum class ApprovalResponseVerdict {
  accepted,
  notAuthenticated,
  revoked,
  unreadable,
  unknownRequest,
  wrongDevice,
  mismatched,
  expired,
  missingPresence,
};
/// The name of the case, for diagnostics.
std::string_view nameOf(ApprovalResponseVerdict verdict);
/// Whether the link ends with it: what an honest phone never sends.
bool endsLink(ApprovalResponseVerdict verdict);

/// A request that waits for its answer, or waited until its time was over: what was sent, and to whom.
struct WaitingRequest {
  ApprovalRequest request;
  PublicKey phone{};
  bool isOver = false;  ///< its time is, whatever the clock on the wall says
};

/// What the server knows when an answer comes.
struct AnswerFacts {
  /// The link is past its hello.
  bool isAuthenticated = false;
  /// The phone of the link while it is paired, otherwise null.
  const PairedPhone* phone = nullptr;
  /// What the frame held; null when it could not be read as an answer.
  const ApprovalResponse* answer = nullptr;
  /// The request of the answer's id, whichever phone was asked; null when there is none.
  const WaitingRequest* request = nullptr;
  base::Date now;
};

/// The one place where an answer is judged: the first reason against it, in the page's order, or `accepted`, of a yes
/// and of a no alike.
ApprovalResponseVerdict judge(const AnswerFacts& facts);

}  // namespace sorvane::phone
