#pragma once

#include <functional>
#include <string>
#include <vector>

#include "agent/owner_lock.h"
#include "agent/owner_restore.h"
#include "base/mutex.h"

namespace sorvane::test {

/// A lock that tells what it was asked, as one line each, and answers what the test says.
class OwnerLockDouble final : public agent::OwnerLock {
 public:
  using Outcome = agent::LockOutcome;
  using Caller = agent::LockCaller;
  std::function<Outcome(const Caller&)> reply = [](const Caller&) { return Outcome{}; };
  agent::LockReport lockReport;

  agent::LockReport report() override { return lockReport; }
  Outcome unlockWithSystem(Method method, const Caller& caller) override {
    return noted(method == Method::first ? "system first" : "system password", caller);
  }
  Outcome unlockWithPassphrase(base::SecretText passphrase, const Caller& caller) override {
    return noted("passphrase " + text(passphrase), caller);
  }
  Outcome lock(Lock lock) override { return noted(lock == Lock::held ? "lock held" : "lock", {}); }
  Outcome setPassphrase(agent::TypedPassphrase typed, const std::string& requirement, const Caller& caller) override {
    return noted("set " + text(typed.text) + " " + text(typed.confirmation) + " " + requirement, caller);
  }
  Outcome changePassphrase(base::SecretText current, agent::TypedPassphrase typed, const Caller& caller) override {
    return noted("change " + text(current) + " " + text(typed.text) + " " + text(typed.confirmation), caller);
  }
  Outcome removePassphrase(std::optional<base::SecretText> current, const Caller& caller) override {
    return noted("remove" + given(current), caller);
  }
  Outcome changeRequirement(const std::string& requirement, std::optional<base::SecretText> current,
                            const Caller& caller) override {
    return noted("require " + requirement + given(current), caller);
  }
  Outcome changeFollowsSession(bool follows, std::optional<base::SecretText> current, const Caller& caller) override {
    return noted(std::string("follow ") + (follows ? "on" : "off") + given(current), caller);
  }
  Outcome reset(const Caller& caller) override { return noted("reset", caller); }

  /// Blocks until at least `count` calls were made.
  Caller waitFor(std::size_t count) {
    base::Lock lock(mutex_);
    while (calls_.size() < count) more_.wait(lock.mutex());
    return callers_[count - 1];
  }
  std::vector<std::string> calls() {
    const base::Lock lock(mutex_);
    return calls_;
  }

 private:
  static std::string text(const base::SecretText& text) { return std::string(text.view()); }
  static std::string given(const std::optional<base::SecretText>& current) {
    return current ? " with " + text(*current) : "";
  }
  Outcome noted(std::string call, const Caller& caller) {
    {
      const base::Lock lock(mutex_);
      calls_.push_back(std::move(call));
      callers_.push_back(caller);
      more_.notify_all();
    }
    return reply(caller);
  }

  base::Mutex mutex_;
  base::Condition more_;
  std::vector<std::string> calls_ GUARDED_BY(mutex_);
  std::vector<Caller> callers_ GUARDED_BY(mutex_);
};

/// A restore that tells what it was asked.
class OwnerRestoreDouble final : public agent::OwnerRestore {
 public:
  std::vector<std::string> calls;

  Preview preview(agent::BackupToOpen backup) override {
    calls.push_back("preview " + given(backup));
    agent::BackupCounts counts;
    counts.sha256 = "ab12";
    counts.bytes = 7;
    counts.isEncrypted = counts.hasRecoveryKey = true;
    if (backup.recoveryKey) counts.opened = {"2026-01-01T00:00:00Z", 1, 2, 3, 4, 5, 6};
    return {{agent::LockOutcome::Kind::done, {}, "This backup needs its recovery key."}, counts};
  }
  agent::LockOutcome restore(Order order, const agent::LockCaller&) override {
    calls.push_back("restore " + given(order.backup) + " " + order.sha256 + (order.protectKeys ? " protecting" : ""));
    return {agent::LockOutcome::Kind::done, {}, "Set aside."};
  }

 private:
  static std::string given(const agent::BackupToOpen& backup) {
    std::string text = backup.file;
    if (backup.passphrase) text += " passphrase " + std::string(backup.passphrase->view());
    if (backup.recoveryKey) text += " key " + std::string(backup.recoveryKey->view());
    return text;
  }
};

}  // namespace sorvane::test
