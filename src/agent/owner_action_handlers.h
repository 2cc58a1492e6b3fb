#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "agent/action_arguments.h"
#include "agent/approval_policy.h"
#include "agent/clipboard.h"
#include "agent/grant_store.h"
#include "agent/jobs.h"
#include "agent/owner_actions.h"
#include "agent/owner_proxy.h"
#include "agent/vault_actions.h"
#include "base/clock.h"
#include "base/json_writer.h"
#include "vault/vault.h"

namespace sorvane::agent {

class CopiedValue;
class OwnerBackups;
class OwnerPhones;
class TaskSessions;

/// ActionPlan is an action whose arguments were checked: the question, for one that asks, and what is done after a yes.
/// It holds what was checked, so that nothing is read again after the answer.
struct ActionPlan {
  std::optional<ActionQuestion> question;
  std::function<AgentResponse()> run;
};

/// OwnerActionHandlers carries out the owner's actions, one handler a row of the table (owner_action_table.cpp). Each
/// checks its arguments and returns a plan; a failure is thrown as a base::Error. Any thread.
class OwnerActionHandlers final : public OwnerActions {
 public:
  struct Ports {
    vault::Vault& vault;
    GrantStore& grants;
    ApprovalPolicy& policy;
    Jobs& jobs;
    Clipboard& clipboard;
    CopiedValue& copied;
    TaskSessions& sessions;
    VaultActions& application;
    const base::Clock& clock;
    OwnerProxy* proxy = nullptr;      ///< absent: no proxy runs here
    OwnerBackups* backups = nullptr;  ///< absent: no backups are made here
    OwnerPhones* phones = nullptr;    ///< absent: no phone is linked here
    /// Why the system can check nobody. Absent: it never can.
    std::function<std::optional<std::string>()> systemCheckUnavailable{};
  };
  explicit OwnerActionHandlers(Ports ports) : ports_(ports) {}

  AgentResponse perform(ActionCall& call) override;

  using Handler = ActionPlan (OwnerActionHandlers::*)(const ActionArguments&, ActionCall&);

  // Phones (phone_actions.cpp).
  ActionPlan phonePair(const ActionArguments& arguments, ActionCall& call);
  ActionPlan phonePairing(const ActionArguments& arguments, ActionCall& call);
  ActionPlan phonePairCancel(const ActionArguments& arguments, ActionCall& call);
  ActionPlan phoneList(const ActionArguments& arguments, ActionCall& call);
  ActionPlan phoneRevoke(const ActionArguments& arguments, ActionCall& call);
  ActionPlan phoneTest(const ActionArguments& arguments, ActionCall& call);

  // The application and its settings (application_actions.cpp).
  ActionPlan status(const ActionArguments& arguments, ActionCall& call);
  ActionPlan settingsGet(const ActionArguments& arguments, ActionCall& call);
  ActionPlan settingsSet(const ActionArguments& arguments, ActionCall& call);
  ActionPlan policyGet(const ActionArguments& arguments, ActionCall& call);
  ActionPlan policySet(const ActionArguments& arguments, ActionCall& call);
  ActionPlan gc(const ActionArguments& arguments, ActionCall& call);
  ActionPlan storeShow(const ActionArguments& arguments, ActionCall& call);
  ActionPlan storeMove(const ActionArguments& arguments, ActionCall& call);
  ActionPlan job(const ActionArguments& arguments, ActionCall& call);
  ActionPlan jobCancel(const ActionArguments& arguments, ActionCall& call);

  // Secrets (secret_actions.cpp).
  ActionPlan secretList(const ActionArguments& arguments, ActionCall& call);
  ActionPlan secretShow(const ActionArguments& arguments, ActionCall& call);
  ActionPlan secretAdd(const ActionArguments& arguments, ActionCall& call);
  ActionPlan secretEdit(const ActionArguments& arguments, ActionCall& call);
  ActionPlan secretRotate(const ActionArguments& arguments, ActionCall& call);
  ActionPlan secretReveal(const ActionArguments& arguments, ActionCall& call);
  ActionPlan secretCopy(const ActionArguments& arguments, ActionCall& call);
  ActionPlan secretRename(const ActionArguments& arguments, ActionCall& call);
  ActionPlan secretRestore(const ActionArguments& arguments, ActionCall& call);
  ActionPlan secretLimit(const ActionArguments& arguments, ActionCall& call);
  ActionPlan secretRemove(const ActionArguments& arguments, ActionCall& call);

  // Environments (environment_actions.cpp).
  ActionPlan environmentList(const ActionArguments& arguments, ActionCall& call);
  ActionPlan environmentShow(const ActionArguments& arguments, ActionCall& call);
  ActionPlan environmentAdd(const ActionArguments& arguments, ActionCall& call);
  ActionPlan environmentEdit(const ActionArguments& arguments, ActionCall& call);
  ActionPlan environmentBind(const ActionArguments& arguments, ActionCall& call);
  ActionPlan environmentUnbind(const ActionArguments& arguments, ActionCall& call);
  ActionPlan environmentMove(const ActionArguments& arguments, ActionCall& call);
  ActionPlan environmentTarget(const ActionArguments& arguments, ActionCall& call);
  ActionPlan environmentRename(const ActionArguments& arguments, ActionCall& call);
  ActionPlan environmentRemove(const ActionArguments& arguments, ActionCall& call);

  // Exports and the log (export_actions.cpp).
  ActionPlan exportOne(const ActionArguments& arguments, ActionCall& call);
  ActionPlan exportSecrets(const ActionArguments& arguments, ActionCall& call);
  ActionPlan exportAll(const ActionArguments& arguments, ActionCall& call);
  ActionPlan log(const ActionArguments& arguments, ActionCall& call);
  ActionPlan logUsage(const ActionArguments& arguments, ActionCall& call);
  ActionPlan logRepair(const ActionArguments& arguments, ActionCall& call);

  // Agent connections (agent_actions.cpp).
  ActionPlan agentList(const ActionArguments& arguments, ActionCall& call);
  ActionPlan agentAdd(const ActionArguments& arguments, ActionCall& call);
  ActionPlan agentEdit(const ActionArguments& arguments, ActionCall& call);
  ActionPlan agentConfirm(const ActionArguments& arguments, ActionCall& call);
  ActionPlan agentRemove(const ActionArguments& arguments, ActionCall& call);

  // Agent clients' own files, and leaving (client_actions.cpp).
  ActionPlan clientStatus(const ActionArguments& arguments, ActionCall& call);
  ActionPlan clientConnect(const ActionArguments& arguments, ActionCall& call);
  ActionPlan clientRepair(const ActionArguments& arguments, ActionCall& call);
  ActionPlan clientDisconnect(const ActionArguments& arguments, ActionCall& call);
  ActionPlan scan(const ActionArguments& arguments, ActionCall& call);
  ActionPlan uninstallPlan(const ActionArguments& arguments, ActionCall& call);
  ActionPlan uninstall(const ActionArguments& arguments, ActionCall& call);

  // Protected keys and what stands in for them (proxy_actions.cpp).
  ActionPlan proxyProtect(const ActionArguments& arguments, ActionCall& call);
  ActionPlan proxyUnprotect(const ActionArguments& arguments, ActionCall& call);
  ActionPlan proxyConfirm(const ActionArguments& arguments, ActionCall& call);
  ActionPlan proxyStatus(const ActionArguments& arguments, ActionCall& call);
  ActionPlan proxyResume(const ActionArguments& arguments, ActionCall& call);
  ActionPlan proxyEndGrant(const ActionArguments& arguments, ActionCall& call);

  // The proxy's limits (proxy_limit_actions.cpp), and its calls and prices (proxy_ledger_actions.cpp).
  ActionPlan proxyLimitsGet(const ActionArguments& arguments, ActionCall& call);
  ActionPlan proxyLimitsSet(const ActionArguments& arguments, ActionCall& call);
  ActionPlan proxyLedger(const ActionArguments& arguments, ActionCall& call);
  ActionPlan proxyPrices(const ActionArguments& arguments, ActionCall& call);
  ActionPlan proxyPricesFetch(const ActionArguments& arguments, ActionCall& call);
  ActionPlan proxyPricesOverride(const ActionArguments& arguments, ActionCall& call);

  // Backups (backup_actions.cpp).
  ActionPlan backupCreate(const ActionArguments& arguments, ActionCall& call);
  ActionPlan backupRecoveryKey(const ActionArguments& arguments, ActionCall& call);
  ActionPlan backupInspect(const ActionArguments& arguments, ActionCall& call);
  ActionPlan backupShow(const ActionArguments& arguments, ActionCall& call);
  ActionPlan backupPreview(const ActionArguments& arguments, ActionCall& call);
  ActionPlan backupRestore(const ActionArguments& arguments, ActionCall& call);
  ActionPlan backupUndo(const ActionArguments& arguments, ActionCall& call);

 private:
  vault::Secret secretNamed(const ActionArguments& arguments, std::string_view argument = "name");
  vault::Project projectNamed(const ActionArguments& arguments, std::string_view argument = "name");
  vault::AccessContext access(const ActionCall& call, const ActionArguments& arguments) const;
  ActionPlan writeEntry(ClientConnection plan, GrantStore::NewGrant grant, const std::string& phrase,
                        const ActionArguments& arguments, ActionCall& call);
  std::vector<std::string> uninstallSteps(bool withVault);
  std::int64_t rotationGraceDays();
  OwnerProxy& runningProxy() const;
  OwnerBackups& backups() const;
  OwnerPhones& phones() const;
  /// Whose yes counts in the place of the phone's, where the policy has that count and none can come.
  std::optional<Approver> standInForPhone() const;
  void requireSystemCheck() const;
  proxy::ProxyGrantStatus grantNamed(const ActionArguments& arguments) const;
  void writeSummary(base::JsonWriter& out, const vault::Secret& secret, std::int64_t graceDays);

  const Ports ports_;
};

// Pieces of plans.

ActionPlan answer(std::function<AgentResponse()> run);
AgentResponse done();
AgentResponse withValue(base::SecretText value);
AgentResponse withDocument(base::JsonWriter& writer);
/// A plan that asks: `requester` wants to `phrase`.
ActionPlan asking(const ActionCall& call, const std::string& phrase, std::function<AgentResponse()> run,
                  std::vector<std::string> details = {});

/// One line for each of the proxy's stored options; one that says so when they cannot be read.
std::vector<std::string> proxyLimitsInWords(const std::string& stored);

/// Days of warning before an expiry when the owner set none.
inline constexpr std::int64_t kDefaultRotationGraceDays = 14;

}  // namespace sorvane::agent
