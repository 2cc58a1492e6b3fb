#pragma once

#include <gtest/gtest.h>

#include <deque>
#include <vector>

#include "support/doubles.h"
#include "unlock/lock_manager.h"

namespace sorvane::test {

/// Runs what was posted when it is told to.
class ManualExecutor final : public unlock::Executor {
 public:
  void post(std::function<void()> function) override { waiting_.push_back(std::move(function)); }
  bool runOne() {
    if (waiting_.empty()) return false;
    const auto function = std::move(waiting_.front());
    waiting_.pop_front();
    function();
    return true;
  }
  void runAll() {
    while (runOne()) {
    }
  }
  std::size_t waiting() const { return waiting_.size(); }

 private:
  std::deque<std::function<void()>> waiting_;
};

/// Keeps its questions until the test answers them.
class ManualPresence final : public unlock::OwnerPresence {
 public:
  struct Question {
    Check check;
    std::string reason;
    Reply reply;
  };
  std::optional<std::string> unavailable() override { return sentence; }
  void ask(Check check, const std::string& reason, Reply reply) override {
    questions.push_back({check, reason, std::move(reply)});
  }
  void withdraw() override { ++withdrawn; }

  std::optional<std::string> sentence;
  std::vector<Question> questions;
  int withdrawn = 0;
};

/// Keeps one configuration, or fails on purpose.
class MemoryConfigurationStore final : public unlock::UnlockConfigurationStore {
 public:
  unlock::UnlockConfiguration load() override {
    if (lost) throw unlock::UnlockError::storeLost(*lost);
    if (loadFailure) throw unlock::UnlockError(*loadFailure);
    return stored;
  }
  void save(const unlock::UnlockConfiguration& configuration) override {
    if (failsToSave) throw unlock::UnlockError::storage("full");
    stored = configuration;
    loadFailure.reset();
  }
  unlock::UnlockConfiguration stored;
  std::optional<unlock::UnlockError::Case> loadFailure;
  std::optional<std::string> lost;
  bool failsToSave = false;
};

/// A gate without a store behind it: it goes by the configuration, and keeps it where the manager reads it.
class MemoryGate final : public unlock::PassphraseGate {
 public:
  explicit MemoryGate(MemoryConfigurationStore& store) : store_(store) {}
  Verdict attempt(const base::SecretText& passphrase, const unlock::UnlockConfiguration& configuration) override {
    if (passphrase.empty() || !configuration.passphrase) return Verdict::wrong;
    const Verdict verdict = configuration.passphrase->check(passphrase.view()) ? Verdict::right : Verdict::wrong;
    isOpen = isOpen || verdict == Verdict::right;
    if (whenTried) whenTried();
    return verdict;
  }
  void adopt(const base::SecretText&, const unlock::UnlockConfiguration& configuration) override {
    store_.save(configuration);
  }
  void release(const unlock::UnlockConfiguration& configuration) override { store_.save(configuration); }
  void close() override {
    isOpen = false;
    ++closings;
  }
  bool isHeld() const override { return held; }
  void setHeld(bool keep) override { held = keep; }
  bool isSealed() const override { return sealed; }
  unlock::UnlockConfiguration fresh() const override { return kept; }

  std::function<void()> whenTried;
  unlock::UnlockConfiguration kept;
  bool isOpen = false, sealed = false, held = false;
  int closings = 0;

 private:
  MemoryConfigurationStore& store_;
};

class ManualSignals final : public unlock::SessionSignals {
 public:
  std::optional<unlock::SessionState> observe(Observer observer) override {
    tell = std::move(observer);
    return reported;
  }
  std::optional<unlock::SessionState> reported = unlock::SessionState{};
  Observer tell;
};

/// A lock manager without a platform. What an operation ended with stands in `ended`.
class LockManagerFixture : public ::testing::Test {
 protected:
  static constexpr std::string_view kRight = "made up passphrase", kWrong = "another made up one";

  unlock::LockManager& manager() {
    if (!manager_) {
      manager_ = std::make_unique<unlock::LockManager>(
          unlock::LockManager::Dependencies{.hardware = [this] { return hardware_; },
                                            .presence = presence_,
                                            .store = store_,
                                            .gate = gate_,
                                            .managedFollowsSession = [this] { return managed_; },
                                            .signals = signals_,
                                            .now = clock_,
                                            .main = main_,
                                            .work = work_,
                                            .ownTerminal = hasTerminal_ ? &terminal_ : nullptr});
      manager_->onUnlockChange = [this](bool open) { changes_.push_back(open); };
      manager_->start();
    }
    return *manager_;
  }
  void settle() {
    while (main_.waiting() + work_.waiting() > 0) {
      main_.runAll();
      work_.runAll();
    }
  }
  /// A stored passphrase, cheap to check.
  void havePassphrase(unlock::PassphraseRequirement requirement) {
    store_.stored.passphrase = unlock::PassphraseVerifier::make(kRight, {8, 1});
    store_.stored.requirement = requirement;
  }
  void answer(const unlock::OwnerPresence::Answer& answer) { answerAt(presence_, answer); }
  void answerAt(ManualPresence& presence, const unlock::OwnerPresence::Answer& answer) {
    ASSERT_FALSE(presence.questions.empty());
    presence.questions.back().reply(answer);
    settle();
  }
  void granted() { answer(unlock::OwnerPresence::Granted{}); }

  unlock::LockManager::OutcomeReply outcome() {
    return [this](const unlock::LockManager::Outcome& outcome) {
      if (const auto* const error = std::get_if<unlock::UnlockError>(&outcome)) return ended_.push_back(error->what());
      ended_.push_back(std::holds_alternative<unlock::LockManager::Opened>(outcome) ? "opened" : "needs passphrase");
    };
  }
  unlock::LockManager::ChangeReply change() {
    return
        [this](const std::optional<unlock::UnlockError>& error) { ended_.push_back(error ? error->what() : "done"); };
  }
  void askSystem(unlock::LockManager::Button button = unlock::LockManager::Button::primary) {
    manager().unlockWithSystem(button, outcome());
  }
  void give(std::string_view passphrase) { manager().unlockWithPassphrase(base::SecretText(passphrase), outcome()); }
  static unlock::LockManager::NewPassphrase twice(std::string_view text) {
    return {base::SecretText(text), base::SecretText(text)};
  }
  static std::optional<base::SecretText> current(std::string_view text) { return base::SecretText(text); }
  /// How the operations ended since the last call.
  std::vector<std::string> ended() {
    settle();
    return std::exchange(ended_, {});
  }
  void tell(const unlock::SessionState& state, const unlock::SessionSignals::Hold& hold = nullptr) {
    signals_.tell(state, hold);
    settle();
  }

  ManualClock clock_;
  ManualExecutor main_, work_;
  ManualPresence presence_, terminal_;
  MemoryConfigurationStore store_;
  MemoryGate gate_{store_};
  ManualSignals signals_;
  unlock::UnlockHardware hardware_;
  std::optional<bool> managed_;
  bool hasTerminal_ = true;
  std::vector<bool> changes_;
  std::vector<std::string> ended_;
  std::unique_ptr<unlock::LockManager> manager_;
};

}  // namespace sorvane::test
