#include "approver/question.h"

#include <algorithm>

#include "base/date.h"
#include "base/unicode.h"

namespace sorvane::approver {
namespace {

constexpr std::size_t kNameColumn = 2, kTextColumn = 16, kNarrowest = 40;
constexpr std::size_t kCountBlanksFrom = 3;

std::string_view whatOf(ApprovalRequest::Kind kind) {
  switch (kind) {
    case ApprovalRequest::Kind::useEnvironment:
      return "An environment is to be used: its values go to a program.";
    case ApprovalRequest::Kind::readSecret:
      return "The value of a secret is to be read in the clear.";
    case ApprovalRequest::Kind::unlock:
      return "The vault is to be unlocked.";
    case ApprovalRequest::Kind::other:
      return "Something is to be done that needs the owner.";
    case ApprovalRequest::Kind::taskSession:
      return "A task session is to begin: for its time, values go to programs without further questions.";
  }
  return "";
}

/// In quotes, so that where a text ends is seen; nothing in it can move the cursor, reorder what is read, or push words
/// out of sight with blanks.
std::string inQuotes(std::string_view text) {
  const std::string escaped = base::escapedForDisplay(text);
  std::string out = "\"";
  for (std::size_t at = 0; at < escaped.size();) {
    const std::size_t end = std::min(escaped.find_first_not_of(' ', at), escaped.size());
    if (end - at >= kCountBlanksFrom) {
      out += "[" + std::to_string(end - at) + " blanks]";
      at = end;
    } else {
      if (escaped[at] == '"') out += '\\';
      out += escaped[at++];
    }
  }
  return out + '"';
}

/// The bytes at the start of `text` that take at most `width` columns, at least one character.
std::size_t fitting(std::string_view text, std::size_t width) {
  std::size_t bytes = base::decodeUtf8(text).size;
  while (bytes < text.size()) {
    const std::size_t next = bytes + base::decodeUtf8(text.substr(bytes)).size;
    if (base::displayWidth(text.substr(0, next)) > width) break;
    bytes = next;
  }
  return bytes;
}

/// Where a line of at most `width` columns ends: behind a blank where there is one in its second half.
std::size_t lineEnd(std::string_view text, std::size_t width) {
  // More bytes than this cannot be of use, and the search stays short on a long text.
  const std::size_t bytes = fitting(text.substr(0, width * 4 + 4), width);
  if (bytes >= text.size()) return text.size();
  const std::size_t blank = text.rfind(' ', bytes - 1);
  return blank != std::string_view::npos && blank >= bytes / 2 ? blank + 1 : bytes;
}

void appendWrapped(std::string& out, std::string_view text, std::size_t indent, std::size_t width) {
  for (bool first = true; !text.empty(); first = false) {
    if (!first) out.append(indent, ' ');
    const std::size_t end = lineEnd(text, width - indent);
    out.append(text.substr(0, end)).append("\n");
    text.remove_prefix(end);
  }
}

void addIf(std::vector<Question::Line>& lines, const char* name, const std::optional<std::string>& text) {
  if (text) lines.push_back({name, *text});
}

std::string subjectName(ApprovalRequest::Kind kind) {
  switch (kind) {
    case ApprovalRequest::Kind::readSecret:
      return "Secret";
    case ApprovalRequest::Kind::useEnvironment:
    case ApprovalRequest::Kind::taskSession:
      return "Environment";
    case ApprovalRequest::Kind::unlock:
    case ApprovalRequest::Kind::other:
      break;
  }
  return "Name";
}

}  // namespace

Question questionOf(const ApprovalRequest& request) {
  const ApprovalRequest::Details& details = request.details;
  Question question{FromComputer::approvalRequest,
                    request.id,
                    request.nonce,
                    digestOf(request),
                    request.expiresAt,
                    request.macName,
                    {},
                    {}};
  question.what = whatOf(details.kind);
  // The computer writes the reason in lines, and what others had to say in it without line breaks.
  std::string_view reason = details.reason;
  for (const char* name = "In its words"; name != nullptr;) {
    const std::size_t end = std::min(reason.find('\n'), reason.size());
    question.lines.push_back({name, std::string(reason.substr(0, end))});
    reason.remove_prefix(std::min(end + 1, reason.size()));
    name = reason.empty() ? nullptr : "and";
  }
  question.lines.push_back({"Asked by", details.requestor});
  addIf(question.lines, subjectName(details.kind).c_str(), details.subject);
  if (details.version) question.lines.push_back({"Version", std::to_string(*details.version)});
  if (details.allowedTargets) {
    // A line each, so that no target can look like two.
    for (const std::string& target : *details.allowedTargets) question.lines.push_back({"Allowed in", target});
    if (details.allowedTargets->empty()) question.lines.push_back({"Allowed in", ""});
  }
  addIf(question.lines, "Target", details.declaredTarget);
  question.lines.push_back({"Asked at", base::iso8601(request.issuedAt)});
  return question;
}

Question questionOf(const KeyApprovalAsk& ask) {
  Question question{FromComputer::keyApproval, ask.id, ask.nonce, digestOf(ask), ask.expiresAt, ask.macName, {}, {}};
  question.what = "A provider's key is to be used.";
  for (const auto& [name, value] : ask.fields) question.lines.push_back({"Field", name + " = " + value});
  addIf(question.lines, "Workspace", ask.workspaceName);
  addIf(question.lines, "Connection", ask.connectionName);
  addIf(question.lines, "Session", ask.sessionId);
  return question;
}

Question questionOf(const ApproverRegisterAsk& ask) {
  Question question{
      FromComputer::approverRegister, ask.id, ask.nonce, digestOf(ask), ask.expiresAt, ask.macName, {}, {}};
  question.what = "This device is to be registered as one whose yes counts in a workspace.";
  question.lines = {{"Workspace", ask.workspaceName.value_or(ask.workspaceId)},
                    {"Its id", ask.workspaceId},
                    {"User", ask.userId},
                    {"Label", ask.label}};
  return question;
}

std::string shownText(const Question& question, std::size_t width) {
  width = std::max(width, kNarrowest);
  std::string out = "\n";
  appendWrapped(out, "===== " + inQuotes(question.macName) + " asks its owner =====", 0, width);
  appendWrapped(out, question.what, 0, width);
  for (const Question::Line& line : question.lines) {
    std::string start(kNameColumn, ' ');
    start += line.name + ":";
    start.resize(kTextColumn, ' ');
    out += start;
    appendWrapped(out, inQuotes(line.text), kTextColumn, width);
  }
  return out;
}

}  // namespace sorvane::approver
