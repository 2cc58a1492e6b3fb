#include "cli/lock_dialogue.h"

#include <algorithm>
#include <initializer_list>
#include <nlohmann/json.hpp>
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
  if (report.followsSession && !report.sessionIsReported) {
    words = "It is set to lock with your login session.";
  } else if (report.followsSession) {
    words = report.requirement == "off" ? "It opens and locks with your login session."
                                        : "It locks with your login session.";
  }
  return report.isManaged ? words + " Your organization decided so." : words;
}

/// Most names in a sentence; who has more looks them up.
constexpr std::size_t kMostNamed = 20;

/// What a passphrase cannot undo: values that lay readable until now are in every copy that was made of them.
std::string adviceOnCopies(const LockLink& link) {
  const std::string copies = "A copy of the files that was made before this still opens without the passphrase. ";
  try {
    Session session(link.options());
    const base::Json document = session.read("secretList");
    const base::Json& secrets = items(document, "secrets");
    if (secrets.empty()) return "";
    std::string names;
    for (std::size_t i = 0; i < std::min(secrets.size(), kMostNamed); ++i) {
      names += (i == 0 ? "" : ", ") + cell(secrets[i], "name");
    }
    if (secrets.size() > kMostNamed) {
      names += " and " + std::to_string(secrets.size() - kMostNamed) + " more (sorvane secret list)";
    }
    return copies + "Such a copy holds these keys, so rotate them: " + names + ".";
  } catch (const Failure&) {
    return copies + "Rotate every key that sorvane held until now; sorvane secret list names them.";
  }
}

/// One attempt: the system's check where it is asked for, then the passphrase where one is needed.
std::string tryUnlock(LockLink& link, agent::OwnerLock::Method method) {
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
  request.passphrase = readPassphrase(link.options(), kPresent);
  const LockOutcome outcome = link.askOwner(request, report);
  if (outcome.kind != Kind::done) throw notUnderstood();
  return sentenceOr(outcome, "sorvane is open.");
}

}  // namespace

std::string unlockVault(LockLink& link, agent::OwnerLock::Method method) {
  for (int tries = 1;; ++tries) {
    try {
      return tryUnlock(link, method);
    } catch (const Failure& failure) {
      // A wrong passphrase ends the attempt, the system's check included: the next one begins with it again.
      if (failure.code() != "wrong_passphrase" || tries == kMostTries || !isTypedHere(link.options())) throw;
      note(failure.sentence());
    }
  }
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
  std::string said =
      sentenceOr(outcome, "The passphrase is set. Nobody can find it out for you: without it, only a backup helps.");
  if (report.storeIsSealed || !link.report().storeIsSealed) return said;
  const std::string advice = adviceOnCopies(link);
  return advice.empty() ? said : std::move(said) + " " + advice;
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
  const LockOutcome outcome = link.askOwner(request, report);
  const std::string kept = link.report().hasPassphrase ? " Its passphrase is as it was." : "";
  return sentenceOr(outcome, "The unlock settings are reset and sorvane is open." + kept);
}

std::string warningOfNoPassphrase() {
  return "Without the passphrase every program that runs as you can read the values.";
}

std::string warningOfReset(const LockReport& report) {
  return report.sentence;
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
  if (report.systemCheckUnavailable && report.requirement != "only") lines.push_back(*report.systemCheckUnavailable);
  lines.push_back(sessionInWords(report));
  lines.push_back(report.storeIsSealed
                      ? "The values in the " + report.store + " store are sealed under the passphrase."
                      : "The values in the " + report.store + " store are not sealed under a passphrase.");
  for (const std::string& notice : report.notices) lines.push_back(notice);
  return lines;
}

}  // namespace sorvane::cli
