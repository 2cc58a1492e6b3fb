#include "cli/mcp_tools.h"

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>

namespace sorvane::cli::mcp {
namespace {

using agent::AgentOp;
using Kind = Argument::Kind;
using Place = Argument::Place;
using Need = Argument::Need;

constexpr char kEnvironmentHelp[] = "Name of the environment, as list_environments shows it.";
constexpr char kTargetHelp[] =
    "What the command deploys to: development, staging or production. Only where the environment or a secret is "
    "limited "
    "to some.";

constexpr Argument kEnvironment{"environment", Kind::text, Place::environment, Need::required, kEnvironmentHelp};
constexpr Argument kMaybeEnvironment{"environment", Kind::text, Place::environment, Need::optional, kEnvironmentHelp};
constexpr Argument kTarget{"deploymentTarget", Kind::text, Place::payload, Need::optional, kTargetHelp};
constexpr Argument kTaskSession{"taskSession", Kind::text, Place::taskSession, Need::required,
                                "Id of the task session, as begin_task_session returned it."};

constexpr Argument kProxyBudget{"proxy_budget_cents", Kind::integer, Place::payload, Need::optional,
                                "Where the environment holds a protected key: most cents that its stand-in may spend. "
                                "The owner's usual budget when left out."};
constexpr Argument kProxyModels{"proxy_models", Kind::words, Place::payload, Need::optional,
                                "Where the environment holds a protected key: the only models its stand-in may call."};

constexpr std::array kListSecrets{kEnvironment};
constexpr std::array kRun{
    Argument{
        "command", Kind::words, Place::payload, Need::required,
        "The program and its arguments, one text each. No shell reads them; name one (\"sh\", \"-c\", …) for pipes "
        "and variables."},
    kMaybeEnvironment,
    Argument{"directory", Kind::text, Place::directory, Need::optional,
             "Absolute path of the folder to run in. The environment's own folder when left out."},
    Argument{"taskSession", Kind::text, Place::taskSession, Need::optional,
             "Id of a task session, in place of an environment: the owner is then not asked again."},
    Argument{"timeoutSeconds", Kind::integer, Place::payload, Need::optional,
             "Seconds until the command is stopped, 1 to 3600; 120 when left out."},
    kTarget,
    kProxyBudget,
    kProxyModels};
constexpr std::array kBegin{
    kEnvironment,
    Argument{"durationSeconds", Kind::integer, Place::durationSeconds, Need::required,
             "How long the session shall live, 60 to 86400 seconds; up to 604800 where every key is protected. Ask for "
             "what the task needs."},
    Argument{"directory", Kind::text, Place::directory, Need::optional, "Absolute path of the project's folder."},
    kTarget,
    kProxyBudget,
    kProxyModels};
constexpr std::array kEnd{kTaskSession};
constexpr std::array kCreate{Argument{"name", Kind::text, Place::arg, Need::required, "Name of the new environment."}};
constexpr std::array kDelete{Argument{"name", Kind::text, Place::arg, Need::required, "Name of the environment."}};
constexpr std::array kAdd{Argument{"secret", Kind::text, Place::arg, Need::required, "Name of a secret in the vault."},
                          kEnvironment};
constexpr std::array kImport{
    Argument{"directory", Kind::text, Place::directory, Need::required,
             "Absolute path of the project's folder, not of a folder that holds many projects."},
    Argument{"environment", Kind::text, Place::environment, Need::optional,
             "Environment to import into. Named after the folder when left out."},
    Argument{"dryRun", Kind::flag, Place::payload, Need::optional, "true only reports what would be imported."}};
constexpr std::array kCapture{
    Argument{"name", Kind::text, Place::arg, Need::required, "Name of the new secret."},
    Argument{"value", Kind::text, Place::value, Need::required, "The value, at most 4,096 bytes."},
    Argument{"environment", Kind::text, Place::environment, Need::optional, "Environment to add it to."}};
constexpr std::array kCaptureClipboard{
    Argument{"name", Kind::text, Place::arg, Need::required, "Name of the new secret, on one line."},
    Argument{"fingerprint", Kind::text, Place::payload, Need::required,
             "The fingerprint that peek_clipboard returned."},
    Argument{"environment", Kind::text, Place::environment, Need::optional, "Environment to add it to."}};
constexpr std::array kKeyFile{
    kTaskSession,
    Argument{"path", Kind::text, Place::arg, Need::optional,
             "Absolute path of a file that does not exist yet. sorvane's own private folder when left out."},
    Argument{"allowGitWorktree", Kind::flag, Place::payload, Need::optional,
             "true allows a path inside a Git work tree that Git does not ignore."}};
constexpr std::array kGet{Argument{"name", Kind::text, Place::arg, Need::required, "Name of the secret."},
                          kMaybeEnvironment, kTarget};
constexpr std::array kCheck{
    Argument{"pendingId", Kind::text, Place::arg, Need::required, "The pendingId that the call in question returned."}};

// Every tool and the operation behind it. Hints: readOnly, destructive, idempotent.
constexpr std::array kTools{
    Tool{"list_environments",
         "List environments",
         "Names of the environments that this agent may use. An environment binds variable names to secrets.",
         AgentOp::listEnvironments,
         Shape::environments,
         true,
         false,
         true,
         {}},
    Tool{"list_secrets", "List secrets",
         "Names of the secrets in an environment and of the variables that hold them. Values are never shown.",
         AgentOp::listSecrets, Shape::secrets, true, false, true, kListSecrets},
    Tool{"run_with_env", "Run with an environment",
         "Runs a command with the environment's variables set. Their values are masked in the output. The owner is "
         "asked "
         "unless a task session covers it.",
         AgentOp::runEnv, Shape::run, false, true, false, kRun},
    Tool{"begin_task_session", "Begin a task session",
         "Asks the owner once to let this agent run commands with one environment for a while. Pass the id as "
         "taskSession "
         "to run_with_env.",
         AgentOp::beginTaskSession, Shape::session, false, false, false, kBegin},
    Tool{"list_task_sessions",
         "List task sessions",
         "The task sessions of this agent that are alive.",
         AgentOp::listTaskSessions,
         Shape::sessions,
         true,
         false,
         true,
         {}},
    Tool{"end_task_session", "End a task session",
         "Ends a task session and stops what still runs under it. Do this when the task is done.",
         AgentOp::endTaskSession, Shape::sentence, false, true, true, kEnd},
    Tool{"proxy_usage",
         "Show what stand-ins have spent",
         "What the stand-ins for protected keys have spent of their budgets, for the task sessions of this agent.",
         AgentOp::proxyUsage,
         Shape::usage,
         true,
         false,
         true,
         {}},
    Tool{"create_environment", "Create an environment", "Creates an empty environment, after asking the owner.",
         AgentOp::createEnvironment, Shape::sentence, false, false, false, kCreate},
    Tool{"delete_environment", "Delete an environment",
         "Deletes an environment, after asking the owner. Its secrets stay in the vault.", AgentOp::deleteEnvironment,
         Shape::sentence, false, true, false, kDelete},
    Tool{"add_to_environment", "Add a secret to an environment",
         "Binds a secret of the vault into an environment, after asking the owner.", AgentOp::addToEnvironment,
         Shape::sentence, false, false, false, kAdd},
    Tool{"import_project", "Import a project's .env files",
         "Moves credentials of a project's .env files into the vault, after asking the owner. Reports names and "
         "lengths, "
         "never values.",
         AgentOp::importProject, Shape::report, false, false, false, kImport},
    Tool{
        "capture_secret", "Save a secret from this conversation",
        "Saves a value that already stands in the conversation, after asking the owner. A value in a tool call stays "
        "in "
        "the transcript: never ask the user to type one here. Prefer peek_clipboard with capture_clipboard, or ask the "
        "user to run: sorvane secret add NAME.",
        AgentOp::captureSecret, Shape::sentence, false, false, false, kCapture},
    Tool{"peek_clipboard",
         "Look at the clipboard",
         "Says whether the clipboard holds a credential, and which kind. The value is masked.",
         AgentOp::peekClipboard,
         Shape::clipboard,
         true,
         false,
         true,
         {}},
    Tool{"capture_clipboard", "Save the clipboard as a secret",
         "Saves the credential on the clipboard as a secret, after asking the owner. Call peek_clipboard first and "
         "agree "
         "on the name with the user.",
         AgentOp::captureClipboard, Shape::sentence, false, false, false, kCaptureClipboard},
    Tool{"write_key_env_file", "Write a task session's keys to a file",
         "Writes the provider keys of a task session to a private .env file for a tool that reads nothing else, after "
         "asking the owner. Prefer run_with_env.",
         AgentOp::keyEnvFile, Shape::report, false, false, false, kKeyFile},
    Tool{"get_secret", "Read a secret",
         "Reads the value of a secret into this conversation, after asking the owner. Prefer run_with_env, which never "
         "shows it.",
         AgentOp::getSecret, Shape::value, true, false, true, kGet},
    Tool{"check_pending", "Wait for an answer",
         "Waits for the answer of a call that returned a pendingId. The answer is given once.", std::nullopt,
         Shape::pending, true, false, false, kCheck}};

void describeArgument(base::JsonWriter& out, const Argument& argument) {
  out.key(argument.name).beginObject();
  switch (argument.kind) {
    case Kind::text:
      out.field("type", "string");
      break;
    case Kind::integer:
      out.field("type", "integer");
      break;
    case Kind::flag:
      out.field("type", "boolean");
      break;
    case Kind::words:
      out.field("type", "array").key("items").beginObject().field("type", "string").endObject();
      out.key("minItems").integer(1);
      break;
  }
  out.field("description", argument.description).endObject();
}

const char* kindWords(Kind kind) {
  switch (kind) {
    case Kind::text:
      return "a text";
    case Kind::integer:
      return "a whole number";
    case Kind::flag:
      return "true or false";
    case Kind::words:
      return "a list of texts with at least one in it";
  }
  return "";
}

bool isText(const base::Json& json) {
  return json.is_string() && json.get_ref<const std::string&>().find('\0') == std::string::npos;
}

bool isInteger(const base::Json& json) {
  if (json.is_number_unsigned()) return json.get<std::uint64_t>() <= INT64_MAX;
  return json.is_number_integer();
}

bool fits(const base::Json& json, Kind kind) {
  switch (kind) {
    case Kind::text:
      return isText(json);
    case Kind::integer:
      return isInteger(json);
    case Kind::flag:
      return json.is_boolean();
    case Kind::words:
      return json.is_array() && !json.empty() && std::all_of(json.begin(), json.end(), isText);
  }
  return false;
}

std::string payloadText(const base::Json& json, Kind kind) {
  return kind == Kind::text ? json.get<std::string>() : json.dump();
}

void place(agent::AgentRequest& request, const Argument& argument, const base::Json& json) {
  switch (argument.place) {
    case Place::arg:
      request.arg = json.get<std::string>();
      return;
    case Place::value:
      request.value = base::SecretText(json.get_ref<const std::string&>());
      return;
    case Place::environment:
      request.environment = json.get<std::string>();
      return;
    case Place::directory:
      request.directory = json.get<std::string>();
      return;
    case Place::taskSession:
      request.taskSession = json.get<std::string>();
      return;
    case Place::durationSeconds:
      request.durationSeconds = json.get<std::int64_t>();
      return;
    case Place::payload:
      break;
  }
  // An option that is off is one that was not given.
  if (argument.kind == Kind::flag && !json.get<bool>()) return;
  request.payload[argument.name] = payloadText(json, argument.kind);
  request.hasPayload = true;
}

}  // namespace

std::span<const Tool> allTools() {
  return kTools;
}

bool isListed(const Tool& tool, Reveal reveal) {
  return tool.op != AgentOp::getSecret || reveal == Reveal::offered;
}

const Tool* toolNamed(std::string_view name, Reveal reveal) {
  for (const Tool& tool : kTools) {
    if (tool.name == name) return isListed(tool, reveal) ? &tool : nullptr;
  }
  return nullptr;
}

void describeTool(base::JsonWriter& out, const Tool& tool) {
  out.beginObject().field("name", tool.name).field("title", tool.title).field("description", tool.description);
  out.key("inputSchema").beginObject().field("type", "object").key("properties").beginObject();
  std::vector<std::string> required;
  for (const Argument& argument : tool.arguments) {
    describeArgument(out, argument);
    if (argument.need == Need::required) required.emplace_back(argument.name);
  }
  out.endObject();
  if (!required.empty()) out.strings("required", required);
  out.key("additionalProperties").boolean(false).endObject();
  out.key("annotations").beginObject().field("title", tool.title);
  out.key("readOnlyHint").boolean(tool.readOnly);
  out.key("destructiveHint").boolean(tool.destructive);
  out.key("idempotentHint").boolean(tool.idempotent);
  // A command may reach anything; everything else stays on this computer.
  out.key("openWorldHint").boolean(tool.op == AgentOp::runEnv).endObject().endObject();
}

void checkArguments(const Tool& tool, const base::Json& arguments) {
  const std::string refusal = " Nothing was asked and nothing was changed. Call " + std::string(tool.name) + " again ";
  for (const Argument& argument : tool.arguments) {
    const auto found = arguments.find(argument.name);
    const std::string name = std::string("'") + argument.name + "'";
    if (found == arguments.end()) {
      if (argument.need == Need::optional) continue;
      throw ArgumentError(std::string(tool.name) + " needs " + name + "." + refusal + "with it.");
    }
    if (!fits(*found, argument.kind)) {
      throw ArgumentError(name + " must be " + kindWords(argument.kind) + "." + refusal + "with that.");
    }
  }
  for (const auto& [name, unused] : arguments.items()) {
    const auto known = [&name = name](const Argument& argument) { return name == argument.name; };
    if (std::none_of(tool.arguments.begin(), tool.arguments.end(), known)) {
      throw ArgumentError(std::string(tool.name) + " has no argument of one of the names given." + refusal +
                          "with those of its schema.");
    }
  }
}

agent::AgentRequest requestOf(const Tool& tool, const base::Json& arguments) {
  checkArguments(tool, arguments);
  agent::AgentRequest request;
  request.op = tool.op.value();
  for (const Argument& argument : tool.arguments) {
    if (const auto found = arguments.find(argument.name); found != arguments.end()) place(request, argument, *found);
  }
  return request;
}

}  // namespace sorvane::cli::mcp
