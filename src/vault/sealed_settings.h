#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "base/error.h"
#include "base/secret_text.h"

namespace sorvane::vault {

class SecretStore;

/// SettingError tells why a sealed setting could not be read or saved; its sentence may be shown.
class SettingError : public base::Error {
 public:
  enum class Case { storage, wrongKey };
  SettingError(Case kind, const std::string& sentence) : Error(sentence), kind_(kind) {}
  Case kind() const { return kind_; }

 private:
  Case kind_;
};

/// SealedSettings keeps small records sealed under the vault key, one credential-store item each: AES-256-GCM with the
/// associated data "sorvane.sealed." + name + ".v1", as base64 text. A record may be at most kMaxSettingBytes long,
/// which is what fits the store once sealed. Safe from any thread. The names in use are constants below.
class SealedSettings {
 public:
  static constexpr std::size_t kMaxSettingBytes = 3000;

  virtual ~SealedSettings() = default;
  /// nullopt when the setting was never saved. Throws SettingError: wrongKey when the vault key does not open it
  /// or is gone.
  virtual std::optional<base::SecretText> load(std::string_view name) = 0;
  virtual void save(std::string_view name, std::string_view record) = 0;
  virtual void remove(std::string_view name) = 0;
};

/// The settings of the vault whose values are in `store`, for those that must read them before the vault opens. The
/// store outlives them.
std::unique_ptr<SealedSettings> sealedSettingsIn(SecretStore& store);

inline constexpr std::string_view kApprovalPolicySetting = "approval-policy";
inline constexpr std::string_view kAgentClientsSetting = "agent-clients";
inline constexpr std::string_view kSecuritySetting = "security-settings";
inline constexpr std::string_view kLocalProxySetting = "local-proxy";
inline constexpr std::string_view kLocalProxyWitnessSetting = "local-proxy-witness";
inline constexpr std::string_view kLocalProxyAnchorSetting = "local-proxy-anchor";
inline constexpr std::string_view kProxyLedgerHeadSetting = "proxy-ledger-head";
inline constexpr std::string_view kPairedPhonesSetting = "paired-phones";

}  // namespace sorvane::vault
