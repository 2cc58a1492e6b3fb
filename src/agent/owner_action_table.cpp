#include <algorithm>
#include <array>

#include "agent/owner_action_handlers.h"

namespace sorvane::agent {
namespace {

enum class Asks { no, yes, whenItWidens };

struct Row {
  std::string_view action;
  Asks asks;
  OwnerActionHandlers::Handler handler;
};

using H = OwnerActionHandlers;

// Every action of the owner, and whether it asks. What reveals, replaces, binds, deletes, exports or widens access asks
// every time; names, statuses, history, a new secret and an empty environment do not. Of the proxy's limits and keys
// only what widens asks: its plan has the question then.
constexpr std::array kActions{
    Row{"status", Asks::no, &H::status},
    Row{"secretList", Asks::no, &H::secretList},
    Row{"secretShow", Asks::no, &H::secretShow},
    Row{"secretAdd", Asks::no, &H::secretAdd},
    Row{"secretEdit", Asks::no, &H::secretEdit},
    Row{"secretRotate", Asks::yes, &H::secretRotate},
    Row{"secretReveal", Asks::yes, &H::secretReveal},
    Row{"secretCopy", Asks::yes, &H::secretCopy},
    Row{"secretRename", Asks::yes, &H::secretRename},
    Row{"secretRestore", Asks::yes, &H::secretRestore},
    Row{"secretLimit", Asks::yes, &H::secretLimit},
    Row{"secretRemove", Asks::yes, &H::secretRemove},
    Row{"environmentList", Asks::no, &H::environmentList},
    Row{"environmentShow", Asks::no, &H::environmentShow},
    Row{"environmentAdd", Asks::no, &H::environmentAdd},
    Row{"environmentEdit", Asks::no, &H::environmentEdit},
    Row{"environmentBind", Asks::yes, &H::environmentBind},
    Row{"environmentUnbind", Asks::yes, &H::environmentUnbind},
    Row{"environmentMove", Asks::no, &H::environmentMove},
    Row{"environmentTarget", Asks::yes, &H::environmentTarget},
    Row{"environmentRename", Asks::yes, &H::environmentRename},
    Row{"environmentRemove", Asks::yes, &H::environmentRemove},
    Row{"export", Asks::yes, &H::exportOne},
    Row{"exportSecrets", Asks::yes, &H::exportSecrets},
    Row{"exportAll", Asks::yes, &H::exportAll},
    Row{"agentList", Asks::no, &H::agentList},
    Row{"agentAdd", Asks::yes, &H::agentAdd},
    Row{"agentEdit", Asks::yes, &H::agentEdit},
    Row{"agentConfirm", Asks::yes, &H::agentConfirm},
    Row{"agentRemove", Asks::yes, &H::agentRemove},
    Row{"clientStatus", Asks::no, &H::clientStatus},
    Row{"clientConnect", Asks::yes, &H::clientConnect},
    Row{"clientRepair", Asks::yes, &H::clientRepair},
    Row{"clientDisconnect", Asks::yes, &H::clientDisconnect},
    Row{"scan", Asks::no, &H::scan},
    Row{"uninstallPlan", Asks::no, &H::uninstallPlan},
    Row{"uninstall", Asks::yes, &H::uninstall},
    Row{"log", Asks::no, &H::log},
    Row{"logUsage", Asks::no, &H::logUsage},
    Row{"logRepair", Asks::yes, &H::logRepair},
    Row{"settingsGet", Asks::no, &H::settingsGet},
    Row{"settingsSet", Asks::no, &H::settingsSet},
    Row{"policyGet", Asks::no, &H::policyGet},
    Row{"policySet", Asks::yes, &H::policySet},
    Row{"gc", Asks::yes, &H::gc},
    Row{"storeShow", Asks::no, &H::storeShow},
    Row{"storeMove", Asks::yes, &H::storeMove},
    Row{"proxyProtect", Asks::whenItWidens, &H::proxyProtect},
    Row{"proxyUnprotect", Asks::yes, &H::proxyUnprotect},
    Row{"proxyConfirm", Asks::yes, &H::proxyConfirm},
    Row{"proxyStatus", Asks::no, &H::proxyStatus},
    Row{"proxyResume", Asks::yes, &H::proxyResume},
    Row{"proxyEndGrant", Asks::no, &H::proxyEndGrant},
    Row{"proxyLimitsGet", Asks::no, &H::proxyLimitsGet},
    Row{"proxyLimitsSet", Asks::whenItWidens, &H::proxyLimitsSet},
    Row{"proxyLedger", Asks::no, &H::proxyLedger},
    Row{"proxyPrices", Asks::no, &H::proxyPrices},
    Row{"proxyPricesFetch", Asks::no, &H::proxyPricesFetch},
    Row{"proxyPricesOverride", Asks::yes, &H::proxyPricesOverride},
    Row{"backupCreate", Asks::yes, &H::backupCreate},
    Row{"backupRecoveryKey", Asks::no, &H::backupRecoveryKey},
    Row{"backupInspect", Asks::no, &H::backupInspect},
    Row{"backupShow", Asks::no, &H::backupShow},
    Row{"backupPreview", Asks::no, &H::backupPreview},
    Row{"backupRestore", Asks::yes, &H::backupRestore},
    Row{"backupUndo", Asks::yes, &H::backupUndo},
    Row{"phonePair", Asks::yes, &H::phonePair},
    Row{"phonePairing", Asks::no, &H::phonePairing},
    Row{"phonePairCancel", Asks::no, &H::phonePairCancel},
    Row{"phoneList", Asks::no, &H::phoneList},
    Row{"phoneRevoke", Asks::yes, &H::phoneRevoke},
    Row{"phoneTest", Asks::no, &H::phoneTest},
    Row{"job", Asks::no, &H::job},
    Row{"jobCancel", Asks::no, &H::jobCancel},
};

std::string unsupported(std::string_view action) {
  if (action.starts_with("proxy")) return "Unsupported proxy action";
  if (action.starts_with("key")) return "Unsupported key action";
  if (action.starts_with("sync")) return "Unsupported environment sync action";
  return "manageVault does not know the action '" + std::string(action) +
         "'. Nothing was changed or shared. Use the sorvane and sorvaned of one version.";
}

}  // namespace

AgentResponse OwnerActionHandlers::perform(ActionCall& call) {
  const auto named = call.payload.find("action");
  const std::string_view action = named == call.payload.end() ? std::string_view() : named->second;
  const auto row = std::find_if(kActions.begin(), kActions.end(), [&](const Row& r) { return r.action == action; });
  if (row == kActions.end()) return AgentResponse::refused(unsupported(action));
  const ActionArguments arguments(action, call.payload);
  const ActionPlan plan = (this->*row->handler)(arguments, call);
  if (row->asks == Asks::yes || (row->asks == Asks::whenItWidens && plan.question)) {
    // A plan without its question would be our own mistake: it is refused, never run.
    if (!plan.question || call.ask(*plan.question) == ApprovalResult::denied) {
      return AgentResponse::refused(std::string(kApprovalDenied));
    }
  }
  return plan.run();
}

ActionPlan answer(std::function<AgentResponse()> run) {
  return {{}, std::move(run)};
}

AgentResponse done() {
  AgentResponse response;
  response.ok = true;
  return response;
}

AgentResponse withValue(base::SecretText value) {
  AgentResponse response = done();
  response.value = std::move(value);
  return response;
}

AgentResponse withDocument(base::JsonWriter& writer) {
  AgentResponse response = done();
  response.document = writer.take();
  return response;
}

ActionPlan asking(const ActionCall& call, const std::string& phrase, std::function<AgentResponse()> run,
                  std::vector<std::string> details) {
  ActionQuestion question;
  question.prompt.kind = OwnerApprovalPrompt::Kind::other;
  question.prompt.reason = call.requester + " wants to " + phrase;
  question.details = std::move(details);
  return {std::move(question), std::move(run)};
}

}  // namespace sorvane::agent
