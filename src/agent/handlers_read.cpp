#include <algorithm>

#include "agent/command_words.h"
#include "agent/handlers.h"
#include "base/ids.h"
#include "base/unicode.h"
#include "vault/deployment_policy.h"
#include "vault/run_control.h"
#include "vault/secret_store.h"

namespace sorvane::agent {

AgentResponse Handlers::listEnvironments(Call& call) {
  const auto records = ports_.vault.records();
  AgentResponse response;
  response.ok = true;
  std::vector<std::string>& names = response.names.emplace();
  const auto& scope = call.caller().scope;
  for (const vault::Project& environment : records->projects) {
    if (!scope || sameEnvironmentName(*scope, environment.name)) names.push_back(environment.name);
  }
  return response;
}

AgentResponse Handlers::listSecrets(Call& call) {
  const auto records = ports_.vault.records();
  auto found = environmentOf(*records, call.caller(), environmentNameOf(call.request()));
  if (found.refusal) return std::move(*found.refusal);
  AgentResponse response;
  response.ok = true;
  std::vector<std::string>& names = response.names.emplace();
  std::vector<std::string>& variables = response.publicNames.emplace();
  for (const vault::EnvBinding& binding : found.environment->bindings) {
    const vault::Secret* const secret = records->secretById(binding.secretId);
    if (secret == nullptr) continue;
    names.push_back(secret->name);
    variables.push_back(binding.envVarName);
  }
  return response;
}

namespace {

constexpr std::string_view kEnvironmentUnavailable = "Environment unavailable or audit write failed";

AgentResponse rendered(vault::RenderedEnvironment environment) {
  AgentResponse response;
  response.ok = true;
  response.lines = std::move(environment.result.lines);
  response.warnings = std::move(environment.result.warnings);
  response.missing = std::move(environment.result.missing);
  response.directory = std::move(environment.rootPath);
  response.runControlAllowed = std::move(environment.runControlAllowed);
  return response;
}

}  // namespace

namespace {

/// The lines are for a command that the caller starts by itself.
bool isForCommand(const AgentRequest& request) {
  const auto found = request.payload.find("purpose");
  return found != request.payload.end() && found->second == "command";
}

/// Takes out what `runEnv` would keep from a command, too.
void leaveOutRunControl(vault::RenderedEnvironment& environment) {
  const std::vector<std::string>& allowed = environment.runControlAllowed;
  std::erase_if(environment.result.lines, [&](const base::SecretText& line) {
    const std::string_view name = line.view().substr(0, line.view().find('='));
    if (!vault::isRunControlName(name) || std::find(allowed.begin(), allowed.end(), name) != allowed.end())
      return false;
    environment.result.warnings.push_back(runControlWarning(name));
    return true;
  });
}

}  // namespace

namespace {

constexpr std::string_view kRawValuesLeave = "Raw values leave sorvane: the program that asks gets them in the clear.";

OperationQuestion readQuestion(Call& call, const vault::Project& environment) {
  OperationQuestion question;
  question.prompt.kind = OwnerApprovalPrompt::Kind::useEnvironment;
  question.prompt.reason =
      call.requester() + " wants to read every value of the environment '" + environment.name + "'";
  question.prompt.subject = environment.name;
  question.prompt.declaredTarget = declaredTarget(call.request());
  question.details = {std::string(kRawValuesLeave)};
  question.environmentId = environment.id;
  return question;
}

}  // namespace

AgentResponse Handlers::renderForCommand(Call& call, const vault::Project& environment,
                                         const std::optional<std::string>& target) {
  OperationQuestion question = readQuestion(call, environment);
  // What the caller says it will run; nobody here can hold it to that.
  const auto told = call.request().payload.find("command");
  auto words = told == call.request().payload.end() ? std::nullopt : decodeCommandWords(told->second);
  if (words) question.commandWords = std::move(*words);
  question.directory = call.request().directory;
  StandInPlan standIns;
  const bool keys = lookForKeys(call, environment, target, standIns, question);
  if (standIns.refusal) return std::move(*standIns.refusal);
  const bool raw = call.caller().allowReveal;
  // Without raw values there is nothing to hand out but stand-ins.
  if (!raw && !keys) return renderRedacted(call, environment, target);
  if (!raw) {
    question.prompt.reason =
        call.requester() + " wants stand-ins for the protected keys of the environment '" + environment.name + "'";
    std::erase(question.details, kRawValuesLeave);
  }
  if (call.denied(question)) return AgentResponse::refused(std::string(kApprovalDenied));
  if (auto refusal = changedMeanwhile(environment)) return std::move(*refusal);
  const std::string epoch = ports_.sessions.epoch();
  vault::ProxySplitRender split = ports_.vault.renderForProxy(
      environment.id, target, raw ? vault::RenderValues::deliver : vault::RenderValues::keysOnly,
      call.access("agent_render_env"));
  if (split.keys.empty() == keys) return proxyApprovalChanged();
  std::optional<std::string> run;
  StandInNames names;
  if (keys) {
    proxy::NewProxyGrant wanted = newGrant(call, split, standIns.ask, ports_.vault);
    wanted.runId = run = base::randomUuid();
    wanted.owner = standInOwner(*run);
    wanted.until = ports_.clock.now() + std::chrono::seconds(ports_.localProxy->longestSessionSeconds());
    const auto issued = issueStandIns(std::move(wanted), proxy::ProxyRunWatch{call.peer()});
    if (!issued) return proxyUnavailable();
    if (!isStillGood(call, epoch, issued->grant)) return proxyApprovalChanged();
    names = placeStandIns(split, issued->grant, issued->port);
  }
  leaveOutRunControl(split.rendered);
  AgentResponse response = rendered(std::move(split.rendered));
  response.proxyRun = std::move(run);
  if (!names.baseUrls.empty()) response.publicNames = std::move(names.baseUrls);
  return response;
}

AgentResponse Handlers::renderEnv(Call& call) {
  const auto records = ports_.vault.records();
  auto found = environmentOf(*records, call.caller(), environmentNameOf(call.request()));
  if (found.refusal) return std::move(*found.refusal);
  const vault::Project& environment = *found.environment;
  const auto target = declaredTarget(call.request());
  checkTargetsBeforeAsking(*records, environment, target);
  try {
    if (isForCommand(call.request())) return renderForCommand(call, environment, target);
    if (!call.caller().allowReveal) return renderRedacted(call, environment, target);
    // A protected key is refused before anybody is asked.
    const auto looked =
        ports_.vault.renderForProxy(environment.id, target, vault::RenderValues::redact, call.access(""));
    if (!looked.keys.empty()) throw vault::ProtectionError::isProtected(looked.keys.front().variable);
    if (call.denied(readQuestion(call, environment))) return AgentResponse::refused(std::string(kApprovalDenied));
    if (auto refusal = changedMeanwhile(environment)) return std::move(*refusal);
    return rendered(
        ports_.vault.render(environment.id, target, vault::RenderValues::deliver, call.access("agent_render_env")));
  } catch (const vault::VaultError&) {
    return AgentResponse::refused(std::string(kEnvironmentUnavailable));
  }
}

AgentResponse Handlers::renderRedacted(Call& call, const vault::Project& environment,
                                       const std::optional<std::string>& target) {
  auto redacted =
      ports_.vault.render(environment.id, target, vault::RenderValues::redact, call.access("agent_render_env"));
  if (isForCommand(call.request())) leaveOutRunControl(redacted);
  return rendered(std::move(redacted));
}

std::optional<AgentResponse> Handlers::changedMeanwhile(const vault::Project& environment) {
  const auto present = ports_.vault.records();
  const vault::Project* const now = present->projectById(environment.id);
  if (now == nullptr) return AgentResponse::refused("Environment unavailable");
  if (!(*now == environment)) return AgentResponse::refused(std::string(kEnvironmentChanged));
  return std::nullopt;
}

namespace {

/// Which version of a secret the caller gets, and under which environment's target.
struct Choice {
  std::int64_t version;
  std::optional<std::string> environmentTarget;
};

Choice choose(const vault::Secret& secret, const vault::Project* environment) {
  Choice choice{secret.currentVersion, {}};
  if (environment == nullptr) return choice;
  for (const vault::EnvBinding& binding : environment->bindings) {
    if (binding.secretId != secret.id) continue;
    // Only an environment that binds the secret lends it its target.
    choice.environmentTarget = environment->deploymentTarget;
    choice.version = binding.pinVersion.value_or(secret.currentVersion);
    break;
  }
  return choice;
}

AgentResponse noSecret(std::string_view name) {
  return AgentResponse::refused("no secret named '" + std::string(name) + "' available to this client");
}

}  // namespace

AgentResponse Handlers::getSecret(Call& call) {
  const auto records = ports_.vault.records();
  const Caller& caller = call.caller();
  const std::string name = call.request().arg.value_or("");
  const vault::Project* environment = nullptr;
  // A scoped caller reads through its environment, with the version and the target that the owner chose there.
  if (call.request().environment || caller.scope) {
    auto found = environmentOf(*records, caller, call.request().environment.value_or(caller.scope.value_or("")));
    if (found.refusal && call.request().environment) return std::move(*found.refusal);
    environment = found.environment;
  }
  const vault::Secret* const secret = visibleSecret(*records, caller, name);
  if (secret == nullptr) return noSecret(name);
  const Choice choice = choose(*secret, environment);
  const auto target = declaredTarget(call.request());
  const vault::SecretVersion* const version = secret->find(choice.version);
  if (version == nullptr || version->status == vault::VersionStatus::purged) return noSecret(name);
  const auto& allowed = version->allowedDeploymentTargets;
  vault::checkDeploymentTargets({choice.environmentTarget, target, allowed});
  ports_.vault.requireUnprotected(secret->id);

  OperationQuestion question;
  question.prompt.kind = OwnerApprovalPrompt::Kind::readSecret;
  question.prompt.reason = call.requester() + " wants to read " + secret->name;
  question.prompt.subject = secret->name;
  question.prompt.version = choice.version;
  question.prompt.allowedTargets = allowed;
  question.prompt.declaredTarget = target;
  question.details = {"A raw value leaves sorvane: the program that asks gets it in the clear."};
  if (call.denied(question)) return AgentResponse::refused(std::string(kApprovalDenied));
  const auto present = ports_.vault.records();
  const vault::Secret* const now = present->secretById(secret->id);
  const vault::Project* const there = environment == nullptr ? nullptr : present->projectById(environment->id);
  if (now == nullptr || !(*now == *secret) ||
      (environment != nullptr && (there == nullptr || !(*there == *environment)))) {
    return AgentResponse::refused(
        "The secret or its environment changed while the owner was asked. Nothing was shared. "
        "Try again.");
  }
  try {
    vault::RevealResult revealed =
        ports_.vault.reveal(secret->id, choice.version, vault::DeclaredTargets{choice.environmentTarget, target},
                            call.access("agent_get_secret"));
    ports_.notifier.notify("sorvane · secret revealed", "read a secret: " + shownShort(secret->name));
    AgentResponse response;
    response.ok = true;
    response.value = std::move(revealed.value);
    return response;
  } catch (const vault::VaultError&) {
  } catch (const vault::SecretStoreError&) {
  }
  return AgentResponse::refused("not available (or audit write failed)");
}

}  // namespace sorvane::agent
