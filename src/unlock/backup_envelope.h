#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "base/secret_text.h"
#include "crypto/passphrase_key.h"

namespace sorvane::unlock {

// The file around a payload, as docs/backup-format.md lays it down: recognised, read and validated here, before any key
// is derived.

/// 256 MB: the most that is read, and that is written.
inline constexpr std::size_t kMaxBackupBytes = 268'435'456;
inline constexpr std::string_view kBackupFormat = "sorvane-backup";
/// What is written now, and the version before it.
inline constexpr std::int64_t kBackupVersion = 2;
inline constexpr std::int64_t kPbkdf2BackupVersion = 1;
/// Authenticated with the payload and the wraps of version 2; version 1 has none.
inline constexpr std::string_view kBackupAssociatedData = "sorvane-backup:2:encrypted";
/// Iterations times KiB that one file may ask for.
inline constexpr std::int64_t kMaxArgon2Product = 786'432;

/// BackupEnvelope is the local file.
struct BackupEnvelope {
  std::int64_t version = kBackupVersion;
  enum class Protection { none, encrypted };
  Protection protection = Protection::encrypted;
  base::Bytes salt;                              ///< 16 bytes when there is a passphrase
  std::optional<std::int64_t> iterations;        ///< of PBKDF2, version 1
  std::optional<crypto::PassphraseCost> argon2;  ///< of Argon2id, version 2
  std::optional<base::Bytes> passphraseWrap;
  std::optional<base::Bytes> recoveryWrap;
  base::Bytes payload;                        ///< the sealed payload of an encrypted file
  std::optional<base::SecretText> plaintext;  ///< the payload's JSON as it stands in a file without encryption
  std::optional<std::string> checksum;
};

/// CloudBackupEnvelope is the signed form that is uploaded. This computer has no account: it is told apart and refused.
struct CloudBackupEnvelope {
  struct Wrap {
    enum class Kind { passphrase, recovery, account };
    /// Those of the wrap's kind are there, the others may be.
    struct Params {
      std::optional<std::string> kdf, info, encoding, scheme;
      std::optional<base::Bytes> salt;
      std::optional<std::int64_t> memoryKiB, iterations, parallelism;
    };
    Kind kind = Kind::account;
    Params params;
    base::Bytes ct;
  };
  struct Signer {
    std::string kind;  ///< "ed25519"
    base::Bytes publicKey;
  };
  std::string vaultId;
  std::optional<std::string> parent;
  std::vector<Wrap> wraps;
  std::optional<Signer> signer;
  base::Bytes payload;
  base::Bytes signature;
};

using ParsedBackup = std::variant<BackupEnvelope, CloudBackupEnvelope>;

/// Reads and validates a file. Throws BackupError "Check that this is an sorvane backup file." for what is neither
/// form, kFileTooLarge above kMaxBackupBytes, and CryptoError malformedBackup for a local file that breaks a rule.
ParsedBackup parseBackup(std::string_view text);

/// The text of a file of version 2. Only what the envelope holds is written.
base::SecretText encodeEnvelope(const BackupEnvelope& envelope);

}  // namespace sorvane::unlock
