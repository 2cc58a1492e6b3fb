#include "base/codec.h"
#include "crypto/aead.h"
#include "crypto/derivation.h"
#include "crypto/digest.h"
#include "unlock/backup.h"
#include "unlock/backup_cloud.h"
#include "unlock/backup_keys.h"
#include "unlock/backup_recovery_key.h"

namespace sorvane::unlock {
namespace {

using Case = CryptoError::Case;

[[noreturn]] void askForSecret(const BackupEnvelope& envelope) {
  const bool passphrase = envelope.passphraseWrap.has_value(), recoveryKey = envelope.recoveryWrap.has_value();
  if (passphrase || recoveryKey) throw BackupError(sentence::neededToOpen(passphrase, recoveryKey));
  throw CryptoError(Case::malformedBackup);  // nothing at all opens it
}

crypto::SymmetricKey dataKey(const BackupEnvelope& envelope, const BackupSecret& secret) {
  if (secret.passphrase && secret.recoveryKey) throw BackupError(sentence::kOneMethod);
  if (secret.passphrase) {
    if (!envelope.passphraseWrap) throw BackupError(sentence::kHasNoPassphrase);
    return unwrapDataKey(envelope, *envelope.passphraseWrap, backupPassphraseKey(envelope, *secret.passphrase));
  }
  if (secret.recoveryKey) {
    if (!envelope.recoveryWrap) throw BackupError(sentence::kHasNoRecoveryKey);
    return unwrapDataKey(envelope, *envelope.recoveryWrap, recoveryWrappingKey(secret.recoveryKey->view()));
  }
  askForSecret(envelope);
}

void requireAcceptedNames(const BackupPayload& payload) {
  for (const vault::Project& project : payload.projects) {
    for (const vault::EnvBinding& binding : project.bindings) {
      if (!vault::isVariableName(binding.envVarName)) {
        throw BackupError(sentence::variableNotAccepted(binding.envVarName, project.name));
      }
    }
  }
}

BackupPayload openPlain(const BackupEnvelope& envelope) {
  BackupPayload payload = decodePayload(envelope.plaintext->view());
  const auto matches = [&](Slashes slashes) {
    return envelope.checksum == base::base64(payloadDigest(payload, slashes));
  };
  if (!matches(Slashes::plain) && !matches(Slashes::escaped)) throw CryptoError(Case::malformedBackup);
  return payload;
}

}  // namespace

crypto::SymmetricKey backupPassphraseKey(const BackupEnvelope& envelope, const base::SecretText& passphrase) {
  if (envelope.argon2) {
    try {
      return crypto::passphraseKey(passphrase.view(), envelope.salt, *envelope.argon2);
    } catch (const crypto::PassphraseKeyError& error) {
      // An empty text and bytes that are no text are no passphrase of any backup.
      if (error.kind() != crypto::PassphraseKeyError::Case::invalidPassword) throw;
      throw CryptoError(Case::wrongSecret);
    }
  }
  if (!envelope.iterations) throw CryptoError(Case::malformedBackup);
  base::SecretText key;
  key.resize(crypto::SymmetricKey::kBytes);
  crypto::pbkdf2Sha256(passphrase.bytes(), envelope.salt, *envelope.iterations,
                       {reinterpret_cast<std::uint8_t*>(key.data()), key.size()});
  return *crypto::SymmetricKey::fromBytes(key.bytes());
}

std::string_view associatedDataOf(const BackupEnvelope& envelope) {
  return envelope.version == kPbkdf2BackupVersion ? std::string_view() : kBackupAssociatedData;
}

crypto::SymmetricKey unwrapDataKey(const BackupEnvelope& envelope, const base::Bytes& wrap,
                                   const crypto::SymmetricKey& wrappingKey) {
  const auto opened = crypto::open(wrappingKey, wrap, associatedDataOf(envelope));
  if (!opened) throw CryptoError(Case::wrongSecret);
  auto key = crypto::SymmetricKey::fromBytes(opened->bytes());
  if (!key) throw CryptoError(Case::malformedBackup);
  return *std::move(key);
}

base::SecretText openPayload(const BackupEnvelope& envelope, const crypto::SymmetricKey& key) {
  auto text = crypto::open(key, envelope.payload, associatedDataOf(envelope));
  if (!text || !isText(text->view())) throw CryptoError(Case::malformedBackup);
  return *std::move(text);
}

OpenedBackup openBackup(const ParsedBackup& parsed, const BackupSecret& secret) {
  if (const auto* const cloud = std::get_if<CloudBackupEnvelope>(&parsed)) refuseCloudBackup(*cloud);
  const BackupEnvelope& envelope = std::get<BackupEnvelope>(parsed);
  OpenedBackup opened;
  opened.payload = envelope.protection == BackupEnvelope::Protection::none
                       ? openPlain(envelope)
                       : decodePayload(openPayload(envelope, dataKey(envelope, secret)).view());
  requireAcceptedNames(opened.payload);
  return opened;
}

BackupOperations::Turn BackupOperations::begin() {
  if (busy_.exchange(true)) throw BackupError(sentence::kBackupInProgress);
  return Turn(busy_);
}

}  // namespace sorvane::unlock
