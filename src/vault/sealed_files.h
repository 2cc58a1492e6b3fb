#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "base/secret_text.h"
#include "crypto/key.h"
#include "vault/secret_store.h"

namespace sorvane::vault {

// The files of a generation.
inline constexpr std::string_view kSecretsFile = "secrets.json";
inline constexpr std::string_view kProjectsFile = "projects.json";
inline constexpr std::string_view kCloudCacheFile = "cloud-cache.json";
inline constexpr std::string_view kAccessLogFile = "access_log.jsonl";
inline constexpr std::string_view kOldAccessLogFile = "access_log.json";

/// Makes the vault key and keeps it in the store under its reserved account. Called once, when a vault is created.
crypto::SymmetricKey makeVaultKey(SecretStore& store);

/// The vault key; nullopt when the store has none or what it has is no key. Other failures of the store pass through.
/// Callers keep it for one operation.
std::optional<crypto::SymmetricKey> readVaultKey(SecretStore& store);

/// Where a sealed file belongs. A file opens only under the generation and the name that it was sealed for.
struct SealedName {
  std::string_view generation;
  std::string_view file;
};

base::Bytes sealFile(const crypto::SymmetricKey& key, const SealedName& name, std::string_view text);
/// nullopt when the key, the name or a byte is not the one it was sealed with.
std::optional<base::SecretText> openFile(const crypto::SymmetricKey& key, const SealedName& name,
                                         std::span<const std::uint8_t> sealed);

}  // namespace sorvane::vault
