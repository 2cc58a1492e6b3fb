#include <nlohmann/json.hpp>

#include "base/date.h"
#include "base/unicode.h"
#include "cli/commands.h"
#include "cli/output.h"
#include "cli/quantities.h"

namespace sorvane::cli {
namespace {

using agent::AgentOp;
using agent::AgentRequest;

base::Json documentOf(const agent::TaskSessionInfo& info) {
  return {{"id", info.id},
          {"client", info.client},
          {"environment", info.environment},
          {"startedAt", base::iso8601(info.startedAt)},
          {"expiresAt", base::iso8601(info.expiresAt)}};
}

struct BeginGiven {
  std::string environment, duration = "1h", target, directory;
};

int begin(Session& session, const BeginGiven& given) {
  AgentRequest request;
  request.op = AgentOp::beginTaskSession;
  request.environment = given.environment;
  request.durationSeconds = secondsIn(given.duration, "No task session was begun.");
  if (!given.target.empty()) request.payload["deploymentTarget"] = given.target;
  if (!given.directory.empty()) request.directory = std::filesystem::absolute(given.directory).string();
  const agent::AgentResponse response = session.send(std::move(request), true);
  for (const std::string& warning : response.warnings.value_or(std::vector<std::string>{})) note("Warning: " + warning);
  if (!response.sessions || response.sessions->size() != 1) throw notUnderstood();
  const agent::TaskSessionInfo& info = response.sessions->front();
  if (session.options().json) return printJson(documentOf(info)), 0;
  note("The task session with '" + info.environment + "' lasts until " + base::iso8601(info.expiresAt) +
       ". sorvane run ENV --session ID uses it; this is its id:");
  printLine(info.id);
  return 0;
}

int list(Session& session) {
  AgentRequest request;
  request.op = AgentOp::listTaskSessions;
  const agent::AgentResponse response = session.send(std::move(request), false);
  if (!response.sessions) throw notUnderstood();
  if (session.options().json) {
    base::Json document{{"sessions", base::Json::array()}};
    for (const auto& info : *response.sessions) document["sessions"].push_back(documentOf(info));
    return printJson(document), 0;
  }
  if (response.sessions->empty()) return printLine("No task session is live."), 0;
  std::vector<std::vector<std::string>> rows;
  for (const auto& info : *response.sessions) {
    rows.push_back({info.id, info.client, info.environment, base::iso8601(info.expiresAt)});
  }
  printTable({"ID", "CONNECTION", "ENVIRONMENT", "UNTIL"}, rows);
  return 0;
}

int end(Session& session, const std::string& id) {
  AgentRequest request;
  request.op = AgentOp::endTaskSession;
  request.taskSession = id;
  const agent::AgentResponse response = session.send(std::move(request), false);
  const std::string sentence(valueOf(response).view());
  session.options().json ? printJson({{"ok", true}, {"value", sentence}}) : note(sentence);
  return 0;
}

int lines(Session& session, const std::string& id) {
  AgentRequest request;
  request.op = AgentOp::taskSessionEnv;
  request.taskSession = id;
  const agent::AgentResponse response = session.send(std::move(request), false);
  if (!response.lines) throw notUnderstood();
  if (session.options().json) {
    base::Json document{{"lines", base::Json::array()}};
    for (const auto& line : *response.lines) document["lines"].push_back(std::string(line.view()));
    if (response.directory) document["directory"] = *response.directory;
    return printJson(document), 0;
  }
  for (const base::SecretText& line : *response.lines) {
    print(line.view());
    print("\n");
  }
  return 0;
}

}  // namespace

void Commands::addSession(CLI::App& app) {
  CLI::App& group = *app.add_subcommand("session", "Task sessions: one approval for a stated time");
  group.require_subcommand(1);
  const auto given = std::make_shared<BeginGiven>();
  CLI::App& beginning = *group.add_subcommand("begin",
                                              "Begin one; commands run under it without further questions "
                                              "(asks).\nExample: sorvane session begin Development --for 1h");
  beginning.add_option("environment", given->environment, "Name of the environment")->required();
  beginning.add_option("--for", given->duration, "How long: 90m, 1h, 8h; at most 24h. 1h when absent");
  beginning.add_option("--target", given->target, "The deployment target that is declared");
  beginning.add_option("--directory", given->directory, "Where its commands run; the environment's folder when absent");
  beginning.callback([this, given] { action = [given](Session& session) { return begin(session, *given); }; });
  group.add_subcommand("list", "Live sessions of every connection")->callback([this] { action = list; });
  const auto id = std::make_shared<std::string>();
  CLI::App& ending = *group.add_subcommand("end", "End one, and stop what runs under it");
  ending.add_option("id", *id, "Its id, or the first 8 characters")->required();
  ending.callback([this, id] { action = [id](Session& session) { return end(session, *id); }; });
  CLI::App& environment = *group.add_subcommand("env", "The variables of a session begun here, values in the clear");
  environment.add_option("id", *id, "Its whole id")->required();
  environment.callback([this, id] { action = [id](Session& session) { return lines(session, *id); }; });
}

}  // namespace sorvane::cli
