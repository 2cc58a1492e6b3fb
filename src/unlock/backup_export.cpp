#include <algorithm>
#include <array>

#include "base/codec.h"
#include "base/ids.h"
#include "base/unicode.h"
#include "crypto/aead.h"
#include "crypto/digest.h"
#include "unlock/backup.h"
#include "unlock/backup_keys.h"
#include "unlock/backup_recovery_key.h"

namespace sorvane::unlock {
namespace {

constexpr std::array kWords{std::pair{BackupProtection::none, std::string_view("none")},
                            std::pair{BackupProtection::passphrase, std::string_view("passphrase")},
                            std::pair{BackupProtection::recoveryKey, std::string_view("recoveryKey")}};

void requirePassphrase(const base::SecretText& passphrase) {
  if (passphrase.empty()) throw BackupError(sentence::kPassphraseEmpty);
  if (base::characterCount(passphrase.view()) < kMinBackupPassphraseCharacters) {
    throw BackupError(sentence::kPassphraseShort);
  }
}

void requireSize(std::size_t bytes) {
  if (bytes > kMaxBackupBytes) throw BackupError(sentence::kVaultTooLarge);
}

/// One export under way.
class Exporter {
 public:
  Exporter(const BackupChoice& choice, const BackupProgress& progress) : choice_(choice), progress_(progress) {}

  BackupExport run(BackupPayload payload) {
    result_.secretCount = static_cast<std::int64_t>(payload.secrets.size());
    const bool plain = choice_.protection == BackupProtection::none;
    requireBackupChoice(choice_, payload.secrets);
    base::SecretText text = encodePayload(payload);
    requireSize(plain ? text.size() : base::base64Size(text.size()));
    const Counts counts = countsOf(payload);
    payload = {};  // a large vault is not kept in memory twice
    digest_ = crypto::sha256(text.bytes());
    BackupEnvelope envelope = plain ? plainEnvelope(std::move(text)) : sealedEnvelope(std::move(text));
    at(BackupStep::encoding);
    result_.data = encodeEnvelope(envelope);
    requireSize(result_.data.size());
    envelope = {};
    at(BackupStep::verifying);
    verify(counts);
    return std::move(result_);
  }

 private:
  struct Counts {
    std::size_t secrets, projects, audit, values;
    bool operator==(const Counts&) const = default;
  };
  static Counts countsOf(const BackupPayload& p) {
    return {p.secrets.size(), p.projects.size(), p.audit.size(), p.values.size()};
  }

  void at(BackupStep step) const {
    if (progress_) progress_(step);
  }

  BackupEnvelope plainEnvelope(base::SecretText text) const {
    BackupEnvelope envelope;
    envelope.protection = BackupEnvelope::Protection::none;
    envelope.checksum = base::base64(digest_);
    envelope.plaintext = std::move(text);
    return envelope;
  }

  BackupEnvelope sealedEnvelope(const base::SecretText text) {
    BackupEnvelope envelope;
    const crypto::SymmetricKey key = crypto::SymmetricKey::random();
    at(BackupStep::sealing);
    envelope.payload = crypto::seal(key, text.bytes(), kBackupAssociatedData);
    at(BackupStep::wrapping);
    const auto wrap = [&](const crypto::SymmetricKey& wrappingKey) {
      return crypto::seal(wrappingKey, key.bytes(), kBackupAssociatedData);
    };
    if (choice_.protection == BackupProtection::passphrase) {
      envelope.salt.resize(crypto::kPassphraseSaltBytes);
      base::fillRandom(envelope.salt);
      envelope.argon2 = crypto::PassphraseCost{};
      passphraseKey_ = backupPassphraseKey(envelope, choice_.passphrase);
      envelope.passphraseWrap = wrap(*passphraseKey_);
      salt_ = envelope.salt;
    }
    if (choice_.protection == BackupProtection::recoveryKey || choice_.withRecoveryKey) {
      result_.recoveryKey = newRecoveryKey();
      envelope.recoveryWrap = wrap(recoveryWrappingKey(result_.recoveryKey->view()));
    }
    return envelope;
  }

  /// Opens the encoded file again with each secret that shall open it.
  void verify(const Counts& counts) const try {
    const ParsedBackup parsed = parseBackup(result_.data.view());
    const BackupEnvelope& envelope = std::get<BackupEnvelope>(parsed);
    if (envelope.protection == BackupEnvelope::Protection::none) {
      return require(countsOf(openBackup(parsed, {}).payload) == counts);
    }
    std::optional<crypto::SymmetricKey> key;
    if (passphraseKey_) {
      // The derivation is not paid twice: the file says the same salt and cost as those the key was derived with.
      require(envelope.salt == salt_ && envelope.argon2 == crypto::PassphraseCost{} && envelope.passphraseWrap);
      key = unwrapDataKey(envelope, *envelope.passphraseWrap, *passphraseKey_);
    }
    if (result_.recoveryKey) {
      require(envelope.recoveryWrap.has_value());
      auto recovered =
          unwrapDataKey(envelope, *envelope.recoveryWrap, recoveryWrappingKey(result_.recoveryKey->view()));
      require(!key || std::ranges::equal(key->bytes(), recovered.bytes()));
      key = std::move(recovered);
    }
    require(key.has_value());
    const base::SecretText text = openPayload(envelope, *key);
    require(crypto::sha256(text.bytes()) == digest_ && countsOf(decodePayload(text.view())) == counts);
  } catch (const CryptoError&) {
    throw BackupError(sentence::kNotVerified);
  }

  static void require(bool holds) {
    if (!holds) throw BackupError(sentence::kNotVerified);
  }

  const BackupChoice& choice_;
  const BackupProgress& progress_;
  BackupExport result_;
  crypto::Sha256Digest digest_{};
  std::optional<crypto::SymmetricKey> passphraseKey_;
  base::Bytes salt_;
};

}  // namespace

std::string_view word(BackupProtection protection) {
  return kWords[static_cast<std::size_t>(protection)].second;
}

BackupProtection backupProtectionOf(std::string_view word) {
  for (const auto& [protection, name] : kWords) {
    if (name == word) return protection;
  }
  throw BackupError(sentence::kChooseProtection);
}

void requireBackupChoice(const BackupChoice& choice, const std::vector<vault::Secret>& secrets) {
  if (choice.protection == BackupProtection::none && limitsDeploymentTargets(secrets)) {
    throw BackupError(sentence::kPlainWouldExpose);
  }
  if (choice.protection == BackupProtection::passphrase) requirePassphrase(choice.passphrase);
}

BackupExport exportBackup(BackupPayload payload, const BackupChoice& choice, const BackupProgress& progress) {
  return Exporter(choice, progress).run(std::move(payload));
}

}  // namespace sorvane::unlock
