#pragma once

#include <string_view>

#include "base/clock.h"
#include "base/secret_text.h"
#include "crypto/digest.h"
#include "vault/vault_contents.h"

namespace sorvane::unlock {

/// BackupPayload is a whole vault at one moment.
struct BackupPayload : vault::VaultContents {
  base::Date exportedAt;
};

// The JSON of a payload, as docs/backup-format.md lays it down.

/// The largest text of one record, and how many tags and targets there may be in all. Both lie far above what a vault
/// holds and bound the memory that a file of somebody's making takes.
inline constexpr std::size_t kMaxRecordBytes = 8U << 20;
inline constexpr std::size_t kMaxListItems = 4'000'000;
/// The largest cached state of the cloud account that is passed through.
inline constexpr std::size_t kMaxCloudCacheBytes = 16U << 20;

/// Whether any version may be delivered to certain targets only.
bool limitsDeploymentTargets(const std::vector<vault::Secret>& secrets);

/// Sorted keys, no white space, forward slashes plain: the form that the checksum is taken of. With a version that is
/// limited to targets the payload is wrapped under a format marker.
base::SecretText encodePayload(const BackupPayload& payload);

/// How forward slashes stand in the text that a checksum is taken of: plain, or each behind a backslash as macOS's
/// standard encoder writes them.
enum class Slashes { plain, escaped };

/// The SHA-256 of what encodePayload gives, without ever holding all of it. Throws as encodePayload.
crypto::Sha256Digest payloadDigest(const BackupPayload& payload, Slashes slashes);

/// Whether the text is UTF-8, decided at the speed of memory.
bool isText(std::string_view text);

/// Throws CryptoError newerBackupVersion for a foreign format marker and malformedBackup for everything else that is
/// no payload. Keys it does not know are passed over. `text` must be UTF-8.
BackupPayload decodePayload(std::string_view text);

}  // namespace sorvane::unlock
