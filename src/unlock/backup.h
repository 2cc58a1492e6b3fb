#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "base/secret_text.h"
#include "unlock/backup_envelope.h"
#include "unlock/backup_error.h"
#include "unlock/backup_payload.h"

namespace sorvane::unlock {

/// How a person protects a backup. The stored words are the names of the cases.
enum class BackupProtection { none, passphrase, recoveryKey };
std::string_view word(BackupProtection protection);
/// Throws BackupError "Choose passphrase, recoveryKey, or none." for any other word.
BackupProtection backupProtectionOf(std::string_view word);

inline constexpr std::size_t kMinBackupPassphraseCharacters = 12;

struct BackupChoice {
  BackupProtection protection = BackupProtection::passphrase;
  base::SecretText passphrase;
  /// With a passphrase: a recovery key as well, so that either opens the file.
  bool withRecoveryKey = false;
};

struct BackupExport {
  base::SecretText data;                        ///< the bytes of the file
  std::optional<base::SecretText> recoveryKey;  ///< grouped; shown once and kept nowhere
  std::int64_t secretCount = 0;
};

/// Throws BackupError for a passphrase that is none, and for a file without encryption that would expose a version
/// which is limited to deployment targets.
void requireBackupChoice(const BackupChoice& choice, const std::vector<vault::Secret>& secrets);

/// What a long piece of work is at; called between steps from the thread that asked for it. What it throws stops the
/// work with nothing saved; throw BackupError(sentence::kExportCancelled) for a person's wish.
enum class BackupStep { sealing, wrapping, encoding, verifying };
using BackupProgress = std::function<void(BackupStep step)>;

/// Seals a payload into the bytes of a file of version 2 and opens these again before it returns. Throws BackupError
/// and CryptoError.
BackupExport exportBackup(BackupPayload payload, const BackupChoice& choice, const BackupProgress& progress = {});

/// What a person enters to open an encrypted backup: one of the two.
struct BackupSecret {
  std::optional<base::SecretText> passphrase;
  std::optional<base::SecretText> recoveryKey;
};

struct OpenedBackup {
  BackupPayload payload;
  /// Which vault a backup from the cloud belongs to; a local file has none.
  struct Binding {
    std::string vaultId;
    std::optional<std::string> parent;
  };
  std::optional<Binding> binding;
};

/// Opens what parseBackup returned. Without a secret an encrypted file gives the sentence that asks for it. Variable
/// names that sorvane does not accept refuse the whole backup. `parsed` keeps nothing that was opened.
OpenedBackup openBackup(const ParsedBackup& parsed, const BackupSecret& secret);

/// BackupOperations lets one backup operation run at a time. Any thread.
class BackupOperations {
 public:
  /// Turn is one operation, for as long as it lives.
  class Turn {
   public:
    explicit Turn(std::atomic<bool>& busy) : busy_(&busy) {}
    Turn(Turn&& other) noexcept : busy_(std::exchange(other.busy_, nullptr)) {}
    Turn& operator=(Turn&&) = delete;
    ~Turn() {
      if (busy_ != nullptr) busy_->store(false);
    }

   private:
    std::atomic<bool>* busy_;
  };
  /// Throws BackupError "Another backup operation is in progress.".
  Turn begin();

 private:
  std::atomic<bool> busy_ = false;
};

}  // namespace sorvane::unlock
