#include "cli/lock_dialogue.h"

#include <algorithm>
#include <initializer_list>
#include <string_view>
#include <utility>

#include "cli/output.h"
#include "cli/passphrase_prompt.h"

namespace sorvane::cli {
namespace {

using agent::LockOutcome;
using agent::LockReport;
using agent::OwnerOp;
using agent::OwnerRequest;
using Kind = LockOutcome::Kind;

/// The third wrong passphrase makes the next one wait.
constexpr int kMostTries = 3;

constexpr char kPresent[] = "Passphrase of sorvane";

std::string sentenceOr(const LockOutcome& outcome, std::string done) {
  return outcome.sentence.empty() ? std::move(done) : std::move(done) + " " + outcome.sentence;
}

/// Sends the request with what `type` puts into it, again while a person mistyped one of `mistakes`.
template <typename Type>
LockOutcome askTyped(LockLink& link, const LockReport& report, OwnerRequest& request,
                     std::initializer_list<std::string_view> mistakes, const Type& type) {
  for (int tries = 1;; ++tries) {
    type(request);
    try {
      return link.askOwner(request, report);
    } catch (const Failure& failure) {
      const bool mistyped = std::find(mistakes.begin(), mistakes.end(), failure.code()) != mistakes.end();
      if (!mistyped || tries == kMostTries || !isTypedHere(link.options())) throw;
      note(failure.sentence());
    }
  }
}

LockOutcome askWithPresent(LockLink& link, const LockReport& report, OwnerRequest& request) {
  return askTyped(link, report, request, {"wrong_passphrase"},
                  [&link](OwnerRequest& typed) { typed.passphrase = readPassphrase(link.options(), kPresent); });
}

/// A change that asks for the present passphrase where the system cannot tell who is there, or where the values are
/// sealed under it; and where sorvaned says that it needs it.
LockOutcome change(LockLink& link, const LockReport& report, OwnerRequest& request) {
  const bool sealedChange = report.storeIsSealed && request.op != OwnerOp::followSession;
  if (report.hasPassphrase && (report.systemCheckUnavailable || sealedChange)) {
    return askWithPresent(link, report, request);
  }
  try {
    LockOutcome outcome = link.askOwner(request, report);
    if (outcome.kind != Kind::needsPassphrase) return outcome;
  } catch (const Failure& failure) {
    if (failure.code() != "wrong_passphrase" || !report.hasPassphrase) throw;
  }
  return askWithPresent(link, report, request);
}

Failure noPassphraseSet() {
  return {kFailed, "no_passphrase_set",
          "No passphrase is set, so nothing was changed. Set one with sorvane passphrase set."};
}

std::string requirementInWords(const LockReport& report) {
  if (report.requirement == "only") return "It opens with its passphrase alone.";
  if (report.requirement == "withSystem") return "It opens with the system's check of its owner and its passphrase.";
  return "It opens with the system's check of its owner; it has no passphrase.";
}

std::string sessionInWords(const LockReport& report) {
  std::string words = "It stays open when your login session is locked.";
  if (report.followsSession) {
    words = report.requirement == "off" ? "It opens and locks with your login session."
                                        : "It locks with your login session.";
  }
  return report.isManaged ? words + " Your organization decided so." : words;
}

}  // namespace

std::string unlockVault(LockLink& link, agent::OwnerLock::Method method) {
  const LockReport report = link.report();
  if (report.isUnlocked) return "sorvane is open already.";
  if (report.prompt == "reset") {
    throw Failure(kConfiguration, "reset_needed",
                  report.sentence + " sorvane stays locked. Run sorvane unlock reset, which first says what it does.");
  }
  if (report.prompt == "unavailable") {
    const std::string first = canSetFirst(report) ? " Set a passphrase with sorvane passphrase set." : "";
    throw Failure(kTryLater, "locked", report.sentence + first);
  }
  OwnerRequest request;
  request.op = OwnerOp::unlock;
  if (report.prompt == "system") {
    request.method = method;
    const LockOutcome outcome = link.askOwner(request, report);
    if (outcome.kind == Kind::done) return sentenceOr(outcome, "sorvane is open.");
    request.method.reset();
  }
  const LockOutcome outcome = askTyped(link, report, request, {"wrong_passphrase"}, [&link](OwnerRequest& typed) {
    typed.passphrase = readPassphrase(link.options(), kPresent);
  });
  if (outcome.kind != Kind::done) throw notUnderstood();
  return sentenceOr(outcome, "sorvane is open.");
}

std::string lockVault(LockLink& link, agent::OwnerLock::Lock lock) {
  OwnerRequest request;
  request.op = OwnerOp::lock;
  request.lock = lock;
  const LockOutcome outcome = link.ask(request);
  return sentenceOr(outcome, lock == agent::OwnerLock::Lock::held
                                 ? "sorvane is locked and stays so until you run sorvane unlock."
                                 : "sorvane is locked.");
}

std::string setPassphrase(LockLink& link, const std::optional<std::string>& requirement) {
  const LockReport report = link.report();
  if (report.hasPassphrase) {
    throw Failure(kFailed, "passphrase_set",
                  "A passphrase is set already, so nothing was changed. Run sorvane passphrase change.");
  }
  OwnerRequest request;
  request.op = OwnerOp::setPassphrase;
  request.requirement = requirement.value_or(report.systemCheckUnavailable ? "only" : "withSystem");
  const auto outcome = askTyped(link, report, request, {"too_short", "mismatch"}, [&link](OwnerRequest& typed) {
    auto chosen = readNewPassphrase(link.options());
    typed.newPassphrase = std::move(chosen.text);
    typed.confirmation = std::move(chosen.confirmation);
  });
  return sentenceOr(outcome, "The passphrase is set. Nobody can find it out for you: without it, only a backup helps.");
}

std::string changePassphrase(LockLink& link) {
  const LockReport report = link.report();
  if (!report.hasPassphrase) throw noPassphraseSet();
  OwnerRequest request;
  request.op = OwnerOp::changePassphrase;
  const auto outcome =
      askTyped(link, report, request, {"too_short", "mismatch", "wrong_passphrase"}, [&link](OwnerRequest& typed) {
        typed.passphrase = readPassphrase(link.options(), kPresent);
        auto chosen = readNewPassphrase(link.options());
        typed.newPassphrase = std::move(chosen.text);
        typed.confirmation = std::move(chosen.confirmation);
      });
  return sentenceOr(outcome, "The passphrase is changed.");
}

std::string removePassphrase(LockLink& link) {
  const LockReport report = link.report();
  if (!report.hasPassphrase) throw noPassphraseSet();
  OwnerRequest request;
  request.op = OwnerOp::removePassphrase;
  return sentenceOr(change(link, report, request), "The passphrase is removed.");
}

std::string changeRequirement(LockLink& link, const std::string& requirement) {
  const LockReport report = link.report();
  if (report.requirement == requirement) return "It is so already.";
  if (!report.hasPassphrase) throw noPassphraseSet();
  OwnerRequest request;
  request.op = OwnerOp::require;
  request.requirement = requirement;
  return sentenceOr(change(link, report, request), "Changed.");
}

std::string changeFollowsSession(LockLink& link, bool follows) {
  const LockReport report = link.report();
  OwnerRequest request;
  request.op = OwnerOp::followSession;
  request.follows = follows;
  return sentenceOr(change(link, report, request), "Changed.");
}

std::string resetUnlockSettings(LockLink& link) {
  const LockReport report = link.report();
  OwnerRequest request;
  request.op = OwnerOp::reset;
  return sentenceOr(link.askOwner(request, report), "The unlock settings are reset and sorvane is open.");
}

std::string warningOfNoPassphrase() {
  return "Without the passphrase every program that runs as you can read the values.";
}

std::string warningOfReset(const LockReport& report) {
  return report.sentence +
         " The reset turns the passphrase off and opens sorvane, once it was checked that it is you. Your secrets are "
         "not changed. Set a new passphrase afterwards with sorvane passphrase set.";
}

bool canSetFirst(const LockReport& report) {
  return !report.hasPassphrase && report.requirement == "off" && report.systemCheckUnavailable;
}

std::vector<std::string> describeLock(const LockReport& report) {
  std::vector<std::string> lines;
  if (!report.isUnlocked) lines.push_back("sorvane is locked. " + report.sentence);
  if (report.heldLocked) lines.emplace_back("It stays locked until you open it yourself.");
  if (report.waitSeconds > 0) {
    lines.push_back("Too many passphrases were wrong: the next one is taken in " + std::to_string(report.waitSeconds) +
                    (report.waitSeconds == 1 ? " second." : " seconds."));
  }
  lines.push_back(requirementInWords(report));
  if (report.systemCheckUnavailable) lines.push_back(*report.systemCheckUnavailable);
  lines.push_back(sessionInWords(report));
  lines.push_back(report.storeIsSealed
                      ? "The values in the " + report.store + " store are sealed under the passphrase."
                      : "The values in the " + report.store + " store are not sealed under a passphrase.");
  for (const std::string& notice : report.notices) lines.push_back(notice);
  return lines;
}

}  // namespace sorvane::cli
