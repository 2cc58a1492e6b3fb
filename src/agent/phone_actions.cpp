#include <array>

#include "agent/owner_action_handlers.h"
#include "agent/owner_phones.h"

namespace sorvane::agent {
namespace {

constexpr std::array<std::string_view, 2> kPairingDetails{
    "From then on the phone may allow what agents ask, and open the vault where that takes no passphrase.",
    "The program that asks is shown the pairing code. Whoever reads the code within two minutes can be the phone."};
constexpr std::string_view kListIsReplaced =
    "The list of the phones paired earlier cannot be read. A new list takes its place, and no phone of the earlier one "
    "can answer any more.";

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

std::optional<Approver> OwnerActionHandlers::standInForPhone() const {
  if (ports_.policy.current().approver != Approver::phone) return std::nullopt;
  if (ports_.phones == nullptr) return Approver::any;
  if (phones().isAnyPaired()) return std::nullopt;
  // There may be phones of which nothing can be read: who spoiled their list does not get around their owner.
  return phones().isListKnown() ? Approver::any : Approver::system;
}

ActionPlan OwnerActionHandlers::phonePair(const ActionArguments& arguments, ActionCall& call) {
  phones().checkPairing();
  const bool isKnown = phones().isListKnown();
  const auto unreadable = isKnown ? OwnerPhones::Unreadable::keep : OwnerPhones::Unreadable::replace;
  std::vector<std::string> details(kPairingDetails.begin(), kPairingDetails.end());
  if (!isKnown) details.emplace_back(kListIsReplaced);
  ActionPlan plan = asking(
      call, "pair a phone",
      [this, unreadable, access = access(call, arguments)] {
        AgentResponse response = withText(phones().beginPairing(unreadable));
        ports_.vault.log(access);
        return response;
      },
      std::move(details));
  // Where the phone's yes is the one that counts and there is none, somebody else must let the first one in.
  plan.question->whoseYesCounts = standInForPhone();
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
  if (ports_.policy.current().approver == Approver::phone) plan.question->whoseYesCounts = Approver::any;
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
