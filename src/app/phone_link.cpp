#include "app/phone_link.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <utility>

#include "agent/approval_policy.h"
#include "base/diagnostics.h"
#include "base/unicode.h"
#include "phone/link_record.h"
#include "phone/phone_error.h"
#include "unlock/unlock_error.h"
#include "vault/long_setting.h"
#include "vault/sealed_settings.h"

namespace sorvane::app {
namespace {

const std::string kInPieces =
    "The list of paired phones cannot be read: a piece of it is gone. No phone can answer. Restore the credential "
    "store, or begin a new list with sorvane phone pair.";
const std::string kWrongKey =
    "The list of paired phones cannot be read: it was sealed by another vault, or was changed. No phone can answer. "
    "Begin a new list with sorvane phone pair, which asks you.";

/// Calls `work` with the sealed settings of the store in use. While the vault is locked that is closed; one that needs
/// no passphrase is opened beside it.
template <typename Work>
auto withSettings(Stores& stores, const Work& work) {
  try {
    return work(*vault::sealedSettingsIn(stores.inUse()));
  } catch (const unlock::UnlockError&) {
    const auto store = stores.openBeside();
    return work(*vault::sealedSettingsIn(*store));
  }
}

/// What is kept, but cannot be read any more; trying again does not help.
class Unreadable : public base::Error {
 public:
  using Error::Error;
};

std::optional<base::SecretText> readRegistry(vault::SealedSettings& settings) {
  try {
    auto text = vault::loadLongSetting(settings, vault::kPairedPhonesSetting, kInPieces);
    if (!text) return std::nullopt;
    base::SecretText record(*text);
    base::wipe(*text);
    phone::decodeLinkRecord(record.view());
    return record;
  } catch (const vault::SettingError& error) {
    if (error.kind() == vault::SettingError::Case::wrongKey) throw Unreadable(kWrongKey);
    if (error.sentence() == kInPieces) throw Unreadable(kInPieces);
    throw;
  } catch (const phone::PhoneError& error) {
    throw Unreadable(error.sentence());
  }
}

}  // namespace

std::string computerName() {
  // Longer than any name that a system takes.
  constexpr std::size_t kMostNameBytes = 255;
  std::array<char, kMostNameBytes + 1> name{};
  if (::gethostname(name.data(), name.size() - 1) != 0 || name[0] == '\0') return "this computer";
  const std::string text = base::escapedForDisplay(std::string_view(name.data()));
  return text.size() <= 64 ? text : "this computer";
}

/// The registry as a sealed setting of the vault whose values are in the store.
class PhoneLink::SealedRegistry final : public phone::Registry {
 public:
  explicit SealedRegistry(Stores& stores) : stores_(stores) {}

  bool isRead() const { return state_ == State::read; }
  bool isUnreadable() const { return state_ == State::unreadable; }
  void forget() { state_ = State::notRead; }
  /// From now on what cannot be read any more counts as nothing.
  void replace() { isReplaced_ = true; }

  std::optional<base::SecretText> load() override {
    state_ = State::notRead;
    try {
      auto record = withSettings(stores_, readRegistry);
      state_ = State::read;
      return record;
    } catch (const Unreadable& error) {
      state_ = State::unreadable;
      if (!isReplaced_) throw;
      base::diagnose("phone", error.sentence());
      state_ = State::read;
      return std::nullopt;
    }
  }
  void save(const base::SecretText& record) override {
    withSettings(stores_, [&](vault::SealedSettings& settings) {
      const auto save = [&] { vault::saveLongSetting(settings, vault::kPairedPhonesSetting, record.view()); };
      try {
        save();
      } catch (const vault::SettingError& error) {
        if (!isReplaced_ || error.kind() != vault::SettingError::Case::wrongKey) throw;
        settings.remove(vault::kPairedPhonesSetting);
        save();
      }
    });
    isReplaced_ = false;
  }

 private:
  enum class State { notRead, read, unreadable };
  Stores& stores_;
  std::atomic<State> state_ = State::notRead;
  std::atomic<bool> isReplaced_ = false;
};

PhoneLink::PhoneLink(Ports ports)
    : stores_(ports.stores),
      onChange_(std::move(ports.onChange)),
      registry_(std::make_unique<SealedRegistry>(ports.stores)),
      server_({*registry_, *announcer_, ports.clock, computerName(), [this] {
                 notePhones();
                 onChange_();
               }}) {}

PhoneLink::~PhoneLink() {
  close();
}

void PhoneLink::open() {
  const base::Lock lifecycle(lifecycle_);
  openNow();
}

void PhoneLink::close() {
  const base::Lock lifecycle(lifecycle_);
  closeNow();
}

void PhoneLink::reopen() {
  const base::Lock lifecycle(lifecycle_);
  closeNow();
  openNow();
}

void PhoneLink::openNow() {
  // A code that is shown stays good.
  if (isOpen_ && isKnown() && (server_.isServed() || server_.phones().empty())) return;
  closeNow();
  server_.open();
  isOpen_ = true;
}

void PhoneLink::closeNow() {
  if (std::exchange(isOpen_, false)) server_.close();
  registry_->forget();
}

void PhoneLink::openReplacing() {
  const base::Lock lifecycle(lifecycle_);
  openNow();
  if (!registry_->isUnreadable()) return;
  registry_->replace();
  openNow();
}

bool PhoneLink::isKnown() const {
  return registry_->isRead();
}

void PhoneLink::locked() {
  if (stores_.isSealed()) close();
}

void PhoneLink::notePhones() {
  const auto pairing = server_.pairing();
  std::set<std::string> ids;
  bool isNew = false;
  for (const auto& phone : server_.phones()) {
    isNew |= !knownIds_.contains(phone.id) && phone.name == pairing.deviceName;
    ids.insert(phone.id);
  }
  knownIds_ = std::move(ids);
  if (isNew && pairing.state == phone::ApproverServer::PairingState::paired) {
    base::diagnose("phone", "a phone was paired: '" + base::escapedForDisplay(pairing.deviceName) +
                                "'. It can answer from now on. If that was not you: sorvane phone revoke.");
  }
}

PhoneYes PhoneLink::unlockingYes() {
  try {
    const auto policy = withSettings(stores_, agent::ApprovalPolicy::read);
    const bool counts = policy.approver == agent::Approver::phone || policy.approver == agent::Approver::any;
    return counts ? PhoneYes::vouches : PhoneYes::none;
  } catch (const base::Error& error) {
    base::diagnose("phone",
                   "the approval policy could not be read, so a phone vouches for nobody: " + error.sentence());
    return PhoneYes::opens;
  }
}

bool PhoneLink::isConnected() const {
  const auto phones = server_.phones();
  return std::any_of(phones.begin(), phones.end(), [](const auto& phone) { return phone.connected; });
}

PhoneQuestions::Answer PhoneLink::ask(const phone::ApprovalDetails& details, const std::stop_token& withdrawn,
                                      Yes yes) {
  try {
    return server_.ask(details, withdrawn, yes);
  } catch (const std::exception& error) {
    base::diagnose("phone", error.what());
    return {};
  }
}

}  // namespace sorvane::app
