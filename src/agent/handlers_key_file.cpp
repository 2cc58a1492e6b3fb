#include <algorithm>

#include "agent/handlers.h"
#include "agent/key_env_files.h"
#include "agent/task_sessions.h"
#include "base/date.h"
#include "base/json_writer.h"
#include "vault/env_value.h"

namespace sorvane::agent {
namespace {

constexpr std::string_view kNotApproved =
    "the person did not approve writing this task session's keys to a file; nothing was written";
constexpr std::string_view kStandInsOnly =
    "This task session runs longer than 24 hours, so it holds stand-ins only and cannot take a real key. Start a "
    "session "
    "of 24 hours or less for that.";
/// A session older than this takes no real keys.
constexpr std::chrono::seconds kRealKeySeconds{86400};

/// The provider keys that the session holds, with the values that its approval covered.
std::vector<KeyEnvFiles::Key> keysOf(const TaskSessions::Snapshot& snapshot) {
  std::vector<KeyEnvFiles::Key> keys;
  for (const base::SecretText& line : snapshot.lines) {
    const std::string_view text = line.view();
    const std::size_t equals = text.find('=');
    if (text.starts_with('#') || equals == std::string_view::npos) continue;
    const std::string_view name = text.substr(0, equals);
    const bool isStandIn = snapshot.standIns.isStandIn(name), isBaseUrl = snapshot.standIns.isBaseUrl(name);
    const bool isProviderKey =
        std::find(kProviderKeyNames.begin(), kProviderKeyNames.end(), name) != kProviderKeyNames.end();
    if (!isStandIn && !isBaseUrl && !isProviderKey) continue;
    using Kind = KeyEnvFiles::Key::Kind;
    const Kind kind = isBaseUrl ? Kind::address : isStandIn ? Kind::standIn : Kind::real;
    base::SecretText value = vault::envLineValue(text.substr(equals + 1));
    if (!value.empty()) keys.push_back({std::string(name), std::move(value), kind});
  }
  return keys;
}

std::string namesOf(const std::vector<KeyEnvFiles::Key>& keys) {
  std::string names;
  for (const KeyEnvFiles::Key& key : keys) {
    if (key.kind == KeyEnvFiles::Key::Kind::real) names += (names.empty() ? "" : ", ") + key.name;
  }
  return names;
}

OperationQuestion fileQuestion(Call& call, const TaskSessionInfo& session, const std::vector<KeyEnvFiles::Key>& keys,
                               const KeyEnvFiles::Place& place, bool real) {
  OperationQuestion question;
  question.prompt.kind = OwnerApprovalPrompt::Kind::other;
  if (real) {
    question.prompt.reason =
        call.requester() + " wants to write real provider keys (" + namesOf(keys) +
        "), where any program able to read the file can use them. It is the sorvane Cloud keys of " + session.client +
        "'s task session";
  } else {
    question.prompt.reason = call.requester() + " wants to write the sorvane Cloud keys of " + session.client +
                             "'s task session to a file. The file holds sorvane keys only, never real provider keys.";
  }
  question.prompt.subject = session.environment;
  question.details = {
      "File: " + place.path,
      "It is deleted when the session ends. If another program changed it, sorvane leaves it for you to delete."};
  if (place.warning) question.details.push_back(*place.warning);
  return question;
}

base::SecretText document(const KeyEnvFiles::Written& written) {
  base::JsonWriter out;
  out.beginObject().field("path", written.path).key("keys").integer(written.keys);
  out.field("expiresAt", base::iso8601(written.expiresAt));
  out.field("warning", written.warning).key("holdsRealKeys").boolean(written.holdsRealKeys).endObject();
  return out.take();
}

}  // namespace

AgentResponse Handlers::keyEnvFile(Call& call) {
  const AgentRequest& request = call.request();
  const std::string id = request.taskSession.value_or("");
  const auto session = ports_.sessions.lookup(id, call.caller().identity);
  if (request.arg && !request.arg->starts_with('/')) throw KeyEnvFileError::notAbsolute();
  const auto& lookupId = session.snapshot->proxyLookupId;
  if (lookupId && !ports_.localProxy->isLive(*lookupId)) return proxyGrantEnded();
  const std::vector<KeyEnvFiles::Key> keys = keysOf(*session.snapshot);
  if (keys.empty()) throw KeyEnvFileError::noKeys();
  const bool real = holdsReal(keys);
  if (real) {
    if (auto refusal = refusedCaller(CallerRule::mayReveal, call.caller())) return std::move(*refusal);
    if (session.info.expiresAt - session.info.startedAt > kRealKeySeconds) {
      return AgentResponse::refused(std::string(kStandInsOnly), "proxy_stand_ins_only");
    }
  }
  const auto allowed = request.payload.find("allowGitWorktree");
  const auto worktree = allowed != request.payload.end() && allowed->second == "true"
                            ? KeyEnvFiles::GitWorktree::allow
                            : KeyEnvFiles::GitWorktree::refuse;
  const KeyEnvFiles::Place place = ports_.keyFiles.place(request.arg, session.info.id, worktree);
  if (call.denied(fileQuestion(call, session.info, keys, place, real))) {
    return AgentResponse::refused(std::string(kNotApproved));
  }
  // The folder, its links and its work tree may have changed meanwhile, and the session may have ended.
  ports_.sessions.lookup(id, call.caller().identity);
  const KeyEnvFiles::Place now = ports_.keyFiles.place(request.arg, session.info.id, worktree);
  if (now.path != place.path || now.warning != place.warning) {
    return AgentResponse::refused(
        "The place of the file changed while the owner was asked. Nothing was written. Try again.");
  }
  std::vector<vault::DeliveredVersion> delivered;
  for (const vault::DeliveredVersion& item : session.snapshot->delivered) {
    if (std::any_of(keys.begin(), keys.end(), [&](const auto& key) { return key.name == item.variable; })) {
      delivered.push_back(item);
    }
  }
  ports_.vault.logDelivery(call.access("agent_key_env_file"), session.snapshot->environmentId, delivered);
  const KeyEnvFiles::Written written = ports_.keyFiles.write(place, session.info, keys);
  for (const KeyEnvFiles::Key& key : keys) ports_.sessions.noteDelivered(session.info.id, key.name, {key.name});
  // The session may have ended while the file was written, before anybody knew of the file.
  if (session.ended.stop_requested()) {
    ports_.keyFiles.sessionsEnded({session.info});
    throw TaskSessions::Failure(TaskSessions::Failure::Case::unavailable);
  }
  AgentResponse response;
  response.ok = true;
  response.value = base::SecretText(written.path);
  if (written.warning) response.warnings = {*written.warning};
  response.document = document(written);
  return response;
}

}  // namespace sorvane::agent
