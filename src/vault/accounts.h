#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace sorvane::vault {

// Reserved accounts of the credential store, never shown as secrets.
inline constexpr std::string_view kMetadataKeyAccount = "__sorvane_metadata_key__";
inline constexpr std::string_view kKeychainMovedAccount = "__sorvane_keychain_moved__";
inline constexpr std::string_view kApprovalPolicyAccount = "__sorvane_approval_policy__";
inline constexpr std::string_view kLocalProxySavedAccount = "__sorvane_local_proxy_saved__";
inline constexpr std::string_view kSealedAccountPrefix = "__sorvane_sealed_";
inline constexpr std::string_view kCloudAccountPrefix = "__sorvane_cloud_";
inline constexpr std::string_view kPendingAccountPrefix = "__sorvane_pending_";

/// The value of one secret version.
struct VersionAccount {
  std::string secretId;
  std::int64_t version = 0;
  bool operator==(const VersionAccount&) const = default;
};

/// secretId + "#v" + version.
std::string accountOf(std::string_view secretId, std::int64_t version);

/// "restore:" + name space + ":" + account: where a restore puts a value, beside those of the vault before it.
std::string namespacedAccount(std::string_view nameSpace, std::string_view account);

/// Splits at the last "#v"; nullopt unless the part before is not empty and the part behind is a decimal integer, or
/// when the account is reserved.
std::optional<VersionAccount> parseVersionAccount(std::string_view account);

bool isReservedAccount(std::string_view account);

/// "__sorvane_sealed_" + name + "__".
std::string sealedSettingAccount(std::string_view name);

}  // namespace sorvane::vault
