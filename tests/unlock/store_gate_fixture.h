#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <memory>

#include "platform/shared/embedded_store_files.h"
#include "support/doubles.h"
#include "support/faults.h"
#include "unlock/store_gate.h"

namespace sorvane::test {

/// The embedded store with a fault before and after each of its longer steps.
class FaultySealable final : public unlock::SealableStore {
 public:
  FaultySealable(const std::filesystem::path& folder, base::Files& files, Fault& fault)
      : real_(folder, files), fault_(fault) {}
  Store openPlain() override { return real_.openPlain(); }
  Store open(const crypto::SymmetricKey& key) override { return real_.open(key); }
  void writeCopy(vault::EnumerableSecretStore& from, const crypto::SymmetricKey& key,
                 const std::function<void(vault::SecretStore&)>& edit) override {
    step();
    real_.writeCopy(from, key, [&](vault::SecretStore& copy) {
      step();
      edit(copy);
      step();
    });
    step();
  }
  bool hasCopy() override {
    if (whenLooking) std::exchange(whenLooking, nullptr)();
    return real_.hasCopy();
  }
  void putCopyInPlace() override {
    real_.putCopyInPlace();
    step();
  }
  void removeCopy() override { real_.removeCopy(); }
  /// Called once, while the gate settles what an earlier end left.
  std::function<void()> whenLooking;
  bool hasPlainKey() override { return real_.hasPlainKey(); }
  void writePlainKey(const crypto::SymmetricKey& key) override { real_.writePlainKey(key); }
  void removePlainKey() override { real_.removePlainKey(); }

 private:
  void step() {
    if (fault_.hits()) throw vault::SecretStoreError::backend("the disk is full");
  }
  platform::EmbeddedStoreFiles real_;
  Fault& fault_;
};

/// A gate before an embedded store in a throwaway folder. `restart` is what a new start of the application finds.
class GatedStore {
 public:
  static constexpr crypto::PassphraseCost kCheap{8, 1};
  static constexpr std::string_view kFirst = "made up passphrase", kSecond = "another made up one";
  using Gate = unlock::StoreGate;
  using Verdict = Gate::Verdict;
  using Requirement = unlock::PassphraseRequirement;

  GatedStore() { restart(Gate::FirstRun::yes); }
  void restart(Gate::FirstRun firstRun = Gate::FirstRun::no) {
    gate_.reset();
    door_.close();
    store_ = std::make_unique<FaultySealable>(folder_.path(), files_, fault_);
    gate_ = std::make_unique<Gate>(Gate::Ports{files_, wrapPath(), door_, kCheap},
                                   Gate::Kind{[this] { return store_->openPlain(); }, store_.get()}, firstRun);
  }

  Gate& gate() { return *gate_; }
  FaultySealable& store() { return *store_; }
  unlock::StoreDoor& door() { return door_; }
  Fault& fault() { return fault_; }
  std::filesystem::path path(std::string_view name) const { return folder_.path() / name; }
  std::filesystem::path wrapPath() const { return path(unlock::kWrapName); }
  bool has(std::string_view name) const { return std::filesystem::exists(path(name)); }
  std::string bytesOf(std::string_view name) const {
    std::ifstream file(path(name), std::ios::binary);
    return {(std::istreambuf_iterator<char>(file)), {}};
  }
  void put(std::string_view name, std::string_view bytes) const {
    std::ofstream(path(name), std::ios::binary) << bytes;
  }
  unlock::StoreWrap wrap() const { return std::get<unlock::StoreWrap>(unlock::decodeWrap(bytesOf(unlock::kWrapName))); }
  void putWrap(const unlock::StoreWrap& wrap) const { put(unlock::kWrapName, unlock::encodeWrap(wrap).view()); }

  static unlock::UnlockConfiguration with(std::string_view passphrase, Requirement requirement = Requirement::only) {
    unlock::UnlockConfiguration configuration;
    configuration.passphrase = unlock::PassphraseVerifier::make(passphrase, kCheap);
    configuration.requirement = requirement;
    return configuration;
  }
  void adopt(std::string_view passphrase, Requirement requirement = Requirement::only) {
    gate().adopt(base::SecretText(passphrase), with(passphrase, requirement));
  }
  Verdict attempt(std::string_view passphrase) { return gate().attempt(base::SecretText(passphrase), gate().load()); }

  static constexpr int kRows = 40;
  static std::string nameOf(int row) { return "sec_made_up#v" + std::to_string(row); }
  /// A store with rows, open, without a passphrase.
  void fill() {
    gate().load();
    gate().open();
    for (int row = 0; row < kRows; ++row) {
      door().store(nameOf(row), base::SecretText("made-up value " + std::to_string(row)));
    }
  }
  /// Whether the open store has every row.
  void expectRows() {
    for (int row = 0; row < kRows; ++row) {
      ASSERT_EQ(door().read(nameOf(row)).view(), "made-up value " + std::to_string(row));
    }
  }

 private:
  TemporaryFolder folder_ = TemporaryFolder::inMemory();
  Fault fault_;
  FaultyFiles files_{fault_};
  unlock::StoreDoor door_;
  std::unique_ptr<FaultySealable> store_;
  std::unique_ptr<Gate> gate_;
};

/// What `call` throws says; empty when it throws nothing.
template <typename Call>
std::string told(const Call& call) {
  try {
    call();
  } catch (const base::Error& error) {
    return error.sentence();
  }
  return {};
}

}  // namespace sorvane::test
