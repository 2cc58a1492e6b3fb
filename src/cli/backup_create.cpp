// `sorvane backup create`.
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <mutex>
#include <nlohmann/json.hpp>
#include <thread>

#include "base/json_writer.h"
#include "base/unicode.h"
#include "cli/backup_key.h"
#include "cli/backup_opening.h"
#include "cli/confirmation.h"
#include "cli/interrupt.h"
#include "cli/lock_dialogue.h"
#include "cli/output.h"
#include "cli/typed_value.h"

namespace sorvane::cli {
namespace {

constexpr char kLockedNoBackup[] =
    "sorvane is locked, so no backup was saved. Its owner opens it with sorvane unlock. Then try again.";
constexpr std::chrono::seconds kTellEvery{2};
constexpr char kCancelled[] = "Export cancelled. No backup was saved.";

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

/// Every value is read for a backup. A person who is here may open the vault first.
void requireUnlocked(const Options& options) {
  LockLink link(options);
  const agent::LockReport report = link.report();
  if (report.isUnlocked) return;
  if (!canAsk(options)) throw Failure(kTryLater, "locked", kLockedNoBackup);
  if (!confirmed("sorvane is locked, and a backup needs its values. Unlock it now?")) {
    throw Failure(kTryLater, "locked", kLockedNoBackup);
  }
  note(unlockVault(link, agent::OwnerLock::Method::first));
}

base::SecretText readBackupPassphrase(const Options& options) {
  base::SecretText text = readValue(options, "Backup passphrase, at least 12 characters", false, Typing::twice);
  if (!base::isUtf8(text.view()) || text.view().find('\0') != std::string_view::npos) {
    throw Failure(kUsage, "not_text", "What was given cannot be read as text, so nothing was done. Try again.");
  }
  return text;
}

/// The owner's answer; Ctrl-C withdraws the question. A job that began all the same is cancelled by who follows it.
agent::AgentResponse started(Session& session, const Session::Arguments& order,
                             std::optional<base::SecretText> passphrase) {
  try {
    return session.manageAttended("backupCreate", order, std::move(passphrase), [] { return !wasInterrupted(); });
  } catch (const Failure&) {
    if (!wasInterrupted()) throw;
    throw Failure(128 + SIGINT, "cancelled", kCancelled);
  }
}

/// While it lives, sorvaned is told that the person with the key is still served: a key that nobody reads is taken
/// back.
class StayInTouch {
 public:
  StayInTouch(const Options& options, const std::string& ticket)
      : thread_([&options, ticket](const std::stop_token& stop) {
          std::mutex mutex;
          std::condition_variable_any ended;
          std::unique_lock lock(mutex);
          while (!ended.wait_for(lock, stop, kTellEvery, [&stop] { return stop.stop_requested(); })) {
            try {
              Session(options).manage("backupRecoveryKey", {{"ticket", ticket}}, Session::Asks::no);
            } catch (const Failure&) {
              return;  // who follows the job says why
            }
          }
        }) {}

 private:
  std::jthread thread_;
};

/// Hands the recovery key to the person when the backup has come to it.
class KeyDesk {
 public:
  KeyDesk(Session& session, std::string jobId, std::string ticket, std::string file)
      : session_(session), jobId_(std::move(jobId)), ticket_(std::move(ticket)), file_(std::move(file)) {}

  void look() {
    if (!key_.empty()) return;
    auto offered = session_.manage("backupRecoveryKey", {{"ticket", ticket_}}, Session::Asks::no);
    if (!offered.value) return;
    key_ = *std::move(offered.value);
    if (::isatty(STDERR_FILENO) != 0) std::fputc('\n', stderr);  // behind the progress
    const StayInTouch touch(session_.options(), ticket_);
    if (!showRecoveryKey(session_.options(), key_, file_)) {
      session_.manage("jobCancel", {{"id", jobId_}}, Session::Asks::no);
      return;
    }
    session_.manage("backupRecoveryKey", {{"ticket", ticket_}, {"confirmed", "true"}}, Session::Asks::no);
  }
  const base::SecretText& key() const { return key_; }

 private:
  Session& session_;
  const std::string jobId_, ticket_, file_;
  base::SecretText key_;
};

}  // namespace

int createBackup(Session& session, const BackupGiven& given) {
  const Session::Arguments order = orderOf(given);
  const std::string file = order.at("file");
  requireUnlocked(session.options());
  std::optional<base::SecretText> passphrase;
  if (order.at("protection") == "passphrase") passphrase = readBackupPassphrase(session.options());
  const NoteInterrupt noting;
  const agent::AgentResponse response = started(session, order, std::move(passphrase));
  const auto document = response.document ? base::parseJson(response.document->view()) : std::nullopt;
  if (!document) throw notUnderstood();
  KeyDesk desk(session, std::string(valueOf(response).view()), document->value("ticket", ""), file);
  const base::Json made = session.follow(response, [&] {
    if (given.recoveryKey) desk.look();
  });
  const std::string secrets = std::to_string(made.value("secrets", 0LL));
  if (!session.options().json) {
    note("Saved " + secrets + (secrets == "1" ? " secret to " : " secrets to ") + file + ", readable by you only.");
    return 0;
  }
  base::JsonWriter out;
  out.beginObject().field("file", file);
  if (!desk.key().empty()) out.field("recoveryKey", desk.key().view());
  out.key("secrets").integer(made.value("secrets", 0LL)).endObject();
  print(out.view());
  print("\n");
  return 0;
}

}  // namespace sorvane::cli
