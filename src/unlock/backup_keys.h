#pragma once

#include <string_view>

#include "base/secret_text.h"
#include "crypto/key.h"
#include "unlock/backup_envelope.h"

namespace sorvane::unlock {

// The keys of an encrypted file: a wrapping key from what a person enters, the data key under it, the payload under
// that.

/// Argon2id or PBKDF2, as the envelope says. Throws CryptoError wrongSecret for a text that can be no passphrase and
/// malformedBackup when the file does not say how.
crypto::SymmetricKey backupPassphraseKey(const BackupEnvelope& envelope, const base::SecretText& passphrase);

/// What is authenticated with every box of the file.
std::string_view associatedDataOf(const BackupEnvelope& envelope);

/// Throws CryptoError wrongSecret when the wrap does not open, malformedBackup when what is in it is no key.
crypto::SymmetricKey unwrapDataKey(const BackupEnvelope& envelope, const base::Bytes& wrap,
                                   const crypto::SymmetricKey& wrappingKey);

/// The payload's JSON, which is UTF-8. Throws CryptoError malformedBackup.
base::SecretText openPayload(const BackupEnvelope& envelope, const crypto::SymmetricKey& key);

}  // namespace sorvane::unlock
