#include "app/phone_link.h"

#include <limits.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <utility>

#include "base/diagnostics.h"
#include "base/unicode.h"
#include "unlock/unlock_error.h"
#include "vault/long_setting.h"
#include "vault/sealed_settings.h"

namespace sorvane::app {
namespace {

const std::string kInPieces =
    "The list of paired phones cannot be read: a piece of it is gone. No phone can answer. Restore the credential "
    "store, "
    "or pair the phones again.";

}  // namespace

std::string computerName() {
  std::array<char, HOST_NAME_MAX + 1> name{};
  if (::gethostname(name.data(), name.size() - 1) != 0 || name[0] == '\0') return "this computer";
  // A host name has at most 64 bytes here.
  const std::string text = base::escapedForDisplay(std::string_view(name.data()));
  return text.size() <= 64 ? text : "this computer";
}

/// The registry as a sealed setting of the vault whose values are in the store.
class PhoneLink::SealedRegistry final : public phone::Registry {
 private:
  /// While the vault is locked the store in use is closed; one that needs no passphrase is opened beside it.
  template <typename Work>
  auto withSettings(const Work& work) {
    try {
      return work(*vault::sealedSettingsIn(stores_.inUse()));
    } catch (const unlock::UnlockError&) {
      const auto store = stores_.openBeside();
      return work(*vault::sealedSettingsIn(*store));
    }
  }

 public:
  explicit SealedRegistry(Stores& stores) : stores_(stores) {}

  std::optional<base::SecretText> load() override {
    return withSettings([](vault::SealedSettings& settings) -> std::optional<base::SecretText> {
      std::optional<std::string> text;
      try {
        text = vault::loadLongSetting(settings, vault::kPairedPhonesSetting, kInPieces);
      } catch (const vault::SettingError& error) {
        // Of a vault that was before this one: its phones know another computer, and are paired anew.
        if (error.kind() != vault::SettingError::Case::wrongKey) throw;
        base::diagnose("phone", error.sentence());
      }
      if (!text) return std::nullopt;
      base::SecretText record(*text);
      base::wipe(*text);
      return record;
    });
  }
  void save(const base::SecretText& record) override {
    withSettings([&](vault::SealedSettings& settings) {
      try {
        vault::saveLongSetting(settings, vault::kPairedPhonesSetting, record.view());
      } catch (const vault::SettingError& error) {
        if (error.kind() != vault::SettingError::Case::wrongKey) throw;
        settings.remove(vault::kPairedPhonesSetting);
        vault::saveLongSetting(settings, vault::kPairedPhonesSetting, record.view());
      }
    });
  }

 private:
  Stores& stores_;
};

PhoneLink::PhoneLink(Ports ports)
    : stores_(ports.stores),
      registry_(std::make_unique<SealedRegistry>(ports.stores)),
      server_({*registry_, announcer_, ports.clock, computerName(), std::move(ports.onChange)}) {}

PhoneLink::~PhoneLink() {
  close();
}

void PhoneLink::open() {
  if (isOpen_ && server_.isServed()) return;
  close();
  server_.open();
  isOpen_ = true;
}

void PhoneLink::close() {
  if (std::exchange(isOpen_, false)) server_.close();
}

void PhoneLink::locked() {
  if (stores_.isSealed()) close();
}

bool PhoneLink::isConnected() const {
  const auto phones = server_.phones();
  return std::any_of(phones.begin(), phones.end(), [](const auto& phone) { return phone.connected; });
}

PhoneQuestions::Answer PhoneLink::ask(const phone::ApprovalDetails& details, const std::stop_token& withdrawn) {
  try {
    return server_.ask(details, withdrawn);
  } catch (const std::exception& error) {
    base::diagnose("phone", error.what());
    return {};
  }
}

}  // namespace sorvane::app
