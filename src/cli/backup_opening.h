#pragma once

#include <optional>
#include <string>

#include "base/json.h"
#include "base/secret_text.h"
#include "cli/session.h"

namespace sorvane::cli {

/// What a command about backups was given.
struct BackupGiven {
  std::string file;
  bool passphrase = false, recoveryKey = false, none = false, force = false;
  bool protectKeys = false, leaveKeys = false, setAside = false, yes = false;
};

int createBackup(Session& session, const BackupGiven& given);
int restoreBackup(Session& session, const BackupGiven& given);
/// The same where sorvaned is locked: into a new vault, with the one that nothing opens set aside.
int restoreLocked(Session& session, const BackupGiven& given);

/// The whole path of the file, links and ".." in it as they stand. Throws Failure for none.
std::string wholePath(const std::string& file);

/// What a file can be opened with, and the sentence that asks for it.
struct BackupWays {
  bool isEncrypted = false, hasPassphrase = false, hasRecoveryKey = false;
  std::string prompt;
};

/// What opens a backup: `unlock` as the action takes it, empty for none.
struct BackupOpening {
  std::string unlock;
  std::optional<base::SecretText> secret;

  std::optional<base::SecretText> copy() const { return secret ? std::optional(secret->clone()) : std::nullopt; }
};

/// Asks the person for it, typed or piped in. What the file does not have, and both at once, is not asked for: the
/// application refuses it in its own words.
BackupOpening readOpening(const Options& options, const BackupGiven& given, const BackupWays& ways);

/// The arguments and the secret that open the file for an action.
struct OpenedWith {
  Session::Arguments arguments;
  BackupOpening opening;
};
OpenedWith openingOf(Session& session, const BackupGiven& given);
/// The document of the job that `action` starts.
base::Json openedBackup(Session& session, const char* action, const OpenedWith& with);

enum class Names { some, all };
/// With `some` a long list is cut, and how to see the rest is said.
void printNames(const std::string& heading, const base::Json& names, Names which);
/// Date, digest and counts of a backup.
void printBackupCounts(const base::Json& shown);

/// Goes on only when a person here said yes, or nobody is to be asked here.
void requireYes(const Session& session, const BackupGiven& given, const std::string& question);
/// --protect-keys or --leave-keys, else what a person says to the question.
bool protectsKeys(const Session& session, const BackupGiven& given, const std::string& question);

}  // namespace sorvane::cli
