#include <cctype>

#include "agent/handlers.h"
#include "base/unicode.h"
#include "vault/secret_store.h"

namespace sorvane::agent {
namespace {

AgentResponse done(std::string sentence) {
  AgentResponse response;
  response.ok = true;
  response.value = base::SecretText(sentence);
  return response;
}

std::size_t characters(std::string_view text) {
  std::size_t count = 0;
  for (; !text.empty(); ++count) text.remove_prefix(base::decodeUtf8(text).size);
  return count;
}

/// A new name must be short enough to be read whole in the question.
std::optional<AgentResponse> refusedName(std::string_view name) {
  if (characters(name) <= kMaxNewNameCharacters) return std::nullopt;
  return AgentResponse::refused("The name is longer than 200 characters. Nothing was changed. Choose a shorter one.");
}

OperationQuestion changeQuestion(std::string reason, std::string subject) {
  OperationQuestion question;
  question.prompt.kind = OwnerApprovalPrompt::Kind::other;
  question.prompt.reason = std::move(reason);
  question.prompt.subject = std::move(subject);
  return question;
}

AgentResponse deniedAnswer() {
  return AgentResponse::refused(std::string(kApprovalDenied));
}

/// The variable that a secret gets when nothing else is said: its name when that is one, else its letters and digits in
/// upper case with underscores between them. Empty when nothing is left.
std::string variableFor(std::string_view secretName) {
  if (vault::isVariableName(secretName)) return std::string(secretName);
  std::string variable;
  bool gap = false;
  for (const char c : secretName) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x80 && std::isalnum(byte)) {
      if (gap && !variable.empty()) variable += '_';
      variable += static_cast<char>(std::toupper(byte));
      gap = false;
    } else {
      gap = true;
    }
  }
  if (!variable.empty() && std::isdigit(static_cast<unsigned char>(variable.front()))) variable.insert(0, "_");
  return variable;
}

}  // namespace

void Handlers::changed(const std::string& title, const std::string& body) {
  ports_.notifier.notify(title, body);
  if (ports_.onVaultMutated) ports_.onVaultMutated();
}

AgentResponse Handlers::createEnvironment(Call& call) {
  const std::string name(base::trimmed(call.request().arg.value_or(call.request().environment.value_or(""))));
  if (name.empty()) return AgentResponse::refused("createEnvironment needs a name");
  if (auto refusal = refusedChange(call.caller(), "create", name)) return std::move(*refusal);
  if (auto refusal = refusedName(name)) return std::move(*refusal);
  if (ports_.vault.records()->projectByName(name) != nullptr) {
    return AgentResponse::refused("'" + name + "' already exists");
  }
  if (call.denied(changeQuestion(
          call.requester() + " wants to create a new environment in your sorvane vault. Name: " + name, name))) {
    return deniedAnswer();
  }
  vault::NewEnvironment environment;
  environment.name = name;
  const vault::Project made = ports_.vault.createEnvironment(environment);
  ports_.vault.log(call.access("agent_create_environment"), made.id);
  changed("sorvane · environment created", "created an environment: " + shownShort(name));
  return done("created environment '" + name + "'");
}

AgentResponse Handlers::deleteEnvironment(Call& call) {
  const std::string name = call.request().arg.value_or(call.request().environment.value_or(""));
  if (base::trimmed(name).empty()) return AgentResponse::refused("deleteEnvironment needs a name");
  if (auto refusal = refusedChange(call.caller(), "delete", name)) return std::move(*refusal);
  const auto records = ports_.vault.records();
  const vault::Project* const environment = records->projectByName(name);
  if (environment == nullptr) return noEnvironment(name);
  if (call.denied(changeQuestion(call.requester() +
                                     " wants to delete an environment from your sorvane vault. Its secrets stay. "
                                     "Environment: " +
                                     environment->name,
                                 environment->name))) {
    return deniedAnswer();
  }
  const auto present = ports_.vault.records();
  const vault::Project* const now = present->projectById(environment->id);
  if (now == nullptr || now->name != environment->name) return AgentResponse::refused(std::string(kEnvironmentChanged));
  // Grants first: a grant must never stand for an environment that another one may replace under its name.
  ports_.grants.environmentRemoved(environment->name);
  ports_.vault.deleteEnvironment(environment->id);
  ports_.vault.log(call.access("agent_delete_environment"), environment->id);
  changed("sorvane · environment deleted", "deleted an environment: " + shownShort(environment->name));
  return done("deleted environment '" + environment->name + "'. Its secrets remain in the vault.");
}

AgentResponse Handlers::addToEnvironment(Call& call) {
  const std::string secretName = call.request().arg.value_or("");
  const std::string name(base::trimmed(call.request().environment.value_or("")));
  if (base::trimmed(secretName).empty() || name.empty()) {
    return AgentResponse::refused("addToEnvironment needs a secret name and an environment");
  }
  if (auto refusal = refusedChange(call.caller(), "add to", name)) return std::move(*refusal);
  const auto records = ports_.vault.records();
  const vault::Secret* const secret = records->secretByName(secretName);
  if (secret == nullptr) {
    return AgentResponse::refused("no secret named '" + secretName + "' available to this client");
  }
  const vault::Project* const environment = records->projectByName(name);
  if (environment == nullptr) {
    if (auto refusal = refusedName(name)) return std::move(*refusal);
  } else {
    for (const vault::EnvBinding& binding : environment->bindings) {
      if (binding.secretId != secret->id) continue;
      return AgentResponse::refused("'" + secret->name + "' is already in the '" + environment->name + "'");
    }
  }
  return bindNew(call, environment, name, *secret);
}

AgentResponse Handlers::bindNew(Call& call, const vault::Project* environment, const std::string& name,
                                const vault::Secret& secret) {
  const std::string variable = variableFor(secret.name);
  if (variable.empty()) {
    return AgentResponse::refused("The name '" + secret.name +
                                  "' gives no variable name. Nothing was added. Ask the owner to bind it with sorvane "
                                  "env bind.");
  }
  if (environment != nullptr && environment->find(variable) != nullptr) {
    return AgentResponse::refused("The environment '" + environment->name + "' already has a variable named " +
                                  variable + ". Nothing was added. Ask the owner to rename or unbind it first.");
  }
  const std::string shownName = environment != nullptr ? environment->name : name;
  OperationQuestion question = changeQuestion(
      call.requester() + " wants to add a secret to " + shownName + " in your sorvane vault. Secret: " + secret.name,
      secret.name);
  question.details.push_back("It would be delivered as the variable " + variable + ".");
  if (environment == nullptr) question.details.push_back("The environment does not exist yet and would be created.");
  if (call.denied(question)) return deniedAnswer();

  std::string sentence;
  vault::Project target;
  if (environment == nullptr) {
    vault::NewEnvironment made;
    made.name = name;
    target = ports_.vault.createEnvironment(made);
    sentence = "created environment '" + name + "' and ";
  } else {
    const auto present = ports_.vault.records();
    const vault::Project* const now = present->projectById(environment->id);
    if (now == nullptr || !(*now == *environment)) return AgentResponse::refused(std::string(kEnvironmentChanged));
    target = *environment;
  }
  ports_.vault.bind(target.id, vault::EnvBinding{variable, secret.id, {}, {}});
  ports_.vault.log(call.access("agent_add_to_environment"), target.id);
  changed("sorvane · secret grouped", "added a secret to " + shownShort(target.name) + ": " + shownShort(secret.name));
  return done(sentence + "added '" + secret.name + "' to '" + target.name + "' as " + variable);
}

AgentResponse Handlers::captureSecret(Call& call) {
  AgentRequest& request = call.request();
  const std::string name(base::trimmed(request.arg.value_or("")));
  if (name.empty() || !request.value || request.value->empty() || request.value->size() > vault::kMaxValueBytes) {
    return AgentResponse::refused("captureSecret needs a name and a non-empty value (≤4 KB)");
  }
  return capture(call, name, std::move(*request.value), {"a new secret", "agent_capture_secret"});
}

AgentResponse Handlers::capture(Call& call, const std::string& name, base::SecretText value, const Captured& what) {
  const AgentRequest& request = call.request();
  if (auto refusal = refusedName(name)) return std::move(*refusal);
  const auto records = ports_.vault.records();
  const vault::Project* environment = nullptr;
  if (request.environment) {
    if (auto refusal = refusedChange(call.caller(), "capture into", *request.environment)) return std::move(*refusal);
    environment = records->projectByName(*request.environment);
    if (environment == nullptr) return noEnvironment(*request.environment);
  }
  if (records->secretByName(name) != nullptr) {
    return AgentResponse::refused("a secret named '" + name + "' already exists");
  }
  const std::string where = environment != nullptr ? environment->name : "your sorvane vault";
  OperationQuestion question =
      changeQuestion(call.requester() + " wants to save " + what.inWords + " into " + where + ". Name: " + name, name);
  if (call.denied(question)) return deniedAnswer();

  vault::NewSecret secret;
  secret.name = name;
  secret.first.value = std::move(value);
  const vault::Secret made = ports_.vault.createSecret(std::move(secret));
  AgentResponse response = done("captured '" + name + "'");
  if (environment != nullptr) {
    try {
      const std::string variable = variableFor(name);
      const auto present = ports_.vault.records();
      const vault::Project* const now = present->projectById(environment->id);
      if (variable.empty()) throw vault::VaultError("its name gives no variable name");
      if (now == nullptr) throw vault::VaultError("the environment is gone");
      if (now->find(variable) != nullptr) throw vault::VaultError("the variable " + variable + " is taken");
      ports_.vault.bind(environment->id, vault::EnvBinding{variable, made.id, {}, {}});
    } catch (const base::Error& error) {
      response.error = "captured '" + name + "', but couldn't add it to environment '" + environment->name +
                       "': " + error.sentence();
    }
  }
  ports_.vault.log(call.access(what.tool), environment != nullptr ? std::optional(environment->id) : std::nullopt);
  changed("sorvane · secret captured", "saved a secret: " + shownShort(name));
  return response;
}

AgentResponse Handlers::manageVault(Call& call) {
  AgentRequest& request = call.request();
  ActionCall action{request.payload,
                    request.value,
                    call.requester(),
                    call.caller().label,
                    call.caller().identity,
                    call.access("manage_vault"),
                    [&call](const ActionQuestion& asked) {
                      OperationQuestion question;
                      question.prompt = asked.prompt;
                      question.details = asked.details;
                      question.whoseYesCounts = asked.whoseYesCounts;
                      return call.ask(question);
                    },
                    [&call] { return call.withdrawn(); }};
  return ports_.actions.perform(action);
}

}  // namespace sorvane::agent
