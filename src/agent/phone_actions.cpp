#include "agent/owner_action_handlers.h"
#include "agent/owner_phones.h"

namespace sorvane::agent {
namespace {

AgentResponse withText(std::string document) {
  AgentResponse response = done();
  response.document = base::SecretText(document);
  base::wipe(document);
  return response;
}

}  // namespace

OwnerPhones& OwnerActionHandlers::phones() const {
  if (ports_.phones == nullptr) throw ActionError("Phones are not served here. Nothing was changed.");
  return *ports_.phones;
}

bool OwnerActionHandlers::waitsForNoPhone() const {
  return ports_.policy.current().approver == Approver::phone && (ports_.phones == nullptr || !phones().isAnyPaired());
}

ActionPlan OwnerActionHandlers::phonePair(const ActionArguments& arguments, ActionCall& call) {
  ActionPlan plan = asking(call, "pair a phone",
                           [this, access = access(call, arguments)] {
                             AgentResponse response = withText(phones().beginPairing());
                             ports_.vault.log(access);
                             return response;
                           },
                           {"From then on the phone may allow what agents ask, and open the vault where that takes no "
                            "passphrase."});
  // Where the phone's yes is the one that counts and there is none, somebody else must let the first one in.
  plan.question->anybodysYesCounts = waitsForNoPhone();
  return plan;
}

ActionPlan OwnerActionHandlers::phonePairing(const ActionArguments&, ActionCall&) {
  return answer([this] { return withText(phones().pairing()); });
}

ActionPlan OwnerActionHandlers::phonePairCancel(const ActionArguments&, ActionCall&) {
  return answer([this] {
    phones().cancelPairing();
    return done();
  });
}

ActionPlan OwnerActionHandlers::phoneList(const ActionArguments&, ActionCall&) {
  return answer([this] { return withText(phones().list()); });
}

ActionPlan OwnerActionHandlers::phoneRevoke(const ActionArguments& arguments, ActionCall& call) {
  const OwnerPhones::Phone phone = phones().find(arguments.need("phone"));
  ActionPlan plan = asking(call, "end the link to a phone. Name: " + phone.name,
                           [this, phone, access = access(call, arguments)] {
                             phones().revoke(phone.id);
                             ports_.vault.log(access);
                             return withValue(base::SecretText(phone.name));
                           },
                           {"It can answer nothing any more, and its keys are forgotten."});
  // A phone that is lost cannot say yes to this.
  plan.question->anybodysYesCounts = ports_.policy.current().approver == Approver::phone;
  return plan;
}

ActionPlan OwnerActionHandlers::phoneTest(const ActionArguments&, ActionCall& call) {
  if (!phones().isAnyPaired()) {
    throw ActionError("No phone is paired, so there is nobody to ask. Pair one: sorvane phone pair");
  }
  return answer([this, requester = call.requester, withdrawn = call.withdrawn()] {
    return withText(phones().test(requester, withdrawn));
  });
}

}  // namespace sorvane::agent
