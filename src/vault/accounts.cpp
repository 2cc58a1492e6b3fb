#include "vault/accounts.h"

#include <array>
#include <charconv>

namespace sorvane::vault {
namespace {

constexpr std::string_view kVersionMark = "#v";
constexpr std::array kReservedNames{kMetadataKeyAccount, kKeychainMovedAccount, kApprovalPolicyAccount,
                                    kLocalProxySavedAccount};
constexpr std::array kReservedPrefixes{kSealedAccountPrefix, kCloudAccountPrefix, kPendingAccountPrefix};

}  // namespace

std::string accountOf(std::string_view secretId, std::int64_t version) {
  return std::string(secretId).append(kVersionMark).append(std::to_string(version));
}

std::string namespacedAccount(std::string_view nameSpace, std::string_view account) {
  return std::string("restore:").append(nameSpace).append(":").append(account);
}

std::optional<VersionAccount> parseVersionAccount(std::string_view account) {
  if (isReservedAccount(account)) return std::nullopt;
  const std::size_t mark = account.rfind(kVersionMark);
  if (mark == std::string_view::npos || mark == 0) return std::nullopt;
  const std::string_view digits = account.substr(mark + kVersionMark.size());
  std::int64_t version = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), version);
  if (digits.empty() || error != std::errc{} || end != digits.data() + digits.size()) return std::nullopt;
  return VersionAccount{std::string(account.substr(0, mark)), version};
}

bool isReservedAccount(std::string_view account) {
  for (const std::string_view name : kReservedNames) {
    if (account == name) return true;
  }
  for (const std::string_view prefix : kReservedPrefixes) {
    if (account.starts_with(prefix)) return true;
  }
  return false;
}

std::string sealedSettingAccount(std::string_view name) {
  return std::string(kSealedAccountPrefix).append(name).append("__");
}

}  // namespace sorvane::vault
