#include <stdlib.h>
#include <sys/stat.h>

#include "agent/handlers.h"
#include "agent/task_sessions.h"
#include "base/unicode.h"
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

AgentResponse sessionAnswer(std::vector<TaskSessionInfo> sessions) {
  AgentResponse response;
  response.ok = true;
  response.sessions = std::move(sessions);
  return response;
}

/// The versions that the environment's bindings select.
std::vector<vault::DeliveredVersion> deliveredBy(const vault::Records& records, const vault::Project& environment) {
  std::vector<vault::DeliveredVersion> delivered;
  for (const vault::EnvBinding& binding : environment.bindings) {
    const vault::Secret* const secret = records.secretById(binding.secretId);
    if (secret == nullptr) continue;
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

AgentResponse Handlers::beginTaskSession(Call& call) {
  const AgentRequest& request = call.request();
  const std::string epoch = ports_.sessions.epoch();
  const auto records = ports_.vault.records();
  auto found = environmentOf(*records, call.caller(), environmentNameOf(request));
  if (found.refusal) return std::move(*found.refusal);
  const vault::Project& environment = *found.environment;
  const std::int64_t seconds = request.durationSeconds.value_or(0);
  TaskSessions::checkDuration(seconds, false);
  TaskSessions::Snapshot snapshot;
  snapshot.directory = request.directory ? existingFolder(*request.directory) : environment.rootPath;
  if (request.directory && !snapshot.directory) {
    return AgentResponse::refused("Project folder is missing. Choose an existing absolute directory.");
  }
  snapshot.deploymentTarget = declaredTarget(request);
  snapshot.environmentId = environment.id;
  checkTargetsBeforeAsking(*records, environment, snapshot.deploymentTarget);
  if (ports_.sessions.isFull()) throw TaskSessions::Failure(TaskSessions::Failure::Case::capacity);
  // Hands out and logs nothing: only what is missing is looked for.
  vault::RenderedEnvironment looked;
  try {
    looked =
        ports_.vault.render(environment.id, snapshot.deploymentTarget, vault::RenderValues::redact, call.access(""));
  } catch (const vault::VaultError&) {
    return AgentResponse::refused(std::string(kEnvironmentUnavailable));
  }
  if (!looked.result.missing.empty()) return repairFirst(std::move(looked.result));
  if (call.denied(sessionQuestion(call, environment, seconds, snapshot.directory))) {
    return AgentResponse::refused(std::string(kApprovalDenied));
  }

  vault::RenderedEnvironment rendered;
  try {
    rendered = ports_.vault.render(environment.id, snapshot.deploymentTarget, vault::RenderValues::deliver,
                                   call.access("agent_begin_task_session"));
  } catch (const vault::VaultError&) {
    return AgentResponse::refused(std::string(kEnvironmentUnavailable));
  }
  if (!rendered.result.missing.empty()) return repairFirst(std::move(rendered.result));
  // A variable that was added while the owner was asked ends no session, but was not shown to them either.
  const auto present = ports_.vault.records();
  const vault::Project* const now = present->projectById(environment.id);
  if (now == nullptr || !(*now == environment)) return AgentResponse::refused(std::string(kEnvironmentChanged));
  snapshot.lines = std::move(rendered.result.lines);
  snapshot.runControlAllowed = std::move(rendered.runControlAllowed);
  snapshot.delivered = deliveredBy(*present, environment);

  TaskSessions::NewSession session;
  session.owner = call.caller().identity;
  session.client = call.caller().label;
  session.environment = environment.name;
  session.durationSeconds = seconds;
  session.snapshot = std::move(snapshot);
  session.epoch = epoch;
  session.audit = [&vault = ports_.vault, context = call.access(""),
                   id = environment.id](std::string_view action) mutable {
    context.tool = action;
    vault.log(context, id);
  };
  TaskSessionInfo info = ports_.sessions.begin(std::move(session));
  AgentResponse response = sessionAnswer({info});
  response.value = base::SecretText(info.id);
  response.warnings = std::move(rendered.result.warnings);
  response.directory = environment.rootPath;
  return response;
}

AgentResponse Handlers::listTaskSessions(Call& call) {
  if (call.caller().kind != Caller::Kind::controller) {
    return sessionAnswer(ports_.sessions.list(call.caller().identity));
  }
  std::vector<TaskSessionInfo> sessions = ports_.sessions.listAll();
  for (TaskSessionInfo& session : sessions) session.id.resize(kShownIdCharacters);
  return sessionAnswer(std::move(sessions));
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
  const bool raw = call.caller().allowReveal || session.snapshot->proxyOnly;
  try {
    ports_.vault.logDelivery(call.access("agent_task_session_env"), session.snapshot->environmentId,
                             raw ? session.snapshot->delivered : std::vector<vault::DeliveredVersion>());
  } catch (const vault::VaultError&) {
    return AgentResponse::refused(std::string(kEnvironmentUnavailable));
  }
  AgentResponse response = sessionAnswer({session.info});
  std::vector<base::SecretText>& lines = response.lines.emplace();
  for (const base::SecretText& line : session.snapshot->lines) lines.push_back(raw ? line.clone() : redacted(line));
  response.directory = session.snapshot->directory;
  response.runControlAllowed = session.snapshot->runControlAllowed;
  return response;
}

}  // namespace sorvane::agent
