#include "app/phone_questions.h"

#include "agent/terminal_question.h"
#include "base/diagnostics.h"
#include "base/json_writer.h"
#include "base/unicode.h"

namespace sorvane::app {
namespace {

using agent::quotedForOwner;
using Kind = phone::ApprovalDetails::Kind;

Kind kindOf(agent::OwnerApprovalPrompt::Kind kind) {
  switch (kind) {
    case agent::OwnerApprovalPrompt::Kind::readSecret:
      return Kind::readSecret;
    case agent::OwnerApprovalPrompt::Kind::useEnvironment:
      return Kind::useEnvironment;
    case agent::OwnerApprovalPrompt::Kind::taskSession:
      return Kind::taskSession;
    case agent::OwnerApprovalPrompt::Kind::other:
      return Kind::other;
  }
  return Kind::other;
}

std::size_t sizeOf(const phone::ApprovalDetails& details) {
  base::JsonWriter out;
  out.beginObject().field("kind", "useEnvironment").field("reason", details.reason);
  out.field("requestor", details.requestor).field("subject", details.subject).key("version").integer(INT64_MIN);
  out.strings("allowedTargets", details.allowedTargets.value_or(std::vector<std::string>{}));
  out.field("declaredTarget", details.declaredTarget).endObject();
  return out.view().size();
}

}  // namespace

void noteAnswer(const PhoneQuestions::Answer& answer) {
  const bool isYes = answer.is == PhoneQuestions::Answer::Is::yes;
  base::diagnose("phone", "Answered on '" + base::escapedForDisplay(answer.phone) + (isYes ? "': yes" : "': no"));
}

std::optional<phone::ApprovalDetails> phoneQuestion(const agent::OwnerApprovalPrompt& prompt,
                                                    const agent::ApprovalContext& context) {
  phone::ApprovalDetails details;
  details.kind = kindOf(prompt.kind);
  details.reason = base::escapedForDisplay(prompt.reason);
  const auto add = [&](const std::string& line) { details.reason += "\n" + line; };
  add("Process: " + agent::processesForOwner(context.processes));
  if (!context.commandWords.empty())
    add("Command: " + agent::commandForOwner(context.commandWords) + " (the caller's words)");
  if (context.directory) add("Folder: " + quotedForOwner(*context.directory));
  for (const std::string& line : context.details) add(base::escapedForDisplay(line));
  details.requestor = agent::labelForOwner(context.label);
  if (prompt.requestor)
    details.requestor += ", which says it is " + agent::labelForOwner(*prompt.requestor) + " (its own words)";
  if (prompt.subject) details.subject = base::escapedForDisplay(*prompt.subject);
  details.version = prompt.version;
  details.allowedTargets = prompt.allowedTargets;
  if (details.allowedTargets) {
    for (std::string& target : *details.allowedTargets) target = base::escapedForDisplay(target);
  }
  if (prompt.declaredTarget) details.declaredTarget = base::escapedForDisplay(*prompt.declaredTarget);
  if (sizeOf(details) > kLongestQuestion) return std::nullopt;
  return details;
}

}  // namespace sorvane::app
