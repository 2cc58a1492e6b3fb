#include "cli/here_run.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "cli/child_command.h"
#include "cli/env_line.h"
#include "cli/here_loops.h"
#include "cli/output.h"

namespace sorvane::cli {
namespace {

/// Longest command that is sent along to be shown, in bytes of JSON.
constexpr std::size_t kMostShownBytes = 16 * 1024;

bool contains(const std::optional<std::vector<std::string>>& names, const std::string& name) {
  return names && std::find(names->begin(), names->end(), name) != names->end();
}

void checkFolder(const std::string& directory) {
  struct stat status {};
  if (directory.empty() || (::stat(directory.c_str(), &status) == 0 && S_ISDIR(status.st_mode))) return;
  throw Failure(
      kUsage, "no_folder",
      "There is no folder " + directory + ", so nothing was asked for and nothing was run. Check --directory.");
}

agent::AgentResponse valuesOf(Session& session, const HereRun& given) {
  agent::AgentRequest request;
  request.op = agent::AgentOp::renderEnv;
  request.environment = given.environment;
  request.payload["purpose"] = "command";
  // For the question alone; a command too long for one is not shown.
  if (std::string shown = listArgument(given.command); shown.size() <= kMostShownBytes) {
    request.payload["command"] = std::move(shown);
  }
  request.directory = given.directory.empty() ? std::filesystem::current_path().string() : given.directory;
  if (!given.target.empty()) request.payload["deploymentTarget"] = given.target;
  return session.send(std::move(request), true);
}

std::vector<EnvLine> variablesIn(const agent::AgentResponse& response) {
  if (!response.lines) throw notUnderstood();
  std::vector<EnvLine> variables;
  for (const base::SecretText& line : *response.lines) {
    if (line.empty() || line.view().starts_with('#')) continue;
    auto variable = decodeEnvLine(line.view());
    if (!variable) throw notUnderstood();
    variables.push_back(std::move(*variable));
  }
  return variables;
}

agent::Masker maskerOf(const std::vector<EnvLine>& variables, const agent::AgentResponse& response) {
  std::vector<std::string_view> values;
  for (const EnvLine& variable : variables) {
    if (!contains(response.publicNames, variable.name)) values.push_back(variable.value.view());
  }
  return agent::Masker(values);
}

/// Tells sorvaned that the stand-ins of a run are not needed any more. It finds out by itself when it cannot be told.
void endStandIns(Session& session, const std::string& run) {
  agent::AgentRequest request;
  request.op = agent::AgentOp::proxyRunEnded;
  request.payload["proxyRun"] = run;
  try {
    session.send(std::move(request), false);
  } catch (const base::Error&) {
  }
}

}  // namespace

int runHere(Session& session, const HereRun& given) {
  checkFolder(given.directory);
  std::optional<agent::AgentResponse> response = valuesOf(session, given);
  for (const std::string& warning : response->warnings.value_or(std::vector<std::string>{}))
    note("Warning: " + warning);
  std::vector<EnvLine> variables = variablesIn(*response);
  ChildEnvironment environment(variables);
  const ChildCommand command{given.command, given.directory, environment};
  if (!given.mask) failToStart(command, become(command));
  const agent::Masker masker = maskerOf(variables, *response);
  variables.clear();
  const std::optional<std::string> standIns = response->proxyRun;
  response.reset();
  const bool onTerminal = ::isatty(STDIN_FILENO) != 0 && ::isatty(STDOUT_FILENO) != 0;
  const int code = onTerminal ? runOnTerminal(command, masker) : runOnPipes(command, masker);
  if (standIns) endStandIns(session, *standIns);
  return code;
}

}  // namespace sorvane::cli
