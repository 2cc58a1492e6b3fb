#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "agent/owner_lock.h"
#include "agent/owner_restore.h"
#include "base/secret_text.h"

namespace sorvane::agent {

// The wire format of "owner.sock", which serves the lock of the vault whether the vault is open or not. Framed as on
// the agent socket; docs/owner-protocol.md describes it.

enum class OwnerOp {
  status,
  unlock,
  lock,
  setPassphrase,
  changePassphrase,
  removePassphrase,
  require,
  followSession,
  reset,
  backupPreview,
  backupRestore
};
inline constexpr std::size_t kOwnerOpCount = 11;
/// The wire name, which is the name of the case.
std::string_view word(OwnerOp op);

/// A request as it stands on the wire. Which fields an operation takes is one table, beside the decoder.
struct OwnerRequest {
  OwnerOp op = OwnerOp::status;
  /// Opens the vault, is the present one that a change asks for, or opens a backup.
  std::optional<base::SecretText> passphrase;
  std::optional<base::SecretText> newPassphrase, confirmation;
  /// "off", "withSystem" or "only".
  std::optional<std::string> requirement;
  std::optional<bool> follows;
  std::optional<OwnerLock::Method> method;
  std::optional<OwnerLock::Lock> lock;
  /// What opens a backup in the place of its passphrase.
  std::optional<base::SecretText> recoveryKey;
  /// The whole path of a backup, and the digest of the one that was shown.
  std::optional<std::string> file, sha256;
  bool protectKeys = false;
  /// The sender shows the system's questions itself while it waits.
  bool answersItself = false;
};

/// An answer as it stands on the wire: how the request ended and, to `status`, the report; to `backupPreview`, what the
/// backup holds. There is no value and no name of a vault in it.
struct OwnerAnswer {
  LockOutcome outcome;
  std::optional<LockReport> status;
  std::optional<BackupCounts> backup{};

  static OwnerAnswer refused(std::string code, std::string sentence);
};

// Encoders never fail for valid UTF-8. Decoders are pure and take foreign bytes: nullopt unless the text is one JSON
// object of the right shape, as the decoders of the agent socket have it. A request must hold the fields that its
// operation needs, and none that it does not know; unknown fields of an answer are passed over.
base::SecretText encodeOwnerRequest(const OwnerRequest& request);
std::optional<OwnerRequest> decodeOwnerRequest(std::string_view text);
base::SecretText encodeOwnerAnswer(const OwnerAnswer& answer);
std::optional<OwnerAnswer> decodeOwnerAnswer(std::string_view text);

}  // namespace sorvane::agent
