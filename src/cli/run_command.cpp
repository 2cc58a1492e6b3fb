#include <nlohmann/json.hpp>

#include "base/json_writer.h"
#include "cli/commands.h"
#include "cli/here_run.h"
#include "cli/output.h"

namespace sorvane::cli {
namespace {

struct RunGiven {
  std::string environment, target, directory, timeout, session;
  std::vector<std::string> command;
  bool here = false, noMask = false;
};

int runHereAs(Session& session, const RunGiven& given) {
  const std::string folder = given.directory.empty() ? "" : std::filesystem::absolute(given.directory).string();
  return runHere(session, {given.environment, given.target, folder, given.command, !given.noMask});
}

int run(Session& session, const RunGiven& given) {
  if (given.here) return runHereAs(session, given);
  agent::AgentRequest request;
  request.op = agent::AgentOp::runEnv;
  request.environment = given.environment;
  request.directory = given.directory.empty() ? std::filesystem::current_path().string()
                                              : std::filesystem::absolute(given.directory).string();
  request.payload["command"] = listArgument(given.command);
  if (!given.target.empty()) request.payload["deploymentTarget"] = given.target;
  if (!given.timeout.empty()) request.payload["timeoutSeconds"] = given.timeout;
  if (!given.session.empty()) request.taskSession = given.session;
  const agent::AgentResponse response = session.send(std::move(request), given.session.empty());
  const auto document = response.document ? base::parseJson(response.document->view()) : std::nullopt;
  if (session.options().json && document) {
    printJson(*document);
  } else {
    for (const std::string& warning : response.warnings.value_or(std::vector<std::string>{}))
      note("Warning: " + warning);
    if (response.value) print(response.value->view());
  }
  if (!document || !document->contains("exitCode")) return kFailed;
  return (*document)["exitCode"].get<int>();
}

}  // namespace

void Commands::addRun(CLI::App& app) {
  const auto given = std::make_shared<RunGiven>();
  CLI::App& command =
      *app.add_subcommand("run",
                          "Run a command with an environment's values injected and masked in what it prints (asks).\n"
                          "Its exit code is passed on. Example: sorvane run Development -- npm test\n"
                          "With --here it runs in this terminal: sorvane run Development --here -- npm start");
  command.add_option("environment", given->environment, "Name of the environment")->required();
  command.add_option("--target", given->target, "The deployment target that is declared");
  CLI::Option* const timeout =
      command.add_option("--timeout", given->timeout, "Seconds until it is stopped, 1 to 3600; 120 when absent");
  command.add_option("--directory", given->directory, "Where it runs; this folder when absent");
  CLI::Option* const here = command.add_flag(
      "--here", given->here, "Run it in this terminal, without a time limit; what it prints is masked on its way");
  here->excludes(timeout);
  command.add_option("--session", given->session, "Under this task session of the environment, without a question")
      ->excludes(here);
  command.add_flag("--no-mask", given->noMask, "With --here: nothing is masked; values it prints are shown")
      ->needs(here);
  command.add_option("command", given->command, "The command and its words, after --")->required();
  command.callback([this, given] { action = [given](Session& session) { return run(session, *given); }; });
}

}  // namespace sorvane::cli
