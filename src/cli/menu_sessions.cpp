#include "base/date.h"
#include "cli/menu.h"

namespace sorvane::cli {
namespace {

constexpr std::int64_t kUsualMinutes = 60;

agent::AgentRequest requestOf(agent::AgentOp op) {
  agent::AgentRequest request;
  request.op = op;
  return request;
}

Then begin(const Menu& menu) {
  agent::AgentRequest request = requestOf(agent::AgentOp::beginTaskSession);
  request.environment = menu.someEnvironment();
  std::int64_t minutes = kUsualMinutes;
  if (const auto typed = menu.optionalText("For how many minutes", std::to_string(kUsualMinutes))) {
    if (typed->find_first_not_of("0123456789") != std::string::npos || typed->size() > 6) {
      menu.say("'" + *typed + "' is no number of minutes. No task session was begun.");
      return Then::stay;
    }
    minutes = std::stoll(*typed);
  }
  request.durationSeconds = minutes * 60;
  if (const std::string target = menu.target("that of the environment"); !target.empty())
    request.payload["deploymentTarget"] = target;
  const auto response = menu.session().send(std::move(request), true);
  for (const std::string& warning : response.warnings.value_or(std::vector<std::string>{})) {
    menu.say("Warning: " + warning);
  }
  if (!response.sessions || response.sessions->size() != 1) throw notUnderstood();
  menu.say("The task session lasts until " + base::iso8601(response.sessions->front().expiresAt) + ". Its id is " +
           response.sessions->front().id + ".");
  return Then::stay;
}

Then end(const Menu& menu, const std::string& id) {
  agent::AgentRequest request = requestOf(agent::AgentOp::endTaskSession);
  request.taskSession = id;
  const auto response = menu.session().send(std::move(request), false);
  menu.say(response.value ? response.value->view() : "The task session was ended.");
  return Then::stay;
}

}  // namespace

void showTaskSessions(const Menu& menu) {
  menu.screen("Task sessions", [&menu] {
    std::vector<Choice> choices;
    const auto response = menu.session().send(requestOf(agent::AgentOp::listTaskSessions), false);
    for (const agent::TaskSessionInfo& info : response.sessions.value_or(std::vector<agent::TaskSessionInfo>{})) {
      choices.push_back({"End that of " + info.client + " with " + info.environment + ", which lasts until " +
                             base::iso8601(info.expiresAt),
                         [&menu, id = info.id] { return end(menu, id); }, info.id});
    }
    if (choices.empty()) menu.say("No task session is live.");
    choices.push_back({"Begin a task session (asks)", [&menu] { return begin(menu); }});
    return choices;
  });
}

}  // namespace sorvane::cli
