#include "agent/terminal_question.h"

#include <algorithm>

#include "base/unicode.h"

namespace sorvane::agent {
namespace {

constexpr std::size_t kWidth = 78;
constexpr std::size_t kMaxLabelCharacters = 200;
constexpr std::size_t kCountBlanksFrom = 3;

/// The first `most` characters, with what was cut told.
std::string cut(std::string_view text, std::size_t most) {
  std::size_t at = 0;
  for (std::size_t count = 0; at < text.size(); ++count) {
    if (count == most) return std::string(text.substr(0, at)) + "… (cut)";
    at += base::decodeUtf8(text.substr(at)).size;
  }
  return std::string(text);
}

/// Breaks `text` into lines of at most kWidth characters, each begun with `indent` blanks. Words are kept together
/// where they fit; nothing is left out.
void appendWrapped(std::string& out, std::string_view text, std::size_t indent) {
  std::size_t column = indent;
  const std::string margin(indent, ' ');
  while (!text.empty()) {
    const std::size_t blank = text.find(' ', 1);
    std::string_view word = text.substr(0, blank);
    text.remove_prefix(word.size());
    std::size_t width = 0;
    for (std::string_view rest = word; !rest.empty(); rest.remove_prefix(base::decodeUtf8(rest).size)) ++width;
    if (column + width > kWidth && column > indent) {
      out += "\n" + margin;
      column = indent;
      if (word.front() == ' ') {
        word.remove_prefix(1);
        --width;
      }
    }
    while (column + width > kWidth) {
      // One word wider than the terminal: it is broken, never cut.
      std::size_t bytes = 0;
      for (std::size_t taken = column; taken < kWidth; ++taken, --width)
        bytes += base::decodeUtf8(word.substr(bytes)).size;
      out.append(word.substr(0, bytes)).append("\n").append(margin);
      word.remove_prefix(bytes);
      column = indent;
    }
    out += word;
    column += width;
  }
}

void appendField(std::string& out, std::string_view name, std::string_view text) {
  constexpr std::size_t kColumn = 15;
  std::string start = "  " + std::string(name) + ":";
  start.resize(kColumn, ' ');
  out += start;
  appendWrapped(out, text, kColumn);
  out += '\n';
}

std::string listed(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : ", ") + word;
  return base::escapedForDisplay(text);
}

}  // namespace

std::string quotedForOwner(std::string_view text) {
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

std::string processesForOwner(const std::vector<base::ProcessInfo>& processes) {
  if (processes.empty()) return "an unidentified process";
  std::string chain;
  for (const base::ProcessInfo& process : processes) {
    if (!chain.empty()) chain += ", started by ";
    chain += quotedForOwner(process.name) + " (" + std::to_string(process.pid) + ")";
  }
  return chain;
}

std::string commandForOwner(const std::vector<std::string>& words) {
  std::string command;
  for (const std::string& word : words) command += (command.empty() ? "" : " ") + quotedForOwner(word);
  return command;
}

std::string labelForOwner(std::string_view text) {
  return quotedForOwner(cut(text, kMaxLabelCharacters));
}

std::string terminalQuestion(const OwnerApprovalPrompt& prompt, const ApprovalContext& context, std::size_t together) {
  std::string out = "\n" + std::string(24, '=') + " sorvane asks its owner " + std::string(24, '=') + "\n";
  appendWrapped(out, base::escapedForDisplay(prompt.reason), 0);
  out += '\n';
  appendField(out, "Connection", labelForOwner(context.label));
  if (prompt.requestor) appendField(out, "Says it is", labelForOwner(*prompt.requestor) + " (its own words)");
  appendField(out, "Process", processesForOwner(context.processes));
  if (!context.commandWords.empty())
    appendField(out, "Command", commandForOwner(context.commandWords) + " (the caller's words)");
  if (context.directory) appendField(out, "Folder", quotedForOwner(*context.directory));
  if (prompt.subject) {
    const std::string_view what = prompt.kind == OwnerApprovalPrompt::Kind::readSecret ? "Secret"
                                  : prompt.kind == OwnerApprovalPrompt::Kind::other    ? "Name"
                                                                                       : "Environment";
    appendField(out, what, quotedForOwner(*prompt.subject));
  }
  if (prompt.version) appendField(out, "Version", std::to_string(*prompt.version));
  if (prompt.allowedTargets) appendField(out, "Allowed in", listed(*prompt.allowedTargets));
  if (prompt.declaredTarget) appendField(out, "Target", quotedForOwner(*prompt.declaredTarget));
  for (const std::string& detail : context.details) {
    out += "  ";
    appendWrapped(out, base::escapedForDisplay(detail), 2);
    out += '\n';
  }
  if (together > 1)
    out += "  " + std::to_string(together) + " equal requests of this process are waiting; one answer decides all.\n";
  if (context.whoseYesCounts == Approver::phone) {
    return out.append(kOnlyNoHere);
  }
  return out + "Allow this? Type y and Enter for yes. Enter alone means no. [y/N] ";
}

}  // namespace sorvane::agent
