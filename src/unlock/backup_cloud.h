#pragma once

#include <string_view>

#include "unlock/backup_envelope.h"

namespace sorvane::unlock {

// The signed form of version 3. `text` is UTF-8; what is no JSON object of that form throws JsonCursor::Malformed.

/// Members that an uploaded backup has and a local file has not.
constexpr bool isCloudMember(std::string_view key) {
  return key == "vaultId" || key == "wraps";
}

CloudBackupEnvelope parseCloudEnvelope(std::string_view text);

/// Why an uploaded backup is not opened here: its signature can be checked against an account only, and there is none
/// on this computer. Throws BackupError when the account alone could open it, else CryptoError untrustedBackup.
[[noreturn]] void refuseCloudBackup(const CloudBackupEnvelope& envelope);

}  // namespace sorvane::unlock
