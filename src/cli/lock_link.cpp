#include "cli/lock_link.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <memory>
#include <string_view>

#include "agent/client.h"
#include "base/support_folder.h"
#include "cli/output.h"
#include "cli/passphrase_prompt.h"
#include "platform/adapters_terminal.h"

namespace sorvane::cli {
namespace {

using agent::LockOutcome;

constexpr char kLocked[] =
    "sorvane is locked, so nothing was shared. Its owner opens it with sorvane unlock. Then try again.";
constexpr char kOpening[] =
    "sorvane is open, but its agent socket does not answer, so nothing was shared. It may be just opening or closing: "
    "try again. If it stays so, run sorvane lock and then sorvane unlock.";

struct CodeExit {
  std::string_view code;
  int exitCode;
};
// Refusals that end with another code than kFailed.
constexpr std::array kExits{CodeExit{"wait", kTryLater},
                            CodeExit{"busy", kTryLater},
                            CodeExit{"vaultLocked", kTryLater},
                            CodeExit{"wrongPassphrase", kDenied},
                            CodeExit{"cancelled", kDenied},
                            CodeExit{"systemCheckFailed", kDenied},
                            CodeExit{"managed", kDenied},
                            CodeExit{"tooShort", kUsage},
                            CodeExit{"mismatch", kUsage},
                            CodeExit{"settingsMissing", kConfiguration},
                            CodeExit{"settingsDamaged", kConfiguration},
                            CodeExit{"vaultKeyMismatch", kConfiguration}};

int exitCodeOf(std::string_view code) {
  const auto known =
      std::find_if(kExits.begin(), kExits.end(), [&](const CodeExit& exit) { return exit.code == code; });
  return known == kExits.end() ? kFailed : known->exitCode;
}

/// "wrongPassphrase" as the codes of this program are written: "wrong_passphrase".
std::string snakeCase(std::string_view word) {
  std::string text;
  for (const char c : word) {
    if (c >= 'A' && c <= 'Z') text += '_';
    text += c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  }
  return text;
}

/// Why the system asks, where it asks on this terminal.
std::string_view reasonOf(agent::OwnerOp op) {
  switch (op) {
    case agent::OwnerOp::setPassphrase:
      return "You set a passphrase for sorvane.";
    case agent::OwnerOp::changePassphrase:
      return "You change the passphrase of sorvane.";
    case agent::OwnerOp::removePassphrase:
      return "You remove the passphrase of sorvane.";
    case agent::OwnerOp::require:
    case agent::OwnerOp::followSession:
      return "You change what opens sorvane.";
    case agent::OwnerOp::reset:
      return "You reset what opens sorvane.";
    case agent::OwnerOp::backupRestore:
      return "You set the locked vault of sorvane aside and open a new one from a backup.";
    case agent::OwnerOp::backupPreview:
    case agent::OwnerOp::status:
    case agent::OwnerOp::unlock:
    case agent::OwnerOp::lock:
      break;
  }
  return "You unlock sorvane.";
}

}  // namespace

std::optional<agent::LockReport> lockReportOf(const std::filesystem::path& supportFolder) {
  try {
    return agent::askOwner(supportFolder, {}, {}).status;
  } catch (const agent::ClientError&) {
    return std::nullopt;
  }
}

std::optional<Closed> whyClosed(const std::filesystem::path& supportFolder) {
  const auto report = lockReportOf(supportFolder);
  if (!report) return std::nullopt;
  return report->isUnlocked ? Closed{"busy", kOpening} : Closed{"locked", kLocked};
}

agent::OwnerAnswer LockLink::exchange(const agent::OwnerRequest& request) {
  try {
    const auto folder = base::supportFolder(options_.supportFolder);
    base::checkSupportFolder(folder, base::WhenMissing::refuse);
    return agent::askOwner(folder, request, {});
  } catch (const agent::ClientError& error) {
    throw failureOf(error);
  } catch (const base::SupportFolderError& error) {
    throw failureOf(error);
  }
}

agent::LockReport LockLink::report() {
  auto status = exchange({}).status;
  if (!status) throw notUnderstood();
  return std::move(*status);
}

LockOutcome LockLink::ask(const agent::OwnerRequest& request) {
  return answer(request).outcome;
}

agent::OwnerAnswer LockLink::answer(const agent::OwnerRequest& request) {
  agent::OwnerAnswer answer = exchange(request);
  const LockOutcome& outcome = answer.outcome;
  if (outcome.kind == LockOutcome::Kind::refused) {
    throw Failure(
        exitCodeOf(outcome.code), snakeCase(outcome.code),
        outcome.sentence.empty() ? "sorvaned refused without saying why. Nothing was changed." : outcome.sentence);
  }
  return answer;
}

LockOutcome LockLink::askOwner(agent::OwnerRequest& request, const agent::LockReport& report) {
  const bool isAnswer = request.op == agent::OwnerOp::unlock && request.passphrase;
  const bool systemAsks = !report.systemCheckUnavailable && !isAnswer;
  const bool isForPassphrase = report.hasPassphrase && request.op != agent::OwnerOp::backupRestore;
  const bool phoneAsks = report.phoneUnlocks && request.op == agent::OwnerOp::unlock && !isAnswer &&
                         request.method != agent::OwnerLock::Method::password;
  const bool terminalAsks = report.systemCheckUnavailable && !isForPassphrase && !phoneAsks;
  std::unique_ptr<platform::TerminalQuestion> question;
  if (systemAsks && isTypedHere(options_)) question = platform::askOnTerminal(std::string(reasonOf(request.op)));
  request.answersItself = question && question->answersHere();
  if (::isatty(STDERR_FILENO) != 0) {
    if (terminalAsks) note("Waiting for the owner's answer where sorvaned runs (Ctrl-C withdraws it) …");
    if (phoneAsks) note("Waiting for your answer on the phone (Ctrl-C withdraws it) …");
    if (systemAsks && !request.answersItself) {
      note("Waiting for your answer to the system's question (Ctrl-C withdraws it) …");
    }
  }
  return ask(request);
}

}  // namespace sorvane::cli
