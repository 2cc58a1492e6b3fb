#include <unistd.h>

#include <array>
#include <charconv>
#include <cstring>
#include <set>

#include "agent/command_words.h"
#include "agent/handlers.h"
#include "agent/task_sessions.h"
#include "base/ids.h"
#include "base/json_writer.h"
#include "base/unicode.h"
#include "vault/deployment_policy.h"
#include "vault/env_value.h"
#include "vault/run_control.h"

namespace sorvane::agent {
namespace {

constexpr std::array<std::string_view, 9> kMinimumNames{"PATH", "HOME", "USER",   "LOGNAME", "SHELL",
                                                        "LANG", "TERM", "TMPDIR", "TZ"};

bool isMinimum(std::string_view entry) {
  const std::string_view name = entry.substr(0, entry.find('='));
  if (name.size() == entry.size()) return false;
  for (const std::string_view known : kMinimumNames) {
    if (name == known) return true;
  }
  return name.starts_with("LC_");
}

/// What of a run is decided before the owner is asked.
struct RunPlan {
  std::vector<std::string> words;
  std::chrono::seconds limit = kDefaultRunSeconds;
  std::string directory;
};

std::optional<std::chrono::seconds> timeLimit(const Payload& payload) {
  const auto found = payload.find("timeoutSeconds");
  if (found == payload.end()) return kDefaultRunSeconds;
  const std::string& text = found->second;
  std::int64_t seconds = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  if (seconds < kMinRunSeconds.count() || seconds > kMaxRunSeconds.count()) return std::nullopt;
  return std::chrono::seconds(seconds);
}

std::size_t characters(const std::vector<std::string>& words) {
  std::size_t count = words.empty() ? 0 : words.size() - 1;
  for (const std::string& word : words) {
    for (std::string_view rest = word; !rest.empty(); ++count) rest.remove_prefix(base::decodeUtf8(rest).size);
  }
  return count;
}

/// Returns why the command is not even put to the owner, or fills `plan`.
std::optional<AgentResponse> planRun(const AgentRequest& request, const std::string& fallbackFolder, RunPlan& plan) {
  const auto command = request.payload.find("command");
  auto words = command == request.payload.end() ? std::nullopt : decodeCommandWords(command->second);
  if (!words) return AgentResponse::refused("Enter a valid command.");
  plan.words = std::move(*words);
  if (characters(plan.words) > kMaxCommandCharacters) {
    return AgentResponse::refused(
        "The command is longer than 4,000 characters, so it cannot be shown to the owner whole. Nothing was shared and "
        "nothing was run. Put it into a script file and run that.");
  }
  const auto limit = timeLimit(request.payload);
  if (!limit) {
    return AgentResponse::refused(
        "timeoutSeconds must be a whole number from 1 to 3600. Nothing was shared and nothing was run. Leave it out "
        "for "
        "120 seconds.");
  }
  plan.limit = *limit;
  const auto folder = existingFolder(request.directory.value_or(fallbackFolder));
  if (!folder) {
    return AgentResponse::refused("Project folder is missing. Choose an existing absolute directory.");
  }
  plan.directory = *folder;
  return std::nullopt;
}

bool contains(const std::vector<std::string>& names, std::string_view name) {
  for (const std::string& known : names) {
    if (known == name) return true;
  }
  return false;
}

/// What a command gets of an environment: its variables, and what else a run needs of them.
struct Delivered {
  std::vector<vault::RenderedVariable> variables;
  StandInNames standIns;
  std::vector<std::string> runControlAllowed;
  std::vector<std::string> warnings;
};

/// The minimum with the environment's variables over it.
CommandRequest commandRequest(RunPlan plan, Delivered delivered, const std::vector<std::string>& minimum) {
  CommandRequest command;
  command.words = std::move(plan.words);
  command.directory = std::move(plan.directory);
  command.timeLimit = plan.limit;
  command.warnings = std::move(delivered.warnings);
  std::vector<std::string> taken;
  for (vault::RenderedVariable& variable : delivered.variables) {
    if (vault::isRunControlName(variable.name) && !contains(delivered.runControlAllowed, variable.name)) {
      command.warnings.push_back(runControlWarning(variable.name));
      continue;
    }
    taken.push_back(variable.name);
    command.environment.push_back(
        {variable.name, std::move(variable.value), !delivered.standIns.isBaseUrl(variable.name)});
  }
  for (const std::string& entry : minimum) {
    const std::size_t equals = entry.find('=');
    std::string name = entry.substr(0, equals);
    if (contains(taken, name)) continue;
    command.environment.push_back(
        {std::move(name), base::SecretText(std::string_view(entry).substr(equals + 1)), false});
  }
  return command;
}

/// The values that the session's approval covered.
Delivered deliveredBy(const TaskSessions::Snapshot& snapshot) {
  Delivered delivered;
  delivered.runControlAllowed = snapshot.runControlAllowed;
  delivered.standIns = snapshot.standIns;
  for (const base::SecretText& line : snapshot.lines) {
    const std::string_view text = line.view();
    const std::size_t equals = text.find('=');
    if (text.starts_with('#') || equals == std::string_view::npos) continue;
    delivered.variables.push_back({std::string(text.substr(0, equals)), vault::envLineValue(text.substr(equals + 1))});
  }
  return delivered;
}

base::SecretText document(const RunResult& result) {
  base::JsonWriter out;
  out.beginObject();
  if (result.exitCode) out.key("exitCode").integer(*result.exitCode);
  out.field("output", std::string_view(result.output)).strings("warnings", result.warnings);
  out.key("started").boolean(result.started).endObject();
  return out.take();
}

AgentResponse answer(CommandRunner::Outcome outcome, std::vector<std::string> missing) {
  AgentResponse response;
  response.ok = !outcome.failure;
  response.error = std::move(outcome.failure);
  response.document = document(outcome.result);
  response.value = base::SecretText(outcome.result.output);
  response.warnings = std::move(outcome.result.warnings);
  response.missing = std::move(missing);
  return response;
}

/// Stops what holds an environment's values once one of them becomes protected, or stops being so.
class RunWatch {
 public:
  RunWatch(vault::Vault& vault, const std::string& environment)
      : vault_(vault),
        observer_(vault.observeProtection([source = source_, environment](const std::set<std::string>& environments) {
          if (environments.contains(environment)) std::stop_source(source).request_stop();
        })) {}
  ~RunWatch() { vault_.stopObserving(observer_); }
  RunWatch(const RunWatch&) = delete;
  RunWatch& operator=(const RunWatch&) = delete;
  std::stop_token token() const { return source_.get_token(); }

 private:
  vault::Vault& vault_;
  const std::stop_source source_;
  const vault::Vault::ObserverToken observer_;
};

/// Ends the run's grant with the run.
struct RunGrant {
  explicit RunGrant(proxy::LocalProxyBroker* with) : broker(with) {}
  ~RunGrant() {
    if (!lookupId.empty()) broker->end(lookupId);
  }
  RunGrant(const RunGrant&) = delete;
  RunGrant& operator=(const RunGrant&) = delete;
  proxy::LocalProxyBroker* broker;
  std::string lookupId;
};

/// A command that is stopped at its limit may take this long to end.
constexpr std::chrono::seconds kRunGrantSlack{10};

OperationQuestion runQuestion(Call& call, const vault::Project& environment, const RunPlan& plan) {
  OperationQuestion question;
  question.prompt.kind = OwnerApprovalPrompt::Kind::useEnvironment;
  question.prompt.reason = call.requester() + " wants to run a command with the environment '" + environment.name + "'";
  question.prompt.subject = environment.name;
  question.prompt.declaredTarget = declaredTarget(call.request());
  question.commandWords = plan.words;
  question.directory = plan.directory;
  question.details = {"The command gets the values; what it prints is masked before the program that asks sees it."};
  question.environmentId = environment.id;
  return question;
}

}  // namespace

std::vector<std::string> minimumEnvironment(const char* const* environment) {
  std::vector<std::string> minimum;
  for (; *environment != nullptr; ++environment) {
    if (isMinimum(*environment)) minimum.emplace_back(*environment);
  }
  return minimum;
}

AgentResponse Handlers::runUnderSession(Call& call) {
  const AgentRequest& request = call.request();
  const auto session = ports_.sessions.lookup(*request.taskSession, call.caller().identity);
  const TaskSessions::Snapshot& snapshot = *session.snapshot;
  if (snapshot.proxyLookupId && !ports_.localProxy->isLive(*snapshot.proxyLookupId)) return proxyGrantEnded();
  const auto target = declaredTarget(request);
  const std::string name = environmentNameOf(request);
  if (!name.empty() && !sameEnvironmentName(session.info.environment, name)) return otherEnvironment(name);
  if (target && target != snapshot.deploymentTarget) {
    const vault::DeploymentPolicyError mismatch(vault::DeploymentPolicyError::Case::targetMismatch);
    return AgentResponse::refused(mismatch.sentence(), "environment_not_allowed");
  }
  RunPlan plan;
  if (auto refusal = planRun(request, snapshot.directory.value_or(ports_.home), plan)) return std::move(*refusal);
  try {
    ports_.vault.logDelivery(call.access("agent_run_env"), snapshot.environmentId, snapshot.delivered);
  } catch (const vault::VaultError&) {
    return AgentResponse::refused("Environment unavailable or audit write failed");
  }
  const CommandRequest command = commandRequest(std::move(plan), deliveredBy(snapshot), ports_.minimum);
  CommandControl control;
  const auto stop = [&control] { control.stop(); };
  const std::stop_callback withdrawn(call.withdrawn(), stop);
  const std::stop_callback ended(session.ended, stop);
  return answer(ports_.runner.run(command, control), {});
}

bool Handlers::isStillGood(Call& call, const std::string& epoch, const proxy::IssuedProxyGrant& grant) {
  // What changed before the grant existed could not end it.
  if (ports_.localProxy->isLive(grant.lookupId) && ports_.sessions.epoch() == epoch &&
      !call.withdrawn().stop_requested()) {
    return true;
  }
  ports_.localProxy->end(grant.lookupId);
  return false;
}

bool Handlers::lookForKeys(Call& call, const vault::Project& environment, const std::optional<std::string>& target,
                           StandInPlan& plan, OperationQuestion& question) {
  vault::ProxySplitRender looked;
  try {
    looked = ports_.vault.renderForProxy(environment.id, target, vault::RenderValues::redact, call.access(""));
  } catch (const vault::VaultError&) {
    plan.refusal = AgentResponse::refused("Environment unavailable or audit write failed");
    return false;
  }
  plan = planStandIns(call.request(), ports_.localProxy, looked.keys);
  for (std::string& detail : standInDetails(ports_.localProxy, plan.ask, looked.keys)) {
    question.details.push_back(std::move(detail));
  }
  return !looked.keys.empty();
}

AgentResponse Handlers::runEnv(Call& call) {
  if (call.request().taskSession) return runUnderSession(call);
  const auto records = ports_.vault.records();
  auto found = environmentOf(*records, call.caller(), environmentNameOf(call.request()));
  if (found.refusal) return std::move(*found.refusal);
  const vault::Project& environment = *found.environment;
  RunPlan plan;
  if (auto refusal = planRun(call.request(), environment.rootPath.value_or(ports_.home), plan)) {
    return std::move(*refusal);
  }
  const auto target = declaredTarget(call.request());
  checkTargetsBeforeAsking(*records, environment, target);
  OperationQuestion question = runQuestion(call, environment, plan);
  StandInPlan standIns;
  const auto keys = lookForKeys(call, environment, target, standIns, question);
  if (standIns.refusal) return std::move(*standIns.refusal);
  const RunWatch watch(ports_.vault, environment.id);
  if (call.denied(question)) return AgentResponse::refused(std::string(kApprovalDenied));
  const auto present = ports_.vault.records();
  const vault::Project* const now = present->projectById(environment.id);
  if (now == nullptr) return AgentResponse::refused("Environment unavailable");
  if (!(*now == environment)) return AgentResponse::refused(std::string(kEnvironmentChanged));

  const std::string epoch = ports_.sessions.epoch();
  vault::ProxySplitRender split;
  try {
    split =
        ports_.vault.renderForProxy(environment.id, target, vault::RenderValues::deliver, call.access("agent_run_env"));
  } catch (const vault::VaultError&) {
    return AgentResponse::refused("Environment unavailable or audit write failed");
  }
  if (split.keys.empty() == keys) return proxyApprovalChanged();
  RunGrant grant(ports_.localProxy);
  StandInNames names;
  if (keys) {
    proxy::NewProxyGrant wanted = newGrant(call, split, standIns.ask, ports_.vault);
    wanted.runId = base::randomUuid();
    wanted.owner = standInOwner(*wanted.runId);
    wanted.until = ports_.clock.now() + plan.limit + kRunGrantSlack;
    // This process is there as long as the run is, which ends the grant itself.
    const auto issued = issueStandIns(std::move(wanted), proxy::ProxyRunWatch{::getpid()});
    if (!issued) return proxyUnavailable();
    if (!isStillGood(call, epoch, issued->grant)) return proxyApprovalChanged();
    grant.lookupId = issued->grant.lookupId;
    names = placeStandIns(split, issued->grant, issued->port);
  }
  vault::RenderedEnvironment& rendered = split.rendered;
  std::vector<std::string> missing = std::move(rendered.result.missing);
  Delivered delivered{std::move(rendered.variables), std::move(names), std::move(rendered.runControlAllowed),
                      std::move(rendered.result.warnings)};
  const CommandRequest command = commandRequest(std::move(plan), std::move(delivered), ports_.minimum);
  CommandControl control;
  const auto stop = [&control] { control.stop(); };
  const std::stop_callback stopped(call.withdrawn(), stop);
  const std::stop_callback nowProtected(watch.token(), stop);
  return answer(ports_.runner.run(command, control), std::move(missing));
}

}  // namespace sorvane::agent
