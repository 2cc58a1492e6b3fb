#pragma once

#include <cstddef>

#include "unlock/backup_payload.h"

namespace sorvane::unlock {

/// The longest name of a secret, an environment or a variable that a backup may carry, in bytes.
inline constexpr std::size_t kMaxNameBytes = 4096;

/// Throws unless a vault could hold these records: BackupError, with the name, for one that a person could not read,
/// and CryptoError malformedBackup for what vault::isRestorable refuses, for a name that two have, and for a variable
/// that is twice in an environment. A variable may be bound to a secret that is gone: a vault has such variables as
/// well.
void requireSoundRecords(const BackupPayload& payload);

}  // namespace sorvane::unlock
