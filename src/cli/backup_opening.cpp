#include "cli/backup_opening.h"

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "base/unicode.h"
#include "cli/confirmation.h"
#include "cli/output.h"
#include "cli/typed_value.h"

namespace sorvane::cli {
namespace {

/// Names of one list that are printed; more are counted.
constexpr std::size_t kNamesShown = 40;
/// Characters of a recovery key, without what separates its groups.
constexpr std::size_t kRecoveryKeyCharacters = 32;

/// Whether the text is written as recovery keys are, in groups or not.
bool looksLikeRecoveryKey(std::string_view text) {
  std::size_t count = 0;
  for (const char c : text) {
    const bool isDigit = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '2' && c <= '7');
    if (!isDigit && c != '-' && c != ' ') return false;
    count += isDigit;
  }
  return count == kRecoveryKeyCharacters;
}

std::string secretInWords(bool passphrase, bool recoveryKey) {
  if (passphrase && recoveryKey) return "Passphrase or recovery key of the backup";
  return passphrase ? "Passphrase of the backup" : "Recovery key of the backup";
}

}  // namespace

std::string wholePath(const std::string& file) {
  std::error_code error;
  const std::filesystem::path path = std::filesystem::absolute(file, error);
  if (file.empty() || error) throw Failure(kUsage, "usage", "Name the file of the backup. Nothing was done.");
  return path.string();
}

BackupOpening readOpening(const Options& options, const BackupGiven& given, const BackupWays& ways) {
  if (!ways.isEncrypted) return {};
  if (given.passphrase && given.recoveryKey) return {"both", base::SecretText()};
  if (given.passphrase && !ways.hasPassphrase) return {"passphrase", base::SecretText()};
  if (given.recoveryKey && !ways.hasRecoveryKey) return {"recoveryKey", base::SecretText()};
  const bool byPassphrase = ways.hasPassphrase && !given.recoveryKey;
  const bool byKey = ways.hasRecoveryKey && !given.passphrase;
  if (::isatty(STDIN_FILENO) != 0 && !given.passphrase && !given.recoveryKey) note(ways.prompt);
  base::SecretText text = readValue(options, secretInWords(byPassphrase, byKey), false, Typing::once);
  if (!base::isUtf8(text.view()) || text.view().find('\0') != std::string_view::npos) {
    throw Failure(kUsage, "not_text", "What was given cannot be read as text, so nothing was done. Try again.");
  }
  const bool isKey = byKey && (!byPassphrase || looksLikeRecoveryKey(text.view()));
  return {isKey ? "recoveryKey" : "passphrase", std::move(text)};
}

OpenedWith openingOf(Session& session, const BackupGiven& given) {
  OpenedWith with;
  with.arguments["file"] = wholePath(given.file);
  const base::Json seen = session.read("backupInspect", with.arguments);
  const base::Json& list = items(seen, "opensWith");
  const auto has = [&](const char* way) { return std::find(list.begin(), list.end(), way) != list.end(); };
  with.opening =
      readOpening(session.options(), given,
                  {seen.value("encrypted", false), has("passphrase"), has("recoveryKey"), cell(seen, "prompt")});
  if (!with.opening.unlock.empty()) with.arguments["unlock"] = with.opening.unlock;
  return with;
}

base::Json openedBackup(Session& session, const char* action, const OpenedWith& with) {
  return session.follow(session.manage(action, with.arguments, Session::Asks::no, with.opening.copy()));
}

void printNames(const std::string& heading, const base::Json& names, Names which) {
  if (names.empty()) return;
  printLine(heading + " (" + std::to_string(names.size()) + "):");
  std::size_t shown = 0;
  for (const base::Json& name : names) {
    if (which == Names::some && shown == kNamesShown) {
      printLine("  and " + std::to_string(names.size() - shown) + " more; --json names them all");
      return;
    }
    printLine("  " + base::escapedForDisplay(name.get_ref<const std::string&>()));
    ++shown;
  }
}

void printBackupCounts(const base::Json& shown) {
  const auto count = [&](const char* name) {
    const base::Json& counted = shown.at(name);
    return std::to_string(counted.is_array() ? static_cast<std::int64_t>(counted.size()) : counted.get<std::int64_t>());
  };
  printLine("Made on:       " + base::escapedForDisplay(cell(shown, "exportedAt")));
  printLine("SHA-256:       " + base::escapedForDisplay(cell(shown, "sha256")));
  printLine("Encrypted:     " + std::string(shown.value("encrypted", false) ? "yes" : "no"));
  printLine("Secrets:       " + count("secrets") + ", in " + count("versions") + " versions with " + count("values") +
            " values");
  printLine("Environments:  " + count("environments"));
  printLine("History:       " + count("events") + " events");
}

void requireYes(const Session& session, const BackupGiven& given, const std::string& question) {
  if (given.yes || session.options().json || session.options().noInput) return;
  if (!canAsk(session.options())) {
    throw Failure(kUsage, "no_terminal", "Nobody can be asked here, so nothing was changed. Add --yes.");
  }
  if (!confirmed(question)) throw Failure(kDenied, "not_confirmed", "Nothing was changed.");
}

bool protectsKeys(const Session& session, const BackupGiven& given, const std::string& question) {
  if (given.protectKeys || given.leaveKeys) return given.protectKeys;
  return canAsk(session.options()) && confirmed(question);
}

}  // namespace sorvane::cli
