#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string_view>

#include "base/json_writer.h"
#include "base/unicode.h"
#include "cli/backup_key.h"
#include "cli/commands.h"
#include "cli/confirmation.h"
#include "cli/output.h"
#include "cli/typed_value.h"

namespace sorvane::cli {
namespace {

/// Names of one list that are printed; more are counted.
constexpr std::size_t kNamesShown = 40;

struct BackupGiven {
  std::string file;
  bool passphrase = false, recoveryKey = false, none = false, force = false;
  bool protectKeys = false, leaveKeys = false, yes = false;
};

/// While it lives, Ctrl-C ends the program with the sentence that nothing was saved: the owner has not answered yet.
class SayOnInterrupt {
 public:
  SayOnInterrupt() {
    struct sigaction action {};
    action.sa_handler = [](int number) {
      constexpr std::string_view kSentence = "\nExport cancelled. No backup was saved.\n";
      [[maybe_unused]] const auto written = ::write(STDERR_FILENO, kSentence.data(), kSentence.size());
      ::_exit(128 + number);
    };
    ::sigaction(SIGINT, &action, &before_);
  }
  ~SayOnInterrupt() { ::sigaction(SIGINT, &before_, nullptr); }
  SayOnInterrupt(const SayOnInterrupt&) = delete;
  SayOnInterrupt& operator=(const SayOnInterrupt&) = delete;

 private:
  struct sigaction before_ {};
};

std::string wholePath(const std::string& file) {
  std::error_code error;
  const std::filesystem::path path = std::filesystem::absolute(file, error);
  if (file.empty() || error) throw Failure(kUsage, "usage", "Name the file of the backup. Nothing was done.");
  return path.lexically_normal().string();
}

/// What opens a backup, typed or piped in.
base::SecretText readOpening(const Options& options, const std::string& what, Typing typing) {
  base::SecretText text = readValue(options, what, false, typing);
  if (!base::isUtf8(text.view()) || text.view().find('\0') != std::string_view::npos) {
    throw Failure(kUsage, "not_text", "What was given cannot be read as text, so nothing was done. Try again.");
  }
  return text;
}

// Making one.

Session::Arguments orderOf(const BackupGiven& given) {
  if (given.none && (given.passphrase || given.recoveryKey)) {
    throw Failure(kUsage, "usage", "--none stands alone. No backup was saved.");
  }
  Session::Arguments order{{"file", wholePath(given.file)}};
  order["protection"] = given.none ? "none" : given.recoveryKey && !given.passphrase ? "recoveryKey" : "passphrase";
  if (given.passphrase && given.recoveryKey) order["withRecoveryKey"] = "true";
  if (given.force) order["replace"] = "true";
  return order;
}

int create(Session& session, const BackupGiven& given) {
  const Session::Arguments order = orderOf(given);
  const std::string file = order.at("file");
  std::optional<base::SecretText> passphrase;
  if (order.at("protection") == "passphrase") {
    passphrase = readOpening(session.options(), "Backup passphrase, at least 12 characters", Typing::twice);
  }
  std::optional<agent::AgentResponse> started;
  {
    const SayOnInterrupt sayIt;
    started = session.manage("backupCreate", order, Session::Asks::yes, std::move(passphrase));
  }
  const auto document = started->document ? base::parseJson(started->document->view()) : std::nullopt;
  if (!document) throw notUnderstood();
  const std::string ticket = document->value("ticket", "");
  const bool expectsKey = given.recoveryKey;
  base::SecretText key;
  const auto lookForKey = [&] {
    if (!expectsKey || !key.empty()) return;
    auto offered = session.manage("backupRecoveryKey", {{"ticket", ticket}}, Session::Asks::no);
    if (!offered.value) return;
    key = *std::move(offered.value);
    if (::isatty(STDERR_FILENO) != 0) std::fputc('\n', stderr);  // behind the progress
    if (!showRecoveryKey(session.options(), key, file)) {
      session.manage("jobCancel", {{"id", std::string(valueOf(*started).view())}}, Session::Asks::no);
      return;
    }
    session.manage("backupRecoveryKey", {{"ticket", ticket}, {"confirmed", "true"}}, Session::Asks::no);
  };
  const base::Json made = session.follow(*started, lookForKey);
  if (session.options().json) {
    base::JsonWriter out;
    out.beginObject().field("file", file);
    if (!key.empty()) out.field("recoveryKey", key.view());
    out.key("secrets").integer(made.value("secrets", 0LL)).endObject();
    print(out.view());
    print("\n");
    return 0;
  }
  note("Saved " + std::to_string(made.value("secrets", 0LL)) + " secrets to " + file + ", readable by you only.");
  return 0;
}

// Opening one.

struct Unlocking {
  Session::Arguments arguments;
  std::optional<base::SecretText> secret;

  std::optional<base::SecretText> copy() const { return secret ? std::optional(secret->clone()) : std::nullopt; }
};

/// Asks for what opens the file: the passphrase where it has one, unless the recovery key was chosen.
Unlocking unlocking(Session& session, const BackupGiven& given) {
  if (given.passphrase && given.recoveryKey) {
    throw Failure(kUsage, "usage", "Use one unlock method at a time.");
  }
  Unlocking result;
  const std::string file = wholePath(given.file);
  result.arguments["file"] = file;
  const base::Json seen = session.read("backupInspect", {{"file", file}});
  if (!seen.value("encrypted", false)) return result;
  const base::Json& ways = items(seen, "opensWith");
  const auto opensWith = [&](const char* way) { return std::find(ways.begin(), ways.end(), way) != ways.end(); };
  const bool byKey = given.recoveryKey || (!given.passphrase && !opensWith("passphrase"));
  if (given.passphrase && !opensWith("passphrase")) {
    throw Failure(kUsage, "no_passphrase", "This backup has no passphrase.");
  }
  if (byKey && !opensWith("recoveryKey")) {
    throw Failure(kUsage, "no_recovery_key", "This backup has no recovery key.");
  }
  result.arguments["unlock"] = byKey ? "recoveryKey" : "passphrase";
  result.secret =
      readOpening(session.options(), byKey ? "Recovery key of the backup" : "Passphrase of the backup", Typing::once);
  return result;
}

void printNames(const std::string& heading, const base::Json& names) {
  if (names.empty()) return;
  printLine(heading + " (" + std::to_string(names.size()) + "):");
  std::size_t shown = 0;
  for (const base::Json& name : names) {
    if (shown == kNamesShown) {
      printLine("  and " + std::to_string(names.size() - shown) + " more; --json names them all");
      return;
    }
    printLine("  " + base::escapedForDisplay(name.get_ref<const std::string&>()));
    ++shown;
  }
}

void printCounts(const base::Json& shown) {
  printLine("Made on:       " + base::escapedForDisplay(cell(shown, "exportedAt")));
  printLine("SHA-256:       " + base::escapedForDisplay(cell(shown, "sha256")));
  printLine("Encrypted:     " + std::string(shown.value("encrypted", false) ? "yes" : "no"));
  printLine("Secrets:       " + std::to_string(items(shown, "secrets").size()) + ", in " +
            std::to_string(shown.value("versions", 0LL)) + " versions with " +
            std::to_string(shown.value("values", 0LL)) + " values");
  printLine("Environments:  " + std::to_string(items(shown, "environments").size()));
  printLine("History:       " + std::to_string(shown.value("events", 0LL)) + " events");
}

base::Json opened(Session& session, const char* action, const Unlocking& unlocked) {
  return session.follow(session.manage(action, unlocked.arguments, Session::Asks::no, unlocked.copy()));
}

int show(Session& session, const BackupGiven& given) {
  const base::Json shown = opened(session, "backupShow", unlocking(session, given));
  if (session.options().json) {
    printJson(shown);
    return 0;
  }
  printCounts(shown);
  printNames("\nSecrets", items(shown, "secrets"));
  printNames("\nEnvironments", items(shown, "environments"));
  return 0;
}

int verify(Session& session, const BackupGiven& given) {
  const base::Json shown = opened(session, "backupShow", unlocking(session, given));
  if (session.options().json) {
    printJson({{"verified", true}, {"sha256", cell(shown, "sha256")}, {"exportedAt", cell(shown, "exportedAt")}});
    return 0;
  }
  note("The backup is whole: it opens, and every record and value in it was read.");
  printCounts(shown);
  return 0;
}

// Putting one in place.

void printChanges(const base::Json& preview) {
  printCounts(preview);
  const base::Json& changes = preview.at("changes");
  for (const auto& [name, heading] : {std::pair{"secrets", "secrets"}, std::pair{"environments", "environments"}}) {
    const base::Json& kind = changes.at(name);
    printNames(std::string("\nAdded ") + heading, items(kind, "added"));
    printNames(std::string("\nChanged ") + heading, items(kind, "changed"));
    printNames(std::string("\nLost ") + heading, items(kind, "lost"));
    printLine("\nUnchanged " + std::string(heading) + ": " + std::to_string(kind.value("same", 0LL)));
  }
  printLine("");
  for (const base::Json& notice : items(preview, "notices")) note(notice.get<std::string>());
}

/// Whether the provider keys of the backup are to become protected.
bool protects(const Session& session, const BackupGiven& given, const base::Json& keys) {
  if (given.protectKeys && given.leaveKeys) {
    throw Failure(kUsage, "usage", "Choose --protect-keys or --leave-keys. Nothing was restored.");
  }
  if (keys.empty() || given.protectKeys || given.leaveKeys) return given.protectKeys;
  if (!session.options().json) {
    note("These keys of model providers in the backup are not protected, so agents could be handed them:");
    for (const base::Json& key : keys) note("  " + cell(key, "secret") + " (" + cell(key, "provider") + ")");
  }
  return canAsk(session.options()) && confirmed("Protect them when they are restored?");
}

void requireYes(const Session& session, const BackupGiven& given, const std::string& question) {
  if (given.yes || session.options().json || session.options().noInput) return;
  if (!canAsk(session.options())) {
    throw Failure(kUsage, "no_terminal", "Nobody can be asked here, so nothing was changed. Add --yes.");
  }
  if (!confirmed(question)) throw Failure(kDenied, "not_confirmed", "Nothing was changed.");
}

int restore(Session& session, const BackupGiven& given) {
  const Unlocking unlocked = unlocking(session, given);
  const base::Json preview = opened(session, "backupPreview", unlocked);
  if (!preview.contains("changes")) throw notUnderstood();
  if (!session.options().json) printChanges(preview);
  Session::Arguments arguments = unlocked.arguments;
  arguments["sha256"] = cell(preview, "sha256");
  if (protects(session, given, items(preview.at("changes"), "unprotectedKeys"))) arguments["protectKeys"] = "true";
  requireYes(session, given, "Replace the vault with this backup?");
  const auto response = session.manage("backupRestore", arguments, Session::Asks::yes, unlocked.copy());
  const auto report = response.document ? base::parseJson(response.document->view()) : std::nullopt;
  if (!report) throw notUnderstood();
  if (session.options().json) {
    printJson(*report);
    return 0;
  }
  note("Restored " + std::to_string(report->value("secrets", 0LL)) + " secrets and " +
       std::to_string(report->value("environments", 0LL)) +
       " environments. Every task session has ended. To go back: sorvane backup undo");
  for (const base::Json& notice : items(*report, "notices")) note(notice.get<std::string>());
  return 0;
}

int undo(Session& session, const BackupGiven& given) {
  requireYes(session, given, "Go back to the vault before the last restore?");
  session.manage("backupUndo", {}, Session::Asks::yes);
  if (session.options().json) {
    printJson({{"undone", true}});
    return 0;
  }
  note("The vault is the one before the last restore. The same command swaps them again.");
  return 0;
}

}  // namespace

void Commands::addBackup(CLI::App& app) {
  CLI::App& group = *app.add_subcommand("backup", "Save the vault to a file, and put one back");
  group.require_subcommand(1, 1);
  const auto add = [&](const char* name, const char* help, int (*run)(Session&, const BackupGiven&)) {
    const auto given = std::make_shared<BackupGiven>();
    CLI::App& command = *group.add_subcommand(name, help);
    command.callback([this, given, run] { action = [given, run](Session& session) { return run(session, *given); }; });
    return std::pair<CLI::App*, BackupGiven*>(&command, given.get());
  };
  {
    const auto [command, given] = add("create", "Save the whole vault, values included (asks)", create);
    command->add_option("file", given->file, "The file to make")->required();
    command->add_flag("--passphrase", given->passphrase, "A passphrase opens it; this is what no option means");
    command->add_flag("--recovery-key", given->recoveryKey, "A new recovery key opens it, shown once");
    command->add_flag("--none", given->none, "No encryption: whoever can read the file can read every value");
    command->add_flag("--force", given->force, "Replace a file of that name once the new one is verified");
  }
  const auto addOpening = [&](const char* name, const char* help, int (*run)(Session&, const BackupGiven&)) {
    const auto added = add(name, help, run);
    added.first->add_option("file", added.second->file, "The backup")->required();
    added.first->add_flag("--passphrase", added.second->passphrase, "Open it with its passphrase");
    added.first->add_flag("--recovery-key", added.second->recoveryKey, "Open it with its recovery key");
    return added;
  };
  addOpening("show", "Open a backup and list what is in it; changes nothing", show);
  addOpening("verify", "Open a backup and check it; changes nothing", verify);
  {
    const auto [command, given] = addOpening("restore", "Replace the vault with a backup (asks)", restore);
    command->add_flag("--protect-keys", given->protectKeys, "Protect the keys of model providers in it");
    command->add_flag("--leave-keys", given->leaveKeys, "Leave them unprotected");
    command->add_flag("--yes", given->yes, "Do not ask here; the owner is asked all the same");
  }
  const auto [command, given] = add("undo", "Go back to the vault before the last restore (asks)", undo);
  command->add_flag("--yes", given->yes, "Do not ask here; the owner is asked all the same");
}

}  // namespace sorvane::cli
