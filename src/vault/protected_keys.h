#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "base/error.h"
#include "base/mutex.h"
#include "vault/proxy_provider.h"

namespace sorvane::vault {

class SealedSettings;
class SecretStore;

/// ProtectionError holds a value back; the code is for programs, the sentence for people.
class ProtectionError : public base::Error {
 public:
  static ProtectionError isProtected(std::string_view name);
  static ProtectionError keyInside();
  static ProtectionError unclear(std::string_view variable);
  static ProtectionError settingsRemoved();
  static ProtectionError twoKeys(ProxyProvider provider, std::string_view first, std::string_view second);
  const std::string& code() const { return code_; }

 private:
  ProtectionError(std::string code, const std::string& sentence) : Error(sentence), code_(std::move(code)) {}
  std::string code_;
};

/// LocalProxySettings is what the owner protects, and how.
struct LocalProxySettings {
  /// By secret id.
  std::map<std::string, ProxyProvider> protectedSecrets;
  /// Variables that held a protected key, by environment id: another key that is bound there stays protected.
  std::map<std::string, std::map<std::string, ProxyProvider>> variables;
  /// The proxy's own options as JSON text, which the vault only keeps; empty until they are first set.
  std::string options;
  bool operator==(const LocalProxySettings&) const = default;
};

/// Whether the settings can be relied on. `removed`: they are missing, older than the last ones, or were changed by
/// somebody else; what the last known ones protect stays protected.
enum class ProtectionState { none, present, removed };

/// ProtectedKeys keeps LocalProxySettings in the sealed setting "local-proxy". Two more settings let it notice that
/// this one was taken away or put back to an earlier state: "local-proxy-witness" holds the digests of the settings
/// that may stand there (the last ones, and while they are saved those before), "local-proxy-anchor" the least serial
/// number they may have; the account "__sorvane_local_proxy_saved__" says, without any seal, that they were saved at
/// all. Any thread; failures of the store are SettingError.
class ProtectedKeys {
 public:
  ProtectedKeys(SealedSettings& settings, SecretStore& store) : settings_(settings), store_(store) {}

  struct Known {
    ProtectionState state = ProtectionState::none;
    /// Never null; with `removed` the last ones known, which may be empty.
    std::shared_ptr<const LocalProxySettings> settings;
  };
  /// As last read or saved; reads the store the first time only.
  Known known();
  /// Reads and checks the stored settings.
  Known verified();
  /// Throws ProtectionError while the settings are `removed`.
  void save(const LocalProxySettings& settings);
  /// The owner looked at what is left and wants it to hold: what is known becomes the settings.
  void confirm();

 private:
  struct Stored;
  Stored readStored() REQUIRES(proxySettingsSaveLock_);
  void read() REQUIRES(proxySettingsSaveLock_);
  void write(const LocalProxySettings& settings) REQUIRES(proxySettingsSaveLock_);

  SealedSettings& settings_;
  SecretStore& store_;
  // Held over the settings, which it guards.
  base::Mutex proxySettingsSaveLock_;
  bool wasRead_ GUARDED_BY(proxySettingsSaveLock_) = false;
  Known known_ GUARDED_BY(proxySettingsSaveLock_);
  std::int64_t serial_ GUARDED_BY(proxySettingsSaveLock_) = 0;  ///< highest seen
};

}  // namespace sorvane::vault
