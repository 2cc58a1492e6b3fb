#include "agent/operations.h"

#include "agent/handlers.h"
#include "agent/stand_ins.h"
#include "base/diagnostics.h"
#include "base/unicode.h"
#include "vault/deployment_policy.h"

namespace sorvane::agent {

// Every operation and what must hold before it runs. Which environments and secrets a scoped grant sees is decided
// where names are looked up (handlers_lookup.cpp); there is no other check.
const std::array<Operation, kOpCount> kOperations{{
    {AgentOp::listEnvironments, CallerRule::any, ApprovalRule::none, &Handlers::listEnvironments},
    {AgentOp::listSecrets, CallerRule::any, ApprovalRule::none, &Handlers::listSecrets},
    {AgentOp::renderEnv, CallerRule::any, ApprovalRule::environmentRead, &Handlers::renderEnv},
    {AgentOp::runEnv, CallerRule::any, ApprovalRule::environmentRun, &Handlers::runEnv},
    {AgentOp::getSecret, CallerRule::mayReveal, ApprovalRule::readSecret, &Handlers::getSecret},
    {AgentOp::captureSecret, CallerRule::any, ApprovalRule::change, &Handlers::captureSecret},
    {AgentOp::importProject, CallerRule::any, ApprovalRule::change, &Handlers::importProject},
    {AgentOp::createEnvironment, CallerRule::any, ApprovalRule::change, &Handlers::createEnvironment},
    {AgentOp::deleteEnvironment, CallerRule::any, ApprovalRule::change, &Handlers::deleteEnvironment},
    {AgentOp::addToEnvironment, CallerRule::any, ApprovalRule::change, &Handlers::addToEnvironment},
    {AgentOp::peekClipboard, CallerRule::any, ApprovalRule::none, &Handlers::peekClipboard},
    {AgentOp::captureClipboard, CallerRule::any, ApprovalRule::change, &Handlers::captureClipboard},
    {AgentOp::beginTaskSession, CallerRule::any, ApprovalRule::taskSession, &Handlers::beginTaskSession},
    {AgentOp::listTaskSessions, CallerRule::any, ApprovalRule::none, &Handlers::listTaskSessions},
    {AgentOp::endTaskSession, CallerRule::any, ApprovalRule::none, &Handlers::endTaskSession},
    {AgentOp::taskSessionEnv, CallerRule::any, ApprovalRule::none, &Handlers::taskSessionEnv},
    {AgentOp::manageVault, CallerRule::controller, ApprovalRule::perAction, &Handlers::manageVault},
    {AgentOp::keyRequest, CallerRule::any, ApprovalRule::none, &Handlers::keysNotServed},
    {AgentOp::keyRequestStatus, CallerRule::any, ApprovalRule::none, &Handlers::keysNotServed},
    {AgentOp::keyList, CallerRule::any, ApprovalRule::none, &Handlers::keysNotServed},
    {AgentOp::keyRevoke, CallerRule::any, ApprovalRule::none, &Handlers::keysNotServed},
    {AgentOp::keyEnvelope, CallerRule::any, ApprovalRule::none, &Handlers::keysNotServed},
    {AgentOp::keyEnvFile, CallerRule::any, ApprovalRule::change, &Handlers::keyEnvFile},
    {AgentOp::proxyUsage, CallerRule::any, ApprovalRule::none, &Handlers::proxyUsage},
    {AgentOp::proxyRunEnded, CallerRule::any, ApprovalRule::none, &Handlers::proxyRunEnded},
}};

namespace {

// Longest part of a caller's own words that the access log keeps, in bytes.
constexpr std::size_t kMaxLoggedRequestor = 1000;

constexpr std::string_view kRawValuesOff =
    "Raw values are off for this agent connection in sorvane, so nothing was revealed. Use run_with_env to use "
    "credentials. Only the owner can allow raw values, in Settings > Agents. If this agent was only running a command, "
    "restart it to load the updated sorvane helper.";
constexpr std::string_view kControllerOnly =
    "Vault management requires the local controller. MCP client tokens cannot manage the vault.";

}  // namespace

vault::AccessContext Call::access(std::string_view tool) const {
  vault::AccessContext context{caller_.label, std::string(tool), caller_.inApplication ? "app" : "agent", {}};
  if (request_.requestor) {
    context.requestor = std::string(base::prefixOfWholeCharacters(*request_.requestor, kMaxLoggedRequestor));
  }
  return context;
}

std::optional<AgentResponse> refusedCaller(CallerRule rule, const Caller& caller) {
  switch (rule) {
    case CallerRule::any:
      return std::nullopt;
    case CallerRule::mayReveal:
      if (caller.allowReveal) return std::nullopt;
      return AgentResponse::refused(std::string(kRawValuesOff));
    case CallerRule::controller:
      if (caller.kind == Caller::Kind::controller) return std::nullopt;
      return AgentResponse::refused(std::string(kControllerOnly));
  }
  return AgentResponse::refused(std::string(kControllerOnly));
}

AgentResponse perform(Handlers& handlers, Call& call) {
  const Operation& operation = operationOf(call.request().op);
  if (auto refusal = refusedCaller(operation.caller, call.caller())) return std::move(*refusal);
  try {
    return (handlers.*operation.handler)(call);
  } catch (const vault::ProtectionError& error) {
    return AgentResponse::refused(error.sentence(), error.code());
  } catch (const proxy::ProxyUnavailable&) {
    return proxyUnavailable();
  } catch (const proxy::ProxyAskError&) {
    // The limits became narrower while the owner was asked.
    return proxyApprovalChanged();
  } catch (const vault::DeploymentPolicyError& error) {
    return AgentResponse::refused(error.sentence(), "deployment_policy_refused");
  } catch (const TaskSessions::Failure& failure) {
    const bool duration = failure.kind() == TaskSessions::Failure::Case::invalidDuration;
    return AgentResponse::refused(failure.sentence(),
                                  duration ? std::optional<std::string>("invalid_duration") : std::nullopt);
  } catch (const base::Error& error) {
    return AgentResponse::refused(error.sentence());
  } catch (const std::exception&) {
    // The text of a library's exception is not ours to show: it may quote what it was given.
    base::diagnose("agent", "a request failed unexpectedly (" + std::string(word(operation.op)) + ")");
    return AgentResponse::refused("sorvane could not carry out this request. Nothing was shared. Try again.");
  }
}

}  // namespace sorvane::agent
