#include <algorithm>

#include "base/diagnostics.h"
#include "base/unicode.h"
#include "phone/link_service.h"

// What phones are asked, and how what they send is judged.

namespace sorvane::phone {

void LinkService::judgeAnswer(Link& link, const Envelope& envelope) {
  const bool isServed = link.wasServed();
  const auto answer = isServed ? link.channel().open<ApprovalResponse>(*envelope.sealed) : std::nullopt;
  const auto request = answer ? questions_.find(answer->id) : nullptr;
  // A link that goes stays the link of a phone that was taken out, also when that is paired again meanwhile.
  const PairedPhone* const phone = link.state() == LinkState::served ? record_.find(link.phone()) : nullptr;
  Verdict verdict = judge({isServed, phone, answer ? &*answer : nullptr, request.get(), server_.clock.now()});
  if (verdict == Verdict::accepted) {
    using Is = ApproverServer::Answer::Is;
    const ApproverServer::Answer given{answer->approved ? Is::yes : Is::no, phone->deviceName, {}};
    // Another phone may have answered since.
    switch (questions_.settle(answer->id, given)) {
      case Questions::Settled::answered:
        // The phone knows that it has answered.
        link.put().erase(answer->id);
        break;
      case Questions::Settled::heard:
        // It is told with a cancel, and the others are asked on.
        base::diagnose("phone", "A yes on '" + base::escapedForDisplay(phone->deviceName) +
                                    "' does not count, because your policy has others allow this");
        break;
      case Questions::Settled::notWaiting:
        // Another phone has answered since.
        verdict = Verdict::unknownRequest;
    }
  }
  end(link, verdict);
}

void LinkService::judgeOther(Link& link, const Envelope& envelope) {
  const bool isReadable = envelope.kind == Kind::keyApprovalAnswer
                              ? link.channel().open<KeyApprovalAnswer>(*envelope.sealed).has_value()
                              : link.channel().open<ApproverRegisterAnswer>(*envelope.sealed).has_value();
  end(link, isReadable ? Verdict::unknownRequest : Verdict::unreadable);
}

void LinkService::broke(Link& link) {
  switch (link.fault()) {
    case LinkFault::none:
      return;
    case LinkFault::frame:
      return end(link, Verdict::unreadable);
    case LinkFault::takesNothing:
      if (link.wasServed()) base::diagnose("phone", "a link was ended: its phone takes nothing");
  }
}

void LinkService::end(Link& link, Verdict verdict) {
  // A link that goes already does so in its own time.
  if (endsLink(verdict) && link.state() != LinkState::leaving) {
    // Strangers write no lines here.
    if (link.state() == LinkState::served) {
      base::diagnose("phone", "a link was ended: " + std::string(nameOf(verdict)));
    }
    link.end();
  }
  if (server_.onVerdict) server_.onVerdict(verdict);
}

void LinkService::putQuestions(Link& link) {
  const auto now = server_.clock.instant();
  const auto waiting = questions_.waitingFor(link.phone());
  const auto waits = [&](const std::string& id) {
    return std::any_of(waiting.begin(), waiting.end(), [&](const auto& one) { return one->request.id == id; });
  };
  const std::set<std::string> put = link.put();
  for (const auto& id : put) {
    if (waits(id)) continue;
    link.put().erase(id);
    Envelope cancel;
    cancel.kind = Kind::cancel;
    cancel.sealed = link.channel().seal(ApprovalCancel{id});
    link.send(cancel, now);
  }
  for (const auto& one : waiting) {
    if (!link.hasRoomForQuestions() || link.hasEnded()) return;
    if (!link.put().insert(one->request.id).second) continue;
    Envelope question;
    question.kind = Kind::approvalRequest;
    question.sealed = link.channel().seal(one->request);
    link.send(question, now);
  }
}

}  // namespace sorvane::phone
