#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>

#include "agent/handlers.h"
#include "agent/task_sessions.h"
#include "base/ids.h"
#include "base/unicode.h"
#include "proxy/money.h"
#include "vault/deployment_policy.h"

namespace sorvane::agent {
namespace {

/// What the controller sees of an id: enough to end the session, too little to use it.
constexpr std::size_t kShownIdCharacters = 8;
constexpr std::string_view kEnvironmentUnavailable = "Environment unavailable or audit write failed";

std::string countOf(std::int64_t count, const std::string& unit) {
  return std::to_string(count) + " " + unit + (count == 1 ? "" : "s");
}

OperationQuestion sessionQuestion(Call& call, const vault::Project& environment, std::int64_t seconds,
                                  const std::optional<std::string>& directory) {
  OperationQuestion question;
  question.prompt.kind = OwnerApprovalPrompt::Kind::taskSession;
  question.prompt.reason = call.requester() + " wants to use the environment '" + environment.name + "' for " +
                           durationInWords(seconds) + " without asking again";
  question.prompt.subject = environment.name;
  question.prompt.declaredTarget = declaredTarget(call.request());
  question.directory = directory;
  question.details = {"Until then it may run commands with " +
                      countOf(static_cast<std::int64_t>(environment.bindings.size()), "variable") +
                      "; what they print is masked. Any change of these secrets ends the session."};
  if (call.caller().allowReveal) {
    question.details.emplace_back("Raw values may leave sorvane: this connection may read them in the clear.");
  }
  question.environmentId = environment.id;
  return question;
}

/// Rounded up, so that 100 means that nothing is left.
std::int64_t percentOf(proxy::Micros spent, proxy::Micros budget) {
  if (budget <= 0) return 0;
  const proxy::Micros hundredfold = proxy::multiplySaturating(spent, 100);
  return hundredfold / budget + (hundredfold % budget > 0 ? 1 : 0);
}

AgentResponse sessionAnswer(std::vector<TaskSessionInfo> sessions) {
  AgentResponse response;
  response.ok = true;
  response.sessions = std::move(sessions);
  return response;
}

/// The versions that the environment's bindings select, without those of protected keys.
std::vector<vault::DeliveredVersion> deliveredBy(const vault::Records& records, const vault::Project& environment,
                                                 const std::vector<vault::ProxyRenderedKey>& keys) {
  std::vector<vault::DeliveredVersion> delivered;
  for (const vault::EnvBinding& binding : environment.bindings) {
    const vault::Secret* const secret = records.secretById(binding.secretId);
    const bool isKey =
        std::any_of(keys.begin(), keys.end(), [&](const auto& key) { return key.variable == binding.envVarName; });
    if (secret == nullptr || isKey) continue;
    delivered.push_back({binding.envVarName, secret->id, binding.pinVersion.value_or(secret->currentVersion)});
  }
  return delivered;
}

AgentResponse repairFirst(vault::RenderResult result) {
  AgentResponse refused = AgentResponse::refused("Repair missing environment values before starting a task session");
  refused.warnings = std::move(result.warnings);
  refused.missing = std::move(result.missing);
  return refused;
}

/// Every variable is a protected key, so that nothing real is handed out.
bool holdsOnlyKeys(const vault::ProxySplitRender& split, const vault::Project& environment) {
  return !split.keys.empty() && split.keys.size() == environment.bindings.size();
}

AgentResponse tooLongForKeys(std::int64_t seconds) {
  return AgentResponse::refused("The owner allows task sessions with protected keys for at most " +
                                    std::to_string(seconds) + " seconds. Choose a shorter duration.",
                                "invalid_duration");
}

base::SecretText redacted(const base::SecretText& line) {
  const std::string_view text = line.view();
  base::SecretText shown;
  if (text.starts_with('#')) return line.clone();
  shown.append(text.substr(0, text.find('=') + 1));
  shown.append(vault::kRedacted);
  return shown;
}

}  // namespace

std::string durationInWords(std::int64_t seconds) {
  constexpr std::int64_t kMinute = 60, kHour = 3600, kDay = 86400;
  if (seconds >= kDay && seconds % kDay == 0) return countOf(seconds / kDay, "day");
  if (seconds >= kHour && seconds % kHour == 0) return countOf(seconds / kHour, "hour");
  if (seconds >= kMinute && seconds % kMinute == 0) return countOf(seconds / kMinute, "minute");
  return countOf(seconds, "second");
}

std::optional<std::string> existingFolder(const std::string& path) {
  if (path.empty() || path.front() != '/') return std::nullopt;
  const std::unique_ptr<char, decltype(&::free)> resolved(::realpath(path.c_str(), nullptr), &::free);
  struct stat status {};
  if (!resolved || ::stat(resolved.get(), &status) != 0 || !S_ISDIR(status.st_mode)) return std::nullopt;
  return std::string(resolved.get());
}

struct Handlers::SessionPlan {
  std::string epoch;
  vault::Project environment;
  std::int64_t seconds = 0;
  TaskSessions::Snapshot snapshot;
  proxy::ProxyAsk ask;
};

std::optional<AgentResponse> Handlers::planSession(Call& call, SessionPlan& plan, std::vector<std::string>& details) {
  const AgentRequest& request = call.request();
  plan.epoch = ports_.sessions.epoch();
  const auto records = ports_.vault.records();
  auto found = environmentOf(*records, call.caller(), environmentNameOf(request));
  if (found.refusal) return std::move(*found.refusal);
  plan.environment = *found.environment;
  plan.seconds = request.durationSeconds.value_or(0);
  TaskSessions::checkDuration(plan.seconds, true);
  TaskSessions::Snapshot& snapshot = plan.snapshot;
  snapshot.directory = request.directory ? existingFolder(*request.directory) : plan.environment.rootPath;
  if (request.directory && !snapshot.directory) {
    return AgentResponse::refused("Project folder is missing. Choose an existing absolute directory.");
  }
  snapshot.deploymentTarget = declaredTarget(request);
  snapshot.environmentId = plan.environment.id;
  checkTargetsBeforeAsking(*records, plan.environment, snapshot.deploymentTarget);
  // Hands out and logs nothing: only what is missing and what is protected is looked for.
  vault::ProxySplitRender looked;
  try {
    looked = ports_.vault.renderForProxy(plan.environment.id, snapshot.deploymentTarget, vault::RenderValues::redact,
                                         call.access(""));
  } catch (const vault::VaultError&) {
    TaskSessions::checkDuration(plan.seconds, false);
    return AgentResponse::refused(std::string(kEnvironmentUnavailable));
  }
  snapshot.proxyOnly = holdsOnlyKeys(looked, plan.environment);
  TaskSessions::checkDuration(plan.seconds, snapshot.proxyOnly);
  StandInPlan standIns = planStandIns(request, ports_.localProxy, looked.keys);
  if (standIns.refusal) return std::move(standIns.refusal);
  plan.ask = std::move(standIns.ask);
  if (!looked.keys.empty() && plan.seconds > ports_.localProxy->longestSessionSeconds()) {
    return tooLongForKeys(ports_.localProxy->longestSessionSeconds());
  }
  if (ports_.sessions.isFull()) throw TaskSessions::Failure(TaskSessions::Failure::Case::capacity);
  if (!looked.rendered.result.missing.empty()) return repairFirst(std::move(looked.rendered.result));
  details = standInDetails(ports_.localProxy, plan.ask, looked.keys);
  return std::nullopt;
}

AgentResponse Handlers::beginTaskSession(Call& call) {
  SessionPlan plan;
  std::vector<std::string> details;
  if (auto refusal = planSession(call, plan, details)) return std::move(*refusal);
  const vault::Project& environment = plan.environment;
  OperationQuestion question = sessionQuestion(call, environment, plan.seconds, plan.snapshot.directory);
  question.details.insert(question.details.end(), details.begin(), details.end());
  if (call.denied(question)) return AgentResponse::refused(std::string(kApprovalDenied));

  vault::ProxySplitRender split;
  try {
    split = ports_.vault.renderForProxy(environment.id, plan.snapshot.deploymentTarget, vault::RenderValues::deliver,
                                        call.access("agent_begin_task_session"));
  } catch (const vault::VaultError&) {
    return AgentResponse::refused(std::string(kEnvironmentUnavailable));
  }
  if (!split.rendered.result.missing.empty()) return repairFirst(std::move(split.rendered.result));
  // A variable that was added while the owner was asked ends no session, but was not shown to them either.
  const auto present = ports_.vault.records();
  const vault::Project* const now = present->projectById(environment.id);
  if (now == nullptr || !(*now == environment)) return AgentResponse::refused(std::string(kEnvironmentChanged));
  // So does a key that became protected, or is no longer.
  if (split.keys.empty() != details.empty() || holdsOnlyKeys(split, environment) != plan.snapshot.proxyOnly) {
    return proxyApprovalChanged();
  }
  plan.snapshot.delivered = deliveredBy(*present, environment, split.keys);
  return beginPlanned(call, std::move(plan), std::move(split));
}

AgentResponse Handlers::beginPlanned(Call& call, SessionPlan plan, vault::ProxySplitRender split) {
  TaskSessions::NewSession session;
  session.id = base::randomUuid();
  session.owner = call.caller().identity;
  session.client = call.caller().label;
  session.environment = plan.environment.name;
  session.durationSeconds = plan.seconds;
  session.epoch = plan.epoch;
  session.audit = [&vault = ports_.vault, context = call.access(""),
                   id = plan.environment.id](std::string_view action) mutable {
    context.tool = action;
    vault.log(context, id);
  };
  if (!split.keys.empty()) {
    if (ports_.localProxy == nullptr) return proxyUnavailable();
    proxy::NewProxyGrant grant = newGrant(call, split, plan.ask, ports_.vault);
    grant.owner = standInOwner(session.id);
    grant.taskSessionId = session.id;
    grant.until = ports_.clock.now() + std::chrono::seconds(plan.seconds);
    const auto issued = issueStandIns(std::move(grant), {});
    if (!issued) return proxyUnavailable();
    plan.snapshot.proxyLookupId = issued->grant.lookupId;
    plan.snapshot.standIns = placeStandIns(split, issued->grant, issued->port);
  }
  plan.snapshot.lines = std::move(split.rendered.result.lines);
  plan.snapshot.runControlAllowed = std::move(split.rendered.runControlAllowed);
  const auto lookupId = plan.snapshot.proxyLookupId;
  session.snapshot = std::move(plan.snapshot);
  TaskSessionInfo info;
  try {
    info = ports_.sessions.begin(std::move(session));
  } catch (const TaskSessions::Failure& failure) {
    if (!lookupId) throw;
    ports_.localProxy->end(*lookupId);
    if (failure.kind() == TaskSessions::Failure::Case::cancelled) return proxyApprovalChanged();
    throw;
  }
  info.proxy = summaryOf(ports_.localProxy, lookupId);
  AgentResponse response = sessionAnswer({info});
  response.value = base::SecretText(info.id);
  response.warnings = std::move(split.rendered.result.warnings);
  response.directory = plan.environment.rootPath;
  return response;
}

std::vector<TaskSessionInfo> Handlers::sessionsOf(const Caller& caller) {
  const bool isController = caller.kind == Caller::Kind::controller;
  std::vector<TaskSessionInfo> sessions =
      isController ? ports_.sessions.listAll() : ports_.sessions.list(caller.identity);
  for (TaskSessionInfo& session : sessions) {
    session.proxy = summaryOf(ports_.localProxy, session.proxyLookupId);
    if (isController) session.id.resize(kShownIdCharacters);
  }
  return sessions;
}

AgentResponse Handlers::listTaskSessions(Call& call) {
  return sessionAnswer(sessionsOf(call.caller()));
}

AgentResponse Handlers::proxyUsage(Call& call) {
  std::vector<TaskSessionInfo> sessions = sessionsOf(call.caller());
  std::erase_if(sessions, [](const TaskSessionInfo& session) { return !session.proxy; });
  AgentResponse response = sessionAnswer(std::move(sessions));
  proxy::ProxyCallerUsage usage;
  if (ports_.localProxy != nullptr) usage = ports_.localProxy->usageOf(call.caller().identity);
  UsageStatus& status = response.usage.emplace();
  status.percent = percentOf(usage.spentMicros, usage.budgetMicros);
  status.used = proxy::dollarsOf(proxy::centsOf(usage.spentMicros));
  status.allowance = proxy::dollarsOf(proxy::centsOf(usage.budgetMicros));
  return response;
}

AgentResponse Handlers::proxyRunEnded(Call& call) {
  const auto& request = call.request();
  const auto named = request.payload.find("proxyRun");
  const std::string run = named != request.payload.end() ? named->second : request.arg.value_or("");
  // A run that is over already is what the caller wants; which runs others have is not told.
  if (ports_.localProxy != nullptr && !run.empty()) ports_.localProxy->endRun(run, call.caller().identity);
  AgentResponse response;
  response.ok = true;
  return response;
}

std::optional<Handlers::StandIns> Handlers::issueStandIns(proxy::NewProxyGrant grant,
                                                          const std::optional<proxy::ProxyRunWatch>& watch) {
  proxy::LocalProxyBroker& broker = *ports_.localProxy;
  StandIns issued{watch ? broker.issueForRun(std::move(grant), *watch) : broker.issue(std::move(grant)), 0};
  const auto port = broker.port();
  if (!port) {
    broker.end(issued.grant.lookupId);
    return std::nullopt;
  }
  issued.port = *port;
  return issued;
}

AgentResponse Handlers::endTaskSession(Call& call) {
  const AgentRequest& request = call.request();
  const std::string id = request.taskSession.value_or(request.arg.value_or(""));
  AgentResponse response;
  response.ok = true;
  if (call.caller().kind == Caller::Kind::controller) {
    const TaskSessionInfo ended = ports_.sessions.endAny(id);
    response.value =
        base::SecretText("ended the task session of " + ended.client + " with '" + ended.environment + "'");
  } else {
    ports_.sessions.end(id, call.caller().identity);
    response.value = base::SecretText("ended the task session");
  }
  return response;
}

AgentResponse Handlers::taskSessionEnv(Call& call) {
  const AgentRequest& request = call.request();
  const auto session =
      ports_.sessions.lookup(request.taskSession.value_or(request.arg.value_or("")), call.caller().identity);
  const TaskSessions::Snapshot& snapshot = *session.snapshot;
  if (snapshot.proxyLookupId && !ports_.localProxy->isLive(*snapshot.proxyLookupId)) return proxyGrantEnded();
  const bool raw = call.caller().allowReveal;
  try {
    ports_.vault.logDelivery(call.access("agent_task_session_env"), session.snapshot->environmentId,
                             raw ? session.snapshot->delivered : std::vector<vault::DeliveredVersion>());
  } catch (const vault::VaultError&) {
    return AgentResponse::refused(std::string(kEnvironmentUnavailable));
  }
  TaskSessionInfo info = session.info;
  info.proxy = summaryOf(ports_.localProxy, snapshot.proxyLookupId);
  AgentResponse response = sessionAnswer({std::move(info)});
  std::vector<base::SecretText>& lines = response.lines.emplace();
  for (const base::SecretText& line : snapshot.lines) {
    const std::string_view name = line.view().substr(0, line.view().find('='));
    const bool shown = raw || snapshot.standIns.isStandIn(name) || snapshot.standIns.isBaseUrl(name);
    lines.push_back(shown ? line.clone() : redacted(line));
  }
  response.directory = session.snapshot->directory;
  response.runControlAllowed = session.snapshot->runControlAllowed;
  return response;
}

}  // namespace sorvane::agent
