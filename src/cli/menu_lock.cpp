#include "cli/lock_dialogue.h"
#include "cli/menu.h"

namespace sorvane::cli {
namespace {

using Lock = agent::OwnerLock::Lock;
using Method = agent::OwnerLock::Method;

/// Does something with the lock and says what came of it.
template <typename Act>
std::function<Then()> saying(const Menu& menu, Act act) {
  return [&menu, act] {
    LockLink link(menu.options());
    menu.say(act(link));
    return Then::stay;
  };
}

/// The same, after a yes to what it means.
template <typename Act>
std::function<Then()> confirmed(const Menu& menu, const std::string& warning, const std::string& question, Act act) {
  return [&menu, warning, question, act] {
    menu.say(warning);
    if (!menu.yes(question)) throw Cancelled();
    return saying(menu, act)();
  };
}

agent::LockReport shownReport(const Menu& menu) {
  agent::LockReport report = LockLink(menu.options()).report();
  for (const std::string& sentence : describeLock(report)) menu.say(sentence);
  return report;
}

std::vector<Choice> passphraseChoices(const Menu& menu, const agent::LockReport& report) {
  if (!report.hasPassphrase) {
    return {{"Set a passphrase (asks)", saying(menu, [](LockLink& link) { return setPassphrase(link, {}); })}};
  }
  std::vector<Choice> choices{{"Change the passphrase (asks)", saying(menu, changePassphrase)},
                              {"Remove the passphrase (asks)",
                               confirmed(menu, warningOfNoPassphrase(), "Remove the passphrase?", removePassphrase)}};
  if (report.requirement != "withSystem") {
    choices.push_back({"Ask for the passphrase beside the system's check (asks)",
                       saying(menu, [](LockLink& link) { return changeRequirement(link, "withSystem"); })});
  }
  if (report.requirement != "only") {
    choices.push_back({"Ask for the passphrase alone (asks)",
                       saying(menu, [](LockLink& link) { return changeRequirement(link, "only"); })});
  }
  return choices;
}

}  // namespace

std::vector<Choice> lockedChoices(const Menu& menu) {
  const agent::LockReport report = shownReport(menu);
  const Choice again{"Look again", [] { return Then::stay; }};
  if (canSetFirst(report)) return passphraseChoices(menu, report);
  if (report.isUnlocked || report.prompt == "unavailable") return {again};
  if (report.prompt == "reset") {
    return {{"Reset the unlock settings (asks)",
             confirmed(menu, warningOfReset(report), "Reset sorvane’s unlock settings?", resetUnlockSettings)}};
  }
  std::vector<Choice> choices{
      {"Unlock", saying(menu, [](LockLink& link) { return unlockVault(link, Method::first); }), "unlock"}};
  if (report.prompt == "system") {
    choices.push_back({"Unlock with your login password",
                       saying(menu, [](LockLink& link) { return unlockVault(link, Method::password); })});
  }
  return choices;
}

void showUnlock(const Menu& menu) {
  menu.screen("Unlock", [&menu] {
    agent::LockReport report = LockLink(menu.options()).report();
    if (!report.isUnlocked) return lockedChoices(menu);
    report = shownReport(menu);
    std::vector<Choice> choices{
        {"Lock", saying(menu, [](LockLink& link) { return lockVault(link, Lock::untilNextTime); }), "lock"},
        {"Lock until you unlock it yourself",
         saying(menu, [](LockLink& link) { return lockVault(link, Lock::held); })}};
    for (Choice& choice : passphraseChoices(menu, report)) choices.push_back(std::move(choice));
    const bool follows = report.followsSession;
    if (!report.isManaged) {
      choices.push_back(
          {follows ? "Stay open when your login session is locked (asks)" : "Lock with your login session (asks)",
           saying(menu, [follows](LockLink& link) { return changeFollowsSession(link, !follows); })});
    }
    return choices;
  });
}

}  // namespace sorvane::cli
