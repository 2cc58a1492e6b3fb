#include <nlohmann/json.hpp>

#include "cli/commands.h"
#include "cli/confirmation.h"
#include "cli/lock_dialogue.h"
#include "cli/output.h"

namespace sorvane::cli {
namespace {

using Method = agent::OwnerLock::Method;

/// A command that says in a sentence what it did.
Action saying(std::function<std::string(LockLink&)> act) {
  return [act = std::move(act)](Session& session) {
    LockLink link(session.options());
    const std::string sentence = act(link);
    session.options().json ? printJson({{"ok", true}, {"value", sentence}}) : note(sentence);
    return 0;
  };
}

/// Goes on only after a yes to the warning, typed here or given as --yes.
void confirm(const Options& options, bool yes, const std::string& warning, const std::string& question) {
  if (yes) return;
  if (!canAsk(options)) {
    throw Failure(kUsage, "not_a_terminal", warning + " Nothing was changed. Give --yes if you want this.");
  }
  if (!confirmed(warning + " " + question)) {
    throw Failure(kDenied, "approval_denied", "You did not say yes, so nothing was changed.");
  }
}

void addReset(CLI::App& unlock, Commands& commands) {
  const auto yes = std::make_shared<bool>(false);
  CLI::App& reset = *unlock.add_subcommand(
      "reset", "Put fresh unlock settings in the place of those that cannot be read, and open (asks)");
  reset.add_flag("--yes", *yes, "Do not ask here first");
  reset.callback([&commands, yes] {
    commands.action = saying([yes](LockLink& link) {
      confirm(link.options(), *yes, warningOfReset(link.report()), "Reset sorvane’s unlock settings?");
      return resetUnlockSettings(link);
    });
  });
}

void addRequire(CLI::App& app, Commands& commands) {
  const auto word = std::make_shared<std::string>();
  const auto yes = std::make_shared<bool>(false);
  CLI::App& require = *app.add_subcommand("require", "When the passphrase is asked for (asks)");
  require.add_option("requirement", *word, "off, with-system (beside the system's check) or only (in its place)")
      ->required()
      ->check(CLI::IsMember({"off", "with-system", "only"}));
  require.add_flag("--yes", *yes, "Do not ask here first");
  require.callback([&commands, word, yes] {
    commands.action = saying([word, yes](LockLink& link) {
      if (*word == "off") confirm(link.options(), *yes, warningOfNoPassphrase(), "Turn the passphrase off?");
      return changeRequirement(link, *word == "with-system" ? "withSystem" : *word);
    });
  });
}

void addPassphrase(CLI::App& app, Commands& commands) {
  CLI::App& group = *app.add_subcommand("passphrase", "The passphrase that opens sorvane");
  group.require_subcommand(1);
  const auto with = std::make_shared<std::string>();
  CLI::App& set = *group.add_subcommand("set", "Set the first one (asks)");
  set.add_option("--require", *with, "with-system or only; with the system's check where it can be had when absent")
      ->check(CLI::IsMember({"with-system", "only"}));
  set.callback([&commands, with] {
    commands.action = saying([with](LockLink& link) {
      std::optional<std::string> requirement;
      if (!with->empty()) requirement = *with == "only" ? "only" : "withSystem";
      return setPassphrase(link, requirement);
    });
  });
  group.add_subcommand("change", "Put another in its place (asks)")->callback([&commands] {
    commands.action = saying(changePassphrase);
  });
  const auto yes = std::make_shared<bool>(false);
  CLI::App& remove = *group.add_subcommand("remove", "Open without one (asks)");
  remove.add_flag("--yes", *yes, "Do not ask here first");
  remove.callback([&commands, yes] {
    commands.action = saying([yes](LockLink& link) {
      confirm(link.options(), *yes, warningOfNoPassphrase(), "Remove the passphrase?");
      return removePassphrase(link);
    });
  });
}

}  // namespace

void Commands::addLock(CLI::App& app) {
  const auto password = std::make_shared<bool>(false);
  CLI::App& unlock = *app.add_subcommand("unlock", "Open a locked sorvane (asks)");
  unlock.add_flag("--password", *password, "With the login password, whatever else the system would ask for first");
  unlock.require_subcommand(0, 1);
  addReset(unlock, *this);
  unlock.callback([this, password, &unlock] {
    if (!unlock.get_subcommands().empty()) return;
    action =
        saying([password](LockLink& link) { return unlockVault(link, *password ? Method::password : Method::first); });
  });

  const auto hold = std::make_shared<bool>(false);
  CLI::App& lock = *app.add_subcommand("lock", "Lock sorvane: end what agents were allowed, and forget every key");
  lock.add_flag("--hold", *hold, "Stay locked until sorvane unlock, whatever the login session does");
  lock.callback([this, hold] {
    action = saying([hold](LockLink& link) {
      return lockVault(link, *hold ? agent::OwnerLock::Lock::held : agent::OwnerLock::Lock::untilNextTime);
    });
  });

  addPassphrase(app, *this);
  addRequire(app, *this);

  const auto follows = std::make_shared<std::string>();
  CLI::App& follow = *app.add_subcommand("follow-session", "Whether sorvane locks with your login session (asks)");
  follow.add_option("follows", *follows, "on or off")->required()->check(CLI::IsMember({"on", "off"}));
  follow.callback([this, follows] {
    action = saying([follows](LockLink& link) { return changeFollowsSession(link, *follows == "on"); });
  });
}

}  // namespace sorvane::cli
